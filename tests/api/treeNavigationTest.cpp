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

TEST_F(TreeNavigationTest, FirstElementHoldingAPropertyValue)
{
    const ApiTree t = buildTree();
    const unsigned seven = 7, eight = 8;
    const UINT32 sibling = addElement(t.hardware, 0x0171);
    for (const UINT32 uuid : {t.p2, sibling})
        ASSERT_EQ(EGW_ElementServerSetPropertyIntDataById(uuid, 0x30004, seven, {}), TRUE);
    const auto find = [](UINT32 start, const unsigned& value, bool childrenOnly) {
        return EGW_ELementServerGetElementByProperty(start, 0x30004, &value, 4, childrenOnly, {});
    };
    EXPECT_EQ(find(t.site, seven, false), t.p2);
    EXPECT_EQ(find(t.panel, seven, true), 0u) << "the match is a grandchild";
    EXPECT_EQ(find(t.hardware, seven, true), t.p2);
    EXPECT_EQ(find(t.p2, seven, false), 0u) << "the start itself does not match";
    EXPECT_EQ(find(t.site, eight, false), 0u);
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

// The shape of every panel in the field: the panel element is the root, so each search's first
// level finds the start itself.
TEST_F(TreeNavigationTest, SubtreeRootsOfAPanelRootedTree)
{
    const UINT32 panel = addElement(0, 0x0169);
    const UINT32 hardware = addElement(panel, 0x0170);
    const UINT32 p2 = addElement(hardware, 0x0171);
    const UINT32 detection = addElement(panel, 0x0292);
    const UINT32 control = addElement(detection, 0x0328);
    // Later elements of the same types do not count: each level takes its first match.
    addElement(panel, 0x0170);
    addElement(addElement(panel, 0x0292), 0x0328);
    addElement(hardware, 0x0171);
    ASSERT_NE(control, 0u);
    EXPECT_EQ(EGW_ELementServerGetHardwareTreeRoot(nullptr), hardware);
    EXPECT_EQ(EGW_ELementServerGetP2TreeRoot(nullptr), p2);
    EXPECT_EQ(EGW_ELementServerGetDetectionTreeRoot(nullptr), detection);
    EXPECT_EQ(EGW_ELementServerGetControlTreeRoot(nullptr), control);
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
    // A relation the host holds twice is listed twice, from both ends.
    ASSERT_EQ(panelsim::addRelationAgain(t.probe, t.p2, 0x0002), 0);
    related.clear();
    EGW_ElementServerGetReferenceRelations(related, t.probe, 0x20002, 1, {});
    EGW_ElementServerGetReferenceRelations(related, t.p2, 0x20002, 0, {});
    EXPECT_EQ(related, (std::vector<int>{int(t.p2), int(t.p2), int(t.probe), int(t.probe)}));
}

} // namespace
