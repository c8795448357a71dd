#include "service/refusalLog.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <vector>

namespace egwservice
{
namespace
{

constexpr auto kWriteEvery = std::chrono::seconds(1);

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// UTC, as the panel tool shows times: 2026-11-25T13:40:01.123Z.
std::string timeText(std::int64_t ms)
{
    const auto seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::ostringstream text;
    text << std::put_time(&utc, "%Y-%m-%dT%H:%M:%S") << '.' << std::setw(3) << std::setfill('0')
         << ms % 1000 << 'Z';
    return text.str();
}

} // namespace

RefusalLog::RefusalLog(AuditTrail& trail, RefusalLimits limits, SessionClock clock)
    : trail_(trail), limits_(limits), clock_(std::move(clock)), periodStart_(clock_())
{
    writer_ = std::thread([this] { run(); });
}

RefusalLog::~RefusalLog()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    stop_.notify_all();
    writer_.join();
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    for (auto& count : counts_)
    {
        if (count.second.refusals > 0 && !writeLocked(count.first, count.second, now, false))
        {
            std::cerr << "egwd: " << count.second.refusals << " refusals of " << count.first.second
                      << " to " << count.first.first << " were not recorded at the stop"
                      << std::endl;
        }
    }
}

void RefusalLog::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_.wait_for(lock, kWriteEvery, [&] { return stopping_; }))
    {
        lock.unlock();
        writeDue();
        lock.lock();
    }
}

void RefusalLog::record(AuditRecord row)
{
    row.refusal = true;
    if (row.level > 1)
    {
        try
        {
            trail_.record(row);
        }
        catch (const AuditUnavailable& e)
        {
            std::cerr << "egwd: the refusal of " << row.operation << " to session " << row.sessionId
                      << " was not recorded: " << e.what() << std::endl;
        }
        return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    const std::int64_t ms = nowMs();
    const auto found = countLocked(row, now);
    Count* count = &found->second;
    if (count->refusals == 0)
    {
        count->firstMs = ms;
    }
    else
    {
        // A count of several sessions or elements names none of them.
        if (count->row.sessionId != row.sessionId)
        {
            row.sessionId = 0;
        }
        if (count->row.uuid != row.uuid)
        {
            row.uuid = 0;
        }
    }
    count->row = row;
    count->lastMs = ms;
    ++count->refusals;
    if (!count->written || now - count->lastRow >= limits_.period)
    {
        writeLocked(found->first, *count, now, true);
    }
}

std::map<RefusalLog::Key, RefusalLog::Count>::iterator
RefusalLog::countLocked(const AuditRecord& row, SteadyTime now)
{
    Key key(LoginGuard::addressOf(row.peer), row.operation);
    const auto found = counts_.find(key);
    if (found != counts_.end())
    {
        return found;
    }
    if (counts_.size() >= limits_.counts)
    {
        dropQuietLocked(now);
    }
    if (counts_.size() >= limits_.counts)
    {
        // Every address beyond the bound is counted as "*": such counts are as many as the
        // service has operations, whatever the peers send.
        key.first = "*";
    }
    return counts_.try_emplace(key).first;
}

bool RefusalLog::writeLocked(const Key& key, Count& count, SteadyTime now, bool bounded)
{
    if (bounded)
    {
        if (now - periodStart_ >= limits_.period)
        {
            periodStart_ = now;
            rowsThisPeriod_ = 0;
        }
        if (rowsThisPeriod_ >= limits_.rowsPerPeriod)
        {
            return false; // written with a later period's rows
        }
    }
    AuditRecord row = count.row;
    if (count.refusals > 1)
    {
        row.peer = key.first;
        row.result += "; refused " + std::to_string(count.refusals) + " times between " +
                      timeText(count.firstMs) + " and " + timeText(count.lastMs);
    }
    try
    {
        trail_.record(row);
    }
    catch (const AuditUnavailable&)
    {
        return false; // kept, tried again with the next rows due (the trail says why on stderr)
    }
    count.refusals = 0;
    count.written = true;
    count.lastRow = now;
    rowsThisPeriod_ += bounded ? 1 : 0;
    return true;
}

void RefusalLog::writeDue()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const SteadyTime now = clock_();
    // The oldest counts first, while the period's rows last.
    std::vector<std::map<Key, Count>::iterator> due;
    for (auto count = counts_.begin(); count != counts_.end(); ++count)
    {
        if (count->second.refusals > 0 &&
            (!count->second.written || now - count->second.lastRow >= limits_.period))
        {
            due.push_back(count);
        }
    }
    std::sort(due.begin(), due.end(),
              [](const auto& a, const auto& b) { return a->second.firstMs < b->second.firstMs; });
    for (const auto& count : due)
    {
        if (!writeLocked(count->first, count->second, now, true))
        {
            break;
        }
    }
    dropQuietLocked(now);
}

void RefusalLog::dropQuietLocked(SteadyTime now)
{
    // A count with nothing to write whose period is over: the next refusal is a row at once.
    for (auto count = counts_.begin(); count != counts_.end();)
    {
        const bool quiet =
            count->second.refusals == 0 && now - count->second.lastRow >= limits_.period;
        count = quiet ? counts_.erase(count) : std::next(count);
    }
}

} // namespace egwservice
