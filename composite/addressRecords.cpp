// Element address records: an element's address value with its storage type, the dotted
// hexadecimal text of a chain of records, and the element's address strings.
#include <cstdio>
#include <cstring>

#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"
#include "host/debugPrint.h"

namespace
{

// An element keeps its address in the first property; elements without it use the second.
constexpr UINT32 kFirstAddressProperty = 0x30004;
constexpr UINT32 kSecondAddressProperty = 0x30005;

// Storage types whose values the text form accepts: 5, 6, 7, 15, 16 and 19. Type 4 counts as a
// number elsewhere, but not here.
constexpr UINT32 kAddressTypeMask = 0x980E0;

constexpr char kWriteFn[] =
    "void EGW_BASIC_THRIFT_WriteDataInAddressString(const EGW_THRIFT_ADDRESS_STRUCT&, "
    "std::string&, BOOL)";

// Appends one record's text; false (after the log line and the report) for a record whose type
// is not an address type, so that the list form stops there too.
bool appendAddressText(const EGW_THRIFT_ADDRESS_STRUCT& record, std::string& str, BOOL bAddDot)
{
    if (record.mDataType > 19 || ((kAddressTypeMask >> record.mDataType) & 1u) == 0)
    {
        DebugPrint(5, egw::kModuleTag,
                   "<EGW_BASIC_THRIFT_WriteDataInAddressString> Error: data type!                "
                   "data type=%d\n",
                   static_cast<int>(record.mDataType));
        EGW_FAIL("<EGW_BASIC_THRIFT_WriteDataInAddressString> Error: data type!\n", kWriteFn,
                 false);
    }
    char digits[sizeof(UINT32) * 2 + 1];
    std::snprintf(digits, sizeof digits, "%x", record.mData);
    EGW_BASIC_WriteStringContain(str, digits, static_cast<UINT16>(std::strlen(digits)), FALSE);
    if (bAddDot)
    {
        EGW_BASIC_WriteStringContain(str, ".", 1, FALSE);
    }
    return true;
}

// Both address strings are the element's ID string; a null handle stands for the static one.
BOOL putIdString(UINT32 mCurrentUuid, std::string& str, void* client, const char* function)
{
    EGW_REQUIRE(0 != mCurrentUuid, function, FALSE);
    EGW_ElementServerGetIDStringOfElement(str, mCurrentUuid,
                                          client != nullptr ? client : GetThriftClientInstance());
    return TRUE;
}

} // namespace

BOOL EGW_GetThriftAddressStructByUuid(EGW_THRIFT_ADDRESS_STRUCT& record, UINT32 mUuid, void* client)
{
    static constexpr char kFn[] =
        "BOOL EGW_GetThriftAddressStructByUuid(EGW_THRIFT_ADDRESS_STRUCT&, UINT32, void*)";
    EGW_REQUIRE(0 != mUuid, kFn, FALSE);

    UINT32 propertyId = kFirstAddressProperty;
    if (!EGW_ElementServerGetPropertyIntDataById(mUuid, propertyId, record.mData, client))
    {
        propertyId = kSecondAddressProperty;
        if (!EGW_ElementServerGetPropertyIntDataById(mUuid, propertyId, record.mData, client))
        {
            return FALSE;
        }
    }
    return IsNumberTypeByPropertyID(propertyId, &record.mDataType);
}

BOOL EGW_BASIC_THRIFT_GetPhysicalAddress(UINT32 mCurrentUuid, std::string& str, void* client)
{
    return putIdString(mCurrentUuid, str, client,
                       "BOOL EGW_BASIC_THRIFT_GetPhysicalAddress(UINT32, std::string&, void*)");
}

BOOL EGW_BASIC_THRIFT_GetLogicAddress(UINT32 mCurrentUuid, std::string& str, void* client)
{
    return putIdString(mCurrentUuid, str, client,
                       "BOOL EGW_BASIC_THRIFT_GetLogicAddress(UINT32, std::string&, void*)");
}

void EGW_BASIC_THRIFT_WriteDataInAddressString(const EGW_THRIFT_ADDRESS_STRUCT& record,
                                               std::string& str, BOOL bAddDot)
{
    appendAddressText(record, str, bAddDot);
}

BOOL EGW_BASIC_FormatAddressStructDataList(std::string& str,
                                           const std::vector<S_EGW_THRIFT_ADDRESS_STRUCT>& list)
{
    str.clear();
    // The text runs from the list's last record to its first, which alone has no dot after it.
    for (std::size_t i = list.size(); i-- > 0;)
    {
        if (!appendAddressText(list[i], str, i != 0 ? TRUE : FALSE))
        {
            return FALSE;
        }
    }
    const char terminator = '\0';
    return EGW_BASIC_WriteStringContain(str, &terminator, 1, FALSE);
}
