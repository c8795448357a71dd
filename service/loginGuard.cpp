#include "service/loginGuard.h"

#include <algorithm>

namespace egwservice
{
namespace
{

using std::chrono::seconds;

// Rounded up, so that "refused for 1 s more" never shows as 0 s.
seconds remaining(SteadyTime until, SteadyTime now)
{
    if (until <= now)
    {
        return seconds(0);
    }
    return std::chrono::ceil<seconds>(until - now);
}

} // namespace

LoginGuard::LoginGuard(LoginLimits limits, SessionClock clock)
    : limits_(limits),
      clock_(std::move(clock)),
      guessInterval_(std::chrono::nanoseconds(std::chrono::minutes(1)) /
                     std::max(1, limits.guessesPerMinute))
{
}

bool LoginGuard::quiet(const Record& record, SteadyTime now) const
{
    return now >= std::max(record.lastFailure, record.blockedUntil) + limits_.longestBlock;
}

LoginGuard::Record* LoginGuard::recordOf(const Key& key, SteadyTime now)
{
    const auto found = records_.find(key);
    if (found == records_.end())
    {
        return nullptr;
    }
    if (quiet(found->second, now))
    {
        records_.erase(found);
        return nullptr;
    }
    return &found->second;
}

SteadyTime& LoginGuard::bucketOf(const LoginAttempt& attempt)
{
    const int level = std::clamp(attempt.level, 2, 4);
    return budgets_[attempt.certified ? 1 : 0][static_cast<std::size_t>(level - 2)];
}

LoginGuard::Admission LoginGuard::admit(const LoginAttempt& attempt)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    if (const Record* record = recordOf(Key(attempt.certified, attempt.level, attempt.address), now))
    {
        const seconds block = remaining(record->blockedUntil, now);
        if (block.count() > 0)
        {
            return {Refusal::Address, block};
        }
    }
    else if (!makeRoom(now))
    {
        SteadyTime firstEnd = SteadyTime::max();
        for (const auto& kept : records_)
        {
            firstEnd = std::min(firstEnd, kept.second.blockedUntil);
        }
        return {Refusal::Full, std::max(seconds(1), remaining(firstEnd, now))};
    }
    // The budget holds the guesses of one minute: it is whole again at `whole`.
    SteadyTime& whole = bucketOf(attempt);
    const SteadyTime taken = std::max(whole, now) + guessInterval_;
    const auto budget = guessInterval_ * std::max(1, limits_.guessesPerMinute);
    if (taken - now > budget)
    {
        return {Refusal::Level, std::max(seconds(1), remaining(taken - budget, now))};
    }
    whole = taken;
    return {Refusal::None, seconds(0)};
}

seconds LoginGuard::failed(const LoginAttempt& attempt)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    const Key key(attempt.certified, attempt.level, attempt.address);
    Record* record = recordOf(key, now);
    if (record == nullptr)
    {
        // Records blocked since this attempt was admitted may have filled the table; the
        // failure still spent the level's budget.
        if (!makeRoom(now))
        {
            return seconds(0);
        }
        record = &records_[key];
    }
    record->failures += 1;
    record->lastFailure = now;
    if (record->failures >= limits_.failuresAllowed)
    {
        const seconds block = record->lastBlock.count() == 0
                                  ? limits_.firstBlock
                                  : std::min<seconds>(record->lastBlock * 2, limits_.longestBlock);
        record->lastBlock = block;
        record->blockedUntil = now + block;
    }
    return remaining(record->blockedUntil, now);
}

void LoginGuard::succeeded(const LoginAttempt& attempt)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    records_.erase(Key(attempt.certified, attempt.level, attempt.address));
    bucketOf(attempt) -= guessInterval_;
}

bool LoginGuard::makeRoom(SteadyTime now)
{
    if (records_.size() < limits_.addressesKept)
    {
        return true;
    }
    for (auto it = records_.begin(); it != records_.end();)
    {
        it = quiet(it->second, now) ? records_.erase(it) : std::next(it);
    }
    // Then the record whose last failure is oldest, of those without a block in force.
    while (records_.size() >= limits_.addressesKept)
    {
        auto oldest = records_.end();
        for (auto it = records_.begin(); it != records_.end(); ++it)
        {
            if (it->second.blockedUntil <= now &&
                (oldest == records_.end() || it->second.lastFailure < oldest->second.lastFailure))
            {
                oldest = it;
            }
        }
        if (oldest == records_.end())
        {
            return false;
        }
        records_.erase(oldest);
    }
    return true;
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

std::string LoginGuard::refusalText(const Admission& admission, const LoginAttempt& attempt) const
{
    const std::string logins = "logins at level " + std::to_string(attempt.level);
    const std::string wait = " are refused for " + std::to_string(admission.wait.count()) + " s more";
    switch (admission.refusal)
    {
    case Refusal::Address:
        return logins + " from " + attempt.address + wait + " after repeated failed logins";
    case Refusal::Level:
        return logins + wait + ": wrong passwords from all peers " +
               (attempt.certified ? "with" : "without") +
               " a client certificate have spent the level's " +
               std::to_string(limits_.guessesPerMinute) +
               " checked logins a minute; the password was not checked";
    case Refusal::Full:
        return logins + " from " + attempt.address + wait +
               ": the login guard holds as many blocked addresses as it keeps";
    case Refusal::None:
        break;
    }
    return std::string();
}

} // namespace egwservice
