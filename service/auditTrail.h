// The audit trail: one row in the service's SQLite database for every action that changes the
// panel, every login, logout and session expiry, and the refusals: requests refused for their
// access level and failed or refused logins (those of level-1 sessions other than failed
// passwords counted together, see refusalLog.h). A change is made only after its row is committed,
// so there is no change without its row.
#ifndef SERVICE_AUDIT_TRAIL_H
#define SERVICE_AUDIT_TRAIL_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace egwservice
{

// What one row says. The time is taken when the row is written.
struct AuditRecord
{
    std::int64_t sessionId = 0;
    std::string peer;
    int level = 1;
    std::string operation; // the remote operation's name, or login, loginFailed, loginBlocked,
                           // logout, sessionExpired
    std::uint32_t uuid = 0; // 0: no element
    std::string idString;
    std::optional<std::string> before;
    std::optional<std::string> after;
    std::string result = "ok";
    // A refusal (for the access level, a failed or refused login): such rows are removed to keep
    // within the retention before any row of a change or a login.
    bool refusal = false;
};

// The row could not be committed (full disk, read-only database, I/O error): the action it was
// meant to record must not happen.
class AuditUnavailable : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A stored row: its id (increasing, the newest is the greatest) and when it was written.
struct AuditRow
{
    std::int64_t id = 0;
    std::int64_t timeMs = 0;
    AuditRecord record;
};

// Which rows a query wants, newest first. 0 (or empty) in a field means no bound.
struct AuditSelection
{
    std::int64_t fromMs = 0;
    std::int64_t toMs = 0;
    std::uint32_t uuid = 0;
    std::string operation;
    std::int64_t beforeId = 0; // paging: the last id of the previous page
    int max = 100;
};

class Database;

// The rows of the audit table of an open database, newest first. The panel tool calls it on a
// database opened read-only; throws DatabaseError.
std::vector<AuditRow> queryAudit(Database& db, const AuditSelection& selection);

class AuditTrail
{
public:
    virtual ~AuditTrail() = default;
    // One complete row, committed before it returns; throws AuditUnavailable.
    virtual void record(const AuditRecord& row) = 0;
    // A change about to be made: its row is committed with the result "pending" and its id
    // returned; throws AuditUnavailable, and the change is then not made.
    virtual std::int64_t begin(const AuditRecord& row) = 0;
    // The outcome of a begun change (and the value after it, where there is one).
    virtual void finish(std::int64_t id, const std::string& result,
                        const std::optional<std::string>& after) = 0;
    // Stored rows, newest first; throws AuditUnavailable when the database cannot be read.
    virtual std::vector<AuditRow> query(const AuditSelection& selection) = 0;
};

// How many rows the trail keeps: `rows` in all, none older than `days`. Beyond `rows`, the oldest
// refusal rows go first; a row of a change or a login goes only when those rows alone are more
// than `rows`.
struct AuditRetention
{
    std::int64_t rows = 1000000;
    std::int64_t days = 400;
};

// The audit trail in the service's SQLite database. One connection, used by one session at a
// time; a failed write drops it and the next write opens the file afresh, so that a database
// made writable again (disk space freed, permissions restored) takes rows without a restart.
class SqliteAuditTrail : public AuditTrail
{
public:
    // Throws DatabaseError when the file cannot be opened at all. A read-only file is accepted:
    // every change is then refused until it is writable.
    SqliteAuditTrail(const std::string& file, AuditRetention retention);
    ~SqliteAuditTrail() override;

    void record(const AuditRecord& row) override;
    std::int64_t begin(const AuditRecord& row) override;
    void finish(std::int64_t id, const std::string& result,
                const std::optional<std::string>& after) override;
    std::vector<AuditRow> query(const AuditSelection& selection) override;

    // Removes rows beyond the retention (see AuditRetention), oldest first, at most `step` of
    // them; returns how many. Done after every write; the newest row is never removed.
    std::int64_t prune(std::int64_t step);

private:
    std::int64_t insertLocked(const AuditRecord& row);
    std::int64_t pruneLocked(std::int64_t step);
    std::int64_t removeLocked(Database& db, bool refusals, std::int64_t cutMs, std::int64_t count);
    void pruneQuietlyLocked();
    Database& connectionLocked();

    const std::string file_;
    const AuditRetention retention_;
    std::mutex mutex_;
    std::unique_ptr<Database> db_;
    bool failing_ = false; // said once on stderr, until a row is written again
    // Rows in the table, counted when the connection is opened: [0] changes and logins, [1]
    // refusals.
    std::int64_t rows_[2] = {0, 0};
};

} // namespace egwservice

#endif
