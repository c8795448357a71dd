// Control interface of the panel simulator, for tests, tools and module developers working off the
// panel. The simulator itself implements the host declarations in host/; this header offers what
// the panel's host does not: loading type libraries, resetting, event-system logins, capturing the
// debug log, injecting host faults, tracing host calls and counting live host objects.
#ifndef PANELSIM_H
#define PANELSIM_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/elementServer.h"

namespace panelsim
{

// ---- Type library -------------------------------------------------------------------------------

// Loads a type library (format: docs/type-library.md). On failure returns false, puts one message
// naming the source, the place in it and the problem into `error`, and keeps the library in force.
HOST_API bool loadTypeLibraryFile(const std::string& path, std::string& error);
HOST_API bool loadTypeLibraryText(const std::string& text, const std::string& sourceName,
                                  std::string& error);
// Puts the shipped sample type library back in force (it is in force when the process starts).
HOST_API void loadSampleTypeLibrary();
// The text of the shipped sample type library.
HOST_API const std::string& sampleTypeLibraryText();

// ---- Runtime state ------------------------------------------------------------------------------

// Clears the tree and every piece of runtime state: elements, states, relations, subscriptions,
// logins, the event dispatcher and its queues, recorded commands, injected faults, the trace and
// the log sink. Uuids are never handed out twice in a process, also across resets. The type
// library in force stays.
HOST_API void reset();

// Logs a module in to (out of) the event system; subscriptions by element need the login.
HOST_API void loginModule(unsigned int pid);
HOST_API void logoutModule(unsigned int pid);

// ---- Debug log ----------------------------------------------------------------------------------

// Receives each DebugPrint line (formatted, without the level and module prefix). An empty sink
// restores the default: one line per call on standard error.
using LogSink = std::function<void(int level, const std::string& module, const std::string& text)>;
HOST_API void setLogSink(LogSink sink);

// ---- Fault injection ----------------------------------------------------------------------------

// How an injected fault shows: the operation's own failure (a status, an error word, an empty
// property, null data, type 0, an empty list, as its contract allows), or a thrown InjectedFault.
enum class FaultKind
{
    Fail,
    Throw
};

class HOST_API InjectedFault : public std::runtime_error
{
public:
    explicit InjectedFault(const std::string& operation);
};

// Makes calls of the named host operation (its trace name, e.g. "ElementServer::GetRoot") fail:
// after `skip` calls that go through, the next `count` calls fail (count 0: every call from then on).
// `status` is the failure status or error word for operations that report one.
HOST_API void injectFault(const std::string& operation, FaultKind kind, unsigned skip = 0,
                          unsigned count = 1, int status = 1);
// Makes the k-th host call from now (1-based, any operation) fail; with `persistent`, every call
// from the k-th on fails.
HOST_API void injectFaultAtCall(unsigned k, FaultKind kind, bool persistent, int status = 1);
HOST_API void clearFaults();

// ---- Trace and counters -------------------------------------------------------------------------

// Records every host call from now on as a text such as "ElementServer::Lock(0)" or
// "Element(0x5)::GetPropertyByPropertyID(0x4)" (format: docs/simulator.md).
HOST_API void startTrace();
HOST_API std::vector<std::string> stopTrace();
// Host calls made since the process started (or the last reset).
HOST_API unsigned long hostCallCount();
// Element and Property objects alive right now, wherever they were made.
HOST_API long liveElements();
HOST_API long liveProperties();
// Property objects that were still alive when the Element they were taken from
// (GetPropertyByPropertyID) or written through (SetProperty) was destroyed, since the process
// started (or the last reset). A holder of both lets go of the property first.
HOST_API long propertiesOutlivingElements();

// ---- Inspection ---------------------------------------------------------------------------------

struct ExecutedCommand
{
    unsigned int target;
    unsigned short command;
    unsigned int source; // 0: none
    std::string parameters;
};
// Commands executed since the last reset, oldest first.
HOST_API std::vector<ExecutedCommand> executedCommands();

struct Subscription
{
    bool byType;
    unsigned int typeOrUuid; // type number for by-type subscriptions, else the element's uuid
    unsigned int eventId;
    unsigned int pid;
};
// Subscriptions in force, in the order they were made.
HOST_API std::vector<Subscription> subscriptions();

HOST_API bool isDispatcherOpen();
HOST_API std::size_t elementCount();
// Whether the element exists and is validated (Element::Validate, AddElement's bValidate).
HOST_API bool isValidated(unsigned int uuid);

// Adds a reference relation that the holder may already hold, as a panel's host can hold one
// twice (ElementServer::AddReferenceRelation refuses that with 4). The relation queries then list
// the target (the holder) once per relation; DeleteReferenceRelation removes them all. Returns the
// status of AddReferenceRelation otherwise.
HOST_API int addRelationAgain(unsigned int holder, unsigned int target,
                              unsigned short relationType);

// ---- Events -------------------------------------------------------------------------------------

// One event delivered to a module while the dispatcher is open.
struct Event
{
    unsigned int eventId;
    unsigned int uuid;
    unsigned int source;  // command events: the source element, else 0
    std::string data;     // state changes: the 16-byte record; commands: the parameters
};

// Takes the oldest queued event of the module; false when there is none.
HOST_API bool takeEvent(unsigned int pid, Event& event);
// Waits up to `timeout` for an event of the module.
HOST_API bool waitEvent(unsigned int pid, Event& event, std::chrono::milliseconds timeout);
// Events dropped because the module's queue was full, since the last reset.
HOST_API std::size_t droppedEvents(unsigned int pid);

} // namespace panelsim

#endif
