#pragma once
// The statement seam over ODBC (unixODBC): one connection through
// SQLDriverConnect and its prepared statements.
//
// Ownership and release order: an OdbcConnection shares one Handles record
// (environment, connection) with every statement it prepared, so the
// handles are released in this order whatever the order of destruction:
// each statement handle (SQLFreeHandle STMT) first, then the connection
// (rollback of an open transaction, SQLDisconnect, SQLFreeHandle DBC), then
// the environment (SQLFreeHandle ENV). Not thread-safe.

#include <memory>
#include <sql.h>
#include <sqlext.h>
#include <string>
#include <vector>

#include "vesk/datastore/sql/statement.h"

namespace vesk::datastore::odbc_backend {

// One ODBC diagnostic record.
struct Diagnostic {
    std::string sqlstate;
    SQLINTEGER native_code = 0;
    std::string message;
};

// Every diagnostic record of `handle`, in order.
std::vector<Diagnostic> collect_diagnostics(SQLSMALLINT handle_type, SQLHANDLE handle);
// "[SQLSTATE] (native) message" for each record, joined by "; ".
std::string join_diagnostics(const std::vector<Diagnostic>& records);
// True for the SQLSTATEs of a lost connection (57P01, 57P02, 08S01, 08001,
// 08003, 08006, 08007).
bool is_connection_lost_state(const std::string& sqlstate);

struct ConnectOptions {
    int login_timeout_s = 15;  // 0: the driver's default
    int query_timeout_s = 0;   // per statement; 0: none
    bool read_only = false;    // asks the driver for read-only access (a hint only)
};

struct Handles;

class OdbcConnection final : public sql::Connection {
public:
    // Connects with `connection_string` ("DSN=name;" or a DSN-less string);
    // null on failure with `error` filled from every diagnostic record.
    static std::unique_ptr<OdbcConnection> connect(const std::string& connection_string,
                                                   const ConnectOptions& options,
                                                   sql::Error& error);
    ~OdbcConnection() override;
    OdbcConnection(const OdbcConnection&) = delete;
    OdbcConnection& operator=(const OdbcConnection&) = delete;

    std::unique_ptr<sql::Statement> prepare(const std::string& sql) override;
    bool begin() override;
    bool commit() override;
    bool rollback() override;
    const sql::Error& last_error() const override;
    bool is_alive() override;

    // The server's product name (SQL_DBMS_NAME), e.g. "PostgreSQL".
    const std::string& dbms_name() const;
    // The diagnostic records behind last_error().
    const std::vector<Diagnostic>& last_diagnostics() const;
    // Rolls back like rollback() but leaves last_error() and the diagnostics
    // of the failure before it as they were.
    bool rollback_keeping_error();
    // A statement that sends `sql` whole at each run (SQLExecDirect): nothing
    // is prepared on the server, so nothing is released there when it ends,
    // which saves psqlODBC a round trip per statement. It takes no bindings.
    std::unique_ptr<sql::Statement> prepare_direct(const std::string& sql);
    // Runs `sql`, which returns no rows, in one round trip: no prepared
    // statement is left on the server to be released. False on failure.
    bool execute_direct(const std::string& sql);
    // Records a failure found outside ODBC: last_error() holds `message`.
    void record_failure(std::string message);
    // True while a transaction is open (between begin and commit or rollback).
    bool in_transaction() const;
    // When true, bind_text refuses invalid UTF-8 (NUL bytes are always refused:
    // the driver would cut the value short and answer success).
    void set_require_utf8(bool on);

private:
    explicit OdbcConnection(std::shared_ptr<Handles> handles);
    std::shared_ptr<Handles> handles_;
};

}  // namespace vesk::datastore::odbc_backend
