#include "service/loginGuard.h"

#include <algorithm>

namespace egwservice
{
namespace
{

// Rounded up, so that "refused for 1 s more" never shows as 0 s.
std::chrono::seconds remaining(SteadyTime until, SteadyTime now)
{
    if (until <= now)
    {
        return std::chrono::seconds(0);
    }
    return std::chrono::ceil<std::chrono::seconds>(until - now);
}

} // namespace

LoginGuard::LoginGuard(LoginLimits limits, SessionClock clock)
    : limits_(limits), clock_(std::move(clock))
{
}

bool LoginGuard::quiet(const Record& record, SteadyTime now) const
{
    return now >= std::max(record.lastFailure, record.blockedUntil) + limits_.longestBlock;
}

std::chrono::seconds LoginGuard::blockedFor(const std::string& address)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    const auto found = records_.find(address);
    if (found == records_.end())
    {
        return std::chrono::seconds(0);
    }
    if (quiet(found->second, now))
    {
        records_.erase(found);
        return std::chrono::seconds(0);
    }
    return remaining(found->second.blockedUntil, now);
}

std::chrono::seconds LoginGuard::failed(const std::string& address)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    auto found = records_.find(address);
    if (found != records_.end() && quiet(found->second, now))
    {
        records_.erase(found);
        found = records_.end();
    }
    if (found == records_.end())
    {
        makeRoom(now);
        found = records_.emplace(address, Record{}).first;
    }
    Record& record = found->second;
    record.failures += 1;
    record.lastFailure = now;
    if (record.failures >= limits_.failuresAllowed)
    {
        const std::chrono::seconds block =
            record.lastBlock.count() == 0
                ? limits_.firstBlock
                : std::min<std::chrono::seconds>(record.lastBlock * 2, limits_.longestBlock);
        record.lastBlock = block;
        record.blockedUntil = now + block;
    }
    return remaining(record.blockedUntil, now);
}

void LoginGuard::succeeded(const std::string& address)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    records_.erase(address);
}

void LoginGuard::makeRoom(SteadyTime now)
{
    if (records_.size() < limits_.addressesKept)
    {
        return;
    }
    for (auto it = records_.begin(); it != records_.end();)
    {
        it = quiet(it->second, now) ? records_.erase(it) : std::next(it);
    }
    while (!records_.empty() && records_.size() >= limits_.addressesKept)
    {
        records_.erase(
            std::min_element(records_.begin(), records_.end(), [](const auto& a, const auto& b) {
                return a.second.lastFailure < b.second.lastFailure;
            }));
    }
}

std::string LoginGuard::addressOf(const std::string& peer)
{
    const std::size_t colon = peer.rfind(':');
    if (colon == std::string::npos || colon == 0)
    {
        return peer;
    }
    std::string address = peer.substr(0, colon);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
    {
        address = address.substr(1, address.size() - 2);
    }
    return address;
}

} // namespace egwservice
