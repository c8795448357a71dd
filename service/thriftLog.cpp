#include "service/thriftLog.h"

#include <cctype>
#include <utility>

namespace egwservice
{

ThriftLog::ThriftLog(std::ostream& out, std::size_t perMinute, SessionClock clock)
    : out_(out), perMinute_(perMinute), clock_(std::move(clock)), minuteStart_(clock_())
{
}

void ThriftLog::write(const std::string& message)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    if (now - minuteStart_ >= std::chrono::minutes(1))
    {
        minuteStart_ = now;
        inMinute_ = 0;
    }
    if (inMinute_ == perMinute_)
    {
        ++leftOut_;
        return;
    }
    ++inMinute_;
    tellLeftOutLocked();
    out_ << "egwd: thrift: " << mendedThriftText(message) << std::endl;
}

void ThriftLog::finish()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    tellLeftOutLocked();
}

void ThriftLog::tellLeftOutLocked()
{
    if (leftOut_ == 0)
    {
        return;
    }
    out_ << "egwd: thrift: " << leftOut_ << (leftOut_ == 1 ? " line" : " lines")
         << " of Thrift's left out (at most " << perMinute_ << " a minute)" << std::endl;
    leftOut_ = 0;
}

std::string mendedThriftText(std::string message)
{
    static const std::string garbled = "after %f ms: Unknown error ";
    const std::size_t at = message.find(garbled);
    if (at == std::string::npos)
    {
        return message;
    }
    std::size_t end = at + garbled.size();
    while (end < message.size() && std::isdigit(static_cast<unsigned char>(message[end])) != 0)
    {
        ++end;
    }
    const std::string ms = message.substr(at + garbled.size(), end - at - garbled.size());
    if (ms.empty())
    {
        return message;
    }
    return message.replace(at, end - at, "after " + ms + " ms");
}

} // namespace egwservice
