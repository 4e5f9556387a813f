// The SQLite extension through its real plugin: open and close, round trips,
// size limits, read-only use, bad files, injection, the statement guard,
// snapshots, and the latest-rows query against the base class's text.
#include <chrono>
#include <random>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "recording_interface.h"
#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;
constexpr int32_t kOk = 0;
constexpr int32_t kFailed = 1;

class SqliteExtensionTest : public ::testing::Test {
protected:
    std::string db() const { return dir_.file("vesk.db"); }
    SqliteInstance open_db(bool read_only = false, const std::string& more = "") {
        int32_t status = -1;
        auto ext = open_sqlite(params_for(db(), read_only, more), &status);
        EXPECT_EQ(status, kOk);
        return ext;
    }
    // The rows `sql` selects through the extension.
    static std::vector<vd::Row> select(vd::interface& ext, const std::string& sql) {
        std::vector<vd::Row> rows;
        EXPECT_TRUE(ext.select(sql, rows, vd::row_field_index)) << sql;
        return rows;
    }
    TempDir dir_;
};

// Every key the parameter string defines, blanks around items, an empty
// item, a quoted source naming $HOME.
TEST_F(SqliteExtensionTest, OpenCloseAndRequestsThatMustFail) {
    ScopedEnv home("HOME", dir_.path());
    int32_t status = -1;
    auto ext = open_sqlite(
        " source = \"$HOME/deep/er/vesk.db\" | read_only=false||busy_timeout_ms=10|"
        "query_timeout_ms=20|max_length=100000|max_result_bytes=1000|vfs=unix",
        &status);
    ASSERT_EQ(status, kOk);
    const std::string file = dir_.file("deep/er/vesk.db");
    EXPECT_EQ(raw_column(file, "PRAGMA journal_mode"), std::vector<std::string>{"wal"});
    CerrCapture log;
    EXPECT_EQ(ext->control(vd::SQLITE_BULK_INSERT, nullptr, nullptr, nullptr), kFailed);
    EXPECT_EQ(ext->control(1023, nullptr, nullptr, nullptr),
              vd::DataStoreExtension::UNSUPPORTED_OPERATION);
    // The file stays in WAL; the last connection to close takes the side files.
    EXPECT_EQ(ext->close(), kOk);
    EXPECT_EQ(files_in(dir_.file("deep/er")), std::set<std::string>{"vesk.db"});
    EXPECT_EQ(raw_column(file, "PRAGMA journal_mode"), std::vector<std::string>{"wal"});
    std::vector<vd::Row> rows;
    EXPECT_NE(insert_record(*ext, sample_record("p", "h", 1)), kOk);
    EXPECT_FALSE(ext->select("SELECT 1", rows, vd::row_field_index));
    EXPECT_EQ((open_sqlite(params_for(file), &status), status), kOk);  // the schema is in place
    EXPECT_EQ((open_sqlite("source=a=b", &status), status), kFailed);
    EXPECT_FALSE(std::filesystem::exists(db()));
}

// Unknown keys and malformed values are refused at open with a message that
// names the key, and nothing is created.
TEST_F(SqliteExtensionTest, ParameterStringIsCheckedKeyByKey) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"|read_only=maybe", "read_only"},
        {"|read_only=TRUE", "read_only"},
        {"|read_onyl=true", "read_onyl"},
        {"|busy_timeout_ms=soon", "busy_timeout_ms"},
        {"|query_timeout_ms=-5", "query_timeout_ms"},
        {"|max_result_bytes=1e9", "max_result_bytes"},
        {"|max_length=", "max_length="},
        {"|source=other.db", "source"},
        {"|vfs=no_such_vfs", "no_such_vfs"},
        {"|busy_timeout_ms=1234567890123", "busy_timeout_ms"}};
    for (const auto& [more, key] : refused) {
        SCOPED_TRACE(more);
        CerrCapture log;
        int32_t status = -1;
        EXPECT_FALSE(open_sqlite(params_for(db(), false, more), &status)->is_open());
        EXPECT_EQ(status, kFailed);
        EXPECT_NE(log.text().find(key), std::string::npos) << log.text();
        EXPECT_FALSE(std::filesystem::exists(db()));
    }
}

// Each limit at its maximum, and names with inner blanks and punctuation,
// round-trip. One byte (or node) more, or a provider or host name a query
// could not find as written, is refused by both insert paths with a message
// naming the field and the row, and nothing is written.
TEST_F(SqliteExtensionTest, FieldsAtTheirLimitsRoundTripAndBadFieldsAreRefusedByBothInserts) {
    auto ext = open_db();
    auto records = [](int extra) {
        std::vector<vd::InsertRecord> r(6, sample_record("limits", "h", 1));
        r[0].header.provider.assign(vd::max_provider_size + extra, 'p');
        r[1].header.hostname.assign(vd::max_hostname_size + extra, 'h');
        r[2].option_id.assign(vd::max_option_id_size + extra, 'o');
        r[3].header.username.assign(vd::max_username_size + extra, 'u');
        r[4].header.num_nodes = vd::max_num_nodes + extra;
        // 2^18 names joined by ", ": exactly max_node_names_size bytes.
        r[5].header.node_names.assign(vd::max_num_nodes, std::string(256, 'n'));
        r[5].header.node_names[0].assign(258 + extra, 'n');
        return r;
    };
    const char* const limits[][2] = {
        {"provider name", "max_provider_size"}, {"host name", "max_hostname_size"},
        {"option id", "max_option_id_size"},    {"user name", "max_username_size"},
        {"node count", "max_num_nodes"},        {"node list", "max_node_names_size"}};
    std::vector<std::tuple<vd::InsertRecord, std::string, std::string>> refused;
    const auto over = records(1);
    for (size_t i = 0; i < over.size(); ++i)
        refused.emplace_back(over[i], limits[i][0], limits[i][1]);
    for (const std::string& name :
         std::vector<std::string>{"  uname  ", "uname ", "\tuname", "h\n", "   ", "", "nic's check",
                                  std::string("a\0b", 3)}) {
        refused.emplace_back(sample_record(name, "h", 1), "provider name", "");
        refused.emplace_back(sample_record("p", name, 1), "host name", "");
    }
    for (const auto& [record, field, limit] : refused) {
        SCOPED_TRACE(field + " \"" + record.header.provider.substr(0, 12) + "\"@\"" +
                     record.header.hostname.substr(0, 12) + "\" " + limit);
        CerrCapture log;
        EXPECT_EQ(insert_record(*ext, record), kFailed);
        EXPECT_NE(log.text().find(field), std::string::npos) << log.text();
        EXPECT_EQ(
            bulk_insert(*ext, {sample_record("ok", "h", 1), sample_record("ok", "h", 2), record}),
            kFailed);
        EXPECT_NE(log.text().find("row 2: " + field), std::string::npos) << log.text();
        EXPECT_NE(log.text().find(limit), std::string::npos) << log.text();
    }
    EXPECT_EQ(raw_count(db()), 0);
    auto fine = records(0);
    fine.push_back(sample_record("disk usage (df -h)", "node-1.example.org", 1));
    for (const auto& record : fine) ASSERT_EQ(insert_record(*ext, record), kOk);
    const auto rows = select(*ext, "SELECT * FROM vesk_1 ORDER BY rowid");
    ASSERT_EQ(rows.size(), fine.size());
    for (size_t i = 0; i < rows.size(); ++i) EXPECT_TRUE(same(rows[i], fine[i])) << i;
    std::vector<vd::Row> found;
    ASSERT_TRUE(ext->select_provider({"disk usage (df -h)"}, found, ""));
    EXPECT_TRUE(found.size() == 1 && same(found[0], fine.back()));
}

// Every byte value round-trips, up to SQLite's length limit of a row, and so
// do empty streams and node lists. That limit (10^9 bytes by default) lies
// below max_std_stream_size: a lowered limit shows its refusal at a size a
// test can afford, and the two largest streams show which limit speaks.
TEST_F(SqliteExtensionTest, EveryFieldAndByteRoundTripsUpToEitherLengthLimit) {
    const int limit = 1 << 20;
    auto small = open_db(false, "|max_length=" + std::to_string(limit));
    vd::InsertRecord odd = sample_record("p1", "node1", INT64_C(1700000000123456), 7);
    for (int i = 0; i < limit - 4096; ++i) odd.std_out.push_back(static_cast<char>(i));
    odd.std_err.assign(odd.std_out.rbegin(), odd.std_out.rbegin() + 512);
    vd::InsertRecord empty = sample_record("p1", "node2", 43);
    empty.std_out = empty.std_err = "";
    empty.header.node_names.clear();
    empty.header.num_nodes = 0;
    ASSERT_EQ(bulk_insert(*small, {odd, empty}), kOk);
    auto rows = select(*small, "SELECT * FROM vesk_1 ORDER BY rowid");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_TRUE(same(rows[0], odd));
    EXPECT_TRUE(same(rows[1], empty));
    // The first of two "rowid" columns wins, unknown names are ignored, and
    // rows are appended to what the caller holds.
    ASSERT_TRUE(small->select("SELECT rowid, 12345 AS rowid, 9 AS x FROM vesk_1 ORDER BY 1", rows,
                              {{"rowid", 0}}));
    EXPECT_EQ(rows.at(2).rowid, 1);
    const auto refusal = [&odd](vd::interface& ext, size_t size) {
        odd.std_err.assign(size, 'y');
        CerrCapture log;
        EXPECT_EQ(insert_record(ext, odd), kFailed);
        return log.text();
    };
    EXPECT_NE(refusal(*small, limit + 1).find("SQLITE_LIMIT_LENGTH"), std::string::npos);
    small.reset();
    auto ext = open_db();
    const auto max = static_cast<size_t>(vd::max_std_stream_size);
    EXPECT_NE(refusal(*ext, max + 1).find("max_std_stream_size"), std::string::npos);
    EXPECT_NE(refusal(*ext, max).find("SQLITE_LIMIT_LENGTH"), std::string::npos);
    EXPECT_EQ(raw_count(db()), 2);
}

// A snapshot of a missing row is refused naming the row, and an id is never
// SQL. A read-only datastore then refuses every write, changes no byte and
// leaves no side file that the next writer does not take away.
TEST_F(SqliteExtensionTest, SnapshotsAndReadOnlyUse) {
    auto ext = open_db();
    ASSERT_EQ(bulk_insert(*ext, {sample_record("p", "h1", 100, 1), sample_record("p", "h2", 300, 2),
                                 sample_record("q", "h1", 200, 3)}),
              kOk);
    ASSERT_EQ(
        update_snapshots(*ext, {{"s1", {{1, "p", nullptr}, {2, "p", nullptr}, {3, "q", nullptr}}},
                                {"s2", {{3, "q", nullptr}}}}),
        kOk);
    CerrCapture log;
    EXPECT_EQ(update_snapshots(*ext, {{"s3", {{1, "p", nullptr}, {999, "p", nullptr}}}}), kFailed);
    EXPECT_NE(log.text().find("999"), std::string::npos);
    EXPECT_EQ(remove_snapshot(*ext, "x' OR '1'='1"), kFailed);
    EXPECT_EQ(raw_count(db(), "baseline_datastore"), 4);
    ext.reset();

    const std::string before = read_file(db());
    ASSERT_EQ(files_in(dir_.path()), std::set<std::string>{"vesk.db"});
    ext = open_db(true);
    EXPECT_NE(insert_record(*ext, sample_record("p", "h", 3)), kOk);
    EXPECT_NE(bulk_insert(*ext, sample_rows("p", 1)), kOk);
    EXPECT_NE(update_snapshots(*ext, {{"t", {{2, "p", nullptr}}}}), kOk);
    EXPECT_NE(remove_snapshot(*ext, "s1"), kOk);
    std::vector<vd::Row> rows;
    EXPECT_FALSE(ext->select("DELETE FROM provider_datastore", rows, vd::row_field_index));
    EXPECT_NE(log.text().find("read-only"), std::string::npos);
    vd::SnapshotInfoSet ids;  // each with the latest run among its rows
    ASSERT_EQ(ext->control(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids, nullptr), kOk);
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(ids.begin()->latest_unique_timestamp, 300);
    EXPECT_EQ(std::next(ids.begin())->latest_unique_timestamp, 200);
    ext.reset();
    // SQLite may leave its (empty) WAL side files.
    EXPECT_TRUE(read_file(db()) == before);
    for (const auto& name : files_in(dir_.path()))
        EXPECT_TRUE(name == "vesk.db" || name == "vesk.db-shm" ||
                    (name == "vesk.db-wal" && read_file(dir_.file(name)).empty()))
            << name;
    open_db().reset();
    EXPECT_EQ(files_in(dir_.path()), std::set<std::string>{"vesk.db"});
}

TEST_F(SqliteExtensionTest, BadFilesFailClearlyAndCreateNothing) {
    ASSERT_EQ(bulk_insert(*open_db(), sample_rows("p", 200)), kOk);
    const std::string valid = read_file(db());
    ASSERT_GT(valid.size(), 8192u);
    const std::string noise(valid.rbegin(), valid.rbegin() + 8192);  // no SQLite file
    // What lies at x.db: this content, a folder ("/"), nothing ("-"), or
    // nothing below a plain file that stands where its folder should be ("^").
    std::vector<std::pair<std::string, bool>> cases = {
        {"SQLite format 3", false}, {"-", true}, {"^", false}};
    for (bool read_only : {false, true})
        for (const auto& what :
             {noise, valid.substr(0, read_only ? 4096 : valid.size() / 2), std::string("/")})
            cases.emplace_back(what, read_only);
    for (const auto& [what, read_only] : cases) {
        SCOPED_TRACE(std::to_string(what.size()) + what.substr(0, 1) + (read_only ? " ro" : ""));
        const TempDir d;
        std::string source = d.file("x.db");
        if (what == "/") std::filesystem::create_directory(source);
        if (what == "^") source = d.write("plain", "text") + "/sub/x.db";
        if (what.size() > 1) d.write("x.db", what);
        const auto files = files_in(d.path());
        CerrCapture log;
        int32_t status = -1;
        EXPECT_FALSE(open_sqlite(params_for(source, read_only), &status)->is_open());
        EXPECT_EQ(status, kFailed);
        ASSERT_EQ(log.lines().size(), 1u) << log.text();
        EXPECT_NE(log.text().find(source), std::string::npos) << log.text();
        // SQLite's own reason: damaged, not a database, a folder, no file.
        EXPECT_NE(log.text().find(what.size() == 1 ? "o" : "SQLITE_"), std::string::npos)
            << log.text();
        auto now = files_in(d.path());  // besides SQLite's side files of a WAL file
        now.erase("x.db-wal");
        now.erase("x.db-shm");
        EXPECT_EQ(now, files);
        EXPECT_TRUE(what.size() == 1 || read_file(source) == what);
    }
}

TEST_F(SqliteExtensionTest, InjectionThroughNamesIsRefusedAndChangesNothing) {
    ASSERT_EQ(
        bulk_insert(*open_db(), {sample_record("p", "h", 1), sample_record("secret", "h", 1)}),
        kOk);
    auto ext = open_db();
    const std::string before = read_file(db());
    const auto files = files_in(dir_.path());
    const std::vector<std::string> names = {
        "a') OR 1=1 OR ('",
        "p'); DROP TABLE provider_datastore; --",
        "p') UNION SELECT * FROM vesk_1 WHERE ('1'='1",
        "x') OR Provider IN (WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n+1 FROM c) "
        "SELECT 'secret' FROM c) OR ('",
        "x'); ATTACH DATABASE '" + dir_.file("evil.db") + "' AS evil; --",
        "x') OR load_extension('/tmp/evil.so') OR ('"};
    CerrCapture log;
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        std::vector<vd::Row> rows;
        vd::SQLParameters sql{"", "", vd::row_field_index};
        vd::ReadParameters as_provider{{name}, {}, {}, &sql}, as_host{{"p"}, {name}, {}, &sql};
        for (uint16_t op :
             {vd::OP_SELECT_PROVIDER, vd::OP_LATEST_ROWS_PROVIDER, vd::OP_LATEST_COLLECT_ROWS})
            EXPECT_EQ(ext->control(op, &as_provider, &rows, nullptr), kFailed) << op;
        EXPECT_EQ(ext->control(vd::OP_LATEST_ROWS_PROVIDER, &as_host, &rows, nullptr), kFailed);
        std::map<std::string, std::vector<vd::Row_baseline>> baselines;
        std::map<std::string, std::vector<vd::Row>> by_provider;
        void* maps[2] = {&baselines, &by_provider};
        vd::ReadParameters snap_id{{name}, {"p"}, {}, nullptr},
            snap_host{{"s"}, {name}, {}, nullptr};
        EXPECT_EQ(ext->control(vd::OP_SNAPSHOT_PROVIDER, &snap_id, maps, nullptr), kFailed);
        EXPECT_EQ(ext->control(vd::OP_SNAPSHOT_PROVIDER, &snap_host, maps, nullptr), kFailed);
        EXPECT_TRUE(rows.empty() && by_provider.empty());
    }
    EXPECT_EQ(log.lines().size(), 6 * names.size());
    EXPECT_EQ(raw_count(db()), 2);
    EXPECT_TRUE(read_file(db()) == before);
    EXPECT_EQ(files_in(dir_.path()), files);
}

// select runs one read-only statement only, within its time and size, and
// gives back the caller's rows untouched on every refusal and failure: a
// second statement, a write, a statement that runs too long (stopped by
// SQLite's progress check, or by the watchdog inside one long function
// call), a result beyond max_result_bytes, and memory running out (in a
// child with a small address space). The connection keeps working, and
// each refusal names its own cause, not an earlier statement's.
TEST_F(SqliteExtensionTest, SelectRunsOneReadOnlyStatementWithinItsLimitsOrLeavesTheRowsAlone) {
    auto ext = open_db(false, "|query_timeout_ms=300|max_result_bytes=100000");
    ASSERT_EQ(bulk_insert(*ext, sample_rows("p", 2000)), kOk);
    const std::string too_big = "max_result_bytes (100000 bytes)";
    const auto files = files_in(dir_.path());
    const std::vector<vd::Row> before(3);
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"SELECT * FROM vesk_1; DROP TABLE provider_datastore;", ""},
        {"SELECT * FROM vesk_1; SELECT 1", ""},
        {"DELETE FROM provider_datastore", ""},
        {"ATTACH DATABASE '" + dir_.file("evil.db") + "' AS evil", ""},
        {"SELECT load_extension('/tmp/evil.so')", ""},
        {"WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n+1 FROM c) SELECT n FROM c", ""},
        {"PRAGMA writable_schema = ON", ""},
        {"PRAGMA journal_mode", ""},
        {"BEGIN", ""},
        {"VACUUM INTO '" + dir_.file("copy.db") + "'", ""},
        {"", ""},
        {"   ", ""},
        {"SELECT a.rowid AS rowid FROM provider_datastore a, provider_datastore b, "
         "provider_datastore c ORDER BY a.STDOUT || b.STDOUT || c.STDOUT",
         "query_timeout_ms (300 ms)"},
        // Few steps of SQLite's machine, each one long: only the watchdog
        // stops this within one row of its limit.
        {"SELECT length(randomblob(20000000)) AS rowid FROM vesk_1", "query_timeout_ms (300 ms)"},
        {"SELECT * FROM vesk_1", too_big}};
    for (const auto& [sql, message] : refused) {
        SCOPED_TRACE(sql);
        std::vector<vd::Row> rows = before;
        CerrCapture log;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(ext->select(sql, rows, vd::row_field_index));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
        EXPECT_EQ(rows.size(), before.size());
        EXPECT_NE(log.text().find(message), std::string::npos) << log.text();
        // Trailing blanks and a closing semicolon are fine.
        EXPECT_EQ(select(*ext, "SELECT * FROM vesk_1 WHERE rowid <= 4;  \n").size(), 4u);
    }
    EXPECT_EQ(raw_count(db()), 2000);
    EXPECT_EQ(files_in(dir_.path()), files);
    // Within the limit the whole answer comes.
    ext = open_db(false, "|max_result_bytes=100000000");
    EXPECT_EQ(select(*ext, "SELECT * FROM vesk_1").size(), 2000u);
#if !defined(__SANITIZE_ADDRESS__)
    // 2000 x 2000 rows do not fit in 512 MiB of address space.
    ext = open_db();
    EXPECT_EQ(in_child([&] {
                  rlimit limit{512u << 20, 512u << 20};
                  if (::setrlimit(RLIMIT_AS, &limit) != 0) return 10;
                  std::vector<vd::Row> rows = before;
                  CerrCapture log;
                  const bool ok =
                      ext->select("SELECT a.* FROM vesk_1 a, vesk_1 b", rows, vd::row_field_index);
                  if (ok || rows.size() != before.size()) return 11;
                  if (log.text().find("out of memory") != std::string::npos) return 0;
                  std::fprintf(stderr, "%s\n", log.text().c_str());
                  return 12;
              }),
              0);
#endif
}

// While another connection holds the write lock, every open and write waits
// busy_timeout_ms and then fails naming it; once the lock is gone, each
// succeeds (a reader of a WAL file is never blocked by a writer). A file in the rollback journal
// (an older store) is switched to WAL by its first writer.
TEST_F(SqliteExtensionTest, LockedFileMakesEveryCallWaitThenNameTheTimeout) {
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(db().c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "CREATE TABLE old(x);", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(raw);
    ASSERT_EQ(raw_column(db(), "PRAGMA journal_mode"), std::vector<std::string>{"delete"});
    auto ext = open_db(false, "|busy_timeout_ms=400");
    ASSERT_EQ(raw_column(db(), "PRAGMA journal_mode"), std::vector<std::string>{"wal"});
    ASSERT_EQ(insert_record(*ext, sample_record("p", "h", 1)), kOk);

    ASSERT_EQ(sqlite3_open(db().c_str(), &raw), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> holder(raw, &sqlite3_close_v2);
    const char* const hold = "BEGIN IMMEDIATE; INSERT INTO old VALUES(1);";
    ASSERT_EQ(sqlite3_exec(raw, hold, nullptr, nullptr, nullptr), SQLITE_OK);
    // A file whose schema is complete opens without the write lock.
    int32_t status = -1;
    EXPECT_NE(open_sqlite(params_for(db(), false, "|busy_timeout_ms=400"), &status), nullptr);
    EXPECT_EQ(status, kOk);
    // One that lacks an index needs the lock to make it again.
    ASSERT_EQ(sqlite3_exec(raw, "ROLLBACK; DROP INDEX provider_datastore_run;", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, hold, nullptr, nullptr, nullptr), SQLITE_OK);
    const std::vector<std::pair<const char*, std::function<bool()>>> calls = {
        {"open",
         [&] {
             int32_t status = -1;
             open_sqlite(params_for(db(), false, "|busy_timeout_ms=400"), &status);
             return status == kOk;
         }},
        {"insert", [&] { return insert_record(*ext, sample_record("p", "h", 2)) == kOk; }},
        {"bulk insert", [&] { return bulk_insert(*ext, sample_rows("p", 3)) == kOk; }},
    };
    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        CerrCapture log;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(call());
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(waited, std::chrono::milliseconds(400));
        EXPECT_LT(waited, std::chrono::seconds(5));
        EXPECT_NE(log.text().find("busy_timeout_ms (400 ms)"), std::string::npos) << log.text();
    }
    std::vector<vd::Row> rows;
    EXPECT_TRUE(ext->select("SELECT * FROM vesk_1", rows, vd::row_field_index));
    ASSERT_EQ(sqlite3_exec(raw, "ROLLBACK;", nullptr, nullptr, nullptr), SQLITE_OK);
    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(call());
    }
    EXPECT_EQ(raw_count(db()), 5);
    EXPECT_EQ(raw_column(db(),
                         "SELECT name FROM sqlite_master WHERE name = "
                         "'provider_datastore_run'"),
              std::vector<std::string>{"provider_datastore_run"});
}

// The extension's latest-rows query against the base class's text
// ("SELECT *, MAX(unique_timestamp) ... GROUP BY ...") on the same file:
// random tables full of ties, NULL time stamps and NULL options must give
// the same rows, column for column and in the same order.

// Every field of every row, to compare rows and print their differences.
auto fields(const std::vector<vd::Row>& rows) {
    std::vector<std::tuple<int32_t, std::string, std::string, int32_t, std::vector<std::string>,
                           int32_t, int64_t, double, int32_t, std::string, std::string, std::string,
                           int32_t, std::string, int64_t>>
        out;
    for (const auto& r : rows)
        out.emplace_back(r.rowid, r.Provider, r.Hostname, r.num_nodes, r.node_names, r.Exit_status,
                         r.Timestamp, r.Duration, r.Encoding, r.STDOUT, r.STDERR, r.OptionID,
                         r.version, r.Username, r.Unique_timestamp);
    return out;
}

// Few distinct values, so that groups share their greatest time stamp,
// have NULL options or only NULL time stamps; rowids with gaps, inserted
// out of order, each row with an output of its own.
void fill_random(const std::string& file, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<int64_t> ids(20 + rng() % 150);
    int64_t id = 0;
    for (auto& slot : ids) slot = id += 1 + static_cast<int64_t>(rng() % 3);
    std::shuffle(ids.begin(), ids.end(), rng);
    const char* providers[] = {"p1", "p2", "p3", "uname"};
    const char* hosts[] = {"h1", "h2", "h3"};
    const char* options[] = {"''", "'a'", "'b'"};
    std::string sql =
        "INSERT INTO provider_datastore(rowid, Provider, Hostname, num_nodes, node_names, "
        "Exit_status, Timestamp, Duration, Encoding, STDOUT, STDERR, OptionID, version, Username, "
        "Unique_timestamp) VALUES";
    for (int64_t rowid : ids) {
        const std::string row = std::to_string(rowid);
        sql += (rowid == ids[0] ? " (" : ", (") + row + ", '" + providers[rng() % 4];
        sql += std::string("', '") + hosts[rng() % 3] + "', 1, 'n1', ";
        sql += std::to_string(rng() % 3) + ", 1700000000, 0.5, 0, 'output of " + row + "', '', ";
        sql += rng() % 4 == 0 ? "NULL" : options[rng() % 3];
        sql += ", 1, 'u', ";
        sql += rng() % 5 == 0 ? "NULL" : std::to_string(1700000000000000 + rng() % 4);
        sql += ")";
    }
    raw_column(file, sql, 0, true);
}

// Groups whose greatest time stamp is shared, or that have none: where
// only the tie-break decides.
int tie_groups(vd::interface& ext) {
    std::vector<vd::Row> rows;
    EXPECT_TRUE(ext.select(
        "SELECT COUNT(*) AS num_nodes FROM provider_datastore AS a WHERE "
        "Unique_timestamp IS NULL OR Unique_timestamp = (SELECT MAX(b.Unique_timestamp) FROM "
        "provider_datastore AS b WHERE b.Provider = a.Provider AND b.Hostname = a.Hostname "
        "AND b.OptionID IS a.OptionID) GROUP BY Provider, Hostname, OptionID HAVING COUNT(*) > 1",
        rows, vd::row_field_index));
    return static_cast<int>(rows.size());
}

TEST(SqliteLatestRows, SameRowsAsTheAggregateTextOnRandomTablesWithTies) {
    const struct {
        std::vector<std::string> providers, hosts;
    } filters[] = {
        {{"p1", "p2", "p3", "uname"}, {}},
        {{"p2"}, {}},
        {{"p1", "p3"}, {"h1", "h3"}},
        {{"uname", "p9"}, {"h2"}},
    };
    RecordingInterface base;
    int ties = 0;
    size_t compared = 0;
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        TempDir dir;
        const std::string file = dir.file("vesk.db");
        open_or_exit(file);  // creates the schema and its indexes, then closes
        fill_random(file, seed);
        auto ext = open_or_exit(file);
        ties += tie_groups(*ext);
        for (const auto& f : filters) {
            std::vector<vd::Row> unused, expected, found;
            ASSERT_TRUE(base.get_latest_rows_provider(f.providers, unused, f.hosts));
            ASSERT_TRUE(ext->select(base.last_sql, expected, vd::row_field_index));
            ASSERT_TRUE(ext->get_latest_rows_provider(f.providers, found, f.hosts));
            EXPECT_EQ(fields(found), fields(expected)) << base.last_sql;
            compared += expected.size();
        }
        if (HasFailure()) break;
    }
    EXPECT_GT(ties, 30);       // the data exercised the tie-breaks
    EXPECT_GT(compared, 500);  // and the comparisons saw rows
}

}  // namespace
