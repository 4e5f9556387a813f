#pragma once
// The statement seam over one SQLite connection: what the kit needs of
// SQLite. The connection does not own the sqlite3 handle; the extension
// opens and closes it and drops this object first.

#include <memory>
#include <string>

#include <sqlite3.h>

#include "vesk/datastore/sql/statement.h"

namespace vesk::datastore::sqlite_ext {

class SqliteConnection final : public sql::Connection {
public:
    explicit SqliteConnection(::sqlite3* db) : db_(db) {}
    ~SqliteConnection() override;

    std::unique_ptr<sql::Statement> prepare(const std::string& sql) override;
    // BEGIN IMMEDIATE: the write lock is taken at the start, not at the
    // first write, so a busy answer comes before any work is done.
    bool begin() override;
    bool commit() override;
    // Does nothing outside a transaction (SQLite may have rolled back itself).
    bool rollback() override;
    const sql::Error& last_error() const override { return error_; }
    bool is_alive() override { return true; }

    // Records the failure `rc` with SQLite's words for it.
    void fail(int rc);
    ::sqlite3* handle() const { return db_; }

private:
    bool run_kept(std::unique_ptr<sql::Statement>& stmt, const char* sql);

    ::sqlite3* db_;
    sql::Error error_;
    std::unique_ptr<sql::Statement> begin_, commit_, rollback_;
};

// Wraps a prepared statement (owned from now on) of `connection`.
std::unique_ptr<sql::Statement> wrap(SqliteConnection& connection, sqlite3_stmt* stmt);

}  // namespace vesk::datastore::sqlite_ext
