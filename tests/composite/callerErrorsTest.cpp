// Caller errors of the composite functions: each is reported with its exact expression and
// declaration text, or answered with the failure result, and none reaches the host.
#include <functional>

#include "support/panelFixture.h"

namespace
{

struct CallerError
{
    const char* name;
    std::function<long()> call;
    long result;
    const char* expression; // null: refused without a report
    const char* function;
};

std::vector<CallerError> callerErrors()
{
    static std::string text = "abc";
    static std::vector<int> vector;
    static UINT16 size = 0;
    static EGW_THRIFT_ADDRESS_STRUCT address{};
    static EGW_CONTROLPARA record{};
    static std::vector<unsigned int> types;
    // clang-format off
    return {
        {"address of uuid 0", [] { return long{EGW_GetThriftAddressStructByUuid(address, 0, nullptr)}; }, FALSE,
         "0 != mUuid", "BOOL EGW_GetThriftAddressStructByUuid(EGW_THRIFT_ADDRESS_STRUCT&, UINT32, void*)"},
        {"vector from null", [] { return long{EGW_BASIC_WriteVectorContain(vector, nullptr, 1)}; }, FALSE,
         "__null != pBuffer", "BOOL EGW_BASIC_WriteVectorContain(std::vector<int>&, const INT32*, UINT32)"},
        {"string into null", [] { return long{EGW_BASIC_ReadStringContain(text, nullptr, 9, size)}; }, FALSE,
         "__null != pBuffer", "BOOL EGW_BASIC_ReadStringContain(const std::string&, void*, UINT16, UINT16&)"},
        {"string from null", [] { return long{EGW_BASIC_WriteStringContain(text, nullptr, 1, TRUE)}; }, FALSE,
         "__null != pBuffer", "BOOL EGW_BASIC_WriteStringContain(std::string&, const void*, UINT16, BOOL)"},
        {"GUID without handle", [] { EGW_ELementServerManagerElementGUID(1, nullptr); return 0L; }, 0,
         "__null != pElementServerThriftClient", "void EGW_ELementServerManagerElementGUID(UINT32, void*)"},
        {"broadcast from uuid 0", [] { return long{EGW_BroadcastCommandToRelationship(0, 1, 0, 0x20002, TRUE, TRUE, nullptr)}; }, FALSE,
         "0 != mUuid", "BOOL EGW_BroadcastCommandToRelationship(UINT32, UINT32, UINT32, UINT32, BOOL, BOOL, void*)"},
        {"child types of type 0", [] { return long{EGW_BASIC_THRIFT_GetAllChildrenElementType(types, 0)}; }, FALSE,
         "0 != mParentElementTypeID", "BOOL EGW_BASIC_THRIFT_GetAllChildrenElementType(std::vector<unsigned int>&, UINT32)"},
        {"child types of type 0, inner", [] { return long{EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(types, 0)}; }, FALSE,
         "0 != mParentElementTypeID", "BOOL EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(std::vector<unsigned int>&, UINT32)"},
        {"state values of group 0", [] { return long{EGW_BASIC_CheckInductStateIDInGroup(0, {0x60001})}; }, FALSE,
         "0 != mGroupId", "BOOL EGW_BASIC_CheckInductStateIDInGroup(UINT32, const std::vector<unsigned int>&)"},
        {"no state values", [] { return long{EGW_BASIC_CheckInductStateIDInGroup(0x80001, {})}; }, FALSE,
         "0 != mStateIdList.size()", "BOOL EGW_BASIC_CheckInductStateIDInGroup(UINT32, const std::vector<unsigned int>&)"},
        {"categories of group 0", [] { return long{EGW_BASIC_CheckInductStateCategoryInGroup(0, {{1, 2}})}; }, FALSE,
         "0 != mGroupId", "BOOL EGW_BASIC_CheckInductStateCategoryInGroup(UINT32, const std::vector<S_EGWStateCategoryStruct>&)"},
        {"no categories", [] { return long{EGW_BASIC_CheckInductStateCategoryInGroup(0x80001, {})}; }, FALSE,
         "0 != mStateCategoryList.size()", "BOOL EGW_BASIC_CheckInductStateCategoryInGroup(UINT32, const std::vector<S_EGWStateCategoryStruct>&)"},
        {"commands of type 0", [] { return long{EGW_BASIC_THRIFT_SubscribeAllCommands(5, 0, nullptr)}; }, FALSE, nullptr, nullptr},
        {"state changes of type 0", [] { return long{EGW_BASIC_THRIFT_SubscribeAllStateChange(5, 0, nullptr)}; }, FALSE, nullptr, nullptr},
        {"by values, type 0", [] { return long{EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(5, 0, {0x60001})}; }, FALSE, nullptr, nullptr},
        {"by categories, type 0", [] { return long{EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList(5, 0, {{1, 2}})}; }, FALSE, nullptr, nullptr},
        {"property changes of type 0", [] { return long{EGW_BASIC_THRIFT_SubscribeAllPropertyChange(5, 0, nullptr)}; }, 0, nullptr, nullptr},
        {"GUID of uuid 0", [] { EGW_ELementServerManagerElementGUID(0, GetThriftClientInstance()); return 0L; }, 0, nullptr, nullptr},
        {"pack a zero state value", [] { return long{EGW_BASIC_PackStateChangeInforData(record, 1, 0x80001, 0, 0x60001)}; }, FALSE, nullptr, nullptr},
        {"pack a zero first state value", [] { return long{EGW_BASIC_PackStateChangeInforData(record, 1, 0x80001, 0x60001, 0)}; }, FALSE, nullptr, nullptr},
        {"pack for uuid 0", [] { return long{EGW_BASIC_PackStateChangeInforData(record, 0, 0x80001, 0x60001, 0x60001)}; }, FALSE, nullptr, nullptr},
        {"pack for group 0", [] { return long{EGW_BASIC_PackStateChangeInforData(record, 1, 0, 0x60001, 0x60001)}; }, FALSE, nullptr, nullptr},
        {"unpack from null", [] { return long{EGW_BASIC_UnpackStateChangeInforData(record, nullptr, 16)}; }, FALSE, nullptr, nullptr},
    };
    // clang-format on
}

class CallerErrorTest : public PanelTest
{
};

TEST_F(CallerErrorTest, EachIsReportedOrRefusedWithoutReachingTheHost)
{
    for (const CallerError& error : callerErrors())
    {
        SCOPED_TRACE(error.name);
        assertReports().clear();
        panelsim::startTrace();
        EXPECT_EQ(error.call(), error.result);
        EXPECT_TRUE(panelsim::stopTrace().empty());
        if (error.expression == nullptr)
        {
            EXPECT_TRUE(assertReports().empty());
            continue;
        }
        ASSERT_EQ(assertReports().size(), 1u);
        EXPECT_EQ(assertReports()[0].expression, error.expression);
        EXPECT_EQ(assertReports()[0].function, error.function);
    }
}

TEST_F(CallerErrorTest, DefaultHandlerWritesThePlatformAssertionLine)
{
    const EGW_AssertHandler recorder = EGW_SetAssertHandler(nullptr);
    testing::internal::CaptureStderr();
    UINT16 size = 0;
    EXPECT_EQ(EGW_BASIC_ReadStringContain("x", nullptr, 1, size), FALSE);
    const std::string line = testing::internal::GetCapturedStderr();
    EGW_SetAssertHandler(recorder);
    EXPECT_NE(line.find(": Assertion `__null != pBuffer' failed."), std::string::npos) << line;
    EXPECT_NE(line.find("BOOL EGW_BASIC_ReadStringContain(const std::string&, void*, UINT16, UINT16&)"),
              std::string::npos)
        << line;
}

} // namespace
