// The event detail record: which identities and addresses an event on an element reports, decided
// by the element's category. Every tree access goes through the gateway's own exported operations
// with a null client handle.
#include <cstddef>
#include <vector>

#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"
#include "identity/gatewayIdentity.h"

namespace
{

constexpr UINT32 kAddressProperty = 0x30004;
constexpr UINT32 kDeviceIdProperty = 0x30005;
constexpr UINT32 kProxyRelation = 0x20002;

constexpr UINT32 tagged(UINT32 typeNumber)
{
    return 0x70000u | typeNumber;
}

constexpr UINT32 kEvacuationZone = tagged(0x0167);

// Types that decide the category by themselves, before the parent is looked at.
struct TypeCategory
{
    UINT32 type;
    int category;
};

constexpr TypeCategory kCategoryOfType[] = {
    {tagged(0x0002), 1},  {tagged(0x0007), 1},  {tagged(0x0045), 2},  {tagged(0x0103), 9},
    {tagged(0x0104), 9},  {tagged(0x6101), 10}, {tagged(0x6102), 10}, {tagged(0x6103), 10},
    {tagged(0x0156), 11}, {tagged(0x015A), 11}, {tagged(0x0166), 11}, {tagged(0x0167), 11},
    {tagged(0x6104), 11}, {tagged(0x0085), 12},
};

bool inRange(UINT32 type, UINT32 first, UINT32 last)
{
    return tagged(first) <= type && type <= tagged(last);
}

template <std::size_t N>
bool isOneOf(UINT32 type, const UINT32 (&numbers)[N])
{
    for (UINT32 number : numbers)
    {
        if (type == tagged(number))
        {
            return true;
        }
    }
    return false;
}

bool parentTypeIsOneOf(unsigned int uuid, UINT32 first, UINT32 second)
{
    const UINT32 parent = EGW_ELementServerGetParentUuid(uuid, nullptr);
    if (parent == 0)
    {
        return false;
    }
    const UINT32 type = EGW_ElementServerGetElementTypeByUuid(parent, nullptr);
    return type == tagged(first) || type == tagged(second);
}

// A failed read leaves the field as the caller set it.
void readInto(UINT32& field, unsigned int uuid, UINT32 propertyId)
{
    EGW_ElementServerGetPropertyIntDataById(uuid, propertyId, field, nullptr);
}

std::vector<int> visibleProxies(unsigned int uuid, bool direction)
{
    std::vector<int> proxies;
    EGW_BASIC_THRIFT_GetVisibleRelationElementList(uuid, kProxyRelation, direction, proxies,
                                                   nullptr);
    return proxies;
}

// What an event of each category reports. The steps always run in the order self, parent, proxy,
// device; the element's own uuid is reported in every category that reports anything.
enum class ProxyStep
{
    None,
    First,
    EvacuationZone
};

enum class DeviceStep
{
    None,
    Element,
    Parent
};

struct CategoryFill
{
    bool reports;
    bool selfAddress;
    bool parentId;
    bool parentAddress;
    ProxyStep proxy;
    DeviceStep device;
};

constexpr CategoryFill kFillOfCategory[] = {
    /* 0 */ {false, false, false, false, ProxyStep::None, DeviceStep::None},
    /* 1 */ {true, false, false, false, ProxyStep::None, DeviceStep::None},
    /* 2 */ {true, true, false, false, ProxyStep::None, DeviceStep::None},
    /* 3 */ {true, true, true, true, ProxyStep::None, DeviceStep::None},
    /* 4 */ {true, true, true, true, ProxyStep::None, DeviceStep::None},
    /* 5 */ {true, true, true, true, ProxyStep::None, DeviceStep::Element},
    /* 6 */ {true, true, true, false, ProxyStep::First, DeviceStep::Parent},
    /* 7 */ {true, true, false, false, ProxyStep::First, DeviceStep::Element},
    /* 8 */ {true, true, false, false, ProxyStep::EvacuationZone, DeviceStep::Element},
    /* 9 */ {true, true, true, true, ProxyStep::First, DeviceStep::Parent},
    /* 10 */ {true, true, false, false, ProxyStep::First, DeviceStep::None},
    /* 11 */ {true, true, false, false, ProxyStep::None, DeviceStep::None},
    /* 12 */ {true, true, false, false, ProxyStep::EvacuationZone, DeviceStep::Parent},
    /* 13 */ {false, false, false, false, ProxyStep::None, DeviceStep::None},
    /* 14 */ {true, true, false, false, ProxyStep::None, DeviceStep::None},
};

// Elements of category 12 keep the addresses 131 and 132 for what the panel's display shows as 1
// and 3; every other address is shown as stored.
constexpr int kRenumberedCategory = 12;

void renumberDisplayAddress(UINT32& address)
{
    if (address == 131)
    {
        address = 1;
    }
    else if (address == 132)
    {
        address = 3;
    }
}

} // namespace

ENEventFormat::ENEventFormat() = default;

bool ENEventFormat::IsInputZone(unsigned int uuid)
{
    return parentTypeIsOneOf(uuid, 0x0156, 0x015A);
}

bool ENEventFormat::IsChildOfBoradOr4MCard(unsigned int uuid)
{
    return parentTypeIsOneOf(uuid, 0x0013, 0x0039);
}

bool ENEventFormat::IsIO_Module_FD_FRD(unsigned int type)
{
    static constexpr UINT32 kSingles[] = {0x0073, 0x0074, 0x0401};
    return inRange(type, 0x0061, 0x0067) || isOneOf(type, kSingles);
}

bool ENEventFormat::IsChannelOfIOModule(unsigned int type)
{
    static constexpr UINT32 kChannels[] = {0x0100, 0x0101, 0x0102, 0x0105};
    return isOneOf(type, kChannels);
}

bool ENEventFormat::IsDetector(unsigned int type)
{
    static constexpr UINT32 kSingles[] = {0x0048, 0x0049};
    return isOneOf(type, kSingles) || inRange(type, 0x0050, 0x0055) ||
           inRange(type, 0x0075, 0x0079);
}

bool ENEventFormat::IsAddresSounder(unsigned int type)
{
    static constexpr UINT32 kSounders[] = {0x0069, 0x0070, 0x007A, 0x0081, 0x0083};
    return isOneOf(type, kSounders);
}

int ENEventFormat::CheckCategoryByType(unsigned int uuid)
{
    const UINT32 type = EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
    for (const TypeCategory& row : kCategoryOfType)
    {
        if (row.type == type)
        {
            return row.category;
        }
    }
    // The parent's type is asked first, then the element's own type sets.
    struct Test
    {
        bool (ENEventFormat::*holds)(unsigned int);
        bool takesUuid;
        int category;
    };
    static constexpr Test kTests[] = {
        {&ENEventFormat::IsInputZone, true, 3},
        {&ENEventFormat::IsChildOfBoradOr4MCard, true, 4},
        {&ENEventFormat::IsIO_Module_FD_FRD, false, 5},
        {&ENEventFormat::IsChannelOfIOModule, false, 6},
        {&ENEventFormat::IsDetector, false, 7},
        {&ENEventFormat::IsAddresSounder, false, 8},
    };
    for (const Test& test : kTests)
    {
        // GCOVR_EXCL_BR_START: the call through the member pointer tests for a virtual function
        if ((this->*test.holds)(test.takesUuid ? uuid : type))
        {
            return test.category;
        }
        // GCOVR_EXCL_BR_STOP
    }
    return type != 0 ? 14 : 0;
}

void ENEventFormat::GetSelfIDAndAddress(unsigned int uuid, ENENT_FIELD& field, bool withId,
                                        bool withAddress)
{
    if (withId)
    {
        field.SelfID = uuid;
    }
    if (withAddress)
    {
        readInto(field.SelfAddress, uuid, kAddressProperty);
    }
}

void ENEventFormat::GetParentIDAndAdress(unsigned int uuid, ENENT_FIELD& field, bool withId,
                                         bool withAddress)
{
    const UINT32 parent = EGW_ELementServerGetParentUuid(uuid, nullptr);
    if (withId)
    {
        field.ParentID = parent;
    }
    if (withAddress)
    {
        readInto(field.ParentAddress, parent, kAddressProperty);
    }
}

void ENEventFormat::GetDeviceID(unsigned int uuid, ENENT_FIELD& field, bool fromParent)
{
    const UINT32 device = fromParent ? EGW_ELementServerGetParentUuid(uuid, nullptr) : uuid;
    readInto(field.DeviceID, device, kDeviceIdProperty);
}

unsigned int ENEventFormat::GetProxyElementID(unsigned int uuid, bool direction)
{
    const std::vector<int> proxies = visibleProxies(uuid, direction);
    return proxies.empty() ? 0 : static_cast<unsigned int>(proxies.front());
}

unsigned int ENEventFormat::GetProxyEvacZoneID(unsigned int uuid, bool direction)
{
    for (int proxy : visibleProxies(uuid, direction))
    {
        const auto candidate = static_cast<unsigned int>(proxy);
        if (EGW_ElementServerGetElementTypeByUuid(candidate, nullptr) == kEvacuationZone)
        {
            return candidate;
        }
    }
    return 0;
}

void ENEventFormat::GetProxyIDAndAddress(unsigned int uuid, ENENT_FIELD& field, bool direction,
                                         bool withProxyParent, bool evacZone)
{
    const unsigned int proxy =
        evacZone ? GetProxyEvacZoneID(uuid, direction) : GetProxyElementID(uuid, direction);
    if (proxy == 0)
    {
        return;
    }
    field.HasProxy = true;
    field.ProxyID = proxy;
    readInto(field.ProxyAddress, proxy, kAddressProperty);
    if (withProxyParent)
    {
        GetParentIDAndAdress(proxy, field, true, true);
    }
}

int ENEventFormat::GetEventDetails(unsigned int uuid, ENENT_FIELD& field)
{
    const int category = CheckCategoryByType(uuid);
    const CategoryFill& fill = kFillOfCategory[category];
    if (!fill.reports)
    {
        return category;
    }
    GetSelfIDAndAddress(uuid, field, true, fill.selfAddress);
    if (category == kRenumberedCategory)
    {
        renumberDisplayAddress(field.SelfAddress);
    }
    if (fill.parentId)
    {
        GetParentIDAndAdress(uuid, field, true, fill.parentAddress);
    }
    if (fill.proxy != ProxyStep::None)
    {
        GetProxyIDAndAddress(uuid, field, true, true, fill.proxy == ProxyStep::EvacuationZone);
    }
    if (fill.device != DeviceStep::None)
    {
        GetDeviceID(uuid, field, fill.device == DeviceStep::Parent);
    }
    return category;
}
