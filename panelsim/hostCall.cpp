// Fault injection, the call trace and the call counter.
#include <atomic>
#include <cstdio>
#include <mutex>
#include <vector>

#include "panelsim/hostCall.h"
#include "panelsim/panelsim.h"

namespace panelsim
{

InjectedFault::InjectedFault(const std::string& operation)
    : std::runtime_error("injected fault in " + operation)
{
}

namespace detail
{
namespace
{

// One injected fault: calls of `operation` (every operation when empty) counted from the
// injection; the calls after the first `skip` fail, `count` of them (0: all).
struct FaultRule
{
    std::string operation;
    FaultKind kind;
    unsigned skip;
    unsigned count;
    int status;
    unsigned seen = 0;
};

struct Calls
{
    std::atomic<unsigned long> count{0};
    std::atomic<bool> tracing{false};
    std::atomic<bool> anyFault{false};
    std::mutex mutex; // guards trace and faults
    std::vector<std::string> trace;
    std::vector<FaultRule> faults;
};

Calls& calls()
{
    static Calls instance;
    return instance;
}

void addFault(FaultRule rule)
{
    Calls& c = calls();
    const std::lock_guard<std::mutex> lock(c.mutex);
    c.faults.push_back(std::move(rule));
    c.anyFault = true;
}

thread_local unsigned internalDepth = 0;

} // namespace

InternalCall::InternalCall()
{
    ++internalDepth;
}

InternalCall::~InternalCall()
{
    --internalDepth;
}

bool insideInternalCall()
{
    return internalDepth != 0;
}

std::string hex(unsigned value)
{
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%x", value);
    return buffer;
}

std::string list(std::initializer_list<std::string> items)
{
    std::string text;
    for (const std::string& item : items)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

std::string traceEntry(const char* operation, const unsigned* object, const std::string& arguments)
{
    std::string entry = operation;
    const auto method = entry.find("::");
    if (object && method != std::string::npos)
        entry.insert(method, "(" + hex(*object) + ")");
    return entry + "(" + arguments + ")";
}

bool tracing()
{
    return calls().tracing.load(std::memory_order_relaxed);
}

void appendTrace(std::string entry)
{
    Calls& c = calls();
    const std::lock_guard<std::mutex> lock(c.mutex);
    if (c.tracing)
        c.trace.push_back(std::move(entry));
}

int countAndApplyFault(const char* operation)
{
    Calls& c = calls();
    ++c.count;
    if (!c.anyFault.load(std::memory_order_relaxed))
        return 0;
    FaultKind kind = FaultKind::Fail;
    int status = 0;
    bool hit = false;
    {
        const std::lock_guard<std::mutex> lock(c.mutex);
        for (FaultRule& rule : c.faults)
        {
            if (!rule.operation.empty() && rule.operation != operation)
                continue;
            const unsigned ordinal = ++rule.seen;
            if (!hit && ordinal > rule.skip &&
                (rule.count == 0 || ordinal - rule.skip <= rule.count))
            {
                hit = true;
                kind = rule.kind;
                status = rule.status;
            }
        }
    }
    if (!hit)
        return 0;
    if (kind == FaultKind::Throw)
        throw InjectedFault(operation);
    return status;
}

void resetCalls()
{
    Calls& c = calls();
    const std::lock_guard<std::mutex> lock(c.mutex);
    c.count = 0;
    c.tracing = false;
    c.trace.clear();
    c.faults.clear();
    c.anyFault = false;
}

} // namespace detail

void injectFault(const std::string& operation, FaultKind kind, unsigned skip, unsigned count,
                 int status)
{
    detail::addFault({operation, kind, skip, count, status});
}

void injectFaultAtCall(unsigned k, FaultKind kind, bool persistent, int status)
{
    detail::addFault({std::string(), kind, k == 0 ? 0 : k - 1, persistent ? 0u : 1u, status});
}

void clearFaults()
{
    detail::Calls& c = detail::calls();
    const std::lock_guard<std::mutex> lock(c.mutex);
    c.faults.clear();
    c.anyFault = false;
}

void startTrace()
{
    detail::Calls& c = detail::calls();
    const std::lock_guard<std::mutex> lock(c.mutex);
    c.trace.clear();
    c.tracing = true;
}

std::vector<std::string> stopTrace()
{
    detail::Calls& c = detail::calls();
    const std::lock_guard<std::mutex> lock(c.mutex);
    c.tracing = false;
    std::vector<std::string> trace;
    trace.swap(c.trace);
    return trace;
}

unsigned long hostCallCount()
{
    return detail::calls().count;
}

} // namespace panelsim
