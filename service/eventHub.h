// The service's events: one module subscription in the element server for all sessions, counted
// per (type or element, event id), and one bounded queue per session. A pump thread takes each
// event from the event source, decodes it once (ID string, state-change record, event detail) and
// queues it for every session that subscribed to it. A full queue never loses events silently:
// the session receives a gap marker with the number lost.
#ifndef SERVICE_EVENT_HUB_H
#define SERVICE_EVENT_HUB_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "panelService_types.h"
#include "service/conditions.h"
#include "service/eventMemory.h"
#include "service/eventSource.h"

namespace egwservice
{

namespace rpc = ::egw::rpc;

// The event detail record of an element: its category and the fields the panel reports.
rpc::EventDetail eventDetailOf(UINT32 uuid);

// One event id of the elements of a type (byType) or of one element.
struct EventFilter
{
    bool byType;
    UINT32 target; // tagged type id, or uuid
    UINT32 eventId;

    bool operator<(const EventFilter& other) const
    {
        return std::tie(byType, target, eventId) <
               std::tie(other.byType, other.target, other.eventId);
    }
};

// The events of one session, in sequence, bounded.
class SessionQueue
{
public:
    explicit SessionQueue(std::size_t limit) : limit_(limit) {}

    void push(const rpc::Event& event);
    // Counts events that never reached the queue; the next take() announces them.
    void lose(std::size_t count);
    // Up to `max` events of about `maxBytes` in all (the first one always); waits up to
    // `timeout` for the first one, or until closed or hurried.
    std::vector<rpc::Event> take(std::size_t max, std::chrono::milliseconds timeout,
                                 std::size_t maxBytes = SIZE_MAX);
    // Ends the wait of the take() under way, or else of the next one, at once with what the
    // queue has. (The next one, so that a take() about to begin is not missed.)
    void hurry();
    void close();

private:
    void announceLossLocked();

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<rpc::Event> events_;
    std::int64_t nextSequence_ = 1;
    std::size_t lost_ = 0;
    std::size_t limit_;
    bool hurried_ = false;
    bool closed_ = false;
};

class EventHub
{
public:
    // Every event received is stored in the memory when there is one, and changes the conditions
    // when there are some (before any session sees it).
    EventHub(EventSource& source, UINT32 module, std::size_t queueLimit, std::size_t filterLimit,
             EventMemory* memory = nullptr, PanelConditions* conditions = nullptr);
    ~EventHub();
    EventHub(const EventHub&) = delete;
    EventHub& operator=(const EventHub&) = delete;

    UINT32 module() const { return module_; }

    // A new session's queue; detach() drops it and the session's subscriptions.
    std::shared_ptr<SessionQueue> attach();
    void detach(const std::shared_ptr<SessionQueue>& queue);

    // Subscribes the session in the element server, through the library's subscriptions. The
    // request is checked first; a refusal throws a PanelError and changes nothing.
    void subscribe(const std::shared_ptr<SessionQueue>& queue, const rpc::Subscription& request,
                   void* client);
    void unsubscribe(const std::shared_ptr<SessionQueue>& queue, const rpc::Subscription& request,
                     void* client);

    // Stops the pump and wakes every waiting session.
    void stop();

private:
    struct SessionFilters
    {
        std::weak_ptr<SessionQueue> queue;
        std::map<EventFilter, int> filters;
    };

    void pump();
    void deliver(const RawEvent& raw);
    // Drops `count` holders of the filter; true when none is left, so that the module's
    // subscription in the element server is to be ended (unsubscribeInServer).
    bool releaseLocked(const EventFilter& filter, int count);
    void unsubscribeInServer(const EventFilter& filter, void* client);

    EventSource& source_;
    EventMemory* const memory_;
    PanelConditions* const conditions_;
    const UINT32 module_;
    const std::size_t queueLimit_;
    const std::size_t filterLimit_;
    // Subscribing, unsubscribing and detaching one at a time, held across their library calls
    // (which wait for the element server); the pump never takes it. mutex_ guards the maps
    // below and is never held across a library call, so the pump never waits for a session.
    std::mutex changes_;
    std::mutex mutex_;
    std::map<SessionQueue*, SessionFilters> sessions_;
    std::map<EventFilter, int> held_; // element-server subscriptions, by number of holders
    std::map<UINT32, UINT32> deletedTypes_; // types of elements announced as being deleted
    std::size_t droppedSeen_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread pump_;
};

} // namespace egwservice

#endif
