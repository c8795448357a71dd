// Subscriptions in bulk: every command, state-group change or property change of an element type,
// a filtered choice of its state groups, and the notifications of the waited deletion.
#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"

namespace
{

// Event ids carry the definition's 16-bit id under the event's own high half.
constexpr UINT32 kCommandEvent = 0x00060000;
constexpr UINT32 kStateGroupChangeEvent = 0x03010000;
constexpr UINT32 kPropertyChangeEvent = 0x03020000;
constexpr UINT32 kDeletedFirstEvent = 0xF0010000;
constexpr UINT32 kDeletedSecondEvent = 0xF0020000;

UINT32 eventOf(UINT32 eventBase, UINT32 definitionId)
{
    return eventBase | (definitionId & 0xFFFFu);
}

// The second notification is subscribed only after the first one was accepted.
template <typename Subscribe>
INT32 subscribeDeletedEvents(bool bSecondEvent, Subscribe subscribe)
{
    const INT32 result = subscribe(kDeletedFirstEvent);
    if (!bSecondEvent || 0 != result)
    {
        return result;
    }
    return subscribe(kDeletedSecondEvent);
}

// Subscribes the state-change event of every group of the type that `accept` lets through. The
// single subscriptions' results are not looked at: the answer says only that the groups could be
// listed.
template <typename Accept>
BOOL subscribeStateGroups(UINT32 pid, UINT32 elementType, void* client, Accept accept)
{
    if (0 == elementType)
    {
        return FALSE;
    }
    std::vector<unsigned int> groups;
    if (!EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, elementType))
    {
        return FALSE;
    }
    for (unsigned int group : groups)
    {
        if (accept(group))
        {
            EGW_ElementServerSubscribeByType(pid, elementType,
                                             eventOf(kStateGroupChangeEvent, group), client);
        }
    }
    return TRUE;
}

bool anyGroup(unsigned int)
{
    return true;
}

} // namespace

INT32 EGW_SubscribeDeletedElementForWaitingNotifyByType(UINT32 pid, UINT32 elementType,
                                                        bool bSecondEvent, void* client)
{
    return subscribeDeletedEvents(bSecondEvent, [&](UINT32 event) {
        return EGW_ElementServerSubscribeByType(pid, elementType, event, client);
    });
}

INT32 EGW_SubscribeDeletedElementForWaitingNotifyByElement(UINT32 pid, UINT32 uuid,
                                                           bool bSecondEvent, void* client)
{
    return subscribeDeletedEvents(bSecondEvent, [&](UINT32 event) {
        return EGW_ElementServerSubscribeByElement(pid, uuid, event, client);
    });
}

BOOL EGW_BASIC_THRIFT_SubscribeAllCommands(UINT32 pid, UINT32 elementType, void* client)
{
    if (0 == elementType)
    {
        return FALSE;
    }
    std::vector<unsigned int> commands;
    if (0 == EGW_ELementServerGetCommandListByElementTypeId(commands, elementType))
    {
        return FALSE;
    }
    for (unsigned int command : commands)
    {
        EGW_ElementServerSubscribeByType(pid, elementType, eventOf(kCommandEvent, command), client);
    }
    return TRUE;
}

BOOL EGW_BASIC_THRIFT_SubscribeAllStateChange(UINT32 pid, UINT32 elementType, void* client)
{
    return subscribeStateGroups(pid, elementType, client, anyGroup);
}

// The filtered forms take no client handle and subscribe with a null one. An empty filter is
// refused here rather than handed to the group tests, which treat it as a caller error.
BOOL EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(
    UINT32 pid, UINT32 elementType, const std::vector<unsigned int>& stateIdList)
{
    if (0 == elementType || stateIdList.empty())
    {
        return FALSE;
    }
    return subscribeStateGroups(pid, elementType, nullptr, [&](unsigned int group) {
        return EGW_BASIC_CheckInductStateIDInGroup(group, stateIdList) != FALSE;
    });
}

BOOL EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList(
    UINT32 pid, UINT32 elementType, const std::vector<S_EGWStateCategoryStruct>& categoryList)
{
    if (0 == elementType || categoryList.empty())
    {
        return FALSE;
    }
    return subscribeStateGroups(pid, elementType, nullptr, [&](unsigned int group) {
        return EGW_BASIC_CheckInductStateCategoryInGroup(group, categoryList) != FALSE;
    });
}

// Its answers run the other way from its sisters': 1 when the type has no properties and nothing
// was subscribed, 0 after every property was subscribed.
BOOL EGW_BASIC_THRIFT_SubscribeAllPropertyChange(UINT32 pid, UINT32 elementType, void* client)
{
    if (0 == elementType)
    {
        return 0;
    }
    std::vector<EGW_PropertyDef_Thrift> properties;
    if (0 == EGW_ELementServerGetPropertyInformationList(elementType, properties))
    {
        return 1;
    }
    for (const EGW_PropertyDef_Thrift& property : properties)
    {
        EGW_ElementServerSubscribeByType(
            pid, elementType, eventOf(kPropertyChangeEvent, property.PropertyID), client);
    }
    return 0;
}
