// The event memory: every event the service receives, kept in the service's SQLite database (its
// own table, its own connection) so that a client can look back at what happened, by time,
// category and sub-tree. Bounded to the newest rows. The pump only queues an event: a writer
// thread of the memory stores the queue in batches, one transaction each, and waits out a busy or
// failing database rather than drop what it holds. Events that never reach the table (the queue
// was full, or the element server dropped them before the service could take them) leave a gap
// row with their number in their place.
#ifndef SERVICE_EVENT_MEMORY_H
#define SERVICE_EVENT_MEMORY_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "panelService_types.h"

namespace egwservice
{

namespace rpc = ::egw::rpc;
class Database;

// Which stored events a query wants, newest first. 0 (or empty) in a field means no bound. A gap
// row is found by every selection that covers its time: the events it stands for could have been
// of any category and any sub-tree.
struct EventSelection
{
    std::int64_t fromMs = 0;
    std::int64_t toMs = 0;
    std::vector<std::int32_t> categories; // of the event detail record
    std::uint32_t subtree = 0;            // the element and every element that was below it
    std::int64_t beforeId = 0;            // paging: the last id of the previous page
    int max = 100;
};

// The stored events of an open database, newest first; each event's sequence is its stored id,
// and a gap row is an event with `lost` > 0 (the events it stands for), eventId and uuid 0.
// The panel tool calls it on a database opened read-only; throws DatabaseError. Property-change
// data is returned as stored: the caller hides what the reader may not see.
std::vector<rpc::Event> queryEvents(Database& db, const EventSelection& selection);

// What the memory may hold and how it is written.
struct EventMemoryLimits
{
    std::int64_t rows = 100000; // events (and gap rows) kept in the table: the newest
    std::size_t queue = 10000;  // events waiting for the writer; beyond it they become a gap
};

class EventMemory
{
public:
    // Throws DatabaseError when the file cannot be opened at all.
    EventMemory(const std::string& file, EventMemoryLimits limits);
    // Stores what is queued (waiting a bounded time for a database that fails), then stops.
    ~EventMemory();
    EventMemory(const EventMemory&) = delete;
    EventMemory& operator=(const EventMemory&) = delete;

    // Queues the event with the element's chain of ancestors (the element first, the tree root
    // last). Never waits for the database and never throws: when the queue is full the event is
    // counted into the gap that the next stored row is preceded by.
    void store(const rpc::Event& event, std::vector<std::uint32_t> ancestors);
    // Events lost before they reached the service (the element server's queue to the service's
    // module was full): a gap row in their place.
    void lost(std::int64_t count);
    // Waits until everything queued so far is stored; false when `timeout` ran out first.
    bool flush(std::chrono::milliseconds timeout);
    // Throws DatabaseError.
    std::vector<rpc::Event> query(const EventSelection& selection);

    // Since the service started: events stored, and events lost to a full queue.
    std::int64_t stored() const;
    std::int64_t overflowed() const;

private:
    struct Entry
    {
        rpc::Event event; // lost > 0: a gap row
        std::vector<std::uint32_t> ancestors;
    };

    void writer();
    void takeBatchLocked(std::vector<Entry>& batch);
    bool writeBatch(const std::vector<Entry>& batch);
    void insertBatch(const std::vector<Entry>& batch);
    Database& connectionLocked();

    const std::string file_;
    const EventMemoryLimits limits_;

    std::mutex connectionMutex_; // the connection: the writer's batches and the queries
    std::unique_ptr<Database> db_;
    bool failing_ = false; // said once on stderr, until a batch is stored again

    mutable std::mutex queueMutex_;
    std::condition_variable queued_;
    std::condition_variable written_;
    std::deque<Entry> queue_;
    std::int64_t overflow_ = 0;   // lost to the full queue since the last gap was queued
    std::int64_t overflowed_ = 0; // in all
    std::int64_t stored_ = 0;
    bool writing_ = false; // the writer holds a batch
    bool stopping_ = false;
    std::chrono::steady_clock::time_point giveUpAt_{};
    std::thread writer_;
};

} // namespace egwservice

#endif
