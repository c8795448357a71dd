// The host's ElementServer: the process-wide front of the simulated element tree.
#include "host/elementServer.h"
#include "panelsim/hostCall.h"
#include "panelsim/simulator.h"

using namespace panelsim::detail;

namespace
{

Simulator& sim()
{
    return Simulator::instance();
}

unsigned uuidOf(Element const* element)
{
    const InternalCall internal;
    return element ? element->GetUUID() : 0;
}

std::string uuidText(Element const* element)
{
    return element ? hex(uuidOf(element)) : std::string("null");
}

// The found element of a search, with its error word: 0 when found, else the given status.
Element found(unsigned uuid, int* error, int status)
{
    if (error)
        *error = uuid != 0 ? kOk : status;
    return Element(uuid);
}

// First element of a walk that satisfies `matches`, or 0.
// Walks from `start`, the root when it is null.
void walk(Element const* start, bool childrenOnly, bool includeStart, const WalkVisitor& visit)
{
    const unsigned uuid = uuidOf(start);
    sim().walk(start ? &uuid : nullptr, childrenOnly, includeStart, visit);
}

template <typename Matches>
unsigned firstMatch(Element const* start, bool childrenOnly, bool includeStart, Matches matches)
{
    unsigned match = 0;
    walk(start, childrenOnly, includeStart, [&](unsigned uuid, bool&) {
        if (matches(uuid))
            match = uuid;
        return match == 0;
    });
    return match;
}

} // namespace

ElementServer* ElementServer::GetElementServer()
{
    static ElementServer server;
    hostCall("ElementServer::GetElementServer");
    return &server;
}

Element ElementServer::GetRoot(int* error)
{
    int status = hostCall("ElementServer::GetRoot");
    const unsigned root = status == 0 ? sim().root(status) : 0;
    if (error)
        *error = status;
    return Element(root);
}

int ElementServer::Lock(LockPolicy policy)
{
    if (const int failed =
            hostCall("ElementServer::Lock", nullptr, [&] { return std::to_string(policy); }))
        return failed;
    return sim().lock(policy);
}

int ElementServer::UnLock()
{
    if (const int failed = hostCall("ElementServer::UnLock"))
        return failed;
    return sim().unlock();
}

int ElementServer::OpenEventDispatcher()
{
    if (const int failed = hostCall("ElementServer::OpenEventDispatcher"))
        return failed;
    return sim().openDispatcher();
}

int ElementServer::CloseEventDispatcher()
{
    if (const int failed = hostCall("ElementServer::CloseEventDispatcher"))
        return failed;
    return sim().closeDispatcher();
}

Element ElementServer::AddElement(Element* parent, unsigned short type, bool bCheckChildType,
                                  int* error, bool bValidate)
{
    int status = hostCall("ElementServer::AddElement", nullptr, [&] {
        return list({uuidText(parent), hex(type), text(bCheckChildType), text(bValidate)});
    });
    const unsigned parentUuid = uuidOf(parent);
    const unsigned uuid = status == 0 ? sim().add(parent ? &parentUuid : nullptr, type,
                                                  bCheckChildType, bValidate, status)
                                      : 0;
    if (error)
        *error = status;
    return Element(uuid);
}

int ElementServer::DeleteElement(Element& element, bool bChildrenOnly)
{
    if (const int failed = hostCall("ElementServer::DeleteElement", nullptr, [&] {
            return list({uuidText(&element), text(bChildrenOnly)});
        }))
        return failed;
    return sim().remove(uuidOf(&element), bChildrenOnly);
}

int ElementServer::DeleteElementWaitForNoticication(Element& element)
{
    if (const int failed = hostCall("ElementServer::DeleteElementWaitForNoticication", nullptr,
                                    [&] { return uuidText(&element); }))
        return failed;
    return sim().removeAnnounced(uuidOf(&element));
}

Element ElementServer::GetElementByProperty(Element const* start, Property* property, int* error,
                                            bool bChildrenOnly, bool bIncludeStart)
{
    unsigned short id = 0;
    unsigned short size = 0;
    const void* data = nullptr;
    if (property)
    {
        const InternalCall internal;
        id = property->GetID();
        data = property->GetData(&size);
    }
    if (const int failed = hostCall("ElementServer::GetElementByProperty", nullptr, [&] {
            return list({uuidText(start),
                         "Property(" + hex(id) + ", " + std::to_string(size) + " bytes)",
                         text(bChildrenOnly), text(bIncludeStart)});
        }))
        return found(0, error, failed);
    const std::string wanted(static_cast<const char*>(data), data ? size : 0);
    const unsigned match =
        !property ? 0 : firstMatch(start, bChildrenOnly, bIncludeStart, [&](unsigned uuid) {
            bool hasValue = false;
            std::string bytes;
            return sim().property(uuid, id, hasValue, bytes) && hasValue == (data != nullptr) &&
                   bytes == wanted;
        });
    return found(match, error, kConflict);
}

Element ElementServer::GetElementByType(Element const* start, unsigned short type, int* error,
                                        bool bChildrenOnly, bool bIncludeStart)
{
    if (const int failed = hostCall("ElementServer::GetElementByType", nullptr, [&] {
            return list({uuidText(start), hex(type), text(bChildrenOnly), text(bIncludeStart)});
        }))
        return found(0, error, failed);
    return found(firstMatch(start, bChildrenOnly, bIncludeStart,
                            [&](unsigned uuid) { return sim().type(uuid) == type; }),
                 error, kConflict);
}

void ElementServer::EnumElement(Element const* start, bool (*visitor)(Element&, void*, bool&),
                                void* context, bool bChildrenOnly, bool bIncludeStart)
{
    if (hostCall("ElementServer::EnumElement", nullptr,
                 [&] {
                     return list({uuidText(start), text(bChildrenOnly), text(bIncludeStart)});
                 }) != 0 ||
        visitor == nullptr)
        return;
    walk(start, bChildrenOnly, bIncludeStart, [&](unsigned uuid, bool& skipChildren) {
        Element element(uuid);
        return visitor(element, context, skipChildren);
    });
}

Element ElementServer::FindElementWithTypeChain(const unsigned short* chain, int* error)
{
    int status = hostCall("ElementServer::FindElementWithTypeChain", nullptr, [&] {
        std::string types;
        for (const unsigned short* t = chain; t && *t != 0; ++t)
            types += (types.empty() ? "" : ", ") + hex(*t);
        return "{" + types + "}";
    });
    const unsigned uuid = status == 0 ? sim().findByTypeChain(chain, status) : 0;
    if (error)
        *error = status;
    return Element(uuid);
}

int ElementServer::SubscribeByType(unsigned short type, unsigned int eventId, bool bOneShot,
                                   unsigned int pid)
{
    if (const int failed = hostCall("ElementServer::SubscribeByType", nullptr, [&] {
            return list({hex(type), hex(eventId), text(bOneShot), std::to_string(pid)});
        }))
        return failed;
    return sim().subscribe(true, type, eventId, bOneShot, pid);
}

int ElementServer::Un_SubscribeByType(unsigned short type, unsigned int eventId, unsigned int pid)
{
    if (const int failed = hostCall("ElementServer::Un_SubscribeByType", nullptr, [&] {
            return list({hex(type), hex(eventId), std::to_string(pid)});
        }))
        return failed;
    return sim().unsubscribe(true, type, eventId, pid);
}

int ElementServer::AddReferenceRelation(Element& holder, Element& target,
                                        unsigned short relationType, bool bReplace)
{
    if (const int failed = hostCall("ElementServer::AddReferenceRelation", nullptr, [&] {
            return list({uuidText(&holder), uuidText(&target), hex(relationType), text(bReplace)});
        }))
        return failed;
    return sim().addRelation(uuidOf(&holder), uuidOf(&target), relationType, bReplace);
}

int ElementServer::DeleteReferenceRelation(Element& holder, Element& target,
                                           unsigned short relationType, bool bAllOfType)
{
    if (const int failed = hostCall("ElementServer::DeleteReferenceRelation", nullptr, [&] {
            return list(
                {uuidText(&holder), uuidText(&target), hex(relationType), text(bAllOfType)});
        }))
        return failed;
    return sim().deleteRelation(uuidOf(&holder), uuidOf(&target), relationType, bAllOfType);
}
