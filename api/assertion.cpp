// Reporting of violated preconditions and broken invariants.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "api/callingFrame.h"

namespace
{

// Writes the report in the C library's assertion format. Builds with EGW_ASSERT_ABORT stop the
// process as the platform's assertion does; otherwise the operation returns its failure result.
void defaultHandler(const char* expression, const char* function, const char* file, int line)
{
    std::fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name,
                 file, line, function, expression);
#ifdef EGW_ASSERT_ABORT
    std::abort();
#endif
}

// The one piece of mutable process-wide data: which handler receives the reports.
std::atomic<EGW_AssertHandler> installedHandler{&defaultHandler};

} // namespace

EGW_AssertHandler EGW_SetAssertHandler(EGW_AssertHandler handler)
{
    return installedHandler.exchange(handler != nullptr ? handler : &defaultHandler);
}

void egw::reportAssertion(const char* expression, const char* function, const char* file, int line)
{
    installedHandler.load()(expression, function, file, line);
}
