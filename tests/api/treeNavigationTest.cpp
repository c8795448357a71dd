// Navigation: parent, children, the start-type shortcut, the panel's sub-tree roots and reference
// relations.
#include "apiPanel.h"

namespace
{

using TreeNavigationTest = ApiPanelTest;

TEST_F(TreeNavigationTest, ParentChildrenAndStartOfTheWantedType)
{
    const ApiTree t = buildTree();
    EXPECT_EQ(EGW_ELementServerGetParentUuid(t.p2, {}), t.hardware);
    EXPECT_EQ(EGW_ELementServerGetParentUuid(t.site, {}), 0u);
    std::vector<int> uuids{7, 8, 9};
    EGW_ELementServerGetChildrenUuidList(uuids, t.panel, {});
    EXPECT_EQ(uuids, (std::vector<int>{7, 8, 9, int(t.hardware), int(t.detection), int(t.probe),
                                       int(t.probe2)}));

    panelsim::startTrace();
    EXPECT_EQ(EGW_ELementServerGetElementByElementTypeId(t.probe2, 0x70400, false, {}), t.probe2);
    EXPECT_EQ(EGW_ELementServerGetElementByElementTypeId(0, 0x0001, false, {}), t.site);
    EXPECT_TRUE(callsWith(panelsim::stopTrace(), "GetElementByType").empty());
    EXPECT_EQ(EGW_ELementServerGetElementByElementTypeId(0, 0x70328, false, {}), t.control);
    EXPECT_EQ(EGW_ELementServerGetElementByElementTypeId(t.hardware, 0x0328, false, {}), 0u);
}

TEST_F(TreeNavigationTest, SubtreeRootsGoDownLevelByLevel)
{
    EXPECT_EQ(EGW_ELementServerGetHardwareTreeRoot(nullptr) +
                  EGW_ELementServerGetControlTreeRoot(nullptr),
              0u);
    const ApiTree t = buildTree();
    EXPECT_EQ(EGW_ELementServerGetHardwareTreeRoot(nullptr), t.hardware);
    EXPECT_EQ(EGW_ELementServerGetP2TreeRoot(nullptr), t.p2);
    EXPECT_EQ(EGW_ELementServerGetDetectionTreeRoot(nullptr), t.detection);
    EXPECT_EQ(EGW_ELementServerGetControlTreeRoot(nullptr), t.control);
    // A level that finds nothing ends every search that goes through it.
    ASSERT_EQ(EGW_ELementServerDeleteElementByUuid(t.hardware, {}), 0);
    EXPECT_EQ(EGW_ELementServerGetHardwareTreeRoot(nullptr) +
                  EGW_ELementServerGetP2TreeRoot(nullptr),
              0u);
    EXPECT_EQ(EGW_ELementServerGetDetectionTreeRoot(nullptr), t.detection);
    ASSERT_EQ(EGW_ELementServerDeleteElementByUuid(t.panel, {}), 0);
    EXPECT_EQ(EGW_ELementServerGetDetectionTreeRoot(nullptr) +
                  EGW_ELementServerGetControlTreeRoot(nullptr),
              0u);
}

TEST_F(TreeNavigationTest, ReferenceRelations)
{
    const ApiTree t = buildTree();
    EXPECT_EQ(EGW_ELementServerAddReferenceRelation(int(t.probe), int(t.control), 0x20002, {}),
              TRUE);
    EXPECT_EQ(EGW_ELementServerAddReferenceRelation(int(t.probe), int(t.p2), 0x0002, {}), TRUE);
    EXPECT_EQ(EGW_ELementServerAddReferenceRelation(int(t.probe), int(t.p2), 0x0002, {}),
              FALSE); // host: 4
    std::vector<int> related{1};
    EGW_ElementServerGetReferenceRelations(related, t.probe, 0x20002, 1, {});
    EGW_ElementServerGetReferenceRelations(related, t.p2, 0x20002, 0, {});
    EXPECT_EQ(related, (std::vector<int>{1, int(t.control), int(t.p2), int(t.probe)}));
    EXPECT_EQ(EGW_ELementServerDelReferenceRelation(int(t.probe), int(t.control), 0x20002, {}),
              TRUE);
    EXPECT_EQ(EGW_ELementServerDelReferenceRelation(int(t.probe), int(t.control), 0x20002, {}),
              FALSE);
}

} // namespace
