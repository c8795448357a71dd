// State-change records (element, state group, two state values of the group), their 16-byte data
// form, pattern tables over them, and the tests whether a state group can take given states.
#include <cstring>

#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"
#include "host/idDefine.h"

namespace
{

constexpr unsigned int kStateGroupCategory = 8;
constexpr unsigned int kStateValueCategory = 6;
constexpr UINT32 kRecordBytes = 16;

// The categories are all fetched, in this order, before any is compared.
bool areGroupAndValues(UINT32 groupId, UINT32 firstStateValue, UINT32 secondStateValue)
{
    const unsigned int groupCategory = CIDDefine::GetTypebyID(groupId);
    const unsigned int firstCategory = CIDDefine::GetTypebyID(firstStateValue);
    const unsigned int secondCategory = CIDDefine::GetTypebyID(secondStateValue);
    return groupCategory == kStateGroupCategory && firstCategory == kStateValueCategory &&
           secondCategory == kStateValueCategory;
}

bool wordMatches(UINT32 pattern, UINT32 value)
{
    return 0 == pattern || pattern == value;
}

} // namespace

BOOL EGW_BASIC_PackStateChangeInforData(EGW_CONTROLPARA& record, UINT32 uuid, UINT32 groupId,
                                        UINT32 secondStateValue, UINT32 firstStateValue)
{
    if (0 == uuid || 0 == groupId || 0 == secondStateValue || 0 == firstStateValue)
    {
        return FALSE;
    }
    if (!areGroupAndValues(groupId, firstStateValue, secondStateValue))
    {
        return FALSE;
    }
    record.mUuid = uuid;
    record.mGroupId = groupId;
    record.mFirstStateValue = firstStateValue;
    record.mSecondStateValue = secondStateValue;
    return TRUE;
}

BOOL EGW_BASIC_UnpackStateChangeInforData(EGW_CONTROLPARA& record, const void* data, UINT32 size)
{
    if (nullptr == data || kRecordBytes != size)
    {
        return FALSE;
    }
    // The caller's bytes may sit at any address: they are copied, never read through a cast.
    // The words are copied before they are checked, so a rejected record still holds them.
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::memcpy(&record.mUuid, bytes, 4);
    std::memcpy(&record.mGroupId, bytes + 4, 4);
    std::memcpy(&record.mFirstStateValue, bytes + 8, 4);
    std::memcpy(&record.mSecondStateValue, bytes + 12, 4);

    if (0 == record.mUuid || 0 == record.mGroupId || 0 == record.mFirstStateValue ||
        0 == record.mSecondStateValue)
    {
        return FALSE;
    }
    return areGroupAndValues(record.mGroupId, record.mFirstStateValue, record.mSecondStateValue)
               ? TRUE
               : FALSE;
}

BOOL EGW_BASIC_CompareTableData(const void* data, UINT32 size, const EGW_GROUP_STATE_STRUCT* table,
                                UINT32 rowCount)
{
    EGW_CONTROLPARA record{};
    if (!EGW_BASIC_UnpackStateChangeInforData(record, data, size) || 0 == rowCount)
    {
        return FALSE;
    }
    for (UINT32 row = 0; row < rowCount; ++row)
    {
        // The element's type is asked afresh for every row that is looked at.
        const UINT32 elementType = EGW_ElementServerGetElementTypeByUuid(record.mUuid, nullptr);
        const EGW_GROUP_STATE_STRUCT& pattern = table[row];
        if (wordMatches(pattern.mElementType, elementType) &&
            wordMatches(pattern.mGroupId, record.mGroupId) &&
            wordMatches(pattern.mFirstStateValue, record.mFirstStateValue) &&
            wordMatches(pattern.mSecondStateValue, record.mSecondStateValue))
        {
            return TRUE;
        }
    }
    return FALSE;
}

BOOL EGW_BASIC_CheckInductStateIDInGroup(UINT32 mGroupId,
                                         const std::vector<unsigned int>& mStateIdList)
{
    static constexpr char kFn[] =
        "BOOL EGW_BASIC_CheckInductStateIDInGroup(UINT32, const std::vector<unsigned int>&)";
    EGW_REQUIRE(0 != mGroupId, kFn, FALSE);
    EGW_REQUIRE(0 != mStateIdList.size(), kFn, FALSE);

    const std::vector<unsigned int> groupValues = GetAllStatusInGroup(mGroupId);
    for (unsigned int groupValue : groupValues)
    {
        for (unsigned int wanted : mStateIdList)
        {
            if (groupValue == wanted)
            {
                return TRUE;
            }
        }
    }
    return FALSE;
}

BOOL EGW_BASIC_CheckInductStateCategoryInGroup(
    UINT32 mGroupId, const std::vector<S_EGWStateCategoryStruct>& mStateCategoryList)
{
    static constexpr char kFn[] = "BOOL EGW_BASIC_CheckInductStateCategoryInGroup(UINT32, const "
                                  "std::vector<S_EGWStateCategoryStruct>&)";
    EGW_REQUIRE(0 != mGroupId, kFn, FALSE);
    EGW_REQUIRE(0 != mStateCategoryList.size(), kFn, FALSE);

    const std::vector<unsigned int> groupValues = GetAllStatusInGroup(mGroupId);
    for (unsigned int groupValue : groupValues)
    {
        const UINT32 level1 = CIDDefine::GetStatusL1TypebyID(groupValue);
        const UINT32 level2 = CIDDefine::GetStatusL2TypebyID(groupValue);
        // Both levels must match on one and the same value; the category bytes are widened, so a
        // host status type above 255 never matches.
        for (const S_EGWStateCategoryStruct& category : mStateCategoryList)
        {
            if (UINT32{category.mStatusL1Type} == level1 &&
                UINT32{category.mStatusL2Type} == level2)
            {
                return TRUE;
            }
        }
    }
    return FALSE;
}
