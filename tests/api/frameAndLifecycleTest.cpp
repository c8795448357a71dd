// The lock policy, precondition reports, and adding and deleting elements.
#include <functional>

#include "apiPanel.h"

namespace
{

using FrameTest = ApiPanelTest;

TEST_F(FrameTest, LockPolicies)
{
    panelsim::startTrace();
    EXPECT_EQ(EGW_ElementServerLock(1, {}) + EGW_ElementServerLock(2, {}), 0);
    EXPECT_EQ(EGW_ElementServerUnlock(nullptr) + EGW_ElementServerUnlock(nullptr), 0);
    const std::vector<std::string> trace = panelsim::stopTrace();
    EXPECT_EQ(callsWith(trace, "::Lock("),
              (std::vector<std::string>{"ElementServer::Lock(0)", "ElementServer::Lock(2)"}));
    for (UINT32 policy : {0u, 3u})
    {
        logLines().clear();
        assertReports().clear();
        panelsim::startTrace();
        EXPECT_EQ(EGW_ElementServerLock(policy, {}), -1);
        EXPECT_EQ(panelsim::stopTrace(),
                  std::vector<std::string>{"DebugPrint(4, <GatewayApiLib>)"});
        ASSERT_EQ(logLines().size() + assertReports().size(), 2u);
        EXPECT_EQ(logLines()[0].text, "Error input,mLockPolicy=" + std::to_string(policy) + "\n");
        EXPECT_EQ(assertReports()[0].expression,
                  R"(!"<EGW_ElementServerLock> Error mLockPolicy value\n")");
        EXPECT_EQ(assertReports()[0].function, "INT32 EGW_ElementServerLock(UINT32, void*)");
    }
}

TEST_F(FrameTest, PreconditionsAreReportedBeforeTheServerIsReached)
{
    const char* getString =
        "BOOL EGW_ElementServerGetStringProperty(std::string&, UINT32, UINT32, void*)";
    const char* setString =
        "BOOL EGW_ElementServerSetStringProperty(const void*, UINT16, UINT32, UINT32, void*)";
    const char* byProperty = "UINT32 EGW_ELementServerGetElementByProperty(UINT32, UINT32, const "
                             "void*, UINT16, bool, void*)";
    const char* byType =
        "UINT32 EGW_ELementServerGetElementByElementTypeId(UINT32, UINT32, bool, void*)";
    std::string text = "kept";
    const char data[] = "x";
    const struct
    {
        const char* function;
        const char* expression;
        std::function<long long()> run;
    } rows[] = {
        {getString, "0 != uuid",
         [&] { return EGW_ElementServerGetStringProperty(text, 0, 0x30004, {}); }},
        {setString, "0 != uuid",
         [&] { return EGW_ElementServerSetStringProperty(nullptr, 0, 0, 0x30004, {}); }},
        {setString, "__null != pData",
         [&] { return EGW_ElementServerSetStringProperty(nullptr, 0, 5, 0x30004, {}); }},
        {setString, "mDataSize > 0",
         [&] { return EGW_ElementServerSetStringProperty(data, 0, 5, 0x30004, {}); }},
        {byProperty, "__null != pPropertyData",
         [&] { return EGW_ELementServerGetElementByProperty(0, 0x30004, nullptr, 0, false, {}); }},
        {byProperty, "0 != rootElementUuid",
         [&] { return EGW_ELementServerGetElementByProperty(0, 0x30004, data, 0, false, {}); }},
        {byProperty, "mPropertyDataSize > 0",
         [&] { return EGW_ELementServerGetElementByProperty(5, 0x30004, data, 0, false, {}); }},
        {byType, "ElementTypeId != 0",
         [&] { return EGW_ELementServerGetElementByElementTypeId(5, 0, false, {}); }},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.expression);
        assertReports().clear();
        panelsim::startTrace();
        EXPECT_EQ(row.run(), 0);
        EXPECT_TRUE(panelsim::stopTrace().empty());
        ASSERT_EQ(assertReports().size(), 1u);
        EXPECT_EQ(assertReports()[0].expression, row.expression);
        EXPECT_EQ(assertReports()[0].function, row.function);
    }
    EXPECT_EQ(text, "kept");
}

TEST_F(FrameTest, AddAndDelete)
{
    const UINT32 root = EGW_ELementServerAddElementByType(0, 0x70001, false, {});
    ASSERT_NE(root, 0u);
    EXPECT_EQ(EGW_ELementServerAddElementByType(0, 0x70001, false, {}), 0u);
    EXPECT_EQ(panelsim::elementCount(), 1u);
    const UINT32 tagged = EGW_ELementServerAddElementByType(root, 0x70169, false, {});
    const UINT32 bare = EGW_ELementServerAddElementByType(root, 0x0169, false, {});
    EXPECT_TRUE(tagged != 0 && bare != 0 && tagged != bare);
    EXPECT_EQ(EGW_ELementServerGetParentUuid(bare, {}), root);
    EXPECT_EQ(EGW_ElementServerGetElementTypeByUuid(tagged, {}), 0x70169u);
    EXPECT_EQ(EGW_ElementServerGetElementTypeByUuid(bare, {}), 0x70169u);
    EXPECT_EQ(EGW_ELementServerAddElementByType(bare + 1000, 0x0169, false, {}), 0u);
    // Validation: the caller's flag at creation; later the element alone, not its children.
    const UINT32 validated = EGW_ELementServerAddElementByType(bare, 0x0169, true, {});
    EXPECT_TRUE(panelsim::isValidated(validated) && !panelsim::isValidated(bare));
    EXPECT_EQ(EGW_ElementServerValidElementInner(root, {}), 0);
    EXPECT_TRUE(panelsim::isValidated(root) && !panelsim::isValidated(bare));
    EXPECT_NE(EGW_ElementServerValidElementInner(bare + 1000, {}), 0);

    EXPECT_EQ(EGW_ELementServerDeleteElementByUuid(tagged, {}), 0);
    EXPECT_EQ(EGW_ElementServerGetElementTypeByUuid(tagged, {}), 0u);
    EXPECT_EQ(EGW_ELementServerDeleteElementByUuid(tagged, {}),
              1); // the host's "no such element"
}

} // namespace
