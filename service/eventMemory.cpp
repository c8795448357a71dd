#include "service/eventMemory.h"

#include <iostream>

#include "service/database.h"

namespace egwservice
{
namespace
{

// Rows removed per stored event at most once the memory is full: pruning keeps pace with storing
// in small steps, from the oldest end.
constexpr std::int64_t kPruneStep = 100;
constexpr int kStoreWaitMs = 250;

// ",a,b,c," so that one instr() finds a member.
template <typename Number>
std::string listText(const std::vector<Number>& numbers)
{
    if (numbers.empty())
    {
        return {};
    }
    std::string text = ",";
    for (const Number n : numbers)
    {
        text += std::to_string(n) + ",";
    }
    return text;
}

} // namespace

std::vector<rpc::Event> queryEvents(Database& db, const EventSelection& s)
{
    Statement select(db, "SELECT id, timeMs, eventId, uuid, idString, source, data, changeUuid, "
                         "changeGroup, changeValue, changePrevious, category, selfId, selfAddress, "
                         "parentId, parentAddress, deviceId, hasProxy, proxyId, proxyAddress "
                         "FROM events WHERE (?1 = 0 OR timeMs >= ?1) AND (?2 = 0 OR timeMs <= ?2) "
                         "AND (?3 = '' OR instr(?3, ',' || category || ',') > 0) "
                         "AND (?4 = 0 OR instr(ancestors, ',' || ?4 || ',') > 0) "
                         "AND (?5 = 0 OR id < ?5) ORDER BY id DESC LIMIT ?6");
    select.bind(1, s.fromMs)
        .bind(2, s.toMs)
        .bind(3, listText(s.categories))
        .bind(4, std::int64_t{s.subtree})
        .bind(5, s.beforeId)
        .bind(6, std::int64_t{s.max});
    std::vector<rpc::Event> events;
    while (select.step())
    {
        rpc::Event e;
        e.sequence = select.integer(0);
        e.timeMs = select.integer(1);
        e.eventId = select.integer(2);
        e.uuid = select.integer(3);
        e.idString = select.text(4);
        e.source = select.integer(5);
        e.data = select.text(6);
        if (select.optionalText(8))
        {
            e.stateChange.uuid = select.integer(7);
            e.stateChange.groupId = select.integer(8);
            e.stateChange.value = select.integer(9);
            e.stateChange.previous = select.integer(10);
            e.__isset.stateChange = true;
        }
        if (select.optionalText(11))
        {
            rpc::EventDetail& d = e.detail;
            d.category = static_cast<std::int32_t>(select.integer(11));
            d.selfId = select.integer(12);
            d.selfAddress = select.integer(13);
            d.parentId = select.integer(14);
            d.parentAddress = select.integer(15);
            d.deviceId = select.integer(16);
            d.hasProxy = select.integer(17) != 0;
            d.proxyId = select.integer(18);
            d.proxyAddress = select.integer(19);
            e.__isset.detail = true;
        }
        events.push_back(std::move(e));
    }
    return events;
}

EventMemory::EventMemory(const std::string& file, std::int64_t rows) : file_(file), rows_(rows)
{
    connectionLocked();
}

EventMemory::~EventMemory() = default;

Database& EventMemory::connectionLocked()
{
    if (!db_)
    {
        db_ = std::make_unique<Database>(file_);
        // An event is worth less than an audit row: a power loss may cost the last events
        // stored (WAL keeps the file consistent), and the pump does not wait for the disk's
        // sync on every event.
        db_->execute("PRAGMA synchronous=NORMAL");
        // The pump does not wait long behind another writer (an audit row takes milliseconds):
        // an event it cannot store in time is counted, and the sessions have it all the same.
        db_->setBusyTimeout(kStoreWaitMs);
    }
    return *db_;
}

void EventMemory::store(const rpc::Event& e, const std::vector<std::uint32_t>& ancestors)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    try
    {
        Database& db = connectionLocked();
        Statement insert(db, "INSERT INTO events(timeMs, eventId, uuid, idString, source, data, "
                             "changeUuid, changeGroup, changeValue, changePrevious, category, "
                             "selfId, selfAddress, parentId, parentAddress, deviceId, hasProxy, "
                             "proxyId, proxyAddress, ancestors) VALUES (?1, ?2, ?3, ?4, ?5, ?6, "
                             "?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17, ?18, ?19, ?20)");
        insert.bind(1, e.timeMs)
            .bind(2, e.eventId)
            .bind(3, e.uuid)
            .bind(4, e.idString)
            .bind(5, e.source)
            .bindBytes(6, e.data);
        if (e.__isset.stateChange)
        {
            insert.bind(7, e.stateChange.uuid)
                .bind(8, e.stateChange.groupId)
                .bind(9, e.stateChange.value)
                .bind(10, e.stateChange.previous);
        }
        if (e.__isset.detail)
        {
            const rpc::EventDetail& d = e.detail;
            insert.bind(11, std::int64_t{d.category})
                .bind(12, d.selfId)
                .bind(13, d.selfAddress)
                .bind(14, d.parentId)
                .bind(15, d.parentAddress)
                .bind(16, d.deviceId)
                .bind(17, std::int64_t{d.hasProxy ? 1 : 0})
                .bind(18, d.proxyId)
                .bind(19, d.proxyAddress);
        }
        insert.bind(20, listText(ancestors)).run();
        Statement prune(db, "DELETE FROM events WHERE id IN (SELECT id FROM events "
                            "WHERE id <= (SELECT max(id) FROM events) - ?1 ORDER BY id LIMIT ?2)");
        prune.bind(1, rows_).bind(2, kPruneStep).run();
        if (failing_)
        {
            std::cerr << "egwd: the event memory stores events again (" << notStored_
                      << " could not be stored)" << std::endl;
            failing_ = false;
        }
    }
    catch (const DatabaseError& error)
    {
        db_.reset();
        ++notStored_;
        if (!failing_)
        {
            std::cerr << "egwd: the event memory cannot store events (" << error.what()
                      << "); they still reach the sessions" << std::endl;
            failing_ = true;
        }
    }
}

std::vector<rpc::Event> EventMemory::query(const EventSelection& selection)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    try
    {
        return queryEvents(connectionLocked(), selection);
    }
    catch (const DatabaseError&)
    {
        db_.reset();
        throw;
    }
}

} // namespace egwservice
