// Default values and default states from the type definitions: integer defaults, the access
// levels' default passwords, the default state of every state group, and the reset of an element
// to those states.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"
#include "host/debugPrint.h"

namespace
{

// The default passwords are the defaults of four properties of this element type.
constexpr UINT32 kAccessLevelElementType = 0x70007;
constexpr UINT32 kPasswordL2 = 0x30010;
constexpr UINT32 kPasswordL3 = 0x30011;
constexpr UINT32 kPasswordL3_1 = 0x3000C;
constexpr UINT32 kPasswordL4 = 0x301F0;

// A default text may begin with the UTF-8 byte-order mark, which is no part of the value.
const char* withoutByteOrderMark(const std::string& text)
{
    static constexpr char kMark[] = "\xEF\xBB\xBF";
    const bool marked = text.compare(0, sizeof kMark - 1, kMark) == 0;
    return text.c_str() + (marked ? sizeof kMark - 1 : 0);
}

// The first record of the property counts when the type lists it more than once.
const PropertyDefaultDef* firstDefaultOf(const std::vector<PropertyDefaultDef>& defaults,
                                         UINT32 propertyId)
{
    for (const PropertyDefaultDef& record : defaults)
    {
        if (record.PropertyID == propertyId)
        {
            return &record;
        }
    }
    return nullptr;
}

// strtol as the panel has it: its long is 32 bits, so a text out of that range gives the 32-bit
// limit. The conversion is done at 64 bits and clamped, so a 64-bit host long (on which strtol
// would let e.g. 4294967295 through unchanged) gives the panel's answer too.
INT32 panelStrtol(const char* text)
{
    const long long converted = std::strtoll(text, nullptr, 10);
    if (converted > INT32_MAX)
    {
        return INT32_MAX;
    }
    if (converted < INT32_MIN)
    {
        return INT32_MIN;
    }
    return static_cast<INT32>(converted);
}

bool isPasswordProperty(UINT32 propertyId)
{
    return propertyId == kPasswordL3_1 || propertyId == kPasswordL2 || propertyId == kPasswordL3 ||
           propertyId == kPasswordL4;
}

} // namespace

BOOL EGW_BASIC_GetDefaultIntegerTypeProperty(UINT32 elementTypeId, UINT32 propertyId, UINT32& value)
{
    value = 0;
    if (!IsNumberTypeByPropertyID(propertyId, nullptr))
    {
        return FALSE;
    }
    std::vector<PropertyDefaultDef> defaults;
    if (0 == EGW_ELementServerGetPropertyDefaultDataList(elementTypeId, defaults))
    {
        return FALSE;
    }
    const PropertyDefaultDef* record = firstDefaultOf(defaults, propertyId);
    if (record == nullptr)
    {
        return FALSE;
    }
    const char* text = withoutByteOrderMark(record->DefaultValue);
    // A negative default is kept as its two's complement: the text -1 gives 0xFFFFFFFF.
    value = static_cast<UINT32>(panelStrtol(text));
    DebugPrint(5, egw::kModuleTag,
               "Element[0x%x]--Property[0x%x] default value is %d, calue string is %s !\n",
               elementTypeId, propertyId, static_cast<int>(value), text);
    return TRUE;
}

std::string EGW_BASIC_GetDefaultPassowrdByLevelProperty(UINT32 propertyId, UINT32 mProjectID)
{
    static constexpr char kFn[] =
        "std::string EGW_BASIC_GetDefaultPassowrdByLevelProperty(UINT32, UINT32)";
    EGW_REQUIRE(ENUM_PRODUCT_ZT480EN == mProjectID, kFn, std::string());

    std::string password;
    std::vector<PropertyDefaultDef> defaults;
    EGW_ELementServerGetPropertyDefaultDataList(kAccessLevelElementType, defaults);
    if (!isPasswordProperty(propertyId))
    {
        EGW_FAIL("Error property ID! \n", kFn, password);
    }
    const PropertyDefaultDef* record = firstDefaultOf(defaults, propertyId);
    if (record == nullptr)
    {
        EGW_FAIL("Don`t find the necessary property default value! \n", kFn, password);
    }
    // The password ends at the text's first zero byte.
    password = withoutByteOrderMark(record->DefaultValue);
    DebugPrint(2, egw::kModuleTag, "sDefaultPassword is %s, string is %s !\n", password.c_str(),
               record->DefaultValue.c_str());
    return password;
}

std::string EGW_BASIC_GetDefaultPassowrdL2(UINT32 mProjectID)
{
    return EGW_BASIC_GetDefaultPassowrdByLevelProperty(kPasswordL2, mProjectID);
}

std::string EGW_BASIC_GetDefaultPassowrdL3(UINT32 mProjectID)
{
    return EGW_BASIC_GetDefaultPassowrdByLevelProperty(kPasswordL3, mProjectID);
}

std::string EGW_BASIC_GetDefaultPassowrdL3_1(UINT32 mProjectID)
{
    return EGW_BASIC_GetDefaultPassowrdByLevelProperty(kPasswordL3_1, mProjectID);
}

std::string EGW_BASIC_GetDefaultPassowrdL4(UINT32 mProjectID)
{
    return EGW_BASIC_GetDefaultPassowrdByLevelProperty(kPasswordL4, mProjectID);
}

BOOL EGW_BASIC_GetDefaultStatus(UINT32 elementTypeId, std::vector<S_EGW_GET_DEFAULT_STATUS>& list)
{
    list.clear();
    std::vector<unsigned int> groups;
    if (!EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, elementTypeId))
    {
        return FALSE;
    }
    // The records of the groups before one without a default stay in the list.
    for (unsigned int group : groups)
    {
        const UINT32 defaultState = GetDefaultStatusOfGroup(group);
        if (0 == defaultState)
        {
            return FALSE;
        }
        list.push_back({group, defaultState});
    }
    return TRUE;
}

void EGW_SetOneElementToDefaultStates(UINT32 uuid)
{
    const UINT32 elementType = EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
    std::vector<S_EGW_GET_DEFAULT_STATUS> defaults;
    // All or nothing: when one group has no default, no state is set, not even the ones collected.
    if (!EGW_BASIC_GetDefaultStatus(elementType, defaults))
    {
        DebugPrint(4, egw::kModuleTag,
                   "<EGW_SetOneElementToDefaultStates>Warning:                     get all default "
                   "state failt!!                     uuid=0x%x, elementType=0x%x\n",
                   uuid, elementType);
        return;
    }
    // A group that cannot be set does not keep the others from their defaults.
    for (const S_EGW_GET_DEFAULT_STATUS& record : defaults)
    {
        EGW_ELementServerSetStateValueByUuid(record.mDefaultStateValue, uuid, record.mGroupId,
                                             nullptr);
    }
}
