#include "service/auditTrail.h"

#include <chrono>
#include <iostream>

#include "service/database.h"

namespace egwservice
{
namespace
{

constexpr std::int64_t kDayMs = 24 * 60 * 60 * 1000;

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Why a row could not be written, for the refusal the client reads.
AuditUnavailable unavailable(const DatabaseError& e)
{
    return AuditUnavailable(e.what());
}

// Rows removed per step of pruning: a large backlog (a lowered --audit-rows) goes over many
// writes, never in one long transaction.
constexpr std::int64_t kPruneStep = 1000;

} // namespace

std::vector<AuditRow> queryAudit(Database& db, const AuditSelection& s)
{
    Statement select(db, "SELECT id, timeMs, sessionId, peer, level, operation, uuid, idString, "
                         "before, after, result FROM audit "
                         "WHERE (?1 = 0 OR timeMs >= ?1) AND (?2 = 0 OR timeMs <= ?2) "
                         "AND (?3 = 0 OR uuid = ?3) AND (?4 = '' OR operation = ?4) "
                         "AND (?5 = 0 OR id < ?5) ORDER BY id DESC LIMIT ?6");
    select.bind(1, s.fromMs)
        .bind(2, s.toMs)
        .bind(3, std::int64_t{s.uuid})
        .bind(4, s.operation)
        .bind(5, s.beforeId)
        .bind(6, std::int64_t{s.max});
    std::vector<AuditRow> rows;
    while (select.step())
    {
        AuditRow row;
        row.id = select.integer(0);
        row.timeMs = select.integer(1);
        row.record.sessionId = select.integer(2);
        row.record.peer = select.text(3);
        row.record.level = static_cast<int>(select.integer(4));
        row.record.operation = select.text(5);
        row.record.uuid = static_cast<std::uint32_t>(select.integer(6));
        row.record.idString = select.text(7);
        row.record.before = select.optionalText(8);
        row.record.after = select.optionalText(9);
        row.record.result = select.text(10);
        rows.push_back(std::move(row));
    }
    return rows;
}

SqliteAuditTrail::SqliteAuditTrail(const std::string& file, AuditRetention retention)
    : file_(file), retention_(retention), db_(std::make_unique<Database>(file))
{
}

SqliteAuditTrail::~SqliteAuditTrail() = default;

Database& SqliteAuditTrail::connectionLocked()
{
    if (!db_)
    {
        db_ = std::make_unique<Database>(file_);
    }
    return *db_;
}

std::int64_t SqliteAuditTrail::insertLocked(const AuditRecord& row)
{
    try
    {
        Database& db = connectionLocked();
        Statement insert(db, "INSERT INTO audit(timeMs, sessionId, peer, level, operation, uuid, "
                             "idString, before, after, result) "
                             "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)");
        insert.bind(1, nowMs())
            .bind(2, row.sessionId)
            .bind(3, row.peer)
            .bind(4, std::int64_t{row.level})
            .bind(5, row.operation)
            .bind(6, std::int64_t{row.uuid})
            .bind(7, row.idString)
            .bind(8, row.before)
            .bind(9, row.after)
            .bind(10, row.result);
        // One statement in autocommit mode: committed (and synced) when run() returns.
        insert.run();
        const std::int64_t id = db.lastInsertId();
        if (failing_)
        {
            std::cerr << "egwd: the audit trail records again" << std::endl;
            failing_ = false;
        }
        pruneQuietlyLocked();
        return id;
    }
    catch (const DatabaseError& e)
    {
        db_.reset();
        if (!failing_)
        {
            std::cerr << "egwd: the audit trail cannot record (" << e.what()
                      << "); changes and logins are refused until it can" << std::endl;
            failing_ = true;
        }
        throw unavailable(e);
    }
}

void SqliteAuditTrail::record(const AuditRecord& row)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    insertLocked(row);
}

std::int64_t SqliteAuditTrail::begin(const AuditRecord& row)
{
    AuditRecord pending = row;
    pending.result = "pending";
    const std::lock_guard<std::mutex> lock(mutex_);
    return insertLocked(pending);
}

void SqliteAuditTrail::finish(std::int64_t id, const std::string& result,
                              const std::optional<std::string>& after)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    try
    {
        Statement update(connectionLocked(),
                         "UPDATE audit SET result = ?2, after = coalesce(?3, after) WHERE id = ?1");
        update.bind(1, id).bind(2, result).bind(3, after).run();
    }
    catch (const DatabaseError& e)
    {
        db_.reset();
        throw unavailable(e);
    }
}

std::vector<AuditRow> SqliteAuditTrail::query(const AuditSelection& selection)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    try
    {
        return queryAudit(connectionLocked(), selection);
    }
    catch (const DatabaseError& e)
    {
        db_.reset();
        throw unavailable(e);
    }
}

std::int64_t SqliteAuditTrail::prune(std::int64_t step)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return pruneLocked(step);
}

void SqliteAuditTrail::pruneQuietlyLocked()
{
    // The row is committed; a failure to prune only leaves old rows for the next write.
    try
    {
        pruneLocked(kPruneStep);
    }
    catch (const AuditUnavailable&)
    {
    }
}

std::int64_t SqliteAuditTrail::pruneLocked(std::int64_t step)
{
    try
    {
        Database& db = connectionLocked();
        Transaction transaction(db);
        // Rows are only ever removed from the oldest end, so the ids of the rows kept are
        // consecutive and the newest `rows` are those above max(id) - rows.
        Statement byCount(db, "DELETE FROM audit WHERE id IN (SELECT id FROM audit "
                              "WHERE id <= (SELECT max(id) FROM audit) - ?1 ORDER BY id LIMIT ?2)");
        byCount.bind(1, retention_.rows).bind(2, step).run();
        std::int64_t removed = db.changes();
        Statement byAge(db, "DELETE FROM audit WHERE id IN (SELECT id FROM audit "
                            "WHERE timeMs < ?1 AND id < (SELECT max(id) FROM audit) "
                            "ORDER BY timeMs LIMIT ?2)");
        byAge.bind(1, nowMs() - retention_.days * kDayMs).bind(2, step - removed).run();
        removed += db.changes();
        transaction.commit();
        return removed;
    }
    catch (const DatabaseError& e)
    {
        db_.reset();
        throw unavailable(e);
    }
}

} // namespace egwservice
