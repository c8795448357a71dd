// Thrift's own log lines (a connection that timed out, sent an oversized frame or failed its TLS
// handshake), passed on with egwd's name and at most a number of them a minute. A flood of bad
// connections writes one such line each: unbounded, they would bury the service's own lines, and
// the journal, which drops a service's lines beyond its rate limit, would drop those as well.
// What is left out is counted and told with the first line that passes after it, or at the end.
#ifndef SERVICE_THRIFT_LOG_H
#define SERVICE_THRIFT_LOG_H

#include <cstddef>
#include <mutex>
#include <ostream>
#include <string>

#include "service/loginGuard.h"

namespace egwservice
{

class ThriftLog
{
public:
    ThriftLog(std::ostream& out, std::size_t perMinute,
              SessionClock clock = std::chrono::steady_clock::now);

    void write(const std::string& message);
    // Tells what was left out and not told yet.
    void finish();

private:
    void tellLeftOutLocked();

    std::mutex mutex_;
    std::ostream& out_;
    const std::size_t perMinute_;
    const SessionClock clock_;
    SteadyTime minuteStart_;
    std::size_t inMinute_ = 0;
    std::size_t leftOut_ = 0;
};

// Thrift writes its read timeout as "after %f ms: Unknown error 800" (the format text itself, and
// the timeout given as an error number); this says "after 800 ms". Other text is left as it is.
std::string mendedThriftText(std::string message);

} // namespace egwservice

#endif
