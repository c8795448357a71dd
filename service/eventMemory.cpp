#include "service/eventMemory.h"

#include <algorithm>
#include <iostream>

#include "service/database.h"

namespace egwservice
{
namespace
{

// Rows removed per batch beyond its own size at most once the memory is full: pruning keeps pace
// with storing in small steps, from the oldest end.
constexpr std::int64_t kPruneStep = 100;
// Events per transaction at most: one commit carries many events, and an audit row waiting for its
// turn (see WriteTurn) waits behind one such batch at most.
constexpr std::size_t kBatch = 500;
// A batch that could not be stored is tried again after this wait, doubled up to the longest.
constexpr auto kFirstRetry = std::chrono::milliseconds(20);
constexpr auto kLongestRetry = std::chrono::milliseconds(1000);
// At the service's stop, how long a failing database is waited for before what is queued is
// given up (and the number said on stderr).
constexpr auto kStopWait = std::chrono::seconds(5);

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

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
                         "parentId, parentAddress, deviceId, hasProxy, proxyId, proxyAddress, lost "
                         "FROM events WHERE (?1 = 0 OR timeMs >= ?1) AND (?2 = 0 OR timeMs <= ?2) "
                         "AND (?3 = '' OR lost > 0 OR instr(?3, ',' || category || ',') > 0) "
                         "AND (?4 = 0 OR lost > 0 OR instr(ancestors, ',' || ?4 || ',') > 0) "
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
        e.lost = select.integer(20);
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

EventMemory::EventMemory(const std::string& file, EventMemoryLimits limits)
    : file_(file), limits_(limits)
{
    {
        const std::lock_guard<std::mutex> lock(connectionMutex_);
        connectionLocked();
    }
    writer_ = std::thread([this] { writer(); });
}

EventMemory::~EventMemory()
{
    {
        const std::lock_guard<std::mutex> lock(queueMutex_);
        stopping_ = true;
        giveUpAt_ = std::chrono::steady_clock::now() + kStopWait;
    }
    queued_.notify_all();
    writer_.join();
}

Database& EventMemory::connectionLocked()
{
    if (!db_)
    {
        db_ = std::make_unique<Database>(file_);
        // An event is worth less than an audit row: a power loss may cost the last batches
        // stored (WAL keeps the file consistent), and a batch does not wait for the disk's sync.
        db_->execute("PRAGMA synchronous=NORMAL");
    }
    return *db_;
}

void EventMemory::store(const rpc::Event& event, std::vector<std::uint32_t> ancestors)
{
    {
        const std::lock_guard<std::mutex> lock(queueMutex_);
        if (queue_.size() >= limits_.queue)
        {
            ++overflow_;
            ++overflowed_;
            return;
        }
        if (overflow_ > 0)
        {
            // The events lost to the full queue came before this one.
            Entry gap;
            gap.event.lost = overflow_;
            gap.event.timeMs = nowMs();
            queue_.push_back(std::move(gap));
            overflow_ = 0;
        }
        queue_.push_back({event, std::move(ancestors)});
    }
    queued_.notify_one();
}

void EventMemory::lost(std::int64_t count)
{
    if (count <= 0)
    {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(queueMutex_);
        if (queue_.size() >= limits_.queue)
        {
            // Merged with the queue's own gap: one row for both.
            overflow_ += count;
            return;
        }
        Entry gap;
        gap.event.lost = count;
        gap.event.timeMs = nowMs();
        queue_.push_back(std::move(gap));
    }
    queued_.notify_one();
}

bool EventMemory::flush(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(queueMutex_);
    return written_.wait_for(lock, timeout,
                             [&] { return queue_.empty() && overflow_ == 0 && !writing_; });
}

std::int64_t EventMemory::stored() const
{
    const std::lock_guard<std::mutex> lock(queueMutex_);
    return stored_;
}

std::int64_t EventMemory::overflowed() const
{
    const std::lock_guard<std::mutex> lock(queueMutex_);
    return overflowed_;
}

void EventMemory::takeBatchLocked(std::vector<Entry>& batch)
{
    while (!queue_.empty() && batch.size() < kBatch)
    {
        batch.push_back(std::move(queue_.front()));
        queue_.pop_front();
    }
    if (queue_.empty() && overflow_ > 0)
    {
        // Lost after everything queued: the gap closes the batch.
        Entry gap;
        gap.event.lost = overflow_;
        gap.event.timeMs = nowMs();
        batch.push_back(std::move(gap));
        overflow_ = 0;
    }
}

void EventMemory::writer()
{
    std::vector<Entry> batch;
    std::unique_lock<std::mutex> lock(queueMutex_);
    for (;;)
    {
        queued_.wait(lock, [&] { return stopping_ || !queue_.empty() || overflow_ > 0; });
        if (queue_.empty() && overflow_ == 0)
        {
            return; // stopping, and everything is stored
        }
        batch.clear();
        takeBatchLocked(batch);
        writing_ = true;
        lock.unlock();
        const bool written = writeBatch(batch);
        lock.lock();
        writing_ = false;
        if (written)
        {
            stored_ += static_cast<std::int64_t>(std::count_if(
                batch.begin(), batch.end(), [](const Entry& e) { return e.event.lost == 0; }));
        }
        else
        {
            // Only at the stop, once the database failed for longer than the wait: said, not
            // hidden. (The batch and the rest of the queue are given up together.)
            std::int64_t given = 0;
            for (const Entry& e : batch)
            {
                given += e.event.lost > 0 ? e.event.lost : 1;
            }
            for (const Entry& e : queue_)
            {
                given += e.event.lost > 0 ? e.event.lost : 1;
            }
            given += overflow_;
            queue_.clear();
            overflow_ = 0;
            std::cerr << "egwd: the event memory could not store " << given
                      << " events before the service stopped" << std::endl;
        }
        written_.notify_all();
    }
}

bool EventMemory::writeBatch(const std::vector<Entry>& batch)
{
    for (auto wait = kFirstRetry;; wait = std::min(wait * 2, kLongestRetry))
    {
        try
        {
            insertBatch(batch);
            return true;
        }
        catch (const DatabaseError& error)
        {
            if (!failing_)
            {
                std::cerr << "egwd: the event memory cannot store events (" << error.what()
                          << "); they still reach the sessions, and are kept (up to "
                          << limits_.queue << " queued) until they can be stored" << std::endl;
                failing_ = true;
            }
        }
        std::unique_lock<std::mutex> lock(queueMutex_);
        if (stopping_ && std::chrono::steady_clock::now() >= giveUpAt_)
        {
            return false;
        }
        // Woken early only by the stop; then tried again before giving up.
        queued_.wait_for(
            lock, wait, [&] { return stopping_ && std::chrono::steady_clock::now() >= giveUpAt_; });
    }
}

void EventMemory::insertBatch(const std::vector<Entry>& batch)
{
    const WriteTurn turn(WriteTurn::Kind::Batch);
    const std::lock_guard<std::mutex> lock(connectionMutex_);
    try
    {
        Database& db = connectionLocked();
        Transaction transaction(db);
        Statement insert(db, "INSERT INTO events(timeMs, eventId, uuid, idString, source, data, "
                             "changeUuid, changeGroup, changeValue, changePrevious, category, "
                             "selfId, selfAddress, parentId, parentAddress, deviceId, hasProxy, "
                             "proxyId, proxyAddress, ancestors, lost) VALUES (?1, ?2, ?3, ?4, ?5, "
                             "?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17, ?18, ?19, "
                             "?20, ?21)");
        for (const Entry& entry : batch)
        {
            const rpc::Event& e = entry.event;
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
            insert.bind(20, listText(entry.ancestors)).bind(21, e.lost).run();
        }
        Statement prune(db, "DELETE FROM events WHERE id IN (SELECT id FROM events "
                            "WHERE id <= (SELECT max(id) FROM events) - ?1 ORDER BY id LIMIT ?2)");
        prune.bind(1, limits_.rows)
            .bind(2, static_cast<std::int64_t>(batch.size()) + kPruneStep)
            .run();
        transaction.commit();
        if (failing_)
        {
            std::cerr << "egwd: the event memory stores events again" << std::endl;
            failing_ = false;
        }
    }
    catch (const DatabaseError&)
    {
        // The next attempt opens the file afresh: a database made writable again takes events
        // without a restart.
        db_.reset();
        throw;
    }
}

std::vector<rpc::Event> EventMemory::query(const EventSelection& selection)
{
    const std::lock_guard<std::mutex> lock(connectionMutex_);
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
