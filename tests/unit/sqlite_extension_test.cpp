// The SQLite extension through its real plugin: open and close, round trips,
// size limits, bulk insert, read-only use, bad files, injection, snapshots.
#include <chrono>
#include <fstream>

#include <gtest/gtest.h>

#include "vesk/datastore/vocabulary.h"

#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace vd = vesk::datastore;
using vesk::test::CerrCapture;
using vesk::test::files_in;
using vesk::test::open_sqlite;
using vesk::test::params_for;
using vesk::test::RawDb;
using vesk::test::read_file;
using vesk::test::sample_record;
using vesk::test::SqliteInstance;
using vesk::test::TempDir;

namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kFailed = 1;

class SqliteExtensionTest : public ::testing::Test {
protected:
    std::string db() const { return dir_.file("vesk.db"); }
    SqliteInstance open_rw(const std::string& more = "") {
        int32_t status = -1;
        auto ext = open_sqlite(params_for(db(), false, more), &status);
        EXPECT_EQ(status, kOk);
        return ext;
    }
    std::vector<vd::Row> rows_of(vd::interface& ext, const std::vector<std::string>& providers) {
        std::vector<vd::Row> rows;
        vd::SQLParameters sql{"", "", vd::row_field_index};
        vd::ReadParameters request{providers, {}, {}, &sql};
        EXPECT_EQ(ext.control(vd::OP_SELECT_PROVIDER, &request, &rows, nullptr), kOk);
        return rows;
    }
    TempDir dir_;
};

void expect_same(const vd::InsertRecord& in, const vd::Row& out) {
    EXPECT_EQ(out.Provider, in.header.provider);
    EXPECT_EQ(out.Hostname, in.header.hostname);
    EXPECT_EQ(out.num_nodes, in.header.num_nodes);
    EXPECT_EQ(out.node_names, in.header.node_names);
    EXPECT_EQ(out.Exit_status, in.header.exit_status);
    EXPECT_EQ(out.Timestamp, in.header.timestamp);
    EXPECT_DOUBLE_EQ(out.Duration, in.header.duration);
    EXPECT_EQ(out.Encoding, static_cast<int32_t>(in.header.encoding));
    EXPECT_TRUE(out.STDOUT == in.std_out)
        << "STDOUT differs, sizes " << out.STDOUT.size() << " " << in.std_out.size();
    EXPECT_TRUE(out.STDERR == in.std_err);
    EXPECT_EQ(out.OptionID, in.option_id);
    EXPECT_EQ(out.version, in.header.version);
    EXPECT_EQ(out.Username, in.header.username);
    EXPECT_EQ(out.Unique_timestamp, in.header.unique_timestamp);
}

TEST_F(SqliteExtensionTest, OpenExpandsQuotedHomeAndCreatesFolderSchemaAndIndexes) {
    vesk::test::ScopedEnv home("HOME", dir_.path());
    int32_t status = -1;
    auto ext = open_sqlite("read_only=false|source=\"$HOME/deep/er/vesk.db\"", &status);
    ASSERT_EQ(status, kOk);
    EXPECT_TRUE(ext->is_open());
    const std::string file = dir_.file("deep/er/vesk.db");
    ASSERT_TRUE(std::filesystem::exists(file));
    {
        RawDb raw(file);
        const auto names = raw.column("SELECT name FROM sqlite_master ORDER BY name");
        for (const char* name :
             {"provider_datastore", "baseline_datastore", "vesk_1", "provider_datastore_latest",
              "provider_datastore_run", "baseline_datastore_id"})
            EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
        EXPECT_EQ(raw.column("PRAGMA journal_mode").at(0), "wal");
    }
    EXPECT_EQ(ext->close(), kOk);
    EXPECT_FALSE(ext->is_open());
    // The last writer leaves the file in rollback mode with no side files.
    EXPECT_EQ(files_in(dir_.file("deep/er")), std::set<std::string>{"vesk.db"});
    EXPECT_EQ(RawDb(file).column("PRAGMA journal_mode").at(0), "delete");
    // Opening again finds the schema in place.
    ext = open_sqlite(params_for(file), &status);
    EXPECT_EQ(status, kOk);
}

TEST_F(SqliteExtensionTest, EveryFieldAndEveryByteRoundTrips) {
    auto ext = open_rw();
    vd::InsertRecord record = sample_record("p1", "node1", 42, 7);
    std::string all_bytes;
    for (int i = 0; i < 256; ++i) all_bytes.push_back(static_cast<char>(i));
    record.std_out = all_bytes + all_bytes;
    std::reverse(all_bytes.begin(), all_bytes.end());
    record.std_err = all_bytes;
    record.header.duration = 1.0 / 3.0;
    record.header.timestamp = INT64_C(1) << 40;
    record.header.unique_timestamp = INT64_C(1700000000123456);
    record.header.exit_status = -1;
    ASSERT_EQ(vesk::test::insert_record(*ext, record), kOk);
    vd::InsertRecord empty = sample_record("p1", "node2", 43);
    empty.std_out.clear();
    empty.std_err.clear();
    empty.header.node_names.clear();
    empty.header.num_nodes = 0;
    ASSERT_EQ(vesk::test::insert_record(*ext, empty), kOk);

    const auto rows = rows_of(*ext, {"p1"});
    ASSERT_EQ(rows.size(), 2u);
    expect_same(record, rows[0]);
    expect_same(empty, rows[1]);
    EXPECT_GT(rows[1].rowid, rows[0].rowid);
}

TEST_F(SqliteExtensionTest, SelectMapsColumnsByNameAndIgnoresUnknownOnes) {
    auto ext = open_rw();
    ASSERT_EQ(vesk::test::insert_record(*ext, sample_record("p", "h", 5, 1)), kOk);
    std::vector<vd::Row> rows;
    // "Version" is matched to "version" regardless of case; extra columns
    // and unknown map entries are ignored; the first "rowid" wins.
    ASSERT_TRUE(
        ext->select("SELECT 99 AS extra, Version, rowid, 12345 AS rowid, Hostname FROM vesk_1",
                    rows, {{"version", 12}, {"rowid", 0}, {"Hostname", 2}, {"nope", 3}}));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].version, 3);
    EXPECT_EQ(rows[0].rowid, 1);
    EXPECT_EQ(rows[0].Hostname, "h");
    EXPECT_EQ(rows[0].Provider, "");
    // Rows are appended to what the caller already holds.
    ASSERT_TRUE(ext->select("SELECT * FROM vesk_1", rows, vd::row_field_index));
    EXPECT_EQ(rows.size(), 2u);
}

// Each limit at its maximum round-trips; one byte (or node) more is refused
// and nothing is written.
TEST_F(SqliteExtensionTest, SizeLimitsAtMaximumRoundTripAndOneMoreIsRefused) {
    auto ext = open_rw();
    RawDb raw(db());
    struct Case {
        const char* name;
        std::function<void(vd::InsertRecord&, int extra)> set;
    };
    const std::vector<Case> cases = {
        {"provider", [](vd::InsertRecord& r,
                        int e) { r.header.provider.assign(vd::max_provider_size + e, 'p'); }},
        {"hostname", [](vd::InsertRecord& r,
                        int e) { r.header.hostname.assign(vd::max_hostname_size + e, 'h'); }},
        {"option_id",
         [](vd::InsertRecord& r, int e) { r.option_id.assign(vd::max_option_id_size + e, 'o'); }},
        {"username", [](vd::InsertRecord& r,
                        int e) { r.header.username.assign(vd::max_username_size + e, 'u'); }},
        {"num_nodes",
         [](vd::InsertRecord& r, int e) { r.header.num_nodes = vd::max_num_nodes + e; }},
        {"node_names",
         [](vd::InsertRecord& r, int e) {
             // 2^18 names joined by ", ": exactly max_node_names_size bytes.
             r.header.node_names.assign(vd::max_num_nodes, std::string(256, 'n'));
             r.header.node_names[0].assign(258 + e, 'n');
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        vd::InsertRecord at_max = sample_record("limits", "h", 1);
        c.set(at_max, 0);
        const long long before = raw.count();
        ASSERT_EQ(vesk::test::insert_record(*ext, at_max), kOk);
        ASSERT_EQ(raw.count(), before + 1);
        std::vector<vd::Row> rows;
        ASSERT_TRUE(
            ext->select("SELECT * FROM vesk_1 WHERE rowid = (SELECT MAX(rowid) FROM vesk_1)", rows,
                        vd::row_field_index));
        ASSERT_EQ(rows.size(), 1u);
        expect_same(at_max, rows[0]);

        vd::InsertRecord over = sample_record("limits", "h", 1);
        c.set(over, 1);
        CerrCapture log;
        EXPECT_EQ(vesk::test::insert_record(*ext, over), kFailed);
        EXPECT_EQ(vesk::test::bulk_insert(*ext, {sample_record("ok", "h", 1), over}), kFailed);
        EXPECT_EQ(raw.count(), before + 1);
        EXPECT_NE(log.text().find("max_"), std::string::npos) << log.text();
    }
}

TEST_F(SqliteExtensionTest, StreamsBeyondTheLengthLimitAreRefusedNamingTheLimit) {
    // SQLite's own limit (10^9 bytes by default) is below max_std_stream_size;
    // a lowered limit shows the same refusal at a size a test can afford.
    const int limit = 1 << 20;
    auto ext = open_rw("|max_length=" + std::to_string(limit));
    RawDb raw(db());
    vd::InsertRecord fits = sample_record("big", "h", 1);
    fits.std_out.assign(limit - 4096, 'x');
    fits.std_out[17] = '\0';
    ASSERT_EQ(vesk::test::insert_record(*ext, fits), kOk);
    const auto rows = rows_of(*ext, {"big"});
    ASSERT_EQ(rows.size(), 1u);
    expect_same(fits, rows[0]);

    vd::InsertRecord over = sample_record("big", "h", 2);
    over.std_err.assign(limit + 1, 'y');
    CerrCapture log;
    EXPECT_EQ(vesk::test::insert_record(*ext, over), kFailed);
    EXPECT_NE(log.text().find("SQLITE_LIMIT_LENGTH"), std::string::npos) << log.text();
    EXPECT_EQ(raw.count(), 1);
}

TEST_F(SqliteExtensionTest, StreamOfMaxStdStreamSizeExceedsSqliteAndOneMoreExceedsTheLibrary) {
    auto ext = open_rw();
    vd::InsertRecord r = sample_record("huge", "h", 1);
    r.std_out.assign(static_cast<size_t>(vd::max_std_stream_size) + 1, 'z');
    {
        CerrCapture log;
        EXPECT_EQ(vesk::test::insert_record(*ext, r), kFailed);
        EXPECT_NE(log.text().find("max_std_stream_size"), std::string::npos) << log.text();
    }
    r.std_out.pop_back();
    {
        CerrCapture log;
        EXPECT_EQ(vesk::test::insert_record(*ext, r), kFailed);
        EXPECT_NE(log.text().find("SQLITE_LIMIT_LENGTH"), std::string::npos) << log.text();
    }
    EXPECT_EQ(RawDb(db()).count(), 0);
}

TEST_F(SqliteExtensionTest, BulkInsertWritesAllRowsOrNone) {
    auto ext = open_rw();
    std::vector<vd::InsertRecord> batch;
    for (int i = 0; i < 500; ++i)
        batch.push_back(sample_record("bulk", "h" + std::to_string(i % 7), 9, i));
    ASSERT_EQ(vesk::test::bulk_insert(*ext, batch), kOk);
    auto rows = rows_of(*ext, {"bulk"});
    ASSERT_EQ(rows.size(), batch.size());
    // The provider index hands rows back in its own order.
    std::sort(rows.begin(), rows.end(),
              [](const vd::Row& a, const vd::Row& b) { return a.rowid < b.rowid; });
    for (size_t i = 0; i < rows.size(); ++i) expect_same(batch[i], rows[i]);

    batch.back().header.node_names.push_back("bad, name");
    CerrCapture log;
    EXPECT_EQ(vesk::test::bulk_insert(*ext, batch), kFailed);
    EXPECT_EQ(RawDb(db()).count(), 500);
    EXPECT_EQ(vesk::test::bulk_insert(*ext, {}), kOk);
    EXPECT_EQ(ext->control(vd::SQLITE_BULK_INSERT, nullptr, nullptr, nullptr), kFailed);
}

TEST_F(SqliteExtensionTest, LatestRowsLatestRunAndHosts) {
    auto ext = open_rw();
    // Two runs; in the second, host h2 has no "p" row.
    std::vector<vd::InsertRecord> batch = {
        sample_record("p", "h1", 100, 1),     sample_record("p", "h2", 100, 2),
        sample_record("uname", "h1", 100, 3), sample_record("uname", "h2", 100, 4),
        sample_record("p", "h1", 200, 5),     sample_record("uname", "h1", 200, 7)};
    for (auto& r : batch) r.option_id = "o";
    ASSERT_EQ(vesk::test::bulk_insert(*ext, batch), kOk);

    std::vector<vd::Row> rows{vd::Row{}};
    vd::ReadParameters latest{{"p"}, {}, {}, nullptr};
    ASSERT_EQ(ext->control(vd::OP_LATEST_ROWS_PROVIDER, &latest, &rows, nullptr), kOk);
    ASSERT_EQ(rows.size(), 2u);
    for (const auto& row : rows) EXPECT_EQ(row.Unique_timestamp, row.Hostname == "h1" ? 200 : 100);

    vd::ReadParameters on_h2{{"p"}, {"h2"}, {}, nullptr};
    ASSERT_EQ(ext->control(vd::OP_LATEST_ROWS_PROVIDER, &on_h2, &rows, nullptr), kOk);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].STDOUT, batch[1].std_out);

    rows.clear();
    vd::ReadParameters run{{"p", "uname"}, {}, {}, nullptr};
    ASSERT_EQ(ext->control(vd::OP_LATEST_COLLECT_ROWS, &run, &rows, nullptr), kOk);
    ASSERT_EQ(rows.size(), 2u);
    for (const auto& row : rows) EXPECT_EQ(row.Unique_timestamp, 200);

    rows.clear();
    vd::SQLParameters fields{"", "", vd::row_field_index};
    vd::ReadParameters hosts{{}, {}, {}, &fields};
    ASSERT_EQ(ext->control(vd::OP_SELECT_HOSTS, &hosts, &rows, nullptr), kOk);
    ASSERT_EQ(rows.size(), 2u);
    for (const auto& row : rows) {
        EXPECT_EQ(row.Provider, "uname");
        EXPECT_EQ(row.Unique_timestamp, row.Hostname == "h1" ? 200 : 100);
    }
}

TEST_F(SqliteExtensionTest, QueriesOfTheBaseClassUseTheIndexes) {
    open_rw();
    RawDb raw(db());
    // EXPLAIN QUERY PLAN puts the detail in the fourth column.
    auto details = [&](const std::string& sql) {
        sqlite3* db = nullptr;
        sqlite3_open_v2(this->db().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, ("EXPLAIN QUERY PLAN " + sql).c_str(), -1, &stmt, nullptr);
        std::string text;
        while (sqlite3_step(stmt) == SQLITE_ROW)
            text += reinterpret_cast<const char*>(sqlite3_column_text(stmt, 3)) + std::string("\n");
        sqlite3_finalize(stmt);
        sqlite3_close(db);
        return text;
    };
    const std::string latest = details(
        "SELECT *, MAX(unique_timestamp) FROM vesk_1 WHERE (Provider IN ('a','b') )GROUP BY "
        "OptionID, Hostname, Provider;");
    EXPECT_NE(latest.find("provider_datastore_latest"), std::string::npos) << latest;
    EXPECT_EQ(latest.find("TEMP B-TREE"), std::string::npos) << latest;
    const std::string run = details(
        "SELECT * FROM vesk_1 WHERE (Provider IN ('a') )AND Unique_timestamp = (SELECT "
        "MAX(unique_timestamp) FROM vesk_1) GROUP BY OptionID, Hostname, Provider;");
    EXPECT_NE(run.find("provider_datastore_run"), std::string::npos) << run;
    EXPECT_EQ(run.find("SCAN provider_datastore\n"), std::string::npos) << run;
    const std::string provider = details("SELECT * FROM vesk_1 WHERE (Provider IN ('a') )");
    EXPECT_NE(provider.find("USING INDEX"), std::string::npos) << provider;
    const std::string snapshot = details(
        "SELECT * FROM vesk_1 ds INNER JOIN baseline_datastore ON ds.rowid = "
        "baseline_datastore.datastore_rowid AND ds.Provider = 'p' WHERE  (baseline_id IN ('s1') "
        ");");
    EXPECT_NE(snapshot.find("baseline_datastore_id"), std::string::npos) << snapshot;
}

TEST_F(SqliteExtensionTest, SnapshotsAreRecordedListedReadAndRemoved) {
    auto ext = open_rw();
    ASSERT_EQ(vesk::test::bulk_insert(
                  *ext, {sample_record("p", "h1", 100, 1), sample_record("p", "h2", 300, 2),
                         sample_record("q", "h1", 200, 3)}),
              kOk);
    auto config = std::make_shared<vesk::provider_config>(
        vesk::provider_config{"p", "fwd-p", "sum-p", "cmd-p"});
    std::map<std::string, vd::ProviderInfoSet> snapshots;
    snapshots["s1"] = {vd::ProviderInfo{1, "p", config}, vd::ProviderInfo{2, "p", config},
                       vd::ProviderInfo{3, "q", nullptr}};
    snapshots["s2"] = {vd::ProviderInfo{3, "q", nullptr}};
    const auto* snapshot_ptr = &snapshots;
    ASSERT_EQ(ext->control(vd::OP_UPDATE_SNAPSHOT, nullptr, &snapshot_ptr, nullptr), kOk);
    // Recording the same snapshots again adds nothing.
    ASSERT_EQ(ext->control(vd::OP_UPDATE_SNAPSHOT, nullptr, &snapshot_ptr, nullptr), kOk);
    EXPECT_EQ(RawDb(db()).count("baseline_datastore"), 4);

    vd::SnapshotInfoSet ids;
    ASSERT_EQ(ext->control(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids, nullptr), kOk);
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(ids.begin()->baseline_id, "s1");
    EXPECT_EQ(ids.begin()->latest_unique_timestamp, 300);
    EXPECT_EQ(std::next(ids.begin())->latest_unique_timestamp, 200);

    std::map<std::string, std::vector<vd::Row_baseline>> baselines;
    std::map<std::string, std::vector<vd::Row>> rows;
    void* maps[2] = {&baselines, &rows};
    vd::ReadParameters request{{"s1"}, {"p", "q"}, {}, nullptr};
    ASSERT_EQ(ext->control(vd::OP_SNAPSHOT_PROVIDER, &request, maps, nullptr), kOk);
    ASSERT_EQ(rows["p"].size(), 2u);
    ASSERT_EQ(rows["q"].size(), 1u);
    EXPECT_EQ(rows["p"][0].Provider, "p");
    ASSERT_EQ(baselines["p"].size(), 2u);
    EXPECT_EQ(baselines["p"][0].baseline_id, "s1");
    EXPECT_EQ(baselines["p"][0].fwd_name, "fwd-p");
    EXPECT_EQ(baselines["p"][0].command_checksum, "cmd-p");
    EXPECT_EQ(baselines["p"][0].datastore_rowid, rows["p"][0].rowid);
    EXPECT_EQ(baselines["q"][0].fwd_name, "");

    // A snapshot naming a row that does not exist is refused as a whole.
    std::map<std::string, vd::ProviderInfoSet> bad;
    bad["s3"] = {vd::ProviderInfo{1, "p", nullptr}, vd::ProviderInfo{999, "p", nullptr}};
    const auto* bad_ptr = &bad;
    {
        CerrCapture log;
        EXPECT_EQ(ext->control(vd::OP_UPDATE_SNAPSHOT, nullptr, &bad_ptr, nullptr), kFailed);
        EXPECT_NE(log.text().find("999"), std::string::npos);
    }
    EXPECT_EQ(RawDb(db()).count("baseline_datastore"), 4);

    std::string id = "s1";
    EXPECT_EQ(ext->control(vd::OP_REMOVE_SNAPSHOT, nullptr, &id, nullptr), kOk);
    EXPECT_EQ(RawDb(db()).count("baseline_datastore"), 1);
    EXPECT_EQ(ext->control(vd::OP_REMOVE_SNAPSHOT, nullptr, &id, nullptr), kFailed);
    std::string odd = "x' OR '1'='1";
    EXPECT_EQ(ext->control(vd::OP_REMOVE_SNAPSHOT, nullptr, &odd, nullptr), kFailed);
    EXPECT_EQ(RawDb(db()).count("baseline_datastore"), 1);
}

TEST_F(SqliteExtensionTest, ReadOnlyDatastoreRefusesWritesAndChangesNothing) {
    {
        auto ext = open_rw();
        ASSERT_EQ(
            vesk::test::bulk_insert(*ext, {sample_record("p", "h", 1), sample_record("p", "h", 2)}),
            kOk);
        std::map<std::string, vd::ProviderInfoSet> snap{{"s", {vd::ProviderInfo{1, "p", nullptr}}}};
        const auto* ptr = &snap;
        ASSERT_EQ(ext->control(vd::OP_UPDATE_SNAPSHOT, nullptr, &ptr, nullptr), kOk);
    }
    const std::string before = read_file(db());
    ASSERT_EQ(files_in(dir_.path()), std::set<std::string>{"vesk.db"});

    int32_t status = -1;
    auto ext = open_sqlite(params_for(db(), true), &status);
    ASSERT_EQ(status, kOk);
    {
        CerrCapture log;
        EXPECT_NE(vesk::test::insert_record(*ext, sample_record("p", "h", 3)), kOk);
        EXPECT_NE(vesk::test::bulk_insert(*ext, {sample_record("p", "h", 3)}), kOk);
        std::map<std::string, vd::ProviderInfoSet> snap{{"t", {vd::ProviderInfo{2, "p", nullptr}}}};
        const auto* ptr = &snap;
        EXPECT_NE(ext->control(vd::OP_UPDATE_SNAPSHOT, nullptr, &ptr, nullptr), kOk);
        std::string id = "s";
        EXPECT_NE(ext->control(vd::OP_REMOVE_SNAPSHOT, nullptr, &id, nullptr), kOk);
        std::vector<vd::Row> rows;
        EXPECT_FALSE(ext->select("DELETE FROM provider_datastore", rows, vd::row_field_index));
        EXPECT_NE(log.text().find("read-only"), std::string::npos);
    }
    // Reads work, and leave no side file behind.
    EXPECT_EQ(rows_of(*ext, {"p"}).size(), 2u);
    vd::SnapshotInfoSet ids;
    EXPECT_EQ(ext->control(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids, nullptr), kOk);
    EXPECT_EQ(ids.size(), 1u);
    EXPECT_EQ(files_in(dir_.path()), std::set<std::string>{"vesk.db"});
    ext.reset();
    EXPECT_EQ(files_in(dir_.path()), std::set<std::string>{"vesk.db"});
    EXPECT_TRUE(read_file(db()) == before);
}

TEST_F(SqliteExtensionTest, BadFilesFailClearlyAndCreateNothing) {
    std::string valid;
    {
        auto ext = open_rw();
        std::vector<vd::InsertRecord> batch;
        for (int i = 0; i < 200; ++i) batch.push_back(sample_record("p", "h", 1, i));
        ASSERT_EQ(vesk::test::bulk_insert(*ext, batch), kOk);
    }
    valid = read_file(db());
    std::filesystem::remove(db());
    ASSERT_GT(valid.size(), 8192u);
    std::string random_bytes(8192, '\0');
    unsigned seed = 12345;
    for (auto& c : random_bytes) c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);

    struct Case {
        std::string name;
        std::function<std::string(const TempDir&)> make;  // returns the source
        bool read_only;
    };
    const std::vector<Case> cases = {
        {"random bytes", [&](const TempDir& d) { return d.write("x.db", random_bytes); }, false},
        {"random bytes, read-only", [&](const TempDir& d) { return d.write("x.db", random_bytes); },
         true},
        {"truncated",
         [&](const TempDir& d) { return d.write("x.db", valid.substr(0, valid.size() / 2)); },
         false},
        {"truncated, read-only",
         [&](const TempDir& d) { return d.write("x.db", valid.substr(0, 4096)); }, true},
        {"short header", [&](const TempDir& d) { return d.write("x.db", "SQLite format 3"); },
         false},
        {"folder",
         [](const TempDir& d) {
             std::filesystem::create_directory(d.file("x.db"));
             return d.file("x.db");
         },
         false},
        {"folder, read-only",
         [](const TempDir& d) {
             std::filesystem::create_directory(d.file("x.db"));
             return d.file("x.db");
         },
         true},
        {"missing, read-only", [](const TempDir& d) { return d.file("x.db"); }, true},
        {"folder under a file",
         [](const TempDir& d) {
             d.write("plain", "text");
             return d.file("plain/sub/x.db");
         },
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir d;
        const std::string source = c.make(d);
        const auto files = files_in(d.path());
        const std::string content =
            std::filesystem::is_regular_file(source) ? read_file(source) : "";
        CerrCapture log;
        int32_t status = -1;
        auto ext = open_sqlite(params_for(source, c.read_only), &status);
        EXPECT_EQ(status, kFailed);
        EXPECT_FALSE(ext->is_open());
        ext.reset();
        ASSERT_EQ(log.lines().size(), 1u) << log.text();
        EXPECT_NE(log.text().find(source), std::string::npos) << log.text();
        EXPECT_EQ(files_in(d.path()), files);
        if (!content.empty()) {
            EXPECT_TRUE(read_file(source) == content);
        }
    }
}

TEST_F(SqliteExtensionTest, InjectionThroughNamesIsRefusedAndChangesNothing) {
    {
        auto ext = open_rw();
        ASSERT_EQ(vesk::test::bulk_insert(
                      *ext, {sample_record("p", "h", 1, 1), sample_record("secret", "h", 1, 2)}),
                  kOk);
    }
    int32_t status = -1;
    auto ext = open_sqlite(params_for(db()), &status);
    ASSERT_EQ(status, kOk);
    const std::string before = read_file(db());
    const auto files = files_in(dir_.path());
    const std::vector<std::string> names = {
        "a') OR 1=1 OR ('",
        "p'); DROP TABLE provider_datastore; --",
        "p') UNION SELECT * FROM vesk_1 WHERE ('1'='1",
        "x') OR Provider IN (WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n+1 FROM c) "
        "SELECT 'secret' FROM c) OR ('",
        "x'); ATTACH DATABASE '" + dir_.file("evil.db") + "' AS evil; --",
        "x') OR load_extension('/tmp/evil.so') OR ('",
    };
    CerrCapture log;
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        std::vector<vd::Row> rows;
        vd::SQLParameters sql{"", "", vd::row_field_index};
        vd::ReadParameters as_provider{{name}, {}, {}, &sql};
        vd::ReadParameters as_host{{"p"}, {name}, {}, &sql};
        EXPECT_EQ(ext->control(vd::OP_SELECT_PROVIDER, &as_provider, &rows, nullptr), kFailed);
        EXPECT_EQ(ext->control(vd::OP_LATEST_ROWS_PROVIDER, &as_provider, &rows, nullptr), kFailed);
        EXPECT_EQ(ext->control(vd::OP_LATEST_ROWS_PROVIDER, &as_host, &rows, nullptr), kFailed);
        EXPECT_EQ(ext->control(vd::OP_LATEST_COLLECT_ROWS, &as_provider, &rows, nullptr), kFailed);
        EXPECT_TRUE(rows.empty());
        std::map<std::string, std::vector<vd::Row_baseline>> baselines;
        std::map<std::string, std::vector<vd::Row>> by_provider;
        void* maps[2] = {&baselines, &by_provider};
        vd::ReadParameters snap_id{{name}, {"p"}, {}, nullptr};
        vd::ReadParameters snap_provider{{"s"}, {name}, {}, nullptr};
        EXPECT_EQ(ext->control(vd::OP_SNAPSHOT_PROVIDER, &snap_id, maps, nullptr), kFailed);
        EXPECT_EQ(ext->control(vd::OP_SNAPSHOT_PROVIDER, &snap_provider, maps, nullptr), kFailed);
        EXPECT_TRUE(by_provider.empty());
    }
    EXPECT_EQ(log.lines().size(), 6 * names.size());
    EXPECT_EQ(RawDb(db()).count(), 2);
    EXPECT_TRUE(read_file(db()) == before);
    EXPECT_EQ(files_in(dir_.path()), files);
}

TEST_F(SqliteExtensionTest, SelectRunsOneReadOnlyStatementOnly) {
    auto ext = open_rw("|query_timeout_ms=300");
    std::vector<vd::InsertRecord> batch;
    for (int i = 0; i < 300; ++i) batch.push_back(sample_record("p", "h", 1, i));
    ASSERT_EQ(vesk::test::bulk_insert(*ext, batch), kOk);
    const auto files = files_in(dir_.path());
    const std::vector<std::string> refused = {
        "SELECT * FROM vesk_1; DROP TABLE provider_datastore;",
        "SELECT * FROM vesk_1; SELECT 1",
        "DELETE FROM provider_datastore",
        "ATTACH DATABASE '" + dir_.file("evil.db") + "' AS evil",
        "SELECT load_extension('/tmp/evil.so')",
        "WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n+1 FROM c) SELECT n FROM c",
        "PRAGMA writable_schema = ON",
        "PRAGMA journal_mode",
        "BEGIN",
        "VACUUM INTO '" + dir_.file("copy.db") + "'",
        "",
        "   ",
    };
    CerrCapture log;
    for (const auto& sql : refused) {
        SCOPED_TRACE(sql);
        std::vector<vd::Row> rows;
        EXPECT_FALSE(ext->select(sql, rows, vd::row_field_index));
        EXPECT_TRUE(rows.empty());
        vd::SQLParameters params{"", sql, vd::row_field_index};
        vd::ReadParameters request{{}, {}, {}, &params};
        if (!sql.empty()) {
            EXPECT_EQ(ext->control(vd::OP_SELECT_PROVIDER, &request, &rows, nullptr), kFailed);
        }
    }
    // A read that runs too long is stopped, with its rows taken back.
    const auto start = std::chrono::steady_clock::now();
    std::vector<vd::Row> rows;
    EXPECT_FALSE(
        ext->select("SELECT a.rowid AS rowid FROM provider_datastore a, provider_datastore b, "
                    "provider_datastore c ORDER BY a.STDOUT || b.STDOUT || c.STDOUT",
                    rows, vd::row_field_index));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(rows.empty());
    EXPECT_NE(log.text().find("query_timeout_ms"), std::string::npos);
    EXPECT_EQ(RawDb(db()).count(), 300);
    EXPECT_EQ(files_in(dir_.path()), files);
    // Trailing blanks and a closing semicolon are fine.
    EXPECT_TRUE(
        ext->select("SELECT * FROM vesk_1 WHERE rowid < 3;  \n", rows, vd::row_field_index));
    EXPECT_EQ(rows.size(), 2u);
}

TEST_F(SqliteExtensionTest, MalformedParametersAndClosedInstancesFail) {
    CerrCapture log;
    int32_t status = -1;
    EXPECT_EQ((open_sqlite("source=a=b", &status), status), kFailed);
    EXPECT_EQ((open_sqlite(params_for(db(), false, "|busy_timeout_ms=soon"), &status), status),
              kFailed);
    EXPECT_FALSE(std::filesystem::exists(db()));
    auto ext = open_rw();
    ASSERT_EQ(ext->close(), kOk);
    std::vector<vd::Row> rows;
    EXPECT_NE(vesk::test::insert_record(*ext, sample_record("p", "h", 1)), kOk);
    EXPECT_FALSE(ext->select("SELECT 1", rows, vd::row_field_index));
    EXPECT_EQ(ext->control(1023, nullptr, nullptr, nullptr),
              vd::DataStoreExtension::UNSUPPORTED_OPERATION);
    EXPECT_EQ(ext->close(), kOk);
}

}  // namespace
