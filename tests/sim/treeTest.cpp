// Building and deleting the element tree.
#include <algorithm>

#include "simFixture.h"

namespace
{

using TreeTest = SimTest;

TEST_F(TreeTest, UuidsAreNeverZeroNorReusedAcrossDeletesAndResets)
{
    std::vector<unsigned> seen;
    for (int round = 0; round < 3; ++round)
    {
        const unsigned root = add(0, 0x0169);
        const unsigned hardware = add(root, 0x0170);
        seen.insert(seen.end(), {root, hardware});
        Element e(hardware);
        EXPECT_EQ(server().DeleteElement(e, false), 0);
        seen.push_back(add(root, 0x0170));
        panelsim::reset();
    }
    std::vector<unsigned> sorted = seen;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 0u), 0);
}

TEST_F(TreeTest, ChildrenKeepTheOrderTheyWereAddedInAndKnowTheirParentAndValidate)
{
    const unsigned root = add(0, 0x0169);
    const unsigned a = add(root, 0x0328);
    const unsigned b = add(root, 0x0170);
    const unsigned c = add(root, 0x0292);
    EXPECT_EQ(children(root), (std::vector<unsigned>{a, b, c}));
    int error = -1;
    EXPECT_EQ(Element(b).GetParent(&error).GetUUID(), root);
    EXPECT_EQ(error, 0);
    Element(root).GetParent(&error);
    EXPECT_NE(error, 0);
    Element(9999999).GetParent(&error);
    EXPECT_NE(error, 0);
    EXPECT_EQ(Element(b).GetType(), 0x0170);
    EXPECT_EQ(Element(0).GetType(), 0);
    const unsigned below = add(b, 0x0204);
    EXPECT_EQ(Element(b).Validate(false), 0);
    EXPECT_TRUE(panelsim::isValidated(b) && !panelsim::isValidated(below) &&
                !panelsim::isValidated(root));
    EXPECT_EQ(Element(root).Validate(true), 0);
    EXPECT_TRUE(panelsim::isValidated(root) && panelsim::isValidated(below));
    EXPECT_NE(Element(c + 77).Validate(false), 0);
    EXPECT_NE(Element(0).Validate(true), 0);
    EXPECT_FALSE(panelsim::isValidated(c + 77));

    // The order holds through deletions at the middle, the front and the end.
    const unsigned d = add(root, 0x0328);
    for (const unsigned gone : {b, a, d})
    {
        Element element(gone);
        ASSERT_EQ(server().DeleteElement(element, false), 0);
    }
    EXPECT_EQ(children(root), std::vector<unsigned>{c});
    const unsigned e = add(root, 0x0170);
    EXPECT_EQ(children(root), (std::vector<unsigned>{c, e}));
    EXPECT_EQ(panelsim::elementCount(), 3u);
}

TEST_F(TreeTest, AddIsRefusedForUnknownParentsTypesAndChildTypes)
{
    const unsigned root = add(0, 0x0169);
    EXPECT_EQ(add(root + 1000, 0x0170), 0u) << "unknown parent";
    EXPECT_EQ(add(root, 0x0FFF), 0u) << "type not in the library";
    EXPECT_EQ(add(root, 0x0048, true), 0u) << "a detector is no child type of the panel";
    EXPECT_NE(add(root, 0x0170, true), 0u);
    EXPECT_NE(add(root, 0x0048, false), 0u) << "without the check any known type goes";
}

using DeletionTest = SmallTree;

TEST_F(DeletionTest, DeletionRemovesTheSubtreeWithItsRelationsAndSubscriptions)
{
    Element holder(card), target(detection), rackElement(rack);
    ASSERT_EQ(server().AddReferenceRelation(holder, target, 2, false), 0);
    ASSERT_EQ(server().AddReferenceRelation(target, rackElement, 2, false), 0);
    panelsim::loginModule(7);
    ASSERT_EQ(Element(card).SubscribeByElement(0x03010001, false, 7), 0);
    ASSERT_EQ(Element(detection).SubscribeByElement(0x03010001, false, 7), 0);
    ASSERT_EQ(server().SubscribeByType(0x0205, 0x00064286, false, 7), 0);

    Element hardwareElement(hardware);
    EXPECT_EQ(server().DeleteElement(hardwareElement, false), 0);

    EXPECT_EQ(children(root), (std::vector<unsigned>{detection, control}));
    EXPECT_EQ(Element(card).GetType(), 0);
    EXPECT_EQ(panelsim::elementCount(), 4u);
    EXPECT_TRUE(Element(detection).GetReferenceRelations(2, true).empty());
    EXPECT_TRUE(Element(detection).GetReferenceRelations(2, false).empty());
    const auto left = panelsim::subscriptions();
    ASSERT_EQ(left.size(), 2u) << "the by-element subscription of the card is gone";
    EXPECT_EQ(left[0].typeOrUuid, detection);
    EXPECT_TRUE(left[1].byType);
    EXPECT_NE(server().DeleteElement(hardwareElement, false), 0);
}

TEST_F(TreeTest, RootIsMadeOnlyWhileThereIsNoneAndDeletingOnlyTheChildrenKeepsTheElement)
{
    int error = 0;
    server().GetRoot(&error);
    EXPECT_NE(error, 0);
    const unsigned root = add(0, 0x0169);
    ASSERT_NE(root, 0u);
    EXPECT_EQ(add(0, 0x0169), 0u);
    EXPECT_EQ(server().GetRoot(&error).GetUUID(), root);
    EXPECT_EQ(error, 0);
    add(root, 0x0170);
    add(root, 0x0292);
    Element rootElement(root);
    EXPECT_EQ(server().DeleteElement(rootElement, true), 0);
    EXPECT_TRUE(children(root).empty());
    EXPECT_EQ(panelsim::elementCount(), 1u);
    EXPECT_EQ(server().DeleteElement(rootElement, false), 0);
    server().GetRoot(&error);
    EXPECT_NE(error, 0);
    EXPECT_NE(add(0, 0x0007), 0u) << "a deleted root makes room for a new one";
}

} // namespace
