#include "service/database.h"

#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>

#include <sqlite3.h>

namespace egwservice
{
namespace
{

// A writer waits this long for another connection's write to end (the audit trail and the event
// memory write the same file from their own connections, the panel tool may read it).
constexpr int kBusyTimeoutMs = 5000;

// The tables. The audit trail: one row per recorded action; `refusal` marks the rows of refusals,
// which retention removes before the rows of changes and logins. The event memory: one row per
// event the service received, with the chain of the element's ancestors taken when it was stored
// (",uuid,parent,...,root,"), so that a sub-tree still finds the events of a deleted element; a
// row with `lost` > 0 is a gap, standing for that many events that were never stored.
constexpr const char* kSchema = R"(
CREATE TABLE IF NOT EXISTS audit(
    id INTEGER PRIMARY KEY, timeMs INTEGER NOT NULL, sessionId INTEGER NOT NULL, peer TEXT NOT NULL,
    level INTEGER NOT NULL, operation TEXT NOT NULL, uuid INTEGER NOT NULL, idString TEXT NOT NULL,
    before TEXT, after TEXT, result TEXT NOT NULL, refusal INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS auditByTime ON audit(timeMs);
CREATE INDEX IF NOT EXISTS auditByElement ON audit(uuid, id);
CREATE TABLE IF NOT EXISTS events(
    id INTEGER PRIMARY KEY, timeMs INTEGER NOT NULL, eventId INTEGER NOT NULL,
    uuid INTEGER NOT NULL, idString TEXT NOT NULL, source INTEGER NOT NULL, data BLOB NOT NULL,
    changeUuid INTEGER, changeGroup INTEGER, changeValue INTEGER, changePrevious INTEGER,
    category INTEGER, selfId INTEGER, selfAddress INTEGER, parentId INTEGER, parentAddress INTEGER,
    deviceId INTEGER, hasProxy INTEGER, proxyId INTEGER, proxyAddress INTEGER,
    ancestors TEXT NOT NULL, lost INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS eventsByTime ON events(timeMs);
)";

// Columns that a database written by an earlier egwd lacks; its rows take the default.
constexpr const char* kAddedColumns[][3] = {
    {"audit", "refusal", "INTEGER NOT NULL DEFAULT 0"},
    {"events", "lost", "INTEGER NOT NULL DEFAULT 0"},
};
// Made once the added columns exist.
constexpr const char* kLaterIndexes =
    "CREATE INDEX IF NOT EXISTS auditByKind ON audit(refusal, id);";

// Whose turn it is to write (see WriteTurn): one database per process, so one set of turns.
struct Turns
{
    std::mutex mutex;
    std::condition_variable free;
    int recordsWaiting = 0;
    bool held = false;
};

Turns& turns()
{
    static Turns instance;
    return instance;
}

// The file as an SQLite URI: '%', '?' and '#' escaped.
std::string uriOf(const std::string& file)
{
    std::string uri = "file:";
    for (const char c : file)
    {
        if (c == '%' || c == '?' || c == '#')
        {
            static const char kDigits[] = "0123456789ABCDEF";
            uri += '%';
            uri += kDigits[static_cast<unsigned char>(c) >> 4];
            uri += kDigits[static_cast<unsigned char>(c) & 0xF];
        }
        else
        {
            uri += c;
        }
    }
    return uri;
}

} // namespace

void Database::open(const std::string& name, int flags)
{
    const int status = sqlite3_open_v2(name.c_str(), &db_, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    if (status != SQLITE_OK)
    {
        const std::string message = db_ == nullptr ? sqlite3_errstr(status) : sqlite3_errmsg(db_);
        sqlite3_close(db_);
        db_ = nullptr;
        throw DatabaseError("cannot open " + file_ + ": " + message, status);
    }
    sqlite3_extended_result_codes(db_, 0);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
}

Database::Database(const std::string& file, Access access) : file_(file)
{
    // A new file is made readable by its owner only: the audit trail tells who did what on the
    // panel, and when. SQLite gives its -wal and -shm files the mode of the database file.
    if (access == Access::Write && !file.empty() && file != ":memory:" &&
        file.rfind("file:", 0) != 0)
    {
        const int made = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (made >= 0)
        {
            ::close(made);
        }
        // Otherwise SQLite's own open below says why the file cannot be used.
    }
    open(file, access == Access::Write ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                                       : SQLITE_OPEN_READONLY);
    try
    {
        // Reading the header tells a file that is no database at once. A WAL database that we
        // may only read, in a folder where its -wal and -shm files cannot be made, cannot be
        // read the usual way: no connection has it open for writing then, and it is read as
        // the file stands.
        try
        {
            execute("SELECT count(*) FROM sqlite_schema");
        }
        catch (const DatabaseError& e)
        {
            if (e.code() != SQLITE_READONLY && e.code() != SQLITE_CANTOPEN)
            {
                throw;
            }
            sqlite3_close(db_);
            db_ = nullptr;
            open(uriOf(file) + "?immutable=1", SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
            execute("SELECT count(*) FROM sqlite_schema");
        }
        if (access == Access::Write && writable())
        {
            execute("PRAGMA journal_mode=WAL");
            execute("PRAGMA synchronous=FULL");
            execute(kSchema);
            addMissingColumns();
            execute(kLaterIndexes);
        }
    }
    catch (...)
    {
        sqlite3_close(db_);
        db_ = nullptr;
        throw;
    }
}

void Database::addMissingColumns()
{
    for (const auto& added : kAddedColumns)
    {
        Statement columns(*this, "SELECT count(*) FROM pragma_table_info(?1) WHERE name = ?2");
        columns.bind(1, std::string(added[0])).bind(2, std::string(added[1]));
        if (columns.step() && columns.integer(0) == 0)
        {
            execute(("ALTER TABLE " + std::string(added[0]) + " ADD COLUMN " + added[1] + " " +
                     added[2])
                        .c_str());
        }
    }
}

Database::~Database()
{
    sqlite3_close_v2(db_);
}

void Database::setBusyTimeout(int ms)
{
    sqlite3_busy_timeout(db_, ms);
}

bool Database::writable() const
{
    return sqlite3_db_readonly(db_, "main") == 0;
}

std::int64_t Database::lastInsertId() const
{
    return sqlite3_last_insert_rowid(db_);
}

std::int64_t Database::changes() const
{
    return sqlite3_changes(db_);
}

DatabaseError Database::error(const std::string& what, int code) const
{
    // The system's own word says which I/O error it was (a full disk, a file too large).
    const int system = sqlite3_system_errno(db_);
    return DatabaseError(what + sqlite3_errmsg(db_) +
                             (system != 0 ? std::string(": ") + std::strerror(system) : "") + " (" +
                             file_ + ")",
                         code);
}

void Database::fail(const std::string& what, int code) const
{
    throw error(what, code);
}

void Database::execute(const char* sql)
{
    char* error = nullptr;
    const int status = sqlite3_exec(db_, sql, nullptr, nullptr, &error);
    if (status != SQLITE_OK)
    {
        const std::string message = error != nullptr ? error : sqlite3_errstr(status);
        sqlite3_free(error);
        throw DatabaseError(message + " (" + file_ + ")", status);
    }
}

// ---- Statement ----------------------------------------------------------------------------------

Statement::Statement(Database& db, const char* sql) : db_(db)
{
    const int status = sqlite3_prepare_v2(db.handle(), sql, -1, &statement_, nullptr);
    if (status != SQLITE_OK)
    {
        db_.fail("cannot prepare a statement: ", status);
    }
}

Statement::~Statement()
{
    sqlite3_finalize(statement_);
}

Statement& Statement::bind(int index, std::int64_t value)
{
    sqlite3_bind_int64(statement_, index, value);
    return *this;
}

Statement& Statement::bind(int index, const std::string& value)
{
    sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                      SQLITE_TRANSIENT);
    return *this;
}

Statement& Statement::bind(int index, const std::optional<std::string>& value)
{
    if (value)
    {
        return bind(index, *value);
    }
    sqlite3_bind_null(statement_, index);
    return *this;
}

Statement& Statement::bindBytes(int index, const std::string& bytes)
{
    sqlite3_bind_blob(statement_, index, bytes.data(), static_cast<int>(bytes.size()),
                      SQLITE_TRANSIENT);
    return *this;
}

bool Statement::step()
{
    const int status = sqlite3_step(statement_);
    if (status == SQLITE_ROW)
    {
        return true;
    }
    if (status == SQLITE_DONE)
    {
        return false;
    }
    const DatabaseError error = db_.error("", status);
    sqlite3_reset(statement_);
    throw error;
}

void Statement::run()
{
    while (step())
    {
    }
    reset();
}

void Statement::reset()
{
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

std::int64_t Statement::integer(int column) const
{
    return sqlite3_column_int64(statement_, column);
}

std::string Statement::text(int column) const
{
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<std::size_t>(size));
}

std::optional<std::string> Statement::optionalText(int column) const
{
    if (sqlite3_column_type(statement_, column) == SQLITE_NULL)
    {
        return std::nullopt;
    }
    return text(column);
}

// ---- WriteTurn ----------------------------------------------------------------------------------

WriteTurn::WriteTurn(Kind kind)
{
    Turns& t = turns();
    std::unique_lock<std::mutex> lock(t.mutex);
    if (kind == Kind::Record)
    {
        ++t.recordsWaiting;
        t.free.wait(lock, [&] { return !t.held; });
        --t.recordsWaiting;
    }
    else
    {
        t.free.wait(lock, [&] { return !t.held && t.recordsWaiting == 0; });
    }
    t.held = true;
}

WriteTurn::~WriteTurn()
{
    Turns& t = turns();
    {
        const std::lock_guard<std::mutex> lock(t.mutex);
        t.held = false;
    }
    t.free.notify_all();
}

// ---- Transaction --------------------------------------------------------------------------------

Transaction::Transaction(Database& db) : db_(db)
{
    db_.execute("BEGIN IMMEDIATE");
}

Transaction::~Transaction()
{
    if (open_)
    {
        // A failed statement may have ended the transaction already; then there is nothing to
        // roll back.
        sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::commit()
{
    db_.execute("COMMIT");
    open_ = false;
}

} // namespace egwservice
