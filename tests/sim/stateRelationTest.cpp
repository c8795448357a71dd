// States of elements and reference relations between them.
#include "simFixture.h"

namespace
{

using StateTest = SimTest;

constexpr unsigned short kFireAlarmGroup = 0x0001;
constexpr unsigned short kDayNightGroup = 0x0006; // has no default state
constexpr unsigned kNormal = 0x60001;
constexpr unsigned kFireAlarm = 0x60002;
constexpr unsigned kNightMode = 0x6000D;

TEST_F(StateTest, StatesStartFromTheGroupsDefaultAndTakeOnlyValuesOfAGroupTheTypeHas)
{
    const unsigned root = add(0, 0x0169);
    const unsigned settings = add(add(root, 0x0292), 0x0354);
    EXPECT_EQ(Element(root).GetState(kFireAlarmGroup), kNormal);
    EXPECT_EQ(Element(settings).GetState(kDayNightGroup), 0u);
    EXPECT_EQ(GetDefaultStatusOfGroup(0x80006), 0u);
    EXPECT_EQ(Element(root).SetState(kFireAlarmGroup, kFireAlarm, false), 0);
    EXPECT_EQ(Element(root).GetState(kFireAlarmGroup), kFireAlarm);
    EXPECT_EQ(Element(settings).SetState(kDayNightGroup, kNightMode, true), 0);
    EXPECT_EQ(Element(settings).GetState(kDayNightGroup), kNightMode);

    EXPECT_NE(Element(root).SetState(kFireAlarmGroup, kNightMode, false), 0)
        << "value of another group";
    EXPECT_NE(Element(root).SetState(kDayNightGroup, kNightMode, false), 0)
        << "group the type lacks";
    EXPECT_NE(Element(root + 99).SetState(kFireAlarmGroup, kNormal, false), 0) << "unknown element";
    EXPECT_EQ(Element(root).GetState(kFireAlarmGroup), kFireAlarm);
    EXPECT_EQ(Element(root).GetState(kDayNightGroup), 0u);
    EXPECT_EQ(Element(root + 99).GetState(kFireAlarmGroup), 0u);
}

class RelationTree : public SmallTree
{
protected:
    int relate(unsigned holder, unsigned target, unsigned short type, bool replace = false)
    {
        Element h(holder), t(target);
        return server().AddReferenceRelation(h, t, type, replace);
    }

    int unrelate(unsigned holder, unsigned target, unsigned short type, bool all = false)
    {
        Element h(holder), t(target);
        return server().DeleteReferenceRelation(h, t, type, all);
    }

    std::vector<unsigned> related(unsigned uuid, unsigned short type, bool forward)
    {
        return uuids(Element(uuid).GetReferenceRelations(type, forward));
    }
};

TEST_F(RelationTree, RelationsReadInBothDirectionsInInsertionOrder)
{
    ASSERT_EQ(relate(hardware, control, 2), 0);
    ASSERT_EQ(relate(hardware, detection, 2), 0);
    ASSERT_EQ(relate(detection, control, 2), 0);
    ASSERT_EQ(relate(hardware, detection, 1), 0);
    EXPECT_EQ(related(hardware, 2, true), (std::vector<unsigned>{control, detection}));
    EXPECT_EQ(related(control, 2, false), (std::vector<unsigned>{hardware, detection}));
    EXPECT_EQ(related(hardware, 1, true), std::vector<unsigned>{detection});
    EXPECT_TRUE(related(hardware, 2, false).empty());
    EXPECT_NE(relate(hardware, detection, 2), 0) << "the same relation twice";
    EXPECT_NE(relate(hardware, root + 100, 2), 0) << "unknown target";
    // Held twice, as a panel's host can: listed twice from both ends, removed at once.
    EXPECT_EQ(panelsim::addRelationAgain(hardware, detection, 2), 0);
    EXPECT_EQ(related(hardware, 2, true), (std::vector<unsigned>{control, detection, detection}));
    EXPECT_EQ(related(detection, 2, false), (std::vector<unsigned>{hardware, hardware}));
    EXPECT_EQ(panelsim::addRelationAgain(hardware, root + 100, 2), 1);
    EXPECT_EQ(unrelate(hardware, detection, 2), 0);
    EXPECT_EQ(related(hardware, 2, true), std::vector<unsigned>{control});
    EXPECT_TRUE(related(detection, 2, false).empty());
}

TEST_F(RelationTree, DeletionRemovesOneOrAllOfATypeAndReplaceDropsTheOthersOfThatType)
{
    relate(hardware, detection, 2);
    relate(hardware, control, 2);
    relate(hardware, control, 1);
    EXPECT_EQ(unrelate(hardware, detection, 2), 0);
    EXPECT_NE(unrelate(hardware, detection, 2), 0) << "nothing left to remove";
    EXPECT_EQ(related(hardware, 2, true), std::vector<unsigned>{control});
    ASSERT_EQ(relate(hardware, detection, 2), 0);
    EXPECT_EQ(unrelate(hardware, 0, 2, true), 0);
    EXPECT_TRUE(related(hardware, 2, true).empty());
    EXPECT_TRUE(related(control, 2, false).empty());
    EXPECT_EQ(related(control, 1, false), std::vector<unsigned>{hardware});

    relate(hardware, detection, 2);
    relate(hardware, control, 2);
    ASSERT_EQ(relate(hardware, root, 2, true), 0);
    EXPECT_EQ(related(hardware, 2, true), std::vector<unsigned>{root});
    EXPECT_EQ(related(hardware, 1, true), std::vector<unsigned>{control});
    EXPECT_TRUE(related(detection, 2, false).empty());
}

} // namespace
