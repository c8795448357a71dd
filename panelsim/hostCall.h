// The entry of every host operation: one choke point that traces the call, counts it and applies
// an injected fault, so that tests can fail any call of the host by name or by position.
#ifndef PANELSIM_HOST_CALL_H
#define PANELSIM_HOST_CALL_H

#include <initializer_list>
#include <string>

namespace panelsim::detail
{

// Host operations that the simulator calls on its own objects (filling the Property that
// GetPropertyByPropertyID returns, reading the one SetProperty is given) are not host calls of the
// caller: inside this scope they are neither traced, counted nor faulted.
class InternalCall
{
public:
    InternalCall();
    ~InternalCall();
    InternalCall(const InternalCall&) = delete;
    InternalCall& operator=(const InternalCall&) = delete;
};
bool insideInternalCall();

bool tracing();
void appendTrace(std::string entry);
// Counts the call and applies a matching fault: throws InjectedFault, or returns the status the
// operation must fail with; 0 lets it proceed.
int countAndApplyFault(const char* operation);

// The trace entry of a call: "<operation>(<arguments>)", with the object's id after the class name
// for an operation of an object: "Element(0x5)::GetPropertyByPropertyID(0x4)".
std::string traceEntry(const char* operation, const unsigned* object, const std::string& arguments);

// Begins a host operation. `arguments` makes the trace text of the arguments and is only called
// while tracing. Returns 0, or the status with which the operation must fail.
template <typename Arguments>
int hostCall(const char* operation, const unsigned* object, const Arguments& arguments)
{
    if (insideInternalCall())
        return 0;
    if (tracing())
        appendTrace(traceEntry(operation, object, arguments()));
    return countAndApplyFault(operation);
}

inline int hostCall(const char* operation, const unsigned* object = nullptr)
{
    return hostCall(operation, object, [] { return std::string(); });
}

// Clears the counter, the trace and the faults (panelsim::reset).
void resetCalls();

// Trace text of values: hexadecimal "0x1a", a bool "true"/"false", a list "a, b, c".
std::string hex(unsigned value);
std::string list(std::initializer_list<std::string> items);
inline const char* text(bool value)
{
    return value ? "true" : "false";
}

} // namespace panelsim::detail

#endif
