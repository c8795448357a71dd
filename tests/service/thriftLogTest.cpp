// Thrift's own log lines: at most a number a minute, what is left out counted and told, and its
// garbled timeout text mended.
#include <chrono>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "service/thriftLog.h"

namespace
{

using egwservice::ThriftLog;

TEST(ThriftLog, PassesAFewLinesAMinuteAndCountsTheRest)
{
    auto seconds = std::make_shared<long>(0);
    std::ostringstream out;
    ThriftLog log(out, 3,
                  [seconds] { return egwservice::SteadyTime(std::chrono::seconds(*seconds)); });
    for (int i = 1; i <= 5; ++i)
        log.write("line " + std::to_string(i));
    *seconds = 59;
    log.write("line 6");
    EXPECT_EQ(out.str(), "egwd: thrift: line 1\negwd: thrift: line 2\negwd: thrift: line 3\n");
    out.str("");
    // A minute after the first line: the count comes first, then the line that opens the minute.
    *seconds = 60;
    log.write("line 7");
    EXPECT_EQ(out.str(), "egwd: thrift: 3 lines of Thrift's left out (at most 3 a minute)\n"
                         "egwd: thrift: line 7\n");
    out.str("");
    log.write("line 8");
    log.write("line 9");
    log.write("line 10");
    log.finish();
    log.finish();
    EXPECT_EQ(out.str(), "egwd: thrift: line 8\negwd: thrift: line 9\n"
                         "egwd: thrift: 1 line of Thrift's left out (at most 3 a minute)\n");
}

TEST(ThriftLog, MendsTheTimeoutText)
{
    const struct
    {
        const char* given;
        const char* shown;
    } cases[] = {
        {"TSocket::read() THRIFT_EAGAIN (timed out) after %f ms: Unknown error 800",
         "TSocket::read() THRIFT_EAGAIN (timed out) after 800 ms"},
        {"after %f ms: Unknown error 4000 (more)", "after 4000 ms (more)"},
        {"after %f ms: Unknown error ", "after %f ms: Unknown error "},
        {"TConnectedClient died: Received an oversized frame",
         "TConnectedClient died: Received an oversized frame"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(egwservice::mendedThriftText(c.given), c.shown) << c.given;
}

} // namespace
