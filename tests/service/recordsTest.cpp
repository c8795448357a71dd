// The service's records: every change has its committed audit row before the client has its
// reply, and no row means no change; refusals for the access level are rows too; the trail and
// the event memory keep their newest rows; stored events are found by time, category and sub-tree,
// also after their element is gone.
#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "service/database.h"
#include "tests/service/serviceFixture.h"

namespace servicetest
{
namespace
{

using egwservice::AuditRecord;
using egwservice::AuditRow;
using egwservice::AuditSelection;
using egwservice::Database;
using ErrorCode = rpc::ErrorCode;

constexpr std::int64_t kDetectorType = 0x70048;
constexpr std::int64_t kLabel = 0x30002;           // byte string
constexpr std::int64_t kAlarmThreshold = 0x30031;  // 8-bit
constexpr std::int64_t kLastServiceDate = 0x30038; // date-time
constexpr std::int64_t kLevel2Password = 0x30010;
constexpr std::int64_t kFireAlarmGroup = 0x80001;
constexpr std::int64_t kNormal = 0x60001;
constexpr std::int64_t kFireAlarm = 0x60003;

template <typename Call>
ErrorCode::type refusal(Call&& call, std::string* message = nullptr)
{
    try
    {
        call();
    }
    catch (const rpc::PanelError& error)
    {
        if (message != nullptr)
        {
            *message = error.message;
        }
        return error.code;
    }
    return static_cast<ErrorCode::type>(0);
}

// A directory of the test's own, removed afterwards.
struct TempDirectory
{
    TempDirectory()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "records-XXXXXX").string();
        path = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~TempDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

// The newest rows of the file, read through a connection of their own.
std::vector<AuditRow> storedRows(const std::string& file, const std::string& operation = "")
{
    Database db(file, Database::Access::ReadOnly);
    AuditSelection selection;
    selection.operation = operation;
    selection.max = 1000;
    return egwservice::queryAudit(db, selection);
}

// An audit trail that fails where a test asks it to, keeping what it was given.
class FailingTrail : public egwservice::AuditTrail
{
public:
    bool failRecord = false;
    bool failBegin = false;
    bool failFinish = false;
    std::vector<AuditRecord> rows;

    void record(const AuditRecord& row) override
    {
        fail(failRecord);
        rows.push_back(row);
    }
    std::int64_t begin(const AuditRecord& row) override
    {
        fail(failBegin);
        rows.push_back(row);
        rows.back().result = "pending";
        return static_cast<std::int64_t>(rows.size());
    }
    void finish(std::int64_t id, const std::string& result,
                const std::optional<std::string>&) override
    {
        fail(failFinish);
        rows.at(static_cast<std::size_t>(id - 1)).result = result;
    }
    std::vector<AuditRow> query(const AuditSelection&) override { return {}; }

private:
    static void fail(bool when)
    {
        if (when)
        {
            throw egwservice::AuditUnavailable("database or disk is full");
        }
    }
};

class Records : public ServiceFixture
{
protected:
    void SetUp() override {}

    rpc::Uuid first(Client& client, std::int64_t type)
    {
        return collectAll(client, 0, type).at(0);
    }
};

// The event memory's newest events once it holds `count` of them (or after ten seconds).
std::vector<rpc::Event> storedEvents(Client& client, std::size_t count)
{
    rpc::EventQuery query;
    query.max = 10;
    std::vector<rpc::Event> stored;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    client->queryEvents(stored, query);
    while (stored.size() < count && std::chrono::steady_clock::now() < until)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        client->queryEvents(stored, query);
    }
    return stored;
}

struct Change
{
    const char* operation;
    std::function<void(rpc::PanelServiceClient&, rpc::Uuid detector)> call;
    std::optional<std::string> after;
};

TEST_F(Records, EveryChangeHasItsCommittedRowBeforeTheReply)
{
    startService();
    auto admin = connectAt(4);
    const rpc::Uuid detector = first(*admin, kDetectorType);
    rpc::DateTime date;
    date.year = 2025;
    date.month = 1;
    date.day = 2;
    date.secondOfDay = 3661;
    date.microsecond = 5;
    const std::vector<Change> changes = {
        {"setInteger", [](auto& c, auto d) { c.setInteger(d, kAlarmThreshold, 77); }, "77"},
        {"setBytes", [](auto& c, auto d) { c.setBytes(d, kLabel, "Hall 2"); }, "Hall 2"},
        {"setBytes", [](auto& c, auto d) { c.setBytes(d, kLabel, std::string("\x01\xff", 2)); },
         "hex:01ff"},
        {"setDateTime", [&](auto& c, auto d) { c.setDateTime(d, kLastServiceDate, date); },
         "2025-01-02 01:01:01.000005"},
        {"setState", [](auto& c, auto d) { c.setState(d, kFireAlarmGroup, kFireAlarm); },
         "0x60003 (group 0x80001)"},
        {"assignGuid", [](auto& c, auto d) { c.assignGuid(d); }, std::nullopt},
    };
    for (const Change& change : changes)
    {
        SCOPED_TRACE(change.operation);
        // The value before, in the words the row uses for the value after.
        const std::vector<AuditRow> earlier = storedRows(database(), change.operation);
        change.call(*(*admin).operator->(), detector);
        const std::vector<AuditRow> rows = storedRows(database(), change.operation);
        ASSERT_EQ(rows.size(), earlier.size() + 1);
        const AuditRecord& row = rows.front().record;
        EXPECT_EQ(row.result, "ok");
        EXPECT_EQ(row.uuid, detector);
        EXPECT_EQ(row.level, 4);
        EXPECT_FALSE(row.idString.empty());
        if (change.after)
        {
            EXPECT_EQ(row.after, change.after);
        }
        else
        {
            EXPECT_TRUE(row.after.has_value());
        }
        if (!earlier.empty())
        {
            EXPECT_EQ(row.before, earlier.front().record.after);
        }
    }
    // A request refused by its checks changes nothing and leaves no row.
    const std::size_t before = storedRows(database()).size();
    EXPECT_EQ(refusal([&] { (*admin)->setInteger(detector, kAlarmThreshold, 256); }),
              ErrorCode::VALUE_OUT_OF_RANGE);
    EXPECT_EQ(storedRows(database()).size(), before);
}

TEST_F(Records, NoChangeWithoutItsRow)
{
    auto owned = std::make_unique<FailingTrail>();
    FailingTrail& trail = *owned;
    startService({}, {}, {}, std::move(owned));
    auto admin = connectAt(4);
    const rpc::Uuid detector = first(*admin, kDetectorType);
    const std::int64_t value = (*admin)->getInteger(detector, kAlarmThreshold);

    trail.failBegin = true;
    std::string message;
    EXPECT_EQ(
        refusal([&] { (*admin)->setInteger(detector, kAlarmThreshold, value + 1); }, &message),
        ErrorCode::REFUSED);
    EXPECT_NE(message.find("audit trail"), std::string::npos) << message;
    EXPECT_NE(message.find("nothing was changed"), std::string::npos) << message;
    EXPECT_EQ((*admin)->getInteger(detector, kAlarmThreshold), value);
    EXPECT_EQ(refusal([&] { (*admin)->setState(detector, kFireAlarmGroup, kFireAlarm); }),
              ErrorCode::REFUSED);
    EXPECT_EQ((*admin)->getState(detector, kFireAlarmGroup), kNormal);

    // The outcome that cannot be recorded after the change: the change stands, its row stays
    // pending, the client has the change's real result.
    trail.failBegin = false;
    trail.failFinish = true;
    (*admin)->setInteger(detector, kAlarmThreshold, value + 1);
    EXPECT_EQ((*admin)->getInteger(detector, kAlarmThreshold), value + 1);
    ASSERT_FALSE(trail.rows.empty());
    EXPECT_EQ(trail.rows.back().operation, "setInteger");
    EXPECT_EQ(trail.rows.back().result, "pending");

    // A refusal for the level is given even when its row cannot be written.
    trail.failRecord = true;
    auto guest = connect();
    EXPECT_EQ(refusal([&] { (*guest)->setInteger(detector, kAlarmThreshold, 1); }),
              ErrorCode::ACCESS_DENIED);
}

TEST_F(Records, RefusalsForTheLevelAreRows)
{
    startService();
    auto admin = connectAt(4);
    auto guest = connect();
    auto operator2 = connectAt(2);
    const rpc::Uuid detector = first(*admin, kDetectorType);
    std::vector<rpc::AuditEntry> entries;
    struct Case
    {
        const char* operation;
        std::function<void()> call;
        std::uint32_t uuid;
        const char* result;
    };
    const std::vector<Case> cases = {
        {"setState", [&] { (*guest)->setState(detector, kFireAlarmGroup, kFireAlarm); },
         static_cast<std::uint32_t>(detector), "denied: level 2 needed"},
        {"addElement", [&] { (*operator2)->addElement(detector, kDetectorType, false); },
         static_cast<std::uint32_t>(detector), "denied: level 3 needed"},
        {"queryAudit", [&] { (*operator2)->queryAudit(entries, rpc::AuditQuery()); }, 0,
         "denied: level 3 needed"},
        {"findElementByProperty",
         [&] { (*guest)->findElementByProperty(0, kLevel2Password, "2222", false); }, 0,
         "denied: level 4 needed"},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.operation);
        const std::size_t before = storedRows(database(), c.operation).size();
        try
        {
            c.call();
        }
        catch (const rpc::PanelError& error)
        {
            EXPECT_EQ(error.code, ErrorCode::ACCESS_DENIED);
        }
        const std::vector<AuditRow> rows = storedRows(database(), c.operation);
        ASSERT_EQ(rows.size(), before + 1);
        EXPECT_EQ(rows.front().record.result, c.result);
        EXPECT_EQ(rows.front().record.uuid, c.uuid);
    }
    // The trail over the service, newest first, paged and filtered.
    rpc::AuditQuery query;
    query.max = 2;
    (*admin)->queryAudit(entries, query);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].operation, "findElementByProperty");
    EXPECT_GT(entries[0].id, entries[1].id);
    query.beforeId = entries[1].id;
    query.operation = "setState";
    std::vector<rpc::AuditEntry> older;
    (*admin)->queryAudit(older, query);
    ASSERT_EQ(older.size(), 1u);
    EXPECT_EQ(older[0].result, "denied: level 2 needed");
}

TEST(AuditRetention, KeepsTheNewestRows)
{
    TempDirectory dir;
    const std::string file = dir.path + "/audit.db";
    {
        egwservice::SqliteAuditTrail trail(file, {5, 400});
        AuditRecord row;
        for (int i = 1; i <= 12; ++i)
        {
            row.operation = "op" + std::to_string(i);
            trail.record(row);
        }
    }
    std::vector<AuditRow> rows = storedRows(file);
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows.front().record.operation, "op12");
    EXPECT_EQ(rows.back().record.operation, "op8");

    // Rows older than the days kept go at the next write; the new row stays.
    {
        Database db(file);
        db.execute("UPDATE audit SET timeMs = 1000 WHERE operation IN ('op8', 'op9')");
    }
    egwservice::SqliteAuditTrail trail(file, {5, 1});
    AuditRecord row;
    row.operation = "op13";
    trail.record(row);
    rows = storedRows(file);
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows.front().record.operation, "op13");
    EXPECT_EQ(rows.back().record.operation, "op10");
}

rpc::Event storedEvent(std::int64_t timeMs, std::int32_t category)
{
    rpc::Event e;
    e.timeMs = timeMs;
    e.eventId = 0x03010001;
    e.uuid = 100 + timeMs;
    e.data = std::string("\x00\x01", 2);
    e.__set_detail(rpc::EventDetail());
    e.detail.category = category;
    return e;
}

std::vector<std::int64_t> timesOf(const std::vector<rpc::Event>& events)
{
    std::vector<std::int64_t> times;
    for (const rpc::Event& e : events)
    {
        times.push_back(e.timeMs);
    }
    return times;
}

TEST(EventMemory, FindsEventsByTimeCategoryAndSubtreeInPages)
{
    TempDirectory dir;
    egwservice::EventMemory memory(dir.path + "/events.db", 6);
    // Eight events at times 1..8, categories 1,2,1,2,..; odd times below element 7, even ones
    // below element 8, both below the root 1.
    for (std::int64_t t = 1; t <= 8; ++t)
    {
        memory.store(storedEvent(t, static_cast<std::int32_t>(1 + (t + 1) % 2)),
                     {static_cast<std::uint32_t>(100 + t), t % 2 == 1 ? 7u : 8u, 1u});
    }
    EXPECT_EQ(memory.notStored(), 0);
    egwservice::EventSelection all;
    const std::vector<rpc::Event> kept = memory.query(all);
    // Six kept, the newest, newest first; the stored id is the sequence.
    EXPECT_EQ(timesOf(kept), (std::vector<std::int64_t>{8, 7, 6, 5, 4, 3}));
    EXPECT_GT(kept[0].sequence, kept[1].sequence);
    EXPECT_EQ(kept[0].data, std::string("\x00\x01", 2));
    EXPECT_TRUE(kept[0].__isset.detail);
    EXPECT_FALSE(kept[0].__isset.stateChange);

    const auto selection = [](std::int64_t from, std::int64_t to, std::vector<std::int32_t> categories,
                              std::uint32_t subtree, int max) {
        egwservice::EventSelection s;
        s.fromMs = from;
        s.toMs = to;
        s.categories = std::move(categories);
        s.subtree = subtree;
        s.max = max;
        return s;
    };
    struct Case
    {
        const char* name;
        egwservice::EventSelection selection;
        std::vector<std::int64_t> times;
    };
    const Case cases[] = {
        {"time range", selection(4, 6, {}, 0, 100), {6, 5, 4}},
        {"category", selection(0, 0, {2}, 0, 100), {8, 6, 4}},
        {"categories", selection(0, 0, {1, 2}, 0, 100), {8, 7, 6, 5, 4, 3}},
        {"sub-tree", selection(0, 0, {}, 7, 100), {7, 5, 3}},
        {"the element itself", selection(0, 0, {}, 105, 100), {5}},
        {"sub-tree and category", selection(0, 0, {1}, 8, 100), {}},
        {"page", selection(0, 0, {}, 1, 4), {8, 7, 6, 5}},
    };
    for (const Case& c : cases)
    {
        EXPECT_EQ(timesOf(memory.query(c.selection)), c.times) << c.name;
    }
    egwservice::EventSelection next;
    next.max = 4;
    next.beforeId = memory.query(selection(0, 0, {}, 1, 4)).back().sequence;
    EXPECT_EQ(timesOf(memory.query(next)), (std::vector<std::int64_t>{4, 3}));
}

// Two sessions write the same label at once: each row holds the value its own session wrote, and
// the value before it is the one the previous row left.
TEST_F(Records, RowsOfConcurrentWritersHoldTheirOwnValues)
{
    startService();
    auto probe = connectAt(3);
    const rpc::Uuid detector = first(*probe, kDetectorType);
    constexpr int kWrites = 60;
    std::vector<std::thread> writers;
    for (int w = 0; w < 2; ++w)
    {
        writers.emplace_back([&, w] {
            auto writer = connectAt(3);
            for (int i = 0; i < kWrites; ++i)
            {
                (*writer)->setBytes(detector, kLabel, "w" + std::to_string(w) + "-" +
                                                          std::to_string(i));
            }
        });
    }
    for (std::thread& writer : writers)
    {
        writer.join();
    }
    std::vector<AuditRow> rows = storedRows(database(), "setBytes");
    ASSERT_EQ(rows.size(), 2u * kWrites);
    std::set<std::string> written;
    for (std::size_t i = 0; i < rows.size(); ++i)
    {
        written.insert(rows[i].record.after.value_or(""));
        if (i + 1 < rows.size())
        {
            EXPECT_EQ(rows[i].record.before, rows[i + 1].record.after) << "row " << rows[i].id;
        }
    }
    EXPECT_EQ(written.size(), 2u * kWrites);
}

// With no session watching, the service's own subscriptions still bring every state change into
// the event memory.
TEST_F(Records, TheEventMemoryKeepsWhatNoSessionFollows)
{
    egwservice::ServiceSettings settings;
    settings.followPanel = true;
    startService({}, settings);
    auto operator2 = connectAt(2);
    const rpc::Uuid detector = first(*operator2, kDetectorType);
    (*operator2)->setState(detector, kFireAlarmGroup, kFireAlarm);
    const std::vector<rpc::Event> stored = storedEvents(*operator2, 1);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].uuid, detector);
    EXPECT_EQ(stored[0].stateChange.value, kFireAlarm);
}

TEST_F(Records, EventsOfADeletedElementAreFoundInItsFormerSubtree)
{
    startService();
    auto admin = connectAt(4);
    const rpc::Uuid detector = first(*admin, kDetectorType);
    const rpc::Uuid parent = (*admin)->getParent(detector);
    rpc::Subscription s;
    s.kind = rpc::SubscriptionKind::ALL_STATE_CHANGES;
    s.target = kDetectorType;
    (*admin)->subscribe(s);
    (*admin)->setState(detector, kFireAlarmGroup, kFireAlarm);
    std::vector<rpc::Event> delivered;
    (*admin)->nextEvents(delivered, 10, 5000);
    ASSERT_EQ(delivered.size(), 1u);
    ASSERT_EQ(storedEvents(*admin, 1).size(), 1u);
    (*admin)->deleteElement(detector);

    rpc::EventQuery query;
    query.subtree = parent;
    query.max = 10;
    std::vector<rpc::Event> found;
    (*admin)->queryEvents(found, query);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].uuid, detector);
    EXPECT_EQ(found[0].idString, delivered[0].idString);
    EXPECT_EQ(found[0].stateChange, delivered[0].stateChange);
    EXPECT_EQ(found[0].detail, delivered[0].detail);
    query.categories = {15};
    EXPECT_EQ(refusal([&] { (*admin)->queryEvents(found, query); }), ErrorCode::BAD_ARGUMENT);
}

TEST_F(Records, AnEventThatCannotBeStoredStillReachesTheSessions)
{
    startService({}, {}, {}, std::make_unique<FailingTrail>());
    auto admin = connectAt(4);
    const rpc::Uuid detector = first(*admin, kDetectorType);
    rpc::Subscription s;
    s.kind = rpc::SubscriptionKind::ALL_STATE_CHANGES;
    s.target = kDetectorType;
    (*admin)->subscribe(s);
    std::vector<rpc::Event> delivered;
    {
        // Another connection holds the database's write lock.
        Database other(database());
        egwservice::Transaction held(other);
        other.execute("DELETE FROM events");
        (*admin)->setState(detector, kFireAlarmGroup, kFireAlarm);
        (*admin)->nextEvents(delivered, 10, 5000);
        ASSERT_EQ(delivered.size(), 1u);
        // The pump stores after it has delivered; it gives up after a short wait.
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (core().eventMemory().notStored() == 0 && std::chrono::steady_clock::now() < until)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(core().eventMemory().notStored(), 1);
    }
    (*admin)->setState(detector, kFireAlarmGroup, kNormal);
    (*admin)->nextEvents(delivered, 10, 5000);
    ASSERT_EQ(delivered.size(), 1u);
    // The pump stores an event after it has delivered it.
    const std::vector<rpc::Event> stored = storedEvents(*admin, 1);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].stateChange.value, kNormal);
}

} // namespace
} // namespace servicetest
