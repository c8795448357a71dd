// The host's value classes: Property, CTreeItem and Element. Every constructor and destructor
// keeps the live-object counters; every operation enters through hostCall and then asks the
// simulator.
#include <algorithm>
#include <atomic>
#include <vector>

#include "host/elementServer.h"
#include "panelsim/hostCall.h"
#include "panelsim/simulator.h"

using namespace panelsim::detail;

namespace
{

std::atomic<long> liveElementCount{0};
std::atomic<long> livePropertyCount{0};
std::atomic<long> outlivingPropertyCount{0};

// Which Property object was taken from or written through which Element object, while both live.
// Kept per thread: host objects are made and dropped within one call of the thread that made them.
struct Link
{
    const Property* property;
    const Element* element;
};
thread_local std::vector<Link> links;

void link(const Property* property, const Element* element)
{
    if (std::none_of(links.begin(), links.end(),
                     [&](const Link& l) { return l.property == property && l.element == element; }))
        links.push_back({property, element});
}

// A copy of a property was taken from the same elements as the original.
void copyLinks(const Property* original, const Property* copy)
{
    for (std::size_t i = 0, n = links.size(); i < n; ++i)
    {
        if (links[i].property == original)
            links.push_back({copy, links[i].element});
    }
}

template <typename Member, typename Object>
std::size_t unlink(Member Link::*member, const Object* object)
{
    const auto end = std::remove_if(links.begin(), links.end(),
                                    [&](const Link& l) { return l.*member == object; });
    const auto count = static_cast<std::size_t>(links.end() - end);
    links.erase(end, links.end());
    return count;
}

Simulator& sim()
{
    return Simulator::instance();
}

std::list<Element> elementsOf(const std::vector<unsigned>& uuids)
{
    std::list<Element> list;
    for (unsigned uuid : uuids)
        list.emplace_back(uuid);
    return list;
}

} // namespace

namespace panelsim
{

long liveElements()
{
    return liveElementCount;
}

long liveProperties()
{
    return livePropertyCount;
}

long propertiesOutlivingElements()
{
    return outlivingPropertyCount;
}

namespace detail
{

void resetReleaseOrder()
{
    outlivingPropertyCount = 0;
}

} // namespace detail

} // namespace panelsim

// ---- Property -----------------------------------------------------------------------------------

Property::Property(unsigned short propertyId) : m_id(propertyId), m_hasValue(false)
{
    ++livePropertyCount;
}

Property::Property(const Property& other)
    : m_id(other.m_id), m_hasValue(other.m_hasValue), m_bytes(other.m_bytes)
{
    ++livePropertyCount;
    copyLinks(&other, this);
}

Property& Property::operator=(const Property& other) = default;

Property::~Property()
{
    --livePropertyCount;
    if (!links.empty())
        unlink(&Link::property, this);
}

bool Property::IsEmpty()
{
    const unsigned id = m_id;
    return hostCall("Property::IsEmpty", &id) != 0 || !m_hasValue;
}

void* Property::GetData(unsigned short* size)
{
    const unsigned id = m_id;
    const bool none = hostCall("Property::GetData", &id) != 0 || !m_hasValue;
    if (size)
        *size = none ? 0 : static_cast<unsigned short>(m_bytes.size());
    return none ? nullptr : &m_bytes[0];
}

void Property::SetData(void* data, unsigned short size)
{
    const unsigned id = m_id;
    hostCall("Property::SetData", &id, [&] { return std::to_string(size) + " bytes"; });
    m_hasValue = true;
    m_bytes.assign(static_cast<const char*>(data), data ? size : 0);
}

unsigned short Property::GetID() const
{
    const unsigned id = m_id;
    hostCall("Property::GetID", &id);
    return m_id;
}

// ---- CTreeItem and Element ----------------------------------------------------------------------

unsigned int CTreeItem::GetUUID() const
{
    hostCall("CTreeItem::GetUUID", &m_uuid);
    return m_uuid;
}

Element::Element() : CTreeItem(0)
{
    ++liveElementCount;
}

Element::Element(unsigned int uuid) : CTreeItem(uuid)
{
    ++liveElementCount;
}

Element::Element(const Element& other) : CTreeItem(other.m_uuid)
{
    ++liveElementCount;
}

Element& Element::operator=(const Element& other) = default;

Element::~Element()
{
    --liveElementCount;
    if (!links.empty())
        outlivingPropertyCount += static_cast<long>(unlink(&Link::element, this));
}

unsigned short Element::GetType()
{
    return hostCall("Element::GetType", &m_uuid) != 0 ? 0 : sim().type(m_uuid);
}

Property Element::GetPropertyByPropertyID(unsigned short propertyId)
{
    Property property(propertyId);
    link(&property, this);
    if (hostCall("Element::GetPropertyByPropertyID", &m_uuid, [&] { return hex(propertyId); }) != 0)
        return property;
    bool hasValue = false;
    std::string bytes;
    if (sim().property(m_uuid, propertyId, hasValue, bytes) && hasValue)
    {
        const InternalCall internal;
        property.SetData(&bytes[0], static_cast<unsigned short>(bytes.size()));
    }
    return property;
}

int Element::SetProperty(Property& property, bool bSilent)
{
    link(&property, this);
    unsigned short id = 0;
    unsigned short size = 0;
    const void* data = nullptr;
    {
        const InternalCall internal;
        id = property.GetID();
        data = property.GetData(&size);
    }
    if (const int failed = hostCall("Element::SetProperty", &m_uuid, [&] {
            return "Property(" + hex(id) + ", " +
                   (data ? std::to_string(size) + " bytes" : "empty") + "), " + text(bSilent);
        }))
        return failed;
    const std::string bytes(static_cast<const char*>(data), data ? size : 0);
    return sim().setProperty(m_uuid, id, data != nullptr, bytes, bSilent);
}

int Element::Validate(bool bRecursive)
{
    if (const int failed = hostCall("Element::Validate", &m_uuid, [&] { return text(bRecursive); }))
        return failed;
    return sim().validate(m_uuid, bRecursive);
}

Element Element::GetParent(int* error)
{
    int status = hostCall("Element::GetParent", &m_uuid);
    const unsigned parent = status == 0 ? sim().parent(m_uuid, status) : 0;
    if (error)
        *error = status;
    return Element(parent);
}

std::list<Element> Element::GetChildrenList()
{
    if (hostCall("Element::GetChildrenList", &m_uuid) != 0)
        return {};
    return elementsOf(sim().children(m_uuid));
}

std::list<Element> Element::GetReferenceRelations(unsigned short relationType, bool bForward)
{
    if (hostCall("Element::GetReferenceRelations", &m_uuid, [&] {
            return list({hex(relationType), text(bForward)});
        }) != 0)
        return {};
    return elementsOf(sim().related(m_uuid, relationType, bForward));
}

int Element::SubscribeByElement(unsigned int eventId, bool bOneShot, unsigned int pid)
{
    if (const int failed = hostCall("Element::SubscribeByElement", &m_uuid, [&] {
            return list({hex(eventId), text(bOneShot), std::to_string(pid)});
        }))
        return failed;
    return sim().subscribe(false, m_uuid, eventId, bOneShot, pid);
}

int Element::Un_SubscribeByElement(unsigned int eventId, unsigned int pid)
{
    if (const int failed = hostCall("Element::Un_SubscribeByElement", &m_uuid, [&] {
            return list({hex(eventId), std::to_string(pid)});
        }))
        return failed;
    return sim().unsubscribe(false, m_uuid, eventId, pid);
}

unsigned int Element::GetState(unsigned short stateId)
{
    if (hostCall("Element::GetState", &m_uuid, [&] { return hex(stateId); }) != 0)
        return 0;
    return sim().state(m_uuid, stateId);
}

int Element::SetState(unsigned short stateId, unsigned int value, bool bSilent)
{
    if (const int failed = hostCall("Element::SetState", &m_uuid, [&] {
            return list({hex(stateId), hex(value), text(bSilent)});
        }))
        return failed;
    return sim().setState(m_uuid, stateId, value, bSilent);
}

int Element::ExecuteCommand(unsigned short commandId, Element* source, void* data,
                            unsigned short size, bool bSilent)
{
    if (const int failed = hostCall("Element::ExecuteCommand", &m_uuid, [&] {
            return list({hex(commandId), source ? hex(source->m_uuid) : "null",
                         std::to_string(size) + " bytes", text(bSilent)});
        }))
        return failed;
    return sim().execute(m_uuid, commandId, source ? source->m_uuid : 0, data, size, bSilent);
}
