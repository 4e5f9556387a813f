#pragma once
// The statement seam of SQL extensions: the few calls through which the
// backend-neutral extension code talks to one database connection.
//
// A backend (SQLite, ODBC) implements Connection and Statement; everything
// above them is shared. A Connection owns its native connection; a Statement
// is owned by its caller and must be destroyed before the Connection that
// prepared it. Values are always bound, never pasted into the SQL text.
// Neither class is thread-safe: use a connection and its statements from one
// thread at a time. No call throws; failures are reported as false, null or
// StepResult::error, with the details in Connection::last_error().

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vesk::datastore::sql {

// What step() found.
enum class StepResult { row, done, error };

// The type of a value in the current row.
enum class ColumnType { null, integer, real, text };

// The details of the latest failure of a connection or of its statements.
struct Error {
    std::string message;      // every diagnostic the backend gave, joined; empty if none
    int64_t native_code = 0;  // the backend's own code (SQLite result code, driver code)
    std::string sqlstate;     // five-character SQLSTATE where the backend has one, else empty
};

// One prepared statement. Bind indexes are 1-based, column indexes 0-based.
class Statement {
public:
    virtual ~Statement() = default;

    // Bind a value to parameter `index`. Texts are not copied: the bytes must
    // stay valid until the next step() or reset(). Bindings persist over reset().
    virtual bool bind_text(int index, std::string_view value) = 0;
    virtual bool bind_int64(int index, int64_t value) = 0;
    virtual bool bind_double(int index, double value) = 0;
    virtual bool bind_null(int index) = 0;

    // Runs the statement on the first call, then advances: row when a row is
    // current, done at the end (also for statements without rows), or error.
    virtual StepResult step() = 0;
    // Makes the statement ready to run again (with the same bindings).
    virtual bool reset() = 0;

    // Number of result columns, known after the first step() (0 for
    // statements without rows).
    virtual int column_count() = 0;
    // Name of result column `i` as the backend spells it (servers may fold case).
    virtual std::string column_name(int i) = 0;
    // Type of column `i` in the current row (null when the value is NULL).
    virtual ColumnType column_type(int i) = 0;
    // The whole text of column `i` of the current row, any length, into `out`
    // (numbers as text, NULL as empty). False on a read failure.
    virtual bool column_text(int i, std::string& out) = 0;
    // Column `i` of the current row as a number (NULL reads as 0).
    virtual int64_t column_int64(int i) = 0;
    virtual double column_double(int i) = 0;
};

// One open database connection.
class Connection {
public:
    virtual ~Connection() = default;

    // Prepares `sql` (one statement); null on failure, see last_error().
    virtual std::unique_ptr<Statement> prepare(const std::string& sql) = 0;

    // Transactions: outside begin()/commit() every statement commits on its own.
    virtual bool begin() = 0;
    virtual bool commit() = 0;
    virtual bool rollback() = 0;

    // The latest failure of this connection or of any of its statements.
    virtual const Error& last_error() const = 0;
    // False once the connection is known to be lost: the caller drops its
    // statements and this connection, and opens a new one for its next call.
    virtual bool is_alive() = 0;
};

}  // namespace vesk::datastore::sql
