// The service's SQLite database: one file holding the audit trail and the event memory. A thin
// RAII layer over SQLite's C API: a connection, a prepared statement, a transaction. Every failure
// is a DatabaseError carrying SQLite's message and result code.
#ifndef SERVICE_DATABASE_H
#define SERVICE_DATABASE_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace egwservice
{

class DatabaseError : public std::runtime_error
{
public:
    DatabaseError(const std::string& message, int code) : std::runtime_error(message), code_(code)
    {
    }
    // SQLite's primary result code (SQLITE_FULL, SQLITE_READONLY, SQLITE_IOERR, ...).
    int code() const { return code_; }

private:
    int code_;
};

// One connection. Opened for writing, the file is created when missing, put in WAL mode with
// synchronous=FULL (a committed row survives a crash or power loss) and given its tables. Opened
// read-only (for the panel tool's history commands), nothing is written.
class Database
{
public:
    enum class Access
    {
        Write,
        ReadOnly
    };
    // Throws DatabaseError when the file cannot be opened or is no database. A file the
    // operating system lets us only read is opened all the same: writable() then says false and
    // every write fails with SQLITE_READONLY. When its folder does not let the WAL's files be
    // made either, it is read as the file stands (SQLite's immutable mode).
    explicit Database(const std::string& file, Access access = Access::Write);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    const std::string& file() const { return file_; }
    bool writable() const;
    // How long a write waits for another connection's write to end before it fails.
    void setBusyTimeout(int ms);
    // Runs statements without results; throws DatabaseError.
    void execute(const char* sql);
    sqlite3* handle() { return db_; }
    // The id of the row the last INSERT made, and the rows the last statement changed.
    std::int64_t lastInsertId() const;
    std::int64_t changes() const;
    // Throws DatabaseError with `what` followed by the connection's current message.
    [[noreturn]] void fail(const std::string& what, int code) const;
    DatabaseError error(const std::string& what, int code) const;

private:
    void open(const std::string& name, int flags);
    void addMissingColumns();

    std::string file_;
    sqlite3* db_ = nullptr;
};

// A prepared statement; bind() counts parameters from 1, column() from 0.
class Statement
{
public:
    Statement(Database& db, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, std::int64_t value);
    Statement& bind(int index, const std::string& value);
    Statement& bind(int index, const std::optional<std::string>& value); // NULL when absent
    Statement& bindBytes(int index, const std::string& bytes);           // a BLOB
    // True while there is a row to read; false when done. Throws DatabaseError.
    bool step();
    // Runs a statement that returns no rows, then makes it ready to run again.
    void run();
    void reset();

    std::int64_t integer(int column) const;
    std::string text(int column) const;
    std::optional<std::string> optionalText(int column) const;

private:
    Database& db_;
    sqlite3_stmt* statement_ = nullptr;
};

// The writers of this process take turns at the database before SQLite's own lock: a record (an
// audit row, which a change waits for) goes before a batch of events, so that a change never waits
// behind more than the one batch being written, however far behind the event memory is. Held for
// one write transaction.
class WriteTurn
{
public:
    enum class Kind
    {
        Record,
        Batch
    };
    explicit WriteTurn(Kind kind);
    ~WriteTurn();
    WriteTurn(const WriteTurn&) = delete;
    WriteTurn& operator=(const WriteTurn&) = delete;
};

// BEGIN IMMEDIATE (the write lock is taken at once, so a busy database shows here and not at the
// commit); rolled back unless commit() went through.
class Transaction
{
public:
    explicit Transaction(Database& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Database& db_;
    bool open_ = true;
};

} // namespace egwservice

#endif
