// Searches below a start element, and the type-chain lookup.
#include "simFixture.h"

namespace
{

struct Visit
{
    unsigned skip = 0;
    unsigned stop = 0;
    std::vector<unsigned> seen;
};

bool record(Element& element, void* context, bool& skipChildren)
{
    auto* visit = static_cast<Visit*>(context);
    const unsigned uuid = element.GetUUID();
    visit->seen.push_back(uuid);
    skipChildren = uuid == visit->skip;
    return uuid != visit->stop;
}

class SearchTest : public SmallTree
{
protected:
    std::vector<unsigned> enumerate(unsigned start, bool childrenOnly, bool includeStart,
                                    Visit visit = {})
    {
        Element s(start);
        server().EnumElement(&s, &record, &visit, childrenOnly, includeStart);
        return visit.seen;
    }

    unsigned byType(unsigned start, unsigned short type, bool childrenOnly, bool includeStart)
    {
        Element s(start);
        int error = -1;
        Element found = server().GetElementByType(&s, type, &error, childrenOnly, includeStart);
        EXPECT_EQ(error == 0, found.GetUUID() != 0);
        return found.GetUUID();
    }
};

TEST_F(SearchTest, EnumerationIsDepthFirstInChildOrder)
{
    EXPECT_EQ(enumerate(root, false, true),
              (std::vector<unsigned>{root, hardware, rack, card, detection, rack2, control}));
    EXPECT_EQ(enumerate(root, false, false),
              (std::vector<unsigned>{hardware, rack, card, detection, rack2, control}));
    EXPECT_EQ(enumerate(root, true, false), (std::vector<unsigned>{hardware, detection, control}));
    EXPECT_EQ(enumerate(root, true, true),
              (std::vector<unsigned>{root, hardware, detection, control}));
    EXPECT_TRUE(enumerate(root + 100, false, true).empty());
    EXPECT_TRUE(enumerate(0, false, true).empty()) << "uuid 0 names no element";
    int error = -1;
    EXPECT_EQ(server().GetElementByType(nullptr, 0x0292, &error, true, false).GetUUID(), detection)
        << "a null start is the root";
}

TEST_F(SearchTest, VisitorCanSkipChildrenOrEndTheEnumeration)
{
    EXPECT_EQ(enumerate(root, false, true, Visit{hardware, 0, {}}),
              (std::vector<unsigned>{root, hardware, detection, rack2, control}));
    EXPECT_EQ(enumerate(root, false, true, Visit{0, rack, {}}),
              (std::vector<unsigned>{root, hardware, rack}));
    EXPECT_EQ(enumerate(root, false, true, Visit{root, 0, {}}), std::vector<unsigned>{root});
}

TEST_F(SearchTest, TypeSearchHonoursStartAndChildrenOnly)
{
    EXPECT_EQ(byType(root, 0x0204, false, false), rack) << "first in depth-first order";
    EXPECT_EQ(byType(root, 0x0169, false, true), root);
    EXPECT_EQ(byType(root, 0x0169, false, false), 0u);
    EXPECT_EQ(byType(root, 0x0204, true, false), 0u) << "not a direct child";
    EXPECT_EQ(byType(root, 0x0292, true, false), detection);
    EXPECT_EQ(byType(detection, 0x0204, false, false), rack2);
    EXPECT_EQ(byType(rack, 0x0328, false, true), 0u);
}

TEST_F(SearchTest, PropertySearchComparesTheWholeValue)
{
    const auto setAddress = [](unsigned uuid, unsigned address) {
        Property p(0x0004);
        p.SetData(&address, 4);
        return Element(uuid).SetProperty(p, true);
    };
    ASSERT_EQ(setAddress(rack, 7), 0);
    ASSERT_EQ(setAddress(rack2, 7), 0);
    ASSERT_EQ(setAddress(card, 9), 0);
    const auto find = [&](unsigned start, unsigned address, bool childrenOnly, bool includeStart) {
        Property wanted(0x0004);
        wanted.SetData(&address, 4);
        Element s(start);
        int error = -1;
        const unsigned uuid =
            server()
                .GetElementByProperty(&s, &wanted, &error, childrenOnly, includeStart)
                .GetUUID();
        EXPECT_EQ(error == 0, uuid != 0);
        return uuid;
    };
    EXPECT_EQ(find(root, 7, false, false), rack);
    EXPECT_EQ(find(detection, 7, false, false), rack2);
    EXPECT_EQ(find(rack, 7, false, false), 0u);
    EXPECT_EQ(find(rack, 7, false, true), rack);
    EXPECT_EQ(find(hardware, 9, true, false), 0u);
    EXPECT_EQ(find(rack, 9, true, false), card);
    EXPECT_EQ(find(root, 8, false, true), 0u);
}

TEST_F(SearchTest, TypeChainsFollowTheFirstChildOfEachType)
{
    const auto resolve = [](std::initializer_list<unsigned short> types, int* error) {
        std::vector<unsigned short> chain(types);
        chain.push_back(0);
        return server().FindElementWithTypeChain(chain.data(), error).GetUUID();
    };
    // Found chains, with and without an error pointer, are checked by the unique-element tests.
    int error = -1;
    EXPECT_EQ(resolve({0x0169, 0x0292, 0x0204}, &error), rack2) << "not the hardware's rack";
    EXPECT_EQ(error, 0);
    EXPECT_EQ(resolve({0x0169, 0x0204}, &error), 0u) << "not a child of the root";
    EXPECT_NE(error, 0);
    EXPECT_EQ(resolve({0x0170}, &error), 0u) << "must begin at the root's type";
    EXPECT_NE(error, 0);
    EXPECT_EQ(server().FindElementWithTypeChain(nullptr, &error).GetUUID(), 0u);
    EXPECT_NE(error, 0);
}

TEST_F(SearchTest, EnumerationSurvivesAVisitorThatDeletes)
{
    struct Deleting
    {
        unsigned victim;
        std::vector<unsigned> seen;
    } context{card, {}};
    Element start(root);
    server().EnumElement(
        &start,
        [](Element& e, void* c, bool&) {
            auto* d = static_cast<Deleting*>(c);
            d->seen.push_back(e.GetUUID());
            if (e.GetType() == 0x0204 && d->victim != 0)
            {
                Element victim(d->victim);
                server().DeleteElement(victim, false);
                d->victim = 0;
            }
            return true;
        },
        &context, false, true);
    EXPECT_EQ(context.seen,
              (std::vector<unsigned>{root, hardware, rack, detection, rack2, control}));
}

} // namespace
