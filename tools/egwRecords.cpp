// egw history and egw audit: the event memory and the audit trail of the panel service, read from
// its database file or asked of egwd, newest first, one page at a time.
#include <ctime>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "tools/egwTool.h"

namespace egwtool
{
namespace
{

constexpr int kMostRows = 1000;

Json optionalText(const std::optional<std::string>& text)
{
    return text ? Json(*text) : Json(nullptr);
}

// The answer's page: its rows, and the id to page on from when more rows follow. A full page may
// be the last one: whether a row follows it is asked as a page of one row below its last id, so
// that the last page never sends the operator to an empty one.
template <typename Read>
Json page(Json rows, const RecordQuery& query, std::int64_t lastId, Read read)
{
    bool more = false;
    if (static_cast<int>(rows.size()) == query.max)
    {
        RecordQuery following = query;
        following.beforeId = lastId;
        following.max = 1;
        more = !read(following).empty();
    }
    return {{"rows", std::move(rows)}, {"next", more ? Json(lastId) : Json(nullptr)}};
}

void checkQuery(const RecordQuery& query)
{
    if (query.max < 1 || query.max > kMostRows)
    {
        throw UsageError("--limit " + std::to_string(query.max) + ": expected 1 to " +
                         std::to_string(kMostRows));
    }
    if (query.fromMs != 0 && query.toMs != 0 && query.fromMs > query.toMs)
    {
        throw UsageError("--from is later than --to");
    }
}

void printNext(const Json& answer, std::ostream& out)
{
    if (answer["rows"].empty())
    {
        out << "no records\n";
    }
    if (!answer["next"].is_null())
    {
        out << "more: add --before " << answer["next"].get<std::int64_t>() << '\n';
    }
}

std::string quoted(const Json& text)
{
    return text.is_null() ? std::string("-") : "\"" + text.get<std::string>() + "\"";
}

} // namespace

std::string timeText(std::int64_t ms)
{
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::ostringstream text;
    text << std::put_time(&utc, "%Y-%m-%dT%H:%M:%S") << '.' << std::setw(3) << std::setfill('0')
         << ms % 1000 << 'Z';
    return text.str();
}

std::int64_t parseTime(const std::string& text, const std::string& option)
{
    // UTC: 2026-11-23, 2026-11-23T14:05 or 2026-11-23T14:05:30, a space allowed for the T and a
    // Z at the end.
    std::string wanted = text;
    if (!wanted.empty() && (wanted.back() == 'Z' || wanted.back() == 'z'))
    {
        wanted.pop_back();
    }
    for (const char* format :
         {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M", "%Y-%m-%d"})
    {
        std::tm utc{};
        std::istringstream in(wanted);
        in >> std::get_time(&utc, format);
        if (!in.fail() && in.peek() == std::char_traits<char>::eof())
        {
            return static_cast<std::int64_t>(timegm(&utc)) * 1000;
        }
    }
    throw UsageError(option + " " + text +
                     ": expected a UTC time such as 2026-11-23T14:05:00Z or 2026-11-23");
}

Json auditCommand(RecordSource& source, const RecordQuery& query)
{
    checkQuery(query);
    Json rows = Json::array();
    std::int64_t lastId = 0;
    for (const AuditLine& line : source.audit(query))
    {
        rows.push_back({{"id", line.id},
                        {"time", timeText(line.timeMs)},
                        {"session", line.sessionId},
                        {"peer", line.peer},
                        {"level", line.level},
                        {"operation", line.operation},
                        {"uuid", line.uuid},
                        {"idString", line.idString},
                        {"before", optionalText(line.before)},
                        {"after", optionalText(line.after)},
                        {"result", line.result}});
        lastId = line.id;
    }
    return page(std::move(rows), query, lastId,
                [&](const RecordQuery& following) { return source.audit(following); });
}

Json historyCommand(const Panel& panel, RecordSource& source, const RecordQuery& query)
{
    checkQuery(query);
    Json rows = Json::array();
    std::int64_t lastId = 0;
    for (const StoredEvent& event : source.history(query))
    {
        lastId = event.id;
        if (event.lost > 0)
        {
            rows.push_back(
                {{"id", event.id}, {"time", timeText(event.timeMs)}, {"lost", event.lost}});
            continue;
        }
        Json row = {{"id", event.id},
                    {"time", timeText(event.timeMs)},
                    {"event", hexText(event.eventId, 8)},
                    {"uuid", event.uuid},
                    {"idString", event.idString}};
        if (event.stateChange)
        {
            row["stateChange"] = {
                {"group", panel.idText(panelconfig::IdKind::StateGroup, event.group)},
                {"from", panel.idText(panelconfig::IdKind::StateValue, event.previous)},
                {"to", panel.idText(panelconfig::IdKind::StateValue, event.value)}};
        }
        row["category"] = event.category < 0 ? Json(nullptr) : Json(event.category);
        if (event.source != 0)
        {
            row["source"] = event.source;
        }
        rows.push_back(std::move(row));
    }
    return page(std::move(rows), query, lastId,
                [&](const RecordQuery& following) { return source.history(following); });
}

void printAudit(const Json& answer, std::ostream& out)
{
    for (const Json& row : answer["rows"])
    {
        out << '#' << row["id"].get<std::int64_t>() << "  " << row["time"].get<std::string>()
            << "  session " << row["session"].get<std::int64_t>() << " from "
            << row["peer"].get<std::string>() << " at level " << row["level"].get<int>() << "  "
            << row["operation"].get<std::string>();
        if (row["uuid"].get<UINT32>() != 0)
        {
            out << "  element #" << row["uuid"].get<UINT32>();
            if (!row["idString"].get<std::string>().empty())
            {
                out << " ID " << row["idString"].get<std::string>();
            }
        }
        if (!row["before"].is_null() || !row["after"].is_null())
        {
            out << "  " << quoted(row["before"]) << " -> " << quoted(row["after"]);
        }
        out << "  " << row["result"].get<std::string>() << '\n';
    }
    printNext(answer, out);
}

void printHistory(const Json& answer, std::ostream& out)
{
    for (const Json& row : answer["rows"])
    {
        if (row.contains("lost"))
        {
            out << '#' << row["id"].get<std::int64_t>() << "  " << row["time"].get<std::string>()
                << "  gap: " << row["lost"].get<std::int64_t>()
                << " events lost before they could be stored\n";
            continue;
        }
        out << '#' << row["id"].get<std::int64_t>() << "  " << row["time"].get<std::string>()
            << "  event " << row["event"].get<std::string>() << "  element #"
            << row["uuid"].get<UINT32>();
        if (!row["idString"].get<std::string>().empty())
        {
            out << " ID " << row["idString"].get<std::string>();
        }
        if (row.contains("stateChange"))
        {
            const Json& change = row["stateChange"];
            out << "  " << change["group"].get<std::string>() << ": "
                << change["from"].get<std::string>() << " -> " << change["to"].get<std::string>();
        }
        if (!row["category"].is_null())
        {
            out << "  category " << row["category"].get<int>();
        }
        out << '\n';
    }
    printNext(answer, out);
}

} // namespace egwtool
