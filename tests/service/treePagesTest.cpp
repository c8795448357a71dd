// Long reads in pages: the pages of a walk cover exactly the sub-tree in pre-order whatever the
// page size and depth, a walk resumed after a deleted element is refused, and an alarm raised
// while another connection walks a large panel is not kept waiting for the walk.
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "tests/service/serviceFixture.h"
#include "tools/panelConfig.h"

namespace servicetest
{
namespace
{

using Clock = std::chrono::steady_clock;
using rpc::ErrorCode;

constexpr std::int64_t kDetectorType = 0x70048;
constexpr std::int64_t kLabel = 0x30002;
constexpr std::int64_t kAddress = 0x30004;
constexpr std::int64_t kFireAlarmGroup = 0x80001;
constexpr std::int64_t kFireAlarmEvent = 0x03010001;

// A generated panel of `loops` loop cards, served with the page bounds given.
class TreePages : public ServiceFixture
{
protected:
    void SetUp() override {}
    void TearDown() override
    {
        ServiceFixture::TearDown();
        std::remove(panel_.c_str());
    }

    void serve(unsigned loops, unsigned devices, egwservice::PageBounds bounds)
    {
        panel_ = (std::filesystem::temp_directory_path() /
                  ("egwPages-" + std::to_string(getpid()) + ".json"))
                     .string();
        std::ofstream out(panel_);
        panelconfig::generatePanel(out, loops, devices);
        out.close();
        egwservice::ServiceSettings settings;
        settings.pages = bounds;
        startService({"", panel_}, settings);
    }

    // The sub-tree in pre-order down to `depth` (0: all), by getChildren, with each parent.
    static void expectedWalk(Client& c, rpc::Uuid uuid, rpc::Uuid parent, int level, int depth,
                             std::vector<std::pair<rpc::Uuid, rpc::Uuid>>& out)
    {
        out.emplace_back(uuid, parent);
        if (depth != 0 && level == depth)
        {
            return;
        }
        std::vector<rpc::Uuid> children;
        c->getChildren(children, uuid);
        for (const rpc::Uuid child : children)
        {
            expectedWalk(c, child, uuid, level + 1, depth, out);
        }
    }

    std::string panel_;
};

rpc::SnapshotRequest request(rpc::Uuid root, std::int32_t depth, std::int32_t max)
{
    rpc::SnapshotRequest r;
    r.root = root;
    r.propertyIds = {kLabel, kAddress};
    r.withStates = true;
    r.depth = depth;
    r.max = max;
    return r;
}

TEST_F(TreePages, PagesCoverTheSubtreeInPreOrder)
{
    // A page bound of 50 elements and of 4 KiB, which the labels and states pass first.
    serve(3, 40, {50, 4096});
    auto client = connect();
    const rpc::Uuid root = (*client)->getRoot();
    const rpc::Uuid loop = collectAll(*client, 0, 0x70046).at(1);
    struct Walk
    {
        rpc::Uuid root;
        std::int32_t depth;
        std::int32_t max;
    };
    std::vector<rpc::Uuid> expectedDetectors; // of the whole walk, by the snapshot's types
    for (const Walk& walk : {Walk{0, 0, 0}, Walk{0, 0, 1}, Walk{0, 0, 7}, Walk{0, 1, 3},
                             Walk{0, 2, 0}, Walk{loop, 0, 13}, Walk{loop, 1, 0}})
    {
        SCOPED_TRACE("root " + std::to_string(walk.root) + ", depth " + std::to_string(walk.depth) +
                     ", max " + std::to_string(walk.max));
        std::vector<std::pair<rpc::Uuid, rpc::Uuid>> expected;
        expectedWalk(*client, walk.root == 0 ? root : walk.root,
                     (*client)->getParent(walk.root == 0 ? root : walk.root), 0, walk.depth,
                     expected);
        std::vector<std::pair<rpc::Uuid, rpc::Uuid>> walked;
        rpc::SnapshotRequest asked = request(walk.root, walk.depth, walk.max);
        rpc::SnapshotPage page;
        std::size_t pages = 0;
        do
        {
            (*client)->snapshot(page, asked);
            ASSERT_FALSE(page.elements.empty());
            ASSERT_LE(page.elements.size(), walk.max == 0 ? 50u : std::size_t(walk.max));
            for (const rpc::ElementSnapshot& element : page.elements)
            {
                walked.emplace_back(element.uuid, element.parent);
                if (walk.root == 0 && walk.depth == 0 && walk.max == 0 &&
                    element.typeId == kDetectorType)
                {
                    expectedDetectors.push_back(element.uuid);
                }
            }
            asked.after = page.nextAfter;
            ++pages;
        } while (page.nextAfter != 0 && pages < 10000);
        EXPECT_EQ(walked, expected);
        if (walk.max == 0 && expected.size() > 50)
        {
            EXPECT_GT(pages, (expected.size() + 49) / 50) << "the reply bound never cut a page";
        }
    }
    // collectSubtree walks the same way and keeps the elements of the type.
    ASSERT_FALSE(expectedDetectors.empty());
    EXPECT_EQ(collectAll(*client, 0, kDetectorType), expectedDetectors);
    EXPECT_EQ(reports(), 0);
}

// A batch or a poll whose reply would pass the reply bound stops short of it; the connection
// stays.
TEST_F(TreePages, RepliesStopAtTheirBound)
{
    serve(2, 40, {50, 4096});
    auto admin = connectAt(3);
    const std::vector<rpc::Uuid> detectors = collectAll(*admin, 0, kDetectorType);
    std::vector<rpc::PropertyResult> results;
    // A batch answers the pairs beyond the bound with LIMIT.
    std::vector<rpc::PropertyRef> refs;
    for (const rpc::Uuid element : collectAll(*admin, 0, 0))
    {
        for (const std::int64_t property : {kLabel, kAddress})
        {
            refs.emplace_back().uuid = element;
            refs.back().propertyId = property;
        }
    }
    (*admin)->readProperties(results, refs);
    ASSERT_EQ(results.size(), refs.size());
    EXPECT_TRUE(results.front().__isset.value);
    ASSERT_TRUE(results.back().__isset.error);
    EXPECT_EQ(results.back().error.code, ErrorCode::LIMIT);
    EXPECT_NE(results.back().error.message.find("at most 4096 bytes"), std::string::npos);
    // Events too: two 3,000-byte labels come one poll each.
    rpc::Subscription labels;
    labels.kind = rpc::SubscriptionKind::BY_ELEMENT;
    labels.target = detectors.at(0);
    labels.eventId = 0x03020000 | (kLabel & 0xFFFF);
    (*admin)->subscribe(labels);
    (*admin)->setBytes(detectors.at(0), kLabel, std::string(3000, 'a'));
    (*admin)->setBytes(detectors.at(0), kLabel, std::string(3000, 'b'));
    std::vector<rpc::Event> events;
    for (const char expected : {'a', 'b'})
    {
        (*admin)->nextEvents(events, 10, 5000);
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].data.substr(0, 3), std::string(3, expected));
    }
    EXPECT_EQ((*admin)->echo(7), 7);
    EXPECT_EQ(reports(), 0);
}

// A fire alarm raised while another connection snapshots the whole of a 30,000-element panel
// page after page: its setState and its event wait at most for a page, not for the walk.
TEST_F(TreePages, AnAlarmDoesNotWaitForAWholeTreeReader)
{
    serve(25, 1000, {});
    auto reader = connect();
    auto operatorClient = connectAt(2);
    auto watcher = connect();
    const rpc::Uuid detector = collectAll(*operatorClient, 0, kDetectorType).at(0);
    rpc::Subscription alarms;
    alarms.kind = rpc::SubscriptionKind::BY_ELEMENT;
    alarms.target = detector;
    alarms.eventId = kFireAlarmEvent;
    (*watcher)->subscribe(alarms);

    std::atomic<bool> reading{true};
    std::atomic<long> walkMs{0};
    std::thread walker([&] {
        while (reading)
        {
            const auto start = Clock::now();
            rpc::SnapshotRequest asked = request(0, 0, 0);
            rpc::SnapshotPage page;
            do
            {
                (*reader)->snapshot(page, asked);
                asked.after = page.nextAfter;
            } while (page.nextAfter != 0);
            walkMs =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        }
    });
    Clock::duration worst{};
    for (int alarm = 0; alarm < 20; ++alarm)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(37));
        const auto start = Clock::now();
        (*operatorClient)->setState(detector, kFireAlarmGroup, alarm % 2 == 0 ? 0x60002 : 0x60001);
        std::vector<rpc::Event> events;
        (*watcher)->nextEvents(events, 10, 10000);
        worst = std::max(worst, Clock::now() - start);
        ASSERT_EQ(events.size(), 1u);
    }
    reading = false;
    walker.join();
    // A whole walk took seconds; an alarm waits for one page at most (a generous bound).
    const auto worstMs = std::chrono::duration_cast<std::chrono::milliseconds>(worst).count();
    ASSERT_GT(walkMs, 0);
    EXPECT_LT(worstMs * 4, walkMs)
        << "the worst alarm took " << worstMs << " ms, a walk " << walkMs << " ms";
}

} // namespace
} // namespace servicetest
