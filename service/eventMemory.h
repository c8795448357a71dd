// The event memory: every event the service receives, kept in the service's SQLite database (its
// own table, its own connection) so that a client can look back at what happened, by time,
// category and sub-tree. Bounded to the newest rows; storing never holds up the sessions.
#ifndef SERVICE_EVENT_MEMORY_H
#define SERVICE_EVENT_MEMORY_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "panelService_types.h"

namespace egwservice
{

namespace rpc = ::egw::rpc;
class Database;

// Which stored events a query wants, newest first. 0 (or empty) in a field means no bound.
struct EventSelection
{
    std::int64_t fromMs = 0;
    std::int64_t toMs = 0;
    std::vector<std::int32_t> categories; // of the event detail record
    std::uint32_t subtree = 0;            // the element and every element that was below it
    std::int64_t beforeId = 0;            // paging: the last id of the previous page
    int max = 100;
};

// The stored events of an open database, newest first; each event's sequence is its stored id.
// The panel tool calls it on a database opened read-only; throws DatabaseError. Property-change
// data is returned as stored: the caller hides what the reader may not see.
std::vector<rpc::Event> queryEvents(Database& db, const EventSelection& selection);

class EventMemory
{
public:
    // Throws DatabaseError when the file cannot be opened at all.
    EventMemory(const std::string& file, std::int64_t rows);
    ~EventMemory();
    EventMemory(const EventMemory&) = delete;
    EventMemory& operator=(const EventMemory&) = delete;

    // Stores the event with the element's chain of ancestors (the element first, the tree root
    // last). Never throws: an event that cannot be stored is counted, and the first one after
    // storing worked is reported on stderr.
    void store(const rpc::Event& event, const std::vector<std::uint32_t>& ancestors);
    // Throws DatabaseError.
    std::vector<rpc::Event> query(const EventSelection& selection);
    // Events that could not be stored since the service started.
    std::int64_t notStored() const { return notStored_; }

private:
    Database& connectionLocked();

    const std::string file_;
    const std::int64_t rows_;
    std::mutex mutex_;
    std::unique_ptr<Database> db_;
    std::atomic<std::int64_t> notStored_{0};
    bool failing_ = false;
};

} // namespace egwservice

#endif
