// Finding elements in the tree (root, parent, children, first match below a start, the panel's
// fixed sub-tree roots) and the reference relations between elements.
#include <array>
#include <cstddef>
#include <list>

#include "api/callingFrame.h"
#include "api/gatewayApi.h"

namespace
{

// What the sub-tree root searches share with their visitor: the types that match, and the uuid
// of the first element that matched (0 until one does).
struct TypeMatchContext
{
    UINT32 found;
    std::list<unsigned short> types;
};

// Ends the enumeration at the first element whose type is one of the context's types.
bool MatchElementTypeInList(Element& element, void* context, bool&)
{
    TypeMatchContext& match = *static_cast<TypeMatchContext*>(context);
    const unsigned short type = element.GetType();
    for (unsigned short wanted : match.types)
    {
        if (wanted == type)
        {
            match.found = element.GetUUID();
            return false;
        }
    }
    return true;
}

// One level of a sub-tree root search: either of two type numbers, in this order.
using SearchLevel = std::array<unsigned short, 2>;

constexpr SearchLevel kPanelLevel = {0x0007, 0x0169};
constexpr SearchLevel kHardwareLevels[] = {kPanelLevel, {0x0008, 0x0170}};
constexpr SearchLevel kP2Levels[] = {kPanelLevel, {0x0008, 0x0170}, {0x0044, 0x0171}};
constexpr SearchLevel kDetectionLevels[] = {kPanelLevel, {0x0154, 0x0292}};
constexpr SearchLevel kControlLevels[] = {kPanelLevel};
// Below the panel element the control root is the first element of this type.
constexpr unsigned short kControlRootType = 0x0328;

UINT32 enumerateLevel(ElementServer& es, const Element& start, TypeMatchContext& context,
                      const SearchLevel& level)
{
    context.found = 0;
    context.types.assign(level.begin(), level.end());
    es.EnumElement(&start, &MatchElementTypeInList, &context, false, true);
    return context.found;
}

// Goes down from the tree root level by level, each level's first match being the next start.
// `error` receives GetRoot's error word. The last level's element, or 0.
template <std::size_t N>
UINT32 searchLevels(ElementServer& es, int& error, const SearchLevel (&levels)[N])
{
    TypeMatchContext context{0, {}};
    {
        const Element root = es.GetRoot(&error);
        if (error != 0 || enumerateLevel(es, root, context, levels[0]) == 0)
        {
            return 0;
        }
    }
    for (std::size_t i = 1; i < N; ++i)
    {
        // GCOVR_EXCL_BR_START: also instantiated for one level, where the loop never runs
        const Element start(context.found);
        if (enumerateLevel(es, start, context, levels[i]) == 0)
        {
            return 0;
        }
        // GCOVR_EXCL_BR_STOP
    }
    return context.found;
}

template <std::size_t N>
UINT32 subtreeRoot(const SearchLevel (&levels)[N])
{
    int error = 0;
    return searchLevels(egw::server(), error, levels);
}

// The uuid of an element returned with an error word; 0 when the word reports an error.
UINT32 uuidUnlessError(const Element& element, int error)
{
    return error == 0 ? element.GetUUID() : 0;
}

void appendUuids(std::vector<int>& uuids, const std::list<Element>& elements)
{
    for (const Element& element : elements)
    {
        uuids.push_back(static_cast<int>(element.GetUUID()));
    }
}

using RelationChange = int (ElementServer::*)(Element&, Element&, unsigned short, bool);

BOOL changeRelation(RelationChange change, int holderUuid, int targetUuid, UINT32 relationType)
{
    ElementServer& es = egw::server();
    Element holder(static_cast<unsigned int>(holderUuid));
    Element target(static_cast<unsigned int>(targetUuid));
    // GCOVR_EXCL_BR_START: the call through the member pointer tests for a virtual function
    return egw::boolFromStatus((es.*change)(holder, target, egw::low16(relationType), false));
    // GCOVR_EXCL_BR_STOP
}

} // namespace

UINT32 EGW_ELementServerGetTreeRoot(void*)
{
    int error = 0;
    const Element root = egw::server().GetRoot(&error);
    return uuidUnlessError(root, error);
}

UINT32 EGW_ELementServerGetParentUuid(UINT32 uuid, void*)
{
    Element element(uuid);
    int error = 0;
    const Element parent = element.GetParent(&error);
    return uuidUnlessError(parent, error);
}

void EGW_ELementServerGetChildrenUuidList(std::vector<int>& uuids, UINT32 uuid, void*)
{
    Element element(uuid);
    appendUuids(uuids, element.GetChildrenList());
}

UINT32 EGW_ELementServerGetElementByProperty(UINT32 rootElementUuid, UINT32 propertyId,
                                             const void* pPropertyData, UINT16 mPropertyDataSize,
                                             bool bChildrenOnly, void*)
{
    constexpr const char* kFn = "UINT32 EGW_ELementServerGetElementByProperty(UINT32, UINT32, "
                                "const void*, UINT16, bool, void*)";
    EGW_REQUIRE(__null != pPropertyData, kFn, 0);
    EGW_REQUIRE(0 != rootElementUuid, kFn, 0);
    EGW_REQUIRE(mPropertyDataSize > 0, kFn, 0);
    ElementServer& es = egw::server();
    Property wanted(egw::low16(propertyId));
    // The host only reads the bytes; its interface is not const-correct.
    wanted.SetData(const_cast<void*>(pPropertyData), mPropertyDataSize);
    const Element start(rootElementUuid);
    int error = 0;
    const Element found = es.GetElementByProperty(&start, &wanted, &error, bChildrenOnly, false);
    return uuidUnlessError(found, error);
}

UINT32 EGW_ELementServerGetElementByElementTypeId(UINT32 startUuid, UINT32 ElementTypeId,
                                                  bool bChildrenOnly, void*)
{
    EGW_REQUIRE(ElementTypeId != 0,
                "UINT32 EGW_ELementServerGetElementByElementTypeId(UINT32, UINT32, bool, void*)",
                0);
    const unsigned short type = egw::low16(ElementTypeId);
    ElementServer& es = egw::server();
    int error = 0;
    Element start = startUuid != 0 ? Element(startUuid) : es.GetRoot(&error);
    if (error != 0)
    {
        return 0;
    }
    // The start counts as the first element of its own type.
    if (start.GetType() == type)
    {
        return start.GetUUID();
    }
    const Element found = es.GetElementByType(&start, type, &error, bChildrenOnly, true);
    return uuidUnlessError(found, error);
}

UINT32 EGW_ELementServerGetHardwareTreeRoot(void*)
{
    return subtreeRoot(kHardwareLevels);
}

UINT32 EGW_ELementServerGetP2TreeRoot(void*)
{
    return subtreeRoot(kP2Levels);
}

UINT32 EGW_ELementServerGetDetectionTreeRoot(void*)
{
    return subtreeRoot(kDetectionLevels);
}

UINT32 EGW_ELementServerGetControlTreeRoot(void*)
{
    ElementServer& es = egw::server();
    int error = 0;
    const UINT32 panelUuid = searchLevels(es, error, kControlLevels);
    if (panelUuid == 0)
    {
        return 0;
    }
    // The error word is still GetRoot's 0.
    const Element start(panelUuid);
    const Element control = es.GetElementByType(&start, kControlRootType, &error, false, false);
    return uuidUnlessError(control, error);
}

BOOL EGW_ELementServerAddReferenceRelation(int holderUuid, int targetUuid, UINT32 relationType,
                                           void*)
{
    return changeRelation(&ElementServer::AddReferenceRelation, holderUuid, targetUuid,
                          relationType);
}

BOOL EGW_ELementServerDelReferenceRelation(int holderUuid, int targetUuid, UINT32 relationType,
                                           void*)
{
    return changeRelation(&ElementServer::DeleteReferenceRelation, holderUuid, targetUuid,
                          relationType);
}

void EGW_ElementServerGetReferenceRelations(std::vector<int>& uuids, UINT32 uuid,
                                            UINT32 relationType, int bForward, void*)
{
    Element element(uuid);
    appendUuids(uuids, element.GetReferenceRelations(egw::low16(relationType), bForward != 0));
}
