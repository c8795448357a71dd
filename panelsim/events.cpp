// Event queues of the modules. A queue is bounded; an event that finds it full is dropped, counted
// and reported in the debug log, so that no loss goes unnoticed.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <unordered_map>

#include "panelsim/debugLog.h"
#include "panelsim/simulator.h"

namespace panelsim::detail
{
namespace
{

constexpr std::size_t kQueueLimit = 1024;

struct Queue
{
    std::deque<Event> events;
    std::size_t dropped = 0;
};

struct Queues
{
    std::mutex mutex;
    std::condition_variable arrived;
    std::unordered_map<unsigned, Queue> byModule;
};

Queues& queues()
{
    static Queues instance;
    return instance;
}

bool takeLocked(Queue& queue, Event& event)
{
    if (queue.events.empty())
        return false;
    event = std::move(queue.events.front());
    queue.events.pop_front();
    return true;
}

} // namespace

void queueEvent(unsigned pid, const Event& event)
{
    Queues& q = queues();
    std::size_t dropped = 0;
    {
        const std::lock_guard<std::mutex> lock(q.mutex);
        Queue& queue = q.byModule[pid];
        if (queue.events.size() < kQueueLimit)
            queue.events.push_back(event);
        else
            dropped = ++queue.dropped;
    }
    if (dropped == 0)
    {
        q.arrived.notify_all();
        return;
    }
    char text[160];
    std::snprintf(text, sizeof text,
                  "event queue of module %u is full (%zu events): event 0x%x of element 0x%x "
                  "dropped, %zu dropped in all\n",
                  pid, kQueueLimit, event.eventId, event.uuid, dropped);
    writeLog(4, kSimulatorModule, text);
}

void clearEventQueues()
{
    Queues& q = queues();
    const std::lock_guard<std::mutex> lock(q.mutex);
    q.byModule.clear();
}

} // namespace panelsim::detail

namespace panelsim
{

bool takeEvent(unsigned int pid, Event& event)
{
    detail::Queues& q = detail::queues();
    const std::lock_guard<std::mutex> lock(q.mutex);
    return detail::takeLocked(q.byModule[pid], event);
}

bool waitEvent(unsigned int pid, Event& event, std::chrono::milliseconds timeout)
{
    detail::Queues& q = detail::queues();
    std::unique_lock<std::mutex> lock(q.mutex);
    q.arrived.wait_for(lock, timeout, [&] { return !q.byModule[pid].events.empty(); });
    return detail::takeLocked(q.byModule[pid], event);
}

std::size_t droppedEvents(unsigned int pid)
{
    detail::Queues& q = detail::queues();
    const std::lock_guard<std::mutex> lock(q.mutex);
    const auto found = q.byModule.find(pid);
    return found == q.byModule.end() ? 0 : found->second.dropped;
}

} // namespace panelsim
