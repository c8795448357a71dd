// Events as a session receives them: in sequence, decoded, filtered by its own subscriptions,
// with a gap marker where its queue overflowed; and what a session leaves behind when it ends.
#include <algorithm>
#include <chrono>

#include "panelsim/panelsim.h"
#include "tests/service/serviceFixture.h"

namespace servicetest
{
namespace
{

constexpr std::int64_t kDetectorType = 0x70048;
constexpr std::int64_t kFireAlarmGroup = 0x80001;
constexpr std::int64_t kNormal = 0x60001;
constexpr std::int64_t kFireAlarm = 0x60003;
constexpr std::int64_t kPreAlarm = 0x60002;
constexpr UINT32 kServiceModule = 4;

rpc::Subscription allStateChanges(std::int64_t type)
{
    rpc::Subscription s;
    s.kind = rpc::SubscriptionKind::ALL_STATE_CHANGES;
    s.target = type;
    return s;
}

std::vector<rpc::Event> poll(Client& client, int max = 100, int timeoutMs = 2000)
{
    std::vector<rpc::Event> events;
    client->nextEvents(events, max, timeoutMs);
    return events;
}

// Waits (bounded) until the service holds no element-server subscription of its module.
bool moduleUnsubscribed()
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < until)
    {
        const auto all = panelsim::subscriptions();
        if (std::none_of(all.begin(), all.end(),
                         [](const panelsim::Subscription& s) { return s.pid == kServiceModule; }))
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class SessionEvents : public ServiceFixture
{
protected:
    rpc::Uuid firstDetector(Client& client)
    {
        return collectAll(client, 0, kDetectorType).at(0);
    }
};

TEST_F(SessionEvents, StateChangeArrivesDecodedOnlyAtItsSubscribers)
{
    auto follower = connectAt(2);
    auto bystander = connect();
    const rpc::Uuid detector = firstDetector(*follower);
    (*follower)->subscribe(allStateChanges(kDetectorType));
    (*follower)->setState(detector, kFireAlarmGroup, kFireAlarm);

    const auto events = poll(*follower);
    ASSERT_EQ(events.size(), 1u);
    const rpc::Event& e = events[0];
    EXPECT_EQ(e.sequence, 1);
    EXPECT_EQ(e.lost, 0);
    EXPECT_EQ(e.eventId, 0x03010000 | (kFireAlarmGroup & 0xFFFF));
    EXPECT_EQ(e.uuid, detector);
    std::string idString;
    (*follower)->getIdString(idString, detector);
    EXPECT_EQ(e.idString, idString);
    ASSERT_TRUE(e.__isset.stateChange);
    EXPECT_EQ(e.stateChange.value, kFireAlarm);
    EXPECT_EQ(e.stateChange.previous, kNormal);
    ASSERT_TRUE(e.__isset.detail);
    rpc::EventDetail detail;
    (*follower)->getEventDetail(detail, detector);
    EXPECT_EQ(e.detail, detail);
    EXPECT_TRUE(poll(*bystander, 10, 100).empty());
}

TEST_F(SessionEvents, OverflowIsAnnouncedWithTheNumberLost)
{
    TearDown();
    egwservice::ServiceSettings settings;
    settings.queueLimit = 3;
    startService({}, settings);

    auto client = connectAt(2);
    const rpc::Uuid detector = firstDetector(*client);
    (*client)->subscribe(allStateChanges(kDetectorType));
    // Ten changes; the queue holds three.
    for (int i = 0; i < 10; ++i)
    {
        (*client)->setState(detector, kFireAlarmGroup, i % 2 == 0 ? kPreAlarm : kNormal);
    }
    // The pump delivers in order: once a later change of the root has reached another session,
    // all ten have been looked at.
    auto sync = connect();
    const rpc::Uuid root = (*sync)->getRoot();
    rpc::Subscription rootChanges;
    rootChanges.kind = rpc::SubscriptionKind::BY_ELEMENT;
    rootChanges.target = root;
    rootChanges.eventId = 0x03010000 | (kFireAlarmGroup & 0xFFFF);
    (*sync)->subscribe(rootChanges);
    (*client)->setState(root, kFireAlarmGroup, kFireAlarm);
    ASSERT_EQ(poll(*sync).size(), 1u);
    std::vector<rpc::Event> events = poll(*client, 100, 200);
    for (rpc::Event& e : poll(*client, 100, 200))
    {
        events.push_back(std::move(e));
    }
    ASSERT_EQ(events.size(), 4u);
    for (std::size_t i = 0; i < events.size(); ++i)
    {
        EXPECT_EQ(events[i].sequence, static_cast<std::int64_t>(i) + 1);
    }
    EXPECT_EQ(events[3].lost, 7);
    EXPECT_EQ(events[3].uuid, 0);
    // The queue takes events again, after the marker.
    (*client)->setState(detector, kFireAlarmGroup, kFireAlarm);
    const auto next = poll(*client);
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].sequence, 5);
    EXPECT_EQ(next[0].lost, 0);
}

TEST_F(SessionEvents, SubscriptionsAreCountedAcrossSessions)
{
    auto first = connectAt(2);
    auto second = connect();
    const rpc::Uuid detector = firstDetector(*first);
    (*first)->subscribe(allStateChanges(kDetectorType));
    (*second)->subscribe(allStateChanges(kDetectorType));
    // One session leaving does not take the other's events away.
    (*second)->unsubscribe(allStateChanges(kDetectorType));
    second.reset();
    (*first)->setState(detector, kFireAlarmGroup, kFireAlarm);
    EXPECT_EQ(poll(*first).size(), 1u);
    first.reset();
    EXPECT_TRUE(moduleUnsubscribed()) << "a closed session left its subscriptions in the server";
}

TEST_F(SessionEvents, SessionEndLeavesNothingBehind)
{
    {
        auto client = connect();
        (*client)->subscribe(allStateChanges(kDetectorType));
        rpc::Subscription byElement;
        byElement.kind = rpc::SubscriptionKind::BY_ELEMENT;
        byElement.target = firstDetector(*client);
        byElement.eventId = 0x03010001;
        (*client)->subscribe(byElement);
        EXPECT_EQ(core().openSessions.load(), 1);
    }
    EXPECT_TRUE(moduleUnsubscribed());
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (core().openSessions.load() != 0 && std::chrono::steady_clock::now() < until)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(core().openSessions.load(), 0);
}

// Operations that need one consistent tree (a waited delete, a page of a snapshot) hold the element
// server's lock for their whole run.
TEST_F(SessionEvents, SnapshotAndWaitedDeleteHoldTheLock)
{
    auto admin = connectAt(3);
    const rpc::Uuid detector = firstDetector(*admin);
    for (const bool deleting : {false, true})
    {
        SCOPED_TRACE(deleting ? "waited delete" : "snapshot");
        panelsim::startTrace();
        if (deleting)
        {
            (*admin)->deleteElementWaited(detector, {}, 1);
        }
        else
        {
            rpc::SnapshotRequest whole;
            whole.propertyIds = {0x30004};
            whole.withStates = true;
            rpc::SnapshotPage page;
            (*admin)->snapshot(page, whole);
            ASSERT_EQ(page.nextAfter, 0) << "the sample panel fits one page";
        }
        const std::vector<std::string> trace = panelsim::stopTrace();
        const auto lock = std::find(trace.begin(), trace.end(), "ElementServer::Lock(0)");
        const auto unlock = std::find(trace.begin(), trace.end(), "ElementServer::UnLock()");
        ASSERT_NE(lock, trace.end());
        ASSERT_NE(unlock, trace.end());
        // Nothing but the element check before the lock, nothing after the unlock.
        EXPECT_LE(lock - trace.begin(), 3);
        EXPECT_EQ(unlock, trace.end() - 1);
    }
    EXPECT_THROW((*admin)->getElementType(detector), rpc::PanelError)
        << "the waited delete left the element";
}

} // namespace
} // namespace servicetest
