// The PostgreSQL dialect against the real server, compared with what SQLite
// answers to its own texts on a real SQLite file holding the same rows.
#include "pg_dialect.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <dlfcn.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "vesk/datastore.h"

#include "pg_test_server.h"
#include "recording_interface.h"
#include "test_support.h"

namespace vesk::test {
namespace {

namespace vd = vesk::datastore;
using vd::sql::StepResult;

// The staged SQLite extension: creates `file` with its schema (indexes
// included) and gives its hosts query.
std::string make_sqlite_datastore(const std::string& file) {
    void* handle =
        dlopen((kStageDir + "/datastore/lumok64/libsqlite.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw std::runtime_error(std::string("dlopen: ") + dlerror());
    auto create = reinterpret_cast<vd::CreateExtensionFn>(dlsym(handle, "create"));
    auto destroy = reinterpret_cast<vd::DestroyExtensionFn>(dlsym(handle, "destroy"));
    if (!create || !destroy) throw std::runtime_error("libsqlite.so lacks create or destroy");
    vd::DataStoreExtension* instance = create();
    auto* sql = dynamic_cast<vd::interface*>(instance);
    if (sql == nullptr) throw std::runtime_error("libsqlite.so gave no interface");
    instance->instance_name = "dialect_test";
    const int32_t status = instance->open("source=" + file);
    const std::string hosts = sql->hosts_query;
    destroy(instance);
    dlclose(handle);
    if (status != 0) throw std::runtime_error("libsqlite.so cannot open " + file);
    return hosts;
}

// An INSERT of 20 to 139 rows, a text both SQLite and PostgreSQL run as it
// is. Few distinct values (four time stamps and NULL in 36 groups), so that
// many groups tie on their greatest time stamp or have only NULL ones, the
// cases where only the tie-break decides.
// Its rowids are even, or odd with `odd`: two of them hold no rowid twice.
std::string random_rows_sql(unsigned seed, bool odd = false) {
    std::mt19937 rng(seed);
    std::vector<int64_t> ids(20 + rng() % 120);
    int64_t id = 0;
    for (int64_t& slot : ids)
        slot = 2 * (id += 1 + static_cast<int64_t>(rng() % 3)) + (odd ? 1 : 0);  // gaps
    std::shuffle(ids.begin(), ids.end(), rng);  // insertion order differs from rowid order
    // A language's collation puts these in another order than their bytes
    // do (case, punctuation).
    const char* providers[] = {"p1", "P2", "p-3", "uname"};
    const char* hosts[] = {"node-b", "nodeA", "nodea"};
    const char* options[] = {"'a'", "'B'"};
    std::string sql =
        "INSERT INTO provider_datastore(rowid, Provider, Hostname, num_nodes, node_names, "
        "Exit_status, Timestamp, Duration, Encoding, STDOUT, STDERR, OptionID, version, "
        "Username, Unique_timestamp) VALUES";
    for (int64_t id : ids) {
        sql += std::string(id == ids.front() ? "(" : ",(") + std::to_string(id) + ", '" +
               providers[rng() % 4] + "', '";
        sql += std::string(hosts[rng() % 3]) + "', 1, 'n1', 0, 1700000000, 0.5, 0, 'out', '', ";
        sql += std::string(rng() % 3 != 0 ? options[rng() % 2] : "NULL") + ", 1, 'u', ";
        sql += rng() % 5 != 0 ? std::to_string(1700000000000000 + rng() % 4) + ")" : "NULL)";
    }
    return sql + ";";
}

class PgDialectTest : public PgTest {
protected:
    void prepare() override {
        // A database of its own, emptied per use, whose collation is not
        // byte order.
        if (query_int(*connection,
                      "SELECT count(*) FROM pg_database WHERE datname = 'vesk_dialect';") == 0)
            exec(*connection,
                 "CREATE DATABASE vesk_dialect TEMPLATE template0 LOCALE_PROVIDER icu "
                 "ICU_LOCALE 'en-US' LOCALE 'C.UTF-8';");
        dialect = connect(with_database(conn_string, "vesk_dialect"));
        ASSERT_NE(dialect, nullptr);
    }

    void fresh_pg_schema() {
        exec(*dialect, "DROP VIEW IF EXISTS vesk_1;");
        exec(*dialect,
             "DROP TABLE IF EXISTS provider_datastore, baseline_datastore, "
             "provider_datastore_newest;");
        exec(*dialect, "DROP SEQUENCE IF EXISTS provider_datastore_newest_writer;");
        std::string error;
        ASSERT_TRUE(vd::odbc_backend::pg::create_schema(*dialect, error)) << error;
    }

    std::vector<int64_t> pg_rowids(const std::string& sql) {
        std::vector<int64_t> ids;
        auto s = dialect->prepare(sql);
        EXPECT_NE(s, nullptr) << sql << ": " << dialect->last_error().message;
        if (!s) return ids;
        EXPECT_EQ(s->column_count(), 0);  // not run yet
        StepResult r;
        while ((r = s->step()) == StepResult::row) {
            EXPECT_EQ(s->column_name(0), "rowid");
            ids.push_back(s->column_int64(0));
        }
        EXPECT_EQ(r, StepResult::done) << sql << ": " << dialect->last_error().message;
        return ids;
    }

    std::unique_ptr<vd::odbc_backend::OdbcConnection> dialect;
};

std::vector<int64_t> sqlite_rowids(sqlite3* db, const std::string& sql) {
    std::vector<int64_t> ids;
    sqlite3_stmt* s = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), SQLITE_OK)
        << sql << ": " << sqlite3_errmsg(db);
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) ids.push_back(sqlite3_column_int64(s, 0));
    EXPECT_EQ(rc, SQLITE_DONE) << sqlite3_errmsg(db);
    sqlite3_finalize(s);
    return ids;
}

std::vector<int64_t> sorted(std::vector<int64_t> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
}

// Changes after the rows were stored, texts both SQLite and PostgreSQL run
// as they are: rows removed (some groups emptied), time stamps made NULL or
// the greatest, rows moved to another group, rowids changed, and rows added
// with rowids below and above the others.
std::vector<std::string> random_changes_sql(unsigned seed) {
    std::mt19937 rng(seed);
    auto k = [&](int m) { return std::to_string(rng() % m); };
    return {
        "DELETE FROM provider_datastore WHERE rowid % 7 = " + k(7) + ";",
        "UPDATE provider_datastore SET Unique_timestamp = NULL WHERE rowid % 11 = " + k(11) + ";",
        "UPDATE provider_datastore SET Unique_timestamp = 1700000000000003 WHERE rowid % 13 = " +
            k(13) + ";",
        "UPDATE provider_datastore SET Hostname = 'nodeA' WHERE rowid % 17 = " + k(17) + ";",
        "UPDATE provider_datastore SET rowid = rowid + 1000 WHERE rowid % 19 = " + k(19) + ";",
        "DELETE FROM provider_datastore WHERE Provider = 'p-3' AND Hostname = 'node-b';",
        "INSERT INTO provider_datastore(rowid, Provider, Hostname, OptionID, Unique_timestamp) "
        "VALUES(0, 'p1', 'nodea', 'a', 1700000000000003), (2000, 'P2', 'node-b', NULL, NULL), "
        "(-5, 'p1', 'nodea', 'a', 1700000000000003);",
    };
}

// The same rows in the same order: the latest rows from the table of each
// group's latest row and from the rows themselves, after inserts in several
// statements, after later changes, and after the table was emptied.
TEST_F(PgDialectTest, LatestQueriesReturnTheRowsSqliteReturns) {
    namespace pg = vd::odbc_backend::pg;
    RecordingInterface base;
    const struct {
        std::vector<std::string> providers, hosts;
    } filters[] = {
        {{"p1", "P2", "p-3", "uname"}, {}},
        {{"P2"}, {}},
        {{"p1", "p-3"}, {"node-b", "nodea"}},
    };
    auto compare = [&](sqlite3* db, const std::string& sqlite_hosts) {
        for (const auto& f : filters) {
            std::string condition;
            ASSERT_TRUE(base.generate_where_clause(f.providers, "Provider", condition));
            base.generate_where_clause(f.hosts, "Hostname", condition);
            std::vector<vd::Row> unused;

            ASSERT_TRUE(base.get_latest_rows_provider(f.providers, unused, f.hosts));
            const auto expected_latest = sqlite_rowids(db, base.last_sql);
            EXPECT_EQ(pg_rowids(pg::latest_rows_sql(condition)), expected_latest) << base.last_sql;
            EXPECT_EQ(pg_rowids(pg::latest_rows_scan_sql(condition)), expected_latest)
                << base.last_sql;

            // SQLite orders these groups by its plan: compared as sets.
            ASSERT_TRUE(base.get_latest_collect_rows(f.providers, unused, f.hosts));
            EXPECT_EQ(sorted(pg_rowids(pg::latest_run_sql(condition))),
                      sorted(sqlite_rowids(db, base.last_sql)))
                << base.last_sql;
        }
        EXPECT_EQ(pg_rowids(pg::hosts_sql()), sqlite_rowids(db, sqlite_hosts)) << sqlite_hosts;
    };
    auto both = [&](sqlite3* db, const std::string& sql) {
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sql << ": " << sqlite3_errmsg(db);
        ASSERT_NO_FATAL_FAILURE(exec(*dialect, sql));
    };
    // VESK_DIALECT_SEEDS runs more seeds on demand (40 by default).
    const char* more = std::getenv("VESK_DIALECT_SEEDS");
    const unsigned seeds = more ? static_cast<unsigned>(std::atoi(more)) : 40;
    for (unsigned seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));

        TempDir dir;
        const std::string file = dir.file("vesk.db");
        const std::string sqlite_hosts = make_sqlite_datastore(file);
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
        ASSERT_NO_FATAL_FAILURE(fresh_pg_schema());
        // Two statements: the second meets the groups the first made.
        both(db, random_rows_sql(seed));
        both(db, random_rows_sql(seed + 1000, true));
        SCOPED_TRACE("inserted");
        compare(db, sqlite_hosts);
        for (const std::string& sql : random_changes_sql(seed)) {
            SCOPED_TRACE(sql);
            both(db, sql);
            compare(db, sqlite_hosts);
        }
        ASSERT_EQ(sqlite3_exec(db, "DELETE FROM provider_datastore;", nullptr, nullptr, nullptr),
                  SQLITE_OK);
        exec(*dialect, "TRUNCATE provider_datastore;");
        both(db, random_rows_sql(seed + 2000));
        SCOPED_TRACE("emptied and filled again");
        compare(db, sqlite_hosts);
        sqlite3_close(db);
        if (HasFailure()) break;
    }
}

// A role that may read and write the rows but owns nothing and was granted
// nothing on the table of each group's latest row adds, changes, moves,
// removes and truncates rows; after each statement the latest rows read from
// that table are those chosen among the rows.
TEST_F(PgDialectTest, AWriterThatOwnsNoTableKeepsTheLatestRows) {
    namespace pg = vd::odbc_backend::pg;
    ASSERT_NO_FATAL_FAILURE(fresh_pg_schema());
    if (query_int(*dialect, "SELECT count(*) FROM pg_roles WHERE rolname = 'vesk_writer';") == 0)
        exec(*dialect, "CREATE ROLE vesk_writer LOGIN;");
    exec(*dialect,
         "GRANT SELECT, INSERT, UPDATE, DELETE, TRUNCATE ON provider_datastore TO vesk_writer;");
    exec(*dialect, "GRANT USAGE ON ALL SEQUENCES IN SCHEMA public TO vesk_writer;");
    std::string conn = with_database(conn_string, "vesk_dialect");
    const std::string owner = "Uid=postgres;";
    ASSERT_NE(conn.find(owner), std::string::npos) << conn;
    conn.replace(conn.find(owner), owner.size(), "Uid=vesk_writer;");
    auto writer = connect(conn);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(query_int(*writer,
                        "SELECT count(*) FROM pg_roles WHERE rolname = current_user "
                        "AND rolname = 'vesk_writer' AND NOT rolsuper;"),
              1);
    const std::string condition = " Provider = 'p'";
    for (const char* sql : {
             "INSERT INTO provider_datastore(Provider, Hostname, OptionID, Unique_timestamp) "
             "VALUES ('p', 'a', 'o', 5), ('p', 'a', 'o', 7), ('p', 'b', NULL, NULL), "
             "('p', 'b', NULL, NULL);",
             "UPDATE provider_datastore SET Unique_timestamp = 9 WHERE Hostname = 'b';",
             "UPDATE provider_datastore SET Hostname = 'c', rowid = rowid + 100 WHERE "
             "Unique_timestamp = 7;",
             "DELETE FROM provider_datastore WHERE Hostname = 'a';",
             "TRUNCATE provider_datastore;",
             "INSERT INTO provider_datastore(Provider, Hostname) VALUES ('p', 'd');",
         }) {
        SCOPED_TRACE(sql);
        ASSERT_NO_FATAL_FAILURE(exec(*writer, sql));
        EXPECT_EQ(pg_rowids(pg::latest_rows_sql(condition)),
                  pg_rowids(pg::latest_rows_scan_sql(condition)));
    }
}

// Two writers that each change the same rows in two statements of one
// transaction: the second waits for the first from its first change on,
// before it holds any row, so the server rolls neither back as caught in a
// circle; the second's change comes last.
TEST_F(PgDialectTest, WritersChangingTheSameRowsInSeveralStatementsTakeTurns) {
    namespace pg = vd::odbc_backend::pg;
    ASSERT_NO_FATAL_FAILURE(fresh_pg_schema());
    exec(*dialect,
         "INSERT INTO provider_datastore(rowid, Provider, Hostname, OptionID, Unique_timestamp) "
         "VALUES (1, 'p', 'h', 'o', 1), (2, 'p', 'h', 'o', 2);");
    const std::string conn = with_database(conn_string, "vesk_dialect");
    auto first = connect(conn), second = connect(conn);
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(first->begin());
    ASSERT_NO_FATAL_FAILURE(
        exec(*first, "UPDATE provider_datastore SET Unique_timestamp = 3 WHERE rowid = 1;"));
    std::string second_error = "not run";
    std::thread other([&] {
        if (!second->begin()) {
            second_error = second->last_error().message;
            return;
        }
        auto s =
            second->prepare("UPDATE provider_datastore SET Unique_timestamp = 5 WHERE rowid = 2;");
        if (s && s->step() == StepResult::done && second->commit())
            second_error.clear();
        else
            second_error = second->last_error().message;
    });
    // Until the second writer waits for the first.
    for (int n = 0; n < 1000 && query_int(*dialect,
                                          "SELECT count(*) FROM pg_stat_activity WHERE datname = "
                                          "'vesk_dialect' AND wait_event_type = 'Lock';") == 0;
         ++n)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    auto s = first->prepare("UPDATE provider_datastore SET Unique_timestamp = 4 WHERE rowid = 2;");
    const bool first_ok = s && s->step() == StepResult::done && first->commit();
    const std::string first_error = first_ok ? "" : first->last_error().message;
    s.reset();
    if (!first_ok) first->rollback();
    other.join();
    EXPECT_EQ(first_error, "");
    EXPECT_EQ(second_error, "");
    EXPECT_EQ(
        query_int(*dialect, "SELECT Unique_timestamp FROM provider_datastore WHERE rowid = 2;"), 5);
    EXPECT_EQ(pg_rowids(pg::latest_rows_sql(" Provider = 'p'")), std::vector<int64_t>{2});
}

// A writer whose transaction reads one snapshot throughout removes a group's
// latest row, or empties the rows table, after another writer, committed
// since that snapshot, added rows that the snapshot does not hold: one in
// the group (its next row, which the remover cannot see) and one in a group
// of its own (whose entry the remover cannot see to remove). The removal is
// refused as a serialization failure (the caller runs it again) rather than
// leave a group without its latest row or with one of a removed row; with
// no such writer, or at READ COMMITTED, it succeeds. Either way the latest
// rows are those chosen among the rows, also after a later, older row.
TEST_F(PgDialectTest, ARemovalOnAnOldSnapshotLeavesNoGroupWithoutItsLatestRow) {
    namespace pg = vd::odbc_backend::pg;
    const char* const remove_one = "DELETE FROM provider_datastore WHERE rowid = 1;";
    const char* const remove_all = "TRUNCATE provider_datastore;";
    const struct {
        const char* isolation;
        bool other_writer;
        const char* removal;
        bool removed;
    } cases[] = {
        {"REPEATABLE READ", true, remove_one, false}, {"SERIALIZABLE", true, remove_one, false},
        {"REPEATABLE READ", true, remove_all, false}, {"REPEATABLE READ", false, remove_one, true},
        {"REPEATABLE READ", false, remove_all, true}, {"READ COMMITTED", true, remove_one, true},
        {"READ COMMITTED", true, remove_all, true},
    };
    const std::string conn = with_database(conn_string, "vesk_dialect");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.isolation) + (c.other_writer ? ", another writer, " : ", ") +
                     c.removal);
        ASSERT_NO_FATAL_FAILURE(fresh_pg_schema());
        exec(*dialect,
             "INSERT INTO provider_datastore(rowid, Provider, Hostname, OptionID, "
             "Unique_timestamp) VALUES (1, 'p', 'h', 'o', 100), (2, 'p', 'g', 'o', 1);");
        auto remover = connect(conn);
        ASSERT_NE(remover, nullptr);
        exec(*remover, std::string("SET SESSION CHARACTERISTICS AS TRANSACTION ISOLATION LEVEL ") +
                           c.isolation + ";");
        ASSERT_TRUE(remover->begin());
        EXPECT_EQ(query_int(*remover, "SELECT count(*) FROM provider_datastore;"), 2);
        if (c.other_writer)
            exec(*dialect,
                 "INSERT INTO provider_datastore(rowid, Provider, Hostname, OptionID, "
                 "Unique_timestamp) VALUES (3, 'p', 'h', 'o', 50), (4, 'p', 'x', 'o', 50);");
        auto s = remover->prepare(c.removal);
        const bool removed = s && s->step() == StepResult::done;
        const std::string error = remover->last_error().message;
        s.reset();
        if (removed) {
            EXPECT_TRUE(remover->commit()) << remover->last_error().message;
        } else {
            EXPECT_NE(error.find("40001"), std::string::npos) << error;
            EXPECT_TRUE(remover->rollback());
        }
        EXPECT_EQ(removed, c.removed) << error;
        const std::string condition = " Provider = 'p'";
        EXPECT_EQ(pg_rowids(pg::latest_rows_sql(condition)),
                  pg_rowids(pg::latest_rows_scan_sql(condition)));
        exec(*dialect,
             "INSERT INTO provider_datastore(rowid, Provider, Hostname, OptionID, "
             "Unique_timestamp) VALUES (5, 'p', 'x', 'o', 10);");
        EXPECT_EQ(pg_rowids(pg::latest_rows_sql(condition)),
                  pg_rowids(pg::latest_rows_scan_sql(condition)));
    }
}

// The latest rows query locks the table of each group's latest row, then
// the rows table; a reader transaction that read the first stands for one
// caught between the two. A truncation of the rows table meanwhile ends
// without waiting for that reader, and the reader then reads the rows.
TEST_F(PgDialectTest, ATruncationWaitsForNoReaderOfTheLatestRows) {
    ASSERT_NO_FATAL_FAILURE(fresh_pg_schema());
    exec(*dialect, "INSERT INTO provider_datastore(Provider, Hostname) VALUES ('p', 'h');");
    const std::string conn = with_database(conn_string, "vesk_dialect");
    auto reader = connect(conn), truncater = connect(conn);
    ASSERT_TRUE(reader && truncater);
    ASSERT_TRUE(reader->begin());
    EXPECT_EQ(query_int(*reader, "SELECT count(*) FROM provider_datastore_newest;"), 1);
    std::atomic<bool> done{false};
    std::string truncate_error = "not run";
    std::thread other([&] {
        auto s = truncater->prepare("TRUNCATE provider_datastore;");
        truncate_error = s && s->step() == StepResult::done ? "" : truncater->last_error().message;
        done = true;
    });
    // Until the truncation ended or waits.
    for (int n = 0; n < 1000 && !done &&
                    query_int(*dialect,
                              "SELECT count(*) FROM pg_stat_activity WHERE datname = "
                              "'vesk_dialect' AND wait_event_type = 'Lock';") == 0;
         ++n)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    auto s = reader->prepare("SELECT count(*) FROM vesk_1;");
    const bool read = s && s->step() == StepResult::row;
    EXPECT_TRUE(read) << reader->last_error().message;
    if (read) {
        EXPECT_EQ(s->column_int64(0), 0);
    }
    s.reset();
    EXPECT_TRUE(reader->rollback());
    other.join();
    EXPECT_EQ(truncate_error, "");
}

// Triggers of the table of each group's latest row removed by hand, the
// rows written meanwhile: the schema creation makes them again and fills
// the table afresh, so the latest rows are those chosen among the rows.
TEST_F(PgDialectTest, SchemaCreationRemakesTheTriggersOfTheLatestRowTable) {
    namespace pg = vd::odbc_backend::pg;
    const std::string condition = " Provider = 'p'";
    for (const char* removal : {"DROP TRIGGER provider_datastore_newest_insert ON "
                                "provider_datastore;",
                                "DROP FUNCTION provider_datastore_newest_keep() CASCADE;"}) {
        SCOPED_TRACE(removal);
        ASSERT_NO_FATAL_FAILURE(fresh_pg_schema());
        exec(*dialect,
             "INSERT INTO provider_datastore(Provider, Hostname, Unique_timestamp) VALUES "
             "('p', 'h', 1);");
        exec(*dialect, removal);
        exec(*dialect,
             "INSERT INTO provider_datastore(Provider, Hostname, Unique_timestamp) VALUES "
             "('p', 'h', 2), ('p', 'g', 1);");
        std::string error;
        ASSERT_TRUE(pg::create_schema(*dialect, error)) << error;
        EXPECT_EQ(pg_rowids(pg::latest_rows_sql(condition)),
                  pg_rowids(pg::latest_rows_scan_sql(condition)));
        exec(*dialect,
             "INSERT INTO provider_datastore(Provider, Hostname, Unique_timestamp) VALUES "
             "('p', 'h', 3), ('p', 'f', 1);");
        EXPECT_EQ(pg_rowids(pg::latest_rows_sql(condition)),
                  pg_rowids(pg::latest_rows_scan_sql(condition)));
    }
}

// A removal or change finds the next latest row of each group it touched
// through the groups' index, reading only those groups: never the whole
// rows table, which holds every other writer back meanwhile. Of the rows
// table and its indexes, each statement (one row of a group of a few) reads
// a few entries, not the hundreds stored, whatever the plan may read
// sequentially (it is told not to where it has a choice). NULL columns
// included.
TEST_F(PgDialectTest, ARemovalOrChangeReadsOnlyTheGroupsOfItsRows) {
    namespace pg = vd::odbc_backend::pg;
    ASSERT_NO_FATAL_FAILURE(fresh_pg_schema());
    exec(*dialect, random_rows_sql(7));
    exec(*dialect, random_rows_sql(8, true));
    const std::vector<int64_t> ids =
        pg_rowids("SELECT rowid FROM provider_datastore ORDER BY rowid;");
    ASSERT_GE(ids.size(), 48u);
    // And 400 rows of other groups.
    exec(*dialect,
         "INSERT INTO provider_datastore(rowid, Provider, Hostname, OptionID, Unique_timestamp) "
         "SELECT 100000 + g, 'p1', 'fill' || g % 10, 'a', g FROM generate_series(1, 400) AS g;");
    exec(*dialect, "SET enable_seqscan = off;");
    // Entries read since the session's last report, which waits for the
    // end of the transaction: the count before and after the statement.
    const std::string reads =
        "SELECT pg_stat_get_xact_tuples_returned('provider_datastore'::regclass) + (SELECT "
        "coalesce(sum(pg_stat_get_xact_tuples_returned(indexrelid)), 0) FROM pg_index WHERE "
        "indrelid = 'provider_datastore'::regclass);";
    const std::string condition = " Provider IS NOT NULL";
    for (size_t n = 0; n < 12; ++n) {
        const std::string id = std::to_string(ids[n * 4]);
        const std::string sql =
            n % 3 == 0 ? "DELETE FROM provider_datastore WHERE rowid = " + id + ";"
            : n % 3 == 1
                ? "UPDATE provider_datastore SET Unique_timestamp = NULL, OptionID = "
                  "NULL WHERE rowid = " +
                      id + ";"
                : "UPDATE provider_datastore SET Hostname = NULL WHERE rowid = " + id + ";";
        SCOPED_TRACE(sql);
        ASSERT_TRUE(dialect->begin());
        const int64_t before = query_int(*dialect, reads);
        exec(*dialect, sql);
        EXPECT_LE(query_int(*dialect, reads) - before, 20);
        ASSERT_TRUE(dialect->commit());
        EXPECT_EQ(pg_rowids(pg::latest_rows_sql(condition)),
                  pg_rowids(pg::latest_rows_scan_sql(condition)));
    }
    exec(*dialect, "RESET enable_seqscan;");
}

TEST_F(PgDialectTest, RowidsContinueAfterExplicitOnes) {
    fresh_pg_schema();
    exec(*dialect, "INSERT INTO provider_datastore(rowid) VALUES(41);");
    exec(*dialect, "INSERT INTO baseline_datastore(rowid, datastore_rowid) VALUES(7, 41);");
    for (const std::string& sql : vd::odbc_backend::pg::resync_rowid_statements())
        exec(*dialect, sql);
    exec(*dialect, "INSERT INTO provider_datastore(Provider) VALUES('next');");
    exec(*dialect, "INSERT INTO baseline_datastore(baseline_id) VALUES('next');");
    EXPECT_EQ(query_int(*dialect, "SELECT rowid FROM vesk_1 WHERE Provider = 'next';"), 42);
    EXPECT_EQ(
        query_int(*dialect, "SELECT rowid FROM baseline_datastore WHERE baseline_id = 'next';"), 8);
}

// Eight processes, connected first, run the schema creation at the same
// moment on a new database.
TEST_F(PgDialectTest, SchemaCreationByEightProcessesAtOnce) {
    constexpr int kProcesses = 8;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const std::string conn = fresh("vesk_schema_race_" + std::to_string(round));
        ASSERT_FALSE(conn.empty());
        int ready[2], go[2];
        ASSERT_TRUE(pipe(ready) == 0 && pipe(go) == 0);
        std::vector<pid_t> children;
        for (int i = 0; i < kProcesses; ++i) {
            const pid_t pid = fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
                close(ready[0]);
                close(go[1]);
                vd::sql::Error error;
                auto c = vd::odbc_backend::OdbcConnection::connect(conn, {}, error);
                char byte = c ? 1 : 0;
                if (write(ready[1], &byte, 1) != 1 || !c) _exit(2);
                if (read(go[0], &byte, 1) != 0) _exit(3);  // EOF: everyone is connected
                std::string message;
                if (vd::odbc_backend::pg::create_schema(*c, message)) _exit(0);
                fprintf(stderr, "process %d: %s\n", i, message.c_str());
                _exit(1);
            }
            children.push_back(pid);
        }
        close(ready[1]);
        close(go[0]);
        for (int i = 0; i < kProcesses; ++i) {
            char byte = 0;
            EXPECT_TRUE(read(ready[0], &byte, 1) == 1 && byte == 1)
                << "a process could not connect";
        }
        close(go[1]);  // releases them all at once
        close(ready[0]);
        for (pid_t pid : children) {
            int status = 0;
            ASSERT_EQ(waitpid(pid, &status, 0), pid);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        }
        {
            auto check = connect(conn);
            ASSERT_NE(check, nullptr);
            EXPECT_EQ(query_int(*check, "SELECT count(*) FROM vesk_1;"), 0);
        }
    }
}

}  // namespace
}  // namespace vesk::test
