// The conformance suite of the SQL backends: every backend in kBackends runs
// the same tests through the real controller (load, open, control, close).
// A backend names its extension and gives the source of a fresh, empty
// datastore; a backend that cannot store every byte in a text column says
// so, and the suite then checks that such rows are refused whole.
#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <ostream>
#include <tuple>

#include <gtest/gtest.h>

#include "vesk/datastore.h"
#include "vesk/datastore/operations.h"

#include "pg_test_server.h"
#include "test_support.h"

namespace {

namespace vd = vesk::datastore;
using namespace vesk::test;
const int32_t kOk = vd::DataStoreExtension::OPERATION_SUCCESSFULL;
const int32_t kFailed = vd::DataStoreExtension::OPERATION_UNSUCCESSFULL;
using Handle = std::weak_ptr<vd::DataStoreExtension>;

// One backend under test.
struct Backend {
    std::string name;
    bool odbc;  // through the ODBC extension, else the SQLite one
    // The "source" parameter of the test's datastore, whose files live in the
    // folder `dir` (a backend on a server may ignore it); `fresh` for the
    // test's first open, which must find the datastore empty.
    std::function<std::string(const std::string& dir, bool fresh)> source;
    // False when the backend refuses text with a NUL byte or invalid UTF-8.
    bool stores_any_bytes;
    // False when a Duration comes back with 15 significant digits only.
    bool exact_doubles;
};

// Names the backend in test output, instead of its bytes.
void PrintTo(const Backend& backend, std::ostream* os) { *os << backend.name; }

// PostgreSQL through ODBC, on the test server of the ctest fixture vesk_pg,
// in a database of its own that the first open of a test makes anew.
std::string postgresql_source(const std::string& /*dir*/, bool fresh) {
    std::string why;
    const std::string server = pg_connection_string(why);
    if (server.empty()) {
        ADD_FAILURE() << "no PostgreSQL test server: " << why;
        return "";  // refused by the extension
    }
    if (std::string error; fresh && !fresh_database(server, "vesk_conformance", error))
        ADD_FAILURE() << error;
    return with_database(server, "vesk_conformance");
}

// Every backend of the suite; SQLite through its ODBC driver uses a file of
// its own. Both ODBC backends refuse text with a NUL byte (the drivers take
// text up to its first NUL); PostgreSQL also refuses invalid UTF-8. The
// SQLite ODBC driver hands every value over as SQLite's text of it, which
// has 15 significant digits for a REAL.
const Backend kBackends[] = {
    {"sqlite", false,
     [](const std::string& dir, bool) { return dir + "/conformance.db|busy_timeout_ms=5000"; },
     true, true},
    {"postgresql", true, postgresql_source, false, true},
    {"sqlite_odbc", true,
     [](const std::string& dir, bool) {
         return "DRIVER=" + std::string(kSqliteOdbcDriver) + ";Database=" + dir +
                "/conformance-odbc.db;Timeout=5000;";
     },
     false, false},
};

class BackendConformance : public ::testing::TestWithParam<Backend> {
protected:
    void SetUp() override {
        controller_ = vd::DataStoreController::createDataStoreController();
        writer_ = open("writer", false);
        ASSERT_FALSE(writer_.expired());
    }
    void TearDown() override {
        if (controller_) controller_->close({});
    }

    // Instance `instance` of the test's datastore; the first open is "writer".
    Handle open(const std::string& instance, bool read_only) {
        const Backend& backend = GetParam();
        std::vector<vd::DataStoreConfig> configs(1);
        auto& config = configs[0];
        config.type = backend.odbc ? vd::odbc : vd::sqlite3;
        config.instance_name = instance;
        config.extension_name = backend.odbc ? "libodbc.so" : "libsqlite.so";
        config.extension_path = kStageDir + "/datastore/lumok64/";
        config.source_parameters = "source=" + backend.source(dir_.path(), instance == "writer") +
                                   (read_only ? "|read_only=true" : "");
        config.source_types.set(vd::data);
        vd::DataStoreHandles handles;
        try {
            controller_->open(configs, handles);
        } catch (const std::exception& e) {
            ADD_FAILURE() << "cannot open " << instance << ": " << e.what();
            return {};
        }
        if (handles.size() != 1) return {};
        return handles.front().second;
    }

    int32_t call(uint16_t op, const void* in, void* out, Handle on = {}) {
        return controller_->control(on.expired() ? writer_ : on, op, in, out, nullptr);
    }
    bool insert(const vd::InsertRecord& record, Handle on = {}) {
        return call(vd::OP_INSERT, nullptr, const_cast<vd::InsertRecord*>(&record), on) == kOk;
    }
    bool bulk(const std::vector<vd::InsertRecord>& records, Handle on = {}) {
        return call(vd::OP_BULK_INSERT, &records, nullptr, on) == kOk;
    }
    // Every row, in rowid order, through a caller's statement.
    std::vector<vd::Row> all_rows(Handle on = {}) {
        vd::SQLParameters sql{"", "SELECT * FROM " + vd::table_name + " ORDER BY rowid;",
                              vd::row_field_index};
        vd::ReadParameters request{{"unused"}, {}, {}, &sql};
        std::vector<vd::Row> rows;
        EXPECT_EQ(call(vd::OP_SELECT_PROVIDER, &request, &rows, on), kOk);
        return rows;
    }
    bool latest(uint16_t op, std::vector<std::string> providers, std::vector<std::string> hosts,
                std::vector<vd::Row>& rows) {
        vd::ReadParameters request{std::move(providers), std::move(hosts), {}, nullptr};
        return call(op, &request, &rows) == kOk;
    }
    bool record_snapshot(const std::map<std::string, vd::ProviderInfoSet>& snapshots,
                         Handle on = {}) {
        const auto* p = &snapshots;
        return call(vd::OP_UPDATE_SNAPSHOT, nullptr, &p, on) == kOk;
    }
    bool remove_snapshot(std::string id, Handle on = {}) {
        return call(vd::OP_REMOVE_SNAPSHOT, nullptr, &id, on) == kOk;
    }
    std::vector<std::pair<std::string, int64_t>> snapshots() {
        vd::SnapshotInfoSet ids;
        EXPECT_EQ(call(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids), kOk);
        std::vector<std::pair<std::string, int64_t>> out;
        for (const auto& i : ids) out.emplace_back(i.baseline_id, i.latest_unique_timestamp);
        return out;
    }

    TempDir dir_;
    std::shared_ptr<vd::DataStoreController> controller_;
    Handle writer_;
};

vd::InsertRecord record(const std::string& provider, const std::string& host,
                        const std::string& option, int64_t run, int n = 0) {
    vd::InsertRecord r;
    r.header.provider = provider;
    r.header.hostname = host;
    r.header.num_nodes = 2;
    r.header.node_names = {host, host + "-peer"};
    r.header.exit_status = n;
    r.header.timestamp = 1500000000 + n;
    r.header.duration = 0.5 * n;
    r.header.encoding = vesk::provider::encoding::base64;
    r.header.version = 3;
    r.header.username = "tester";
    r.header.unique_timestamp = run;
    r.option_id = option;
    r.std_out = "out " + std::to_string(n);
    r.std_err = "err " + std::to_string(n);
    return r;
}

// Every field of `row` as `r` wrote it (texts, then numbers).
void expect_same(const vd::Row& row, const vd::InsertRecord& r, bool exact_doubles = true) {
    const auto& h = r.header;
    EXPECT_EQ(std::tie(row.Provider, row.Hostname, row.node_names, row.STDOUT, row.STDERR,
                       row.OptionID, row.Username),
              std::tie(h.provider, h.hostname, h.node_names, r.std_out, r.std_err, r.option_id,
                       h.username));
    EXPECT_EQ(std::make_tuple(row.num_nodes, row.Exit_status, row.Timestamp, row.Encoding,
                              row.version, row.Unique_timestamp),
              std::make_tuple(h.num_nodes, h.exit_status, h.timestamp, int32_t(h.encoding),
                              h.version, h.unique_timestamp));
    if (exact_doubles)
        EXPECT_EQ(row.Duration, h.duration);
    else
        EXPECT_NEAR(row.Duration, h.duration, 1e-14 * std::abs(h.duration));
}

TEST_P(BackendConformance, EveryFieldRoundTripsByInsertAndByBulkInsertOfAllRowsOrNone) {
    // Time stamps a double would round (2^53 + 1) and the ends of int64.
    const int64_t stamps[] = {(int64_t{1} << 53) + 1, std::numeric_limits<int64_t>::max(),
                              std::numeric_limits<int64_t>::min() + 1, 0};
    std::vector<vd::InsertRecord> written;
    for (size_t i = 0; i < std::size(stamps); ++i) {
        auto r = record("fields", "host" + std::to_string(i), "opt", stamps[i], int(i) + 1);
        r.header.exit_status = -static_cast<int32_t>(i) - 1;
        r.header.timestamp = stamps[i];
        r.header.duration = 1.0 / 3.0 * double(i + 1);
        r.header.version = std::numeric_limits<int32_t>::max() - int32_t(i);
        r.header.node_names = {"a", "b.example", "c-" + std::to_string(i)};
        r.header.num_nodes = 3;
        r.header.username = "user \xc3\xbc";  // UTF-8
        written.push_back(r);
        ASSERT_TRUE(insert(r)) << i;
    }
    // A batch larger than one multi-row statement, refused whole for its last row.
    // Its first rows carry the values above, and texts with every byte a
    // backend takes from all (the characters that quote or separate SQL and
    // array values among them).
    std::vector<vd::InsertRecord> batch;
    for (int i = 0; i < 50; ++i)
        batch.push_back(record("bulk", "h" + std::to_string(i), "o", 7, i));
    std::string ascii;
    for (int b = 1; b < 128; ++b) ascii += static_cast<char>(b);
    for (size_t i = 0; i < std::size(stamps); ++i) {
        const auto& w = written[i];
        auto& r = batch[i];
        r.header.exit_status = w.header.exit_status;
        r.header.timestamp = w.header.timestamp;
        r.header.duration = w.header.duration;
        r.header.version = w.header.version;
        r.header.unique_timestamp = w.header.unique_timestamp;
        r.header.node_names = w.header.node_names;
        r.header.num_nodes = w.header.num_nodes;
        r.header.username =
            i ? "\\\"{NULL}\\" : ascii.substr(31, 64);  // quotes, commas, a backslash
        r.std_out = i ? "{\"a\",\\}" : ascii;
        r.std_err = i ? std::string(ascii.rbegin(), ascii.rend()) : "NULL";
    }
    auto bad = batch;
    bad[49].header.node_names = {"a,b"};  // would not come back as written
    EXPECT_FALSE(bulk(bad));
    EXPECT_EQ(all_rows().size(), written.size());
    EXPECT_TRUE(bulk({}));
    ASSERT_TRUE(bulk(batch));
    written.insert(written.end(), batch.begin(), batch.end());

    const auto rows = all_rows();
    ASSERT_EQ(rows.size(), written.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        // The other durations (multiples of 0.5) are exact on every backend.
        const size_t in_batch = i < std::size(stamps) ? i : i - std::size(stamps);
        const bool thirds = in_batch < std::size(stamps);
        expect_same(rows[i], written[i], GetParam().exact_doubles || !thirds);
        if (i > 0) {
            EXPECT_GT(rows[i].rowid, rows[i - 1].rowid);
        }
    }
}

TEST_P(BackendConformance, EveryByteValueInTheStreamsRoundTripsOrTheRowIsRefused) {
    std::string bytes;
    for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
    auto r = record("bytes", "h", "o", 1);
    r.std_out = bytes;
    r.std_err = std::string(bytes.rbegin(), bytes.rend());
    const bool stored = insert(r);
    if (GetParam().stores_any_bytes) {
        ASSERT_TRUE(stored);
    } else {
        EXPECT_FALSE(stored);
        EXPECT_TRUE(all_rows().empty());
        // What such a backend does take comes back byte for byte: every
        // byte but NUL below 0x80, and UTF-8 sequences of every length.
        const std::string ascii(bytes.begin() + 1, bytes.begin() + 128);
        r.std_out =
            ascii + "\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xef\xbf\xbd \xf0\x90\x80\x80 \xf4\x8f\xbf\xbf";
        r.std_err = std::string(ascii.rbegin(), ascii.rend());
        ASSERT_TRUE(insert(r));
    }
    const auto rows = all_rows();
    ASSERT_EQ(rows.size(), 1u);
    expect_same(rows[0], r);
}

TEST_P(BackendConformance, LatestRowsTakeTheNewestRowAndTiesTheFirstWritten) {
    // Group (p, h1, o): runs 10, 30, 30 (a tie); group (p, h2, o): run 20.
    const std::vector<vd::InsertRecord> rows = {
        record("p", "h1", "o", 10, 1), record("p", "h1", "o", 30, 2), record("p", "h1", "o", 30, 3),
        record("p", "h2", "o", 20, 4), record("q", "h1", "o", 40, 5)};
    ASSERT_TRUE(bulk(rows));
    std::vector<vd::Row> found;
    ASSERT_TRUE(latest(vd::OP_LATEST_ROWS_PROVIDER, {"p"}, {}, found));
    std::sort(found.begin(), found.end(),
              [](const vd::Row& a, const vd::Row& b) { return a.Hostname < b.Hostname; });
    ASSERT_EQ(found.size(), 2u);
    expect_same(found[0], rows[1]);  // the first of the tie
    expect_same(found[1], rows[3]);

    ASSERT_TRUE(latest(vd::OP_LATEST_ROWS_PROVIDER, {"p"}, {"h2"}, found));
    ASSERT_EQ(found.size(), 1u);
    expect_same(found[0], rows[3]);

    // The newest run over all providers is 40: "p" has no row in it.
    ASSERT_TRUE(latest(vd::OP_LATEST_COLLECT_ROWS, {"p"}, {}, found));
    EXPECT_TRUE(found.empty());
    ASSERT_TRUE(latest(vd::OP_LATEST_COLLECT_ROWS, {"q", "p"}, {}, found));
    ASSERT_EQ(found.size(), 1u);
    expect_same(found[0], rows[4]);
}

TEST_P(BackendConformance, SnapshotsAreRecordedListedReadUpdatedAndRemoved) {
    ASSERT_TRUE(bulk({record("p", "h1", "o", 100, 1), record("p", "h2", "o", 200, 2),
                      record("q", "h1", "o", 300, 3)}));
    const auto rows = all_rows();
    ASSERT_EQ(rows.size(), 3u);
    auto config = std::make_shared<vesk::provider_config>();
    config->fwd_name = "fwd";
    config->provider_checksum = "pc1";
    config->command_checksum = "cc1";
    vd::ProviderInfoSet members{{rows[0].rowid, "p", config}, {rows[1].rowid, "p", nullptr}};
    ASSERT_TRUE(record_snapshot({{"s1", members}}));
    EXPECT_EQ(snapshots(), (std::vector<std::pair<std::string, int64_t>>{{"s1", 200}}));

    // Recording again updates the membership in place.
    auto changed = std::make_shared<vesk::provider_config>(*config);
    changed->provider_checksum = "pc2";
    ASSERT_TRUE(record_snapshot({{"s1", {{rows[0].rowid, "p", changed}}}}));

    // A snapshot of a row that does not exist is refused whole.
    EXPECT_FALSE(record_snapshot(
        {{"s2", {{rows[2].rowid, "q", nullptr}}}, {"s3", {{rows[2].rowid + 1000, "q", nullptr}}}}));
    EXPECT_EQ(snapshots().size(), 1u);

    vd::ReadParameters request{{"s1"}, {"p"}, {}, nullptr};
    std::map<std::string, std::vector<vd::Row_baseline>> baselines;
    std::map<std::string, std::vector<vd::Row>> by_provider;
    void* slots[2] = {&baselines, &by_provider};
    ASSERT_EQ(call(vd::OP_SNAPSHOT_PROVIDER, &request, slots), kOk);
    ASSERT_EQ(by_provider["p"].size(), 2u);
    ASSERT_EQ(baselines["p"].size(), 2u);
    std::map<int32_t, vd::Row_baseline> membership;
    for (const auto& b : baselines["p"]) membership[b.datastore_rowid] = b;
    const auto& m = membership[rows[0].rowid];
    EXPECT_EQ(std::tie(m.baseline_id, m.fwd_name, m.provider_checksum, m.command_checksum),
              std::make_tuple("s1", "fwd", "pc2", "cc1"));
    EXPECT_EQ(membership[rows[1].rowid].fwd_name, "");

    EXPECT_TRUE(remove_snapshot("s1"));
    EXPECT_TRUE(snapshots().empty());
    EXPECT_FALSE(remove_snapshot("s1"));
    EXPECT_EQ(all_rows().size(), 3u);  // the rows stay
}

TEST_P(BackendConformance, ReadOnlyInstanceReadsAndRefusesEveryWrite) {
    const auto r = record("p", "h", "o", 5, 1);
    ASSERT_TRUE(insert(r));
    ASSERT_TRUE(record_snapshot({{"s", {{all_rows().at(0).rowid, "p", nullptr}}}}));
    const auto reader = open("reader", true);
    ASSERT_FALSE(reader.expired());

    EXPECT_FALSE(insert(r, reader));
    EXPECT_FALSE(bulk({r}, reader));
    EXPECT_FALSE(record_snapshot({{"t", {{1, "p", nullptr}}}}, reader));
    EXPECT_FALSE(remove_snapshot("s", reader));
    const auto rows = all_rows(reader);
    ASSERT_EQ(rows.size(), 1u);
    expect_same(rows[0], r);
    EXPECT_EQ(snapshots().size(), 1u);
}

TEST_P(BackendConformance, FieldsAtTheirLimitAreStoredAndOneByteMoreIsRefused) {
    struct Limit {
        const char* field;
        int size;
        std::function<void(vd::InsertRecord&, std::string)> set;
    };
    const Limit limits[] = {
        {"provider", vd::max_provider_size, [](auto& r, auto v) { r.header.provider = v; }},
        {"host", vd::max_hostname_size, [](auto& r, auto v) { r.header.hostname = v; }},
        {"option id", vd::max_option_id_size, [](auto& r, auto v) { r.option_id = v; }},
        {"user", vd::max_username_size, [](auto& r, auto v) { r.header.username = v; }},
    };
    size_t stored = 0;
    for (const auto& limit : limits) {
        SCOPED_TRACE(limit.field);
        auto r = record("p", "h", "o", 1);
        limit.set(r, std::string(static_cast<size_t>(limit.size), 'x'));
        EXPECT_TRUE(insert(r));
        ++stored;
        limit.set(r, std::string(static_cast<size_t>(limit.size) + 1, 'x'));
        EXPECT_FALSE(insert(r));
        EXPECT_FALSE(bulk({record("p", "h", "o", 1), r}));
        EXPECT_EQ(all_rows().size(), stored);
    }
}

TEST_P(BackendConformance, AValueBeyondA32BitFieldFailsTheSelectInsteadOfWrapping) {
    // A row number past 2147483647 would otherwise name another row.
    ASSERT_TRUE(insert(record("p", "h", "o", 1)));
    const auto select_as = [&](const std::string& value, const std::string& column,
                               std::vector<vd::Row>& rows) {
        vd::SQLParameters sql{
            "", "SELECT " + value + " AS " + column + ", Provider FROM " + vd::table_name + ";",
            vd::row_field_index};
        vd::ReadParameters request{{"unused"}, {}, {}, &sql};
        return call(vd::OP_SELECT_PROVIDER, &request, &rows);
    };
    for (const std::string column : {"rowid", "Exit_status"}) {
        for (const char* value : {"2147483648", "-2147483649"}) {
            std::vector<vd::Row> rows;
            EXPECT_EQ(select_as(value, column, rows), kFailed) << column << value;
            EXPECT_TRUE(rows.empty());
        }
        std::vector<vd::Row> rows;
        ASSERT_EQ(select_as("2147483647", column, rows), kOk) << column;
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(column == "rowid" ? rows[0].rowid : rows[0].Exit_status, 2147483647);
    }
}

TEST_P(BackendConformance, NamesWithQuotesAreRefusedBeforeAnySqlRuns) {
    ASSERT_TRUE(insert(record("p", "h", "o", 1)));
    const std::string quoted = "x') OR ('1'='1";
    EXPECT_FALSE(insert(record(quoted, "h", "o", 1)));
    EXPECT_FALSE(insert(record("p", quoted, "o", 1)));

    std::vector<vd::Row> rows;
    vd::SQLParameters sql{"", "", vd::row_field_index};
    vd::ReadParameters by_provider{{quoted}, {}, {}, &sql};
    EXPECT_EQ(call(vd::OP_SELECT_PROVIDER, &by_provider, &rows), kFailed);
    EXPECT_FALSE(latest(vd::OP_LATEST_ROWS_PROVIDER, {quoted}, {}, rows));
    EXPECT_FALSE(latest(vd::OP_LATEST_ROWS_PROVIDER, {"p"}, {quoted}, rows));
    EXPECT_FALSE(latest(vd::OP_LATEST_COLLECT_ROWS, {quoted}, {}, rows));
    EXPECT_TRUE(rows.empty());
    // Snapshot ids too, and ids that readers (which strip blanks) would miss.
    for (const std::string& id :
         {quoted, std::string(" s1"), std::string("s1\t"), std::string(" "), std::string()})
        EXPECT_FALSE(record_snapshot({{id, {{all_rows().at(0).rowid, "p", nullptr}}}})) << id;
    vd::ReadParameters snapshot{{quoted}, {"p"}, {}, nullptr};
    std::map<std::string, std::vector<vd::Row_baseline>> baselines;
    std::map<std::string, std::vector<vd::Row>> found;
    void* slots[2] = {&baselines, &found};
    EXPECT_EQ(call(vd::OP_SNAPSHOT_PROVIDER, &snapshot, slots), kFailed);
    EXPECT_EQ(all_rows().size(), 1u);
    EXPECT_TRUE(snapshots().empty());
}

INSTANTIATE_TEST_SUITE_P(Backends, BackendConformance, ::testing::ValuesIn(kBackends),
                         [](const auto& info) { return info.param.name; });

}  // namespace
