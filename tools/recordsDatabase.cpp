// The panel service's records read straight from its database file, opened read-only: the tool
// never writes to it, so it may be read while egwd runs.
#include "service/auditTrail.h"
#include "service/database.h"
#include "service/eventMemory.h"
#include "tools/serviceRecords.h"

namespace egwtool
{
namespace
{

using egwservice::Database;
using egwservice::DatabaseError;

class DatabaseRecords : public RecordSource
{
public:
    explicit DatabaseRecords(const std::string& file)
    try : db_(file, Database::Access::ReadOnly)
    {
    }
    catch (const DatabaseError& e)
    {
        throw GatewayError(file + ": cannot be read as the service's database: " + e.what());
    }

    std::vector<AuditLine> audit(const RecordQuery& query) override
    {
        egwservice::AuditSelection selection;
        selection.fromMs = query.fromMs;
        selection.toMs = query.toMs;
        selection.uuid = query.uuid;
        selection.operation = query.operation;
        selection.beforeId = query.beforeId;
        selection.max = query.max;
        std::vector<AuditLine> lines;
        for (const egwservice::AuditRow& row : read([&] { return queryAudit(db_, selection); }))
        {
            AuditLine line;
            line.id = row.id;
            line.timeMs = row.timeMs;
            line.sessionId = row.record.sessionId;
            line.peer = row.record.peer;
            line.level = row.record.level;
            line.operation = row.record.operation;
            line.uuid = row.record.uuid;
            line.idString = row.record.idString;
            line.before = row.record.before;
            line.after = row.record.after;
            line.result = row.record.result;
            lines.push_back(std::move(line));
        }
        return lines;
    }

    std::vector<StoredEvent> history(const RecordQuery& query) override
    {
        egwservice::EventSelection selection;
        selection.fromMs = query.fromMs;
        selection.toMs = query.toMs;
        selection.categories.assign(query.categories.begin(), query.categories.end());
        selection.subtree = query.uuid;
        selection.beforeId = query.beforeId;
        selection.max = query.max;
        std::vector<StoredEvent> events;
        for (const auto& event : read([&] { return queryEvents(db_, selection); }))
        {
            events.push_back(storedEventOf(event));
        }
        return events;
    }

private:
    template <typename Query>
    auto read(Query&& query) -> decltype(query())
    {
        try
        {
            return query();
        }
        catch (const DatabaseError& e)
        {
            throw GatewayError(db_.file() + ": " + e.what());
        }
    }

    Database db_;
};

} // namespace

std::unique_ptr<RecordSource> databaseRecords(const std::string& file)
{
    return std::make_unique<DatabaseRecords>(file);
}

} // namespace egwtool
