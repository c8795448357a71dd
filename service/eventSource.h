// Where the service's events come from. The service is one panel module (module id 4, the
// panel's Thrift service); the element server delivers the events that module subscribed to, and
// an event source hands them over one by one. The simulator provides one implementation; on the
// panel, the host's event system provides the other (docs/service.md says what it must do).
#ifndef SERVICE_EVENT_SOURCE_H
#define SERVICE_EVENT_SOURCE_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "api/gatewayTypes.h"

namespace egwservice
{

// One event as the element server delivered it to the module.
struct RawEvent
{
    UINT32 eventId = 0;
    UINT32 uuid = 0;
    UINT32 source = 0;  // command events: the source element, else 0
    std::string data;   // state changes: the 16-byte record; commands: the parameters
};

class EventSource
{
public:
    virtual ~EventSource() = default;
    // Logs the module in to the panel's event system (subscriptions by element need it).
    virtual void open(UINT32 module) = 0;
    virtual void close(UINT32 module) = 0;
    // Waits up to `timeout` for the module's next event; false when none came.
    virtual bool next(UINT32 module, RawEvent& event, std::chrono::milliseconds timeout) = 0;
    // Events the element server could not deliver to the module (its queue was full), in all.
    virtual std::size_t dropped(UINT32 module) = 0;
};

// The event source of the host the service is built for.
std::unique_ptr<EventSource> makeEventSource();

} // namespace egwservice

#endif
