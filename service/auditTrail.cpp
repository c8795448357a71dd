#include "service/auditTrail.h"

#include <algorithm>
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
                         "before, after, result, refusal FROM audit "
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
        row.record.refusal = select.integer(11) != 0;
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
        auto db = std::make_unique<Database>(file_);
        Statement count(*db, "SELECT refusal != 0, count(*) FROM audit GROUP BY refusal != 0");
        rows_[0] = rows_[1] = 0;
        while (count.step())
        {
            rows_[count.integer(0) != 0 ? 1 : 0] = count.integer(1);
        }
        db_ = std::move(db);
    }
    return *db_;
}

std::int64_t SqliteAuditTrail::insertLocked(const AuditRecord& row)
{
    try
    {
        Database& db = connectionLocked();
        Statement insert(db, "INSERT INTO audit(timeMs, sessionId, peer, level, operation, uuid, "
                             "idString, before, after, result, refusal) "
                             "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)");
        insert.bind(1, nowMs())
            .bind(2, row.sessionId)
            .bind(3, row.peer)
            .bind(4, std::int64_t{row.level})
            .bind(5, row.operation)
            .bind(6, std::int64_t{row.uuid})
            .bind(7, row.idString)
            .bind(8, row.before)
            .bind(9, row.after)
            .bind(10, row.result)
            .bind(11, std::int64_t{row.refusal ? 1 : 0});
        // One statement in autocommit mode: committed (and synced) when run() returns.
        insert.run();
        const std::int64_t id = db.lastInsertId();
        ++rows_[row.refusal ? 1 : 0];
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
    const WriteTurn turn(WriteTurn::Kind::Record);
    insertLocked(row);
}

std::int64_t SqliteAuditTrail::begin(const AuditRecord& row)
{
    AuditRecord pending = row;
    pending.result = "pending";
    const std::lock_guard<std::mutex> lock(mutex_);
    const WriteTurn turn(WriteTurn::Kind::Record);
    return insertLocked(pending);
}

void SqliteAuditTrail::finish(std::int64_t id, const std::string& result,
                              const std::optional<std::string>& after)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const WriteTurn turn(WriteTurn::Kind::Record);
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
    const WriteTurn turn(WriteTurn::Kind::Record);
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

std::int64_t SqliteAuditTrail::removeLocked(Database& db, bool refusals, std::int64_t cutMs,
                                            std::int64_t count)
{
    if (count <= 0)
    {
        return 0;
    }
    // The oldest rows of the kind (older than cutMs when it is given); never the newest row.
    Statement remove(db, "DELETE FROM audit WHERE id IN (SELECT id FROM audit "
                         "WHERE refusal = ?1 AND (?2 = 0 OR timeMs < ?2) "
                         "AND id < (SELECT max(id) FROM audit) ORDER BY id LIMIT ?3)");
    remove.bind(1, std::int64_t{refusals ? 1 : 0}).bind(2, cutMs).bind(3, count).run();
    return db.changes();
}

std::int64_t SqliteAuditTrail::pruneLocked(std::int64_t step)
{
    try
    {
        Database& db = connectionLocked();
        Transaction transaction(db);
        std::int64_t kept[2] = {rows_[0], rows_[1]};
        // Beyond the rows kept: refusals first, changes and logins only beyond the bound alone.
        std::int64_t removed[2] = {0, 0};
        removed[1] = removeLocked(
            db, true, 0, std::min(step, std::min(kept[1], kept[0] + kept[1] - retention_.rows)));
        removed[0] =
            removeLocked(db, false, 0, std::min(step - removed[1], kept[0] - retention_.rows));
        // Then every row older than the days kept.
        const std::int64_t cutMs = nowMs() - retention_.days * kDayMs;
        for (const bool refusals : {true, false})
        {
            const int kind = refusals ? 1 : 0;
            removed[kind] += removeLocked(db, refusals, cutMs, step - removed[0] - removed[1]);
        }
        transaction.commit();
        rows_[0] -= removed[0];
        rows_[1] -= removed[1];
        return removed[0] + removed[1];
    }
    catch (const DatabaseError& e)
    {
        db_.reset();
        throw unavailable(e);
    }
}

} // namespace egwservice
