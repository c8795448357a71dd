// The refusals in the audit trail. A refusal to a session above level 1 (a logged-in operator) is
// a row of its own at once. Refusals to level-1 sessions (requests refused for their access level,
// logins refused while the address is blocked) come from anyone who can reach the port, as fast as
// it likes: they are counted per (peer address, operation, result), and each such count has at most
// one row per period. The first refusal of a count is its row at once; the refusals after it within
// the period make one summary row when the period is over, which says how many there were and
// between which times. A bound on the rows of all counts per period and on the counts held keeps a
// flood from many addresses bounded as well; nothing is dropped, only written later or counted
// together.
#ifndef SERVICE_REFUSAL_LOG_H
#define SERVICE_REFUSAL_LOG_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "service/auditTrail.h"
#include "service/loginGuard.h"

namespace egwservice
{

struct RefusalLimits
{
    std::chrono::seconds period{10}; // one row per count per period
    std::size_t rowsPerPeriod = 100; // rows of level-1 refusals per period, all counts together
    std::size_t counts = 1000;       // counts held at once; beyond, a new address counts as "*"
};

class RefusalLog
{
public:
    // A thread of its own writes the counts whose period is over, once a second.
    RefusalLog(AuditTrail& trail, RefusalLimits limits,
               SessionClock clock = std::chrono::steady_clock::now);
    // Writes every count still open.
    ~RefusalLog();
    RefusalLog(const RefusalLog&) = delete;
    RefusalLog& operator=(const RefusalLog&) = delete;

    // Records the refusal given to a session (row.level is its level); the refusal is given
    // whether or not its row can be written, so this never throws: a level-1 count that cannot be
    // written is kept and tried again, another row's failure is said on stderr.
    void record(AuditRecord row);
    // Writes the counts whose period is over, within the bound of rows per period.
    void writeDue();

private:
    using Key = std::pair<std::string, std::string>; // address, operation
    struct Count
    {
        std::int64_t refusals = 0; // not yet in a row
        std::int64_t firstMs = 0;
        std::int64_t lastMs = 0;
        AuditRecord row;      // the last refusal's; session and uuid 0 when they differed
        SteadyTime lastRow{}; // when the count's last row was written
        bool written = false; // a row was written within the period
    };

    bool writeLocked(const Key& key, Count& count, SteadyTime now, bool bounded);
    std::map<Key, Count>::iterator countLocked(const AuditRecord& row, SteadyTime now);
    void dropQuietLocked(SteadyTime now);
    void run();

    AuditTrail& trail_;
    const RefusalLimits limits_;
    const SessionClock clock_;
    std::mutex mutex_;
    std::condition_variable stop_;
    std::map<Key, Count> counts_;
    SteadyTime periodStart_{};
    std::size_t rowsThisPeriod_ = 0;
    bool stopping_ = false;
    std::thread writer_;
};

} // namespace egwservice

#endif
