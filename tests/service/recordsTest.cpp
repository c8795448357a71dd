// The service's records: every change has its committed audit row before the client has its
// reply, and no row means no change; refusals for the access level are rows too, a level-1
// session's counted together; the trail keeps the rows of changes over those of refusals; the event
// memory stores every event of many writers, and a gap row where events were lost; stored events
// are found by time, category and sub-tree, also after their element is gone.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "service/database.h"
#include "service/hostPanel.h"
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
        {"setBytes", [](auto& c, auto d) { c.setBytes(d, kLabel, "K\xc3\xbc" "che"); },
         "K\xc3\xbc" "che"},
        {"setBytes", [](auto& c, auto d) { c.setBytes(d, kLabel, "K\xfc" "che"); },
         "hex:4bfc636865"},
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

// Beyond the rows kept, refusal rows go first; a change's row goes only when the changes alone are
// more than the bound, or older than the days kept.
TEST(AuditRetention, KeepsChangesOverRefusals)
{
    TempDirectory dir;
    const std::string file = dir.path + "/audit.db";
    const auto write = [](egwservice::SqliteAuditTrail& trail, const char* operation, int count,
                          bool refusal) {
        AuditRecord row;
        row.refusal = refusal;
        for (int i = 1; i <= count; ++i)
        {
            row.operation = operation + std::to_string(i);
            trail.record(row);
        }
    };
    const auto operations = [&] {
        std::vector<std::string> names;
        for (const AuditRow& row : storedRows(file))
        {
            names.push_back(row.record.operation);
        }
        return names;
    };
    {
        egwservice::SqliteAuditTrail trail(file, {5, 400});
        write(trail, "change", 2, false);
        write(trail, "refused", 12, true);
        EXPECT_EQ(operations(), (std::vector<std::string>{"refused12", "refused11", "refused10",
                                                          "change2", "change1"}));
        write(trail, "later", 4, false);
        EXPECT_EQ(operations(),
                  (std::vector<std::string>{"later4", "later3", "later2", "later1", "change2"}));
    }
    // Rows older than the days kept go at the next write, whatever their kind; the new row stays.
    {
        Database db(file);
        db.execute("UPDATE audit SET timeMs = 1000 WHERE operation IN ('change2', 'later1')");
    }
    egwservice::SqliteAuditTrail trail(file, {5, 1});
    write(trail, "refused", 1, true);
    EXPECT_EQ(operations(), (std::vector<std::string>{"refused1", "later4", "later3", "later2"}));
}

// A level-1 session's refusals are counted per address and operation: one row at once, then at
// most one a period with how many there were; rows of all counts are bounded per period, and so
// are the counts held. A logged-in session's refusals are rows of their own.
TEST(RefusalLog, CountsLevelOneRefusalsWithinTheirBounds)
{
    FailingTrail trail;
    std::atomic<int> seconds{0};
    egwservice::RefusalLog log(trail, {std::chrono::seconds(10), 3, 2}, [&] {
        return egwservice::SteadyTime(std::chrono::seconds(seconds.load()));
    });
    const auto refuse = [&](const char* peer, const char* operation, int level, int times) {
        AuditRecord row;
        row.peer = peer;
        row.level = level;
        row.operation = operation;
        row.result = "denied: level 3 needed";
        for (int i = 0; i < times; ++i)
        {
            log.record(row);
        }
        // Counts are written oldest first, by the time of their first refusal.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    };
    std::size_t seen = 0;
    const auto written = [&] {
        std::vector<std::string> lines;
        for (; seen < trail.rows.size(); ++seen)
        {
            const AuditRecord& row = trail.rows[seen];
            EXPECT_TRUE(row.refusal);
            lines.push_back(row.peer + " " + row.operation + " " +
                            std::regex_replace(row.result, std::regex("between .*"), "..."));
        }
        return lines;
    };
    refuse("10.0.0.1:5000", "setState", 1, 500);
    refuse("10.0.0.1:5001", "addElement", 1, 2);
    refuse("10.0.0.2:7000", "setState", 1, 40);    // a third address: counted as "*"
    refuse("10.0.0.3:7000", "setState", 2, 2);     // logged in: rows of their own
    refuse("10.0.0.1:5002", "loginBlocked", 1, 1); // beyond the period's three rows
    EXPECT_EQ(written(),
              (std::vector<std::string>{"10.0.0.1:5000 setState denied: level 3 needed",
                                        "10.0.0.1:5001 addElement denied: level 3 needed",
                                        "10.0.0.2:7000 setState denied: level 3 needed",
                                        "10.0.0.3:7000 setState denied: level 3 needed",
                                        "10.0.0.3:7000 setState denied: level 3 needed"}));
    log.writeDue();
    EXPECT_EQ(written(), std::vector<std::string>{});
    seconds = 10;
    log.writeDue();
    EXPECT_EQ(written(), (std::vector<std::string>{
                             "10.0.0.1 setState denied: level 3 needed; refused 499 times ...",
                             "10.0.0.1:5001 addElement denied: level 3 needed",
                             "* setState denied: level 3 needed; refused 39 times ..."}));
    seconds = 20;
    log.writeDue();
    EXPECT_EQ(written(),
              (std::vector<std::string>{"10.0.0.1:5002 loginBlocked denied: level 3 needed"}));
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

// The stored events' times; a gap row as minus its count.
std::vector<std::int64_t> timesOf(const std::vector<rpc::Event>& events)
{
    std::vector<std::int64_t> times;
    for (const rpc::Event& e : events)
    {
        times.push_back(e.lost > 0 ? -e.lost : e.timeMs);
    }
    return times;
}

TEST(EventMemory, FindsEventsByTimeCategoryAndSubtreeInPages)
{
    TempDirectory dir;
    egwservice::EventMemory memory(dir.path + "/events.db", {7, 100});
    // Eight events at times 1..8, categories 1,2,1,2,..; odd times below element 7, even ones
    // below element 8, both below the root 1. Then a gap of two events lost, stored now.
    for (std::int64_t t = 1; t <= 8; ++t)
    {
        memory.store(storedEvent(t, static_cast<std::int32_t>(1 + (t + 1) % 2)),
                     {static_cast<std::uint32_t>(100 + t), t % 2 == 1 ? 7u : 8u, 1u});
    }
    memory.lost(2);
    ASSERT_TRUE(memory.flush(std::chrono::seconds(10)));
    egwservice::EventSelection all;
    const std::vector<rpc::Event> kept = memory.query(all);
    // Seven kept, the newest, newest first; the stored id is the sequence.
    EXPECT_EQ(timesOf(kept), (std::vector<std::int64_t>{-2, 8, 7, 6, 5, 4, 3}));
    EXPECT_EQ(kept[0].eventId, 0);
    EXPECT_GT(kept[1].sequence, kept[2].sequence);
    EXPECT_EQ(kept[1].data, std::string("\x00\x01", 2));
    EXPECT_TRUE(kept[1].__isset.detail);
    EXPECT_FALSE(kept[1].__isset.stateChange);

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
    // The gap could have held events of any category and sub-tree: every selection of its time
    // finds it.
    const Case cases[] = {
        {"time range", selection(4, 6, {}, 0, 100), {6, 5, 4}},
        {"category", selection(0, 0, {2}, 0, 100), {-2, 8, 6, 4}},
        {"categories", selection(0, 0, {1, 2}, 0, 100), {-2, 8, 7, 6, 5, 4, 3}},
        {"sub-tree", selection(0, 0, {}, 7, 100), {-2, 7, 5, 3}},
        {"the element itself", selection(0, 0, {}, 105, 100), {-2, 5}},
        {"sub-tree and category", selection(0, 0, {1}, 8, 100), {-2}},
        {"page", selection(0, 0, {}, 1, 4), {-2, 8, 7, 6}},
    };
    for (const Case& c : cases)
    {
        EXPECT_EQ(timesOf(memory.query(c.selection)), c.times) << c.name;
    }
    egwservice::EventSelection next;
    next.max = 4;
    next.beforeId = memory.query(selection(0, 0, {}, 1, 4)).back().sequence;
    EXPECT_EQ(timesOf(memory.query(next)), (std::vector<std::int64_t>{5, 4, 3}));
}

// Eight threads store as fast as they can: every event is in the memory, and the writer's pace is
// told. With the queue full behind a database held by another connection, the events beyond it
// become one gap row, stored in their place once the database is free again.
TEST(EventMemory, StoresEveryEventOfEightWritersAndAGapForAFullQueue)
{
    TempDirectory dir;
    const std::string file = dir.path + "/events.db";
    constexpr int kWriters = 8;
    constexpr int kEach = 2500;
    {
        egwservice::EventMemory memory(file, {1000000, 100000});
        const auto start = std::chrono::steady_clock::now();
        std::vector<std::thread> writers;
        for (int w = 0; w < kWriters; ++w)
        {
            writers.emplace_back([&memory, w] {
                for (int i = 0; i < kEach; ++i)
                {
                    memory.store(storedEvent(w * kEach + i, 1), {1u});
                }
            });
        }
        for (std::thread& writer : writers)
        {
            writer.join();
        }
        ASSERT_TRUE(memory.flush(std::chrono::seconds(60)));
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_EQ(memory.stored(), kWriters * kEach);
        std::printf("event memory: %d events stored in %.2f s, %.0f events/s\n", kWriters * kEach,
                    seconds, kWriters * kEach / seconds);
    }
    egwservice::EventMemory memory(file, {1000000, 3});
    {
        Database other(file);
        egwservice::Transaction held(other);
        for (int i = 0; i < 10; ++i)
        {
            memory.store(storedEvent(100000 + i, 1), {1u});
        }
        EXPECT_FALSE(memory.flush(std::chrono::milliseconds(200)));
    }
    ASSERT_TRUE(memory.flush(std::chrono::seconds(20)));
    egwservice::EventSelection newest;
    newest.max = 11;
    const std::vector<std::int64_t> times = timesOf(memory.query(newest));
    // The writer took the first event (or the first few) and waited for the database; three
    // waited in the queue; the rest are the gap, the newest row.
    ASSERT_FALSE(times.empty());
    const std::int64_t lost = -times.front();
    EXPECT_GE(lost, 1);
    EXPECT_EQ(memory.stored(), 10 - lost);
    EXPECT_EQ(memory.overflowed(), lost);
    EXPECT_EQ(times[1], 100000 + 9 - lost);
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

// One number from the database file, read through a connection of its own.
std::int64_t countOf(const std::string& file, const char* sql)
{
    Database db(file, Database::Access::ReadOnly);
    egwservice::Statement count(db, sql);
    return count.step() ? count.integer(0) : -1;
}

// Eight level-3 sessions change states at once for a few seconds, no session following them:
// every change has its row, and every state change is stored in the event memory or counted in a
// gap row.
TEST_F(Records, EveryEventOfEightWritersIsStoredAndEveryChangeHasItsRow)
{
    egwservice::ServiceSettings settings;
    settings.followPanel = true;
    startService({}, settings);
    auto probe = connectAt(3);
    std::vector<rpc::Uuid> elements; // each writer its own, with a fire-alarm state group
    const std::vector<rpc::Uuid> all = collectAll(*probe, 0, 0);
    for (std::size_t i = 0; i < all.size() && elements.size() < 8; ++i)
    {
        if (refusal([&] { (*probe)->getState(all[i], kFireAlarmGroup); }) == 0)
        {
            elements.push_back(all[i]);
        }
    }
    ASSERT_EQ(elements.size(), 8u);
    std::atomic<int> changes{0};
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::vector<std::thread> writers;
    for (const rpc::Uuid element : elements)
    {
        writers.emplace_back([&, element] {
            auto writer = connectAt(3);
            for (int i = 0; i < 5000 && std::chrono::steady_clock::now() < until; ++i)
            {
                (*writer)->setState(element, kFireAlarmGroup, i % 2 == 0 ? kFireAlarm : kNormal);
                ++changes;
            }
        });
    }
    for (std::thread& writer : writers)
    {
        writer.join();
    }
    ASSERT_TRUE(core().eventMemory().flush(std::chrono::seconds(30)));
    EXPECT_EQ(countOf(database(), "SELECT count(*) FROM audit WHERE operation = 'setState' "
                                  "AND result = 'ok'"),
              changes.load());
    // Every change is an event stored, or counted in a gap row where the element server's queue
    // to the service overflowed (a slow build's pump, under ThreadSanitizer, falls behind eight
    // writers); none is missing without a trace.
    const std::int64_t stored =
        countOf(database(), "SELECT count(*) FROM events WHERE changeGroup = 524289");
    const std::int64_t lost =
        countOf(database(), "SELECT coalesce(sum(lost), 0) FROM events WHERE lost > 0");
    EXPECT_EQ(stored + lost, changes.load());
    std::printf("eight writers: %d state changes in 3 s, each with its row; %lld events stored, "
                "%lld counted in gaps\n",
                changes.load(), static_cast<long long>(stored), static_cast<long long>(lost));
}

// A refusal flood from level-1 sessions makes a few rows that count every refusal; with a small
// bound on the rows, the refusal rows of a logged-in session are removed before a change's row.
TEST_F(Records, ARefusalFloodIsCountedInFewRowsAndLeavesTheChangesRows)
{
    egwservice::ServiceSettings settings;
    settings.auditRetention.rows = 20;
    settings.refusals.period = std::chrono::seconds(1);
    startService({}, settings);
    auto admin = connectAt(3);
    const rpc::Uuid detector = first(*admin, kDetectorType);
    (*admin)->setInteger(detector, kAlarmThreshold, 42);
    auto operator2 = connectAt(2);
    for (int i = 0; i < 30; ++i)
    {
        EXPECT_EQ(refusal([&] { (*operator2)->addElement(detector, kDetectorType, false); }),
                  ErrorCode::ACCESS_DENIED);
    }
    std::atomic<int> refused{0};
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    std::vector<std::thread> guests;
    for (int g = 0; g < 8; ++g)
    {
        guests.emplace_back([&] {
            auto guest = connect();
            for (int i = 0; i < 5000 && std::chrono::steady_clock::now() < until; ++i)
            {
                refused += refusal([&] {
                               (*guest)->setState(detector, kFireAlarmGroup, kFireAlarm);
                           }) == ErrorCode::ACCESS_DENIED;
            }
        });
    }
    for (std::thread& guest : guests)
    {
        guest.join();
    }
    // The last count is written once its period is over (the writer looks every second).
    std::vector<AuditRow> rows;
    int counted = 0;
    for (int attempt = 0; attempt < 100 && counted != refused; ++attempt)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rows = storedRows(database(), "setState");
        counted = 0;
        for (const AuditRow& row : rows)
        {
            std::smatch times;
            counted +=
                std::regex_search(row.record.result, times, std::regex("refused (\\d+) times"))
                    ? std::stoi(times[1])
                    : 1;
        }
    }
    EXPECT_EQ(counted, refused.load());
    // One row at once, then one a period: two seconds of flood, one second a period.
    EXPECT_LE(rows.size(), 4u);
    const std::vector<AuditRow> changed = storedRows(database(), "setInteger");
    ASSERT_EQ(changed.size(), 1u);
    EXPECT_EQ(changed[0].record.after, "42");
    EXPECT_EQ(storedRows(database()).size(), 20u);
}

// The element server's queue to the service's module dropped events: a gap row with their number
// stands in the event memory, and queryEvents gives it.
class DroppingSource : public egwservice::EventSource
{
public:
    void open(UINT32 module) override { real_->open(module); }
    void close(UINT32 module) override { real_->close(module); }
    bool next(UINT32 module, egwservice::RawEvent& event,
              std::chrono::milliseconds timeout) override
    {
        return real_->next(module, event, timeout);
    }
    std::size_t dropped(UINT32 module) override { return real_->dropped(module) + extra; }

    std::atomic<std::size_t> extra{0};

private:
    std::unique_ptr<egwservice::EventSource> real_ = egwservice::makeEventSource();
};

TEST(EventGaps, EventsDroppedUpstreamAreAGapRow)
{
    TempDirectory dir;
    egwservice::ServiceSettings settings;
    egwservice::preparePanel({}, settings);
    settings.database = dir.path + "/egwd.db";
    DroppingSource source;
    egwservice::ServiceCore core(settings, source);
    egwservice::PanelHandler reader(core, "127.0.0.1:9", 1);
    source.extra = 7;
    rpc::EventQuery query;
    query.max = 10;
    std::vector<rpc::Event> found;
    for (int attempt = 0; attempt < 100 && found.empty(); ++attempt)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        core.eventMemory().flush(std::chrono::seconds(1));
        reader.queryEvents(found, query);
    }
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].lost, 7);
    EXPECT_EQ(found[0].eventId, 0);
    EXPECT_GT(found[0].timeMs, 0);
}

} // namespace
} // namespace servicetest
