#pragma once
// The PostgreSQL dialect of the datastore's SQL: the schema and the queries
// where PostgreSQL cannot follow SQLite's texts, written to return the same
// rows as SQLite's, ties included.
//
// SQLite's texts that PostgreSQL refuses or reads differently: a rowid that
// is not filled in by itself (identity column here), 32-bit INTEGER (BIGINT),
// REAL as 32-bit float (DOUBLE PRECISION), CREATE VIEW IF NOT EXISTS (CREATE
// OR REPLACE VIEW), and the bare columns beside MAX() in a GROUP BY query
// (DISTINCT ON with an explicit order that picks SQLite's row). The plain
// provider query and the snapshot joins are the same in both.

#include <cstdint>
#include <string>
#include <vector>

#include "vesk/datastore/sql/dialect.h"
#include "vesk/datastore/sql/statement.h"

namespace vesk::datastore::odbc_backend::pg {

// The create statements: provider table, baseline table, view, indexes.
const std::vector<std::string>& schema_statements();

// The table that holds each group's latest row, (Provider, Hostname,
// OptionID, rowid, Unique_timestamp), kept by triggers on every insert,
// update, delete and truncation of the rows table, whoever writes.
extern const std::string newest_table;
// Its unique index of the group (NULLS NOT DISTINCT: PostgreSQL 15 on),
// which carries the rowid too.
extern const std::string newest_index;
// Its create statements: the table, its index, the triggers, and its
// filling from the rows already stored, the rows table locked against
// writers meanwhile.
const std::vector<std::string>& newest_statements();
// The oldest server (server_version_num) that the newest_table serves.
constexpr int newest_table_min_version = 150000;

// The latest row per (OptionID, Hostname, Provider): the greatest
// Unique_timestamp, ties to the lowest rowid; a group whose time stamps are
// all NULL gives its highest rowid. `condition` is the WHERE condition the
// base class builds (" (Provider IN ('p') )..."), on the group columns
// only. In SQLite's order: by Provider, Hostname, OptionID, in byte order
// with NULL first. Read from the newest_table.
std::string latest_rows_sql(const std::string& condition);
// The same rows chosen from the rows table's index, for a database without
// the newest_table (an older server, or read-only before any writer made it).
std::string latest_rows_scan_sql(const std::string& condition);
// The rows of the newest collection run, one per (OptionID, Hostname,
// Provider), the lowest rowid of each group, in the order of those three
// (SQLite's order unless it reads one provider's rows from its index).
std::string latest_run_sql(const std::string& condition);
// The latest "uname" row per host (the hosts query, operation 512), by host
// in byte order.
std::string hosts_sql();
// The bulk insert of one statement per batch with one array parameter per
// column: the server parses 14 values instead of 14 per row.
std::string array_insert_sql();

// The texts above as the kit's dialect record, for an extension built on
// it, with or without the newest_table.
class PgDialect final : public sql::Dialect {
public:
    explicit PgDialect(bool newest = true) : newest_(newest) {}
    std::vector<std::string> create_statements() const override;
    std::vector<std::string> schema_object_names() const override;
    std::string latest_rows_sql(const std::string& condition) const override {
        return newest_ ? pg::latest_rows_sql(condition) : pg::latest_rows_scan_sql(condition);
    }
    std::string latest_run_sql(const std::string& condition) const override {
        return pg::latest_run_sql(condition);
    }
    std::string hosts_sql() const override { return pg::hosts_sql(); }
    std::string array_insert_sql() const override { return pg::array_insert_sql(); }
    // Whether these are the texts with the newest_table.
    bool newest() const { return newest_; }

private:
    bool newest_;
};

// Moves the rowid sequences past the greatest rowid, after rows were written
// with explicit rowids (otherwise the next insert collides with 23505).
const std::vector<std::string>& resync_rowid_statements();

// Makes every later transaction of the session read-only at the server.
extern const char* const read_only_session_sql;

// Makes backslashes plain characters in '...' literals for the session,
// whatever the server's or the database's setting.
extern const char* const literal_session_sql;

// Makes every later transaction of the session READ COMMITTED, whatever the
// server's or the database's default: a writer that waited for its turn on
// the newest_table then sees the entries the writer before it changed.
extern const char* const read_committed_session_sql;

// Plans the session's cursors for reading every row, as a plain query is
// planned, instead of for a quick first tenth (the server's default).
extern const char* const whole_answer_session_sql;

// The advisory lock key that serialises schema creation between processes.
constexpr int64_t schema_lock_key = 0x7665736b5f736368;  // "vesk_sch"
// The advisory lock key that writers of the rows table hold, one at a time,
// from their first change to their commit.
constexpr int64_t newest_lock_key = 0x7665736b5f6e6577;  // "vesk_new"

// Creates the schema inside one transaction that holds the advisory lock, so
// that several processes opening a new database at once do not collide on
// the catalog; the newest_table too where the server serves it. False with
// `error` naming the failed statement.
bool create_schema(sql::Connection& connection, std::string& error);

// Whether the current schema holds every object but the newest_table; false
// when the question fails too.
bool has_rows_schema(sql::Connection& connection);

// Whether the current schema holds the newest_table with its triggers
// enabled (without them it would not follow the rows) and the current role
// may read it; false with `error` set when the question fails.
bool has_newest_table(sql::Connection& connection, bool& present, std::string& error);

}  // namespace vesk::datastore::odbc_backend::pg
