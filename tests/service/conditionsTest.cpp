// The service's view of the panel's conditions: the one table of which state value is which
// condition, and the view read from a tree in slices while the panel changes underneath it.
#include <chrono>
#include <functional>
#include <fstream>
#include <set>
#include <thread>
#include <tuple>

#include "service/conditions.h"
#include "tests/service/serviceFixture.h"
#include "tools/panelConfig.h"

namespace servicetest
{
namespace
{

using Kind = rpc::ConditionKind;
constexpr rpc::Id kFireAlarmGroup = 0x80001;
constexpr rpc::Id kFaultGroup = 0x80002;
constexpr rpc::Id kNormal = 0x60001;

TEST(ConditionKinds, EachStateValueIsTheConditionOfTheTable)
{
    const std::tuple<UINT32, UINT32, std::optional<Kind::type>> table[] = {
        {0x80001, 0x60002, Kind::FIRE},        {0x80001, 0x60003, Kind::FIRE},
        {0x80001, 0x60001, std::nullopt},      {0x80002, 0x60004, Kind::FAULT},
        {0x80002, 0x60001, std::nullopt},      {0x80002, 0, std::nullopt},
        {0x80007, 0x60005, Kind::FAULT},       {0x80003, 0x60007, Kind::DISABLEMENT},
        {0x80003, 0x60008, std::nullopt},      {0x80005, 0x6000A, Kind::OUTPUT},
        {0x80005, 0x6000B, Kind::OUTPUT},      {0x80005, 0x60001, std::nullopt},
        {0x80006, 0x60002, std::nullopt}, // a fire-alarm value in another group is nothing
    };
    for (const auto& [group, value, kind] : table)
    {
        EXPECT_EQ(egwservice::conditionKindOf(group, value), kind)
            << std::hex << group << " " << value;
    }
}

class Conditions : public ServiceFixture
{
protected:
    void SetUp() override {}

    // Every element with its states, page after page.
    static std::vector<rpc::ElementSnapshot> wholeTree(Client& client)
    {
        std::vector<rpc::ElementSnapshot> tree;
        rpc::SnapshotRequest request;
        request.withStates = true;
        rpc::SnapshotPage page;
        do
        {
            client->snapshot(page, request);
            tree.insert(tree.end(), page.elements.begin(), page.elements.end());
            request.after = page.nextAfter;
        } while (page.nextAfter != 0);
        return tree;
    }
};

// The tree read again (as after lost events) one element a slice, with alarms raised and cleared
// meanwhile: the view then holds exactly what the tree holds, and a reply gives whole counts but
// bounded rows.
TEST_F(Conditions, TheTreeReadInSlicesWithEventsOnTopEndsRight)
{
    const std::string panel = (std::filesystem::temp_directory_path() /
                               ("egw-conditions-" + std::to_string(getpid()) + ".json"))
                                  .string();
    std::ofstream(panel) << panelconfig::generatePanelText(4, 400);
    egwservice::ServiceSettings settings;
    settings.followPanel = true;
    settings.conditions.slice = 1;
    settings.conditions.pause = std::chrono::milliseconds(1);
    settings.conditions.rowsPerKind = 20;
    startService({"", panel}, settings);
    std::filesystem::remove(panel);
    auto operator2 = connectAt(2);

    std::vector<rpc::ElementSnapshot> tree = wholeTree(*operator2);
    const auto has = [](const rpc::ElementSnapshot& e, rpc::Id group) {
        return std::any_of(e.states.begin(), e.states.end(),
                           [&](const rpc::StateValue& s) { return s.groupId == group; });
    };
    rpc::ConditionList seen;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto waitFor = [&](const std::function<bool()>& done) {
        while (((*operator2)->getConditions(seen), !done()) &&
               std::chrono::steady_clock::now() < until)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    };
    waitFor([&] { return seen.complete; });
    core().conditions().lost();
    int alarms = 0;
    for (std::size_t i = 0; i < tree.size(); i += 7)
    {
        const rpc::Id group = has(tree[i], kFireAlarmGroup) ? kFireAlarmGroup : kFaultGroup;
        if (has(tree[i], group))
        {
            (*operator2)->setState(tree[i].uuid, group, group == kFaultGroup ? 0x60004 : 0x60002);
        }
        // Every third alarm is reset at once: its event must undo what the scan may have read.
        if (group == kFireAlarmGroup && ++alarms % 3 == 0)
        {
            (*operator2)->setState(tree[i].uuid, group, kNormal);
        }
    }
    (*operator2)->getConditions(seen);
    ASSERT_FALSE(seen.complete) << "the scan ended before the last change: it was not tested";

    // What the tree holds now, through the table; the view has it once the scan is done and the
    // pump has passed on the last change.
    std::map<Kind::type, std::set<std::pair<rpc::Uuid, rpc::Id>>> truth;
    for (const auto& element : wholeTree(*operator2))
    {
        for (const auto& state : element.states)
        {
            if (const auto kind = egwservice::conditionKindOf(static_cast<UINT32>(state.groupId),
                                                              static_cast<UINT32>(state.value)))
            {
                truth[*kind].emplace(element.uuid, state.groupId);
            }
        }
    }
    ASSERT_GT(truth[Kind::FIRE].size(), 20u);
    waitFor([&] {
        return seen.complete && seen.fires + seen.faults ==
                                    static_cast<std::int64_t>(truth[Kind::FIRE].size() +
                                                              truth[Kind::FAULT].size());
    });
    ASSERT_TRUE(seen.complete);
    EXPECT_EQ(seen.fires, static_cast<std::int64_t>(truth[Kind::FIRE].size()));
    EXPECT_EQ(seen.faults, static_cast<std::int64_t>(truth[Kind::FAULT].size()));
    EXPECT_EQ(seen.disablements, static_cast<std::int64_t>(truth[Kind::DISABLEMENT].size()));
    EXPECT_EQ(seen.outputs, static_cast<std::int64_t>(truth[Kind::OUTPUT].size()));
    std::map<Kind::type, std::size_t> rows;
    Kind::type previous = Kind::FIRE;
    for (const auto& c : seen.conditions)
    {
        EXPECT_EQ(truth[c.kind].count({c.uuid, c.groupId}), 1u) << c.idString;
        EXPECT_GE(c.kind, previous) << "fire first, then faults, disablements, outputs";
        EXPECT_FALSE(c.idString.empty());
        previous = c.kind;
        ++rows[c.kind];
    }
    for (const auto& [kind, held] : truth)
    {
        EXPECT_EQ(rows[kind], std::min<std::size_t>(held.size(), 20)) << kind;
    }
}

} // namespace
} // namespace servicetest
