// The query front end over a SQLite datastore and a PostgreSQL datastore on
// the test server, opened through the real controller from their
// configurations: which datastore answers each kind of call, and what the
// other one is left with.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/datastore.h"
#include "vesk/datastore/operations.h"

#include "odbc_datastore.h"
#include "pg_test_server.h"
#include "test_support.h"

namespace vesk::test {
namespace {

namespace vd = vesk::datastore;
using Rows = std::vector<vd::Row>;
using Utility = vd::DataStoreParseUtility;
const int32_t kOk = vd::DataStoreExtension::OPERATION_SUCCESSFULL;

// A row of `provider` on `host` from the run `run`, with STDOUT `out`.
vd::InsertRecord record(const std::string& provider, const std::string& host, int64_t run,
                        const std::string& out) {
    vd::InsertRecord r = keyed_record(host, 0);
    r.header.provider = provider;
    r.header.unique_timestamp = run;
    r.std_out = out;
    return r;
}

std::vector<int> statuses;
void note_status(int status, uint16_t, std::weak_ptr<vd::DataStoreExtension>, const void*,
                 const void*) {
    statuses.push_back(status);
}

class MixedFrontEndTest : public PgTest {
protected:
    void prepare() override {
        source_ = fresh("vesk_mixed");
        ASSERT_FALSE(source_.empty());
        controller_ = vd::DataStoreController::createDataStoreController();
    }
    void TearDown() override {
        Utility::clear_db_vector();
        Utility::clear_snapshot_dictionary();
        Utility::snapshot_info_set.clear();
        controller_.reset();
    }

    // A datastore of `type` (vd::sqlite3: a file of its own; vd::odbc: the
    // test's database).
    vd::DataStoreConfig config(const std::string& name, vd::DatabaseType type,
                               bool read_only = false) {
        vd::DataStoreConfig c;
        c.type = type;
        c.instance_name = name;
        c.extension_name = type == vd::odbc ? "libodbc.so" : "libsqlite.so";
        c.extension_path = kStageDir + "/datastore/lumok64/";
        c.source_parameters = "source=" + (type == vd::odbc ? source_ : dir_.file(name + ".db")) +
                              (read_only ? "|read_only=true" : "");
        c.source_types.set(vd::data);
        return c;
    }
    // Opens the datastores in this order.
    void open(std::vector<vd::DataStoreConfig> configs) {
        Utility::insert_db_instance(configs);
        ASSERT_EQ(Utility::get_datastore_vector().size(), configs.size());
    }
    bool store(const std::string& name, const std::vector<vd::InsertRecord>& rows) {
        return vd::execute_ioctl({name}, vd::OP_BULK_INSERT, &rows, nullptr, nullptr, nullptr);
    }
    int64_t pg_count(const std::string& table) {
        auto c = connect(source_);
        return c ? query_int(*c, "SELECT count(*) FROM " + table + ";") : -1;
    }

    TempDir dir_;
    std::string source_;
    std::shared_ptr<vd::DataStoreController> controller_;
};

TEST_F(MixedFrontEndTest, DataQueriesTakeTheFirstDatastoreWithRows) {
    open({config("lite", vd::sqlite3), config("pg", vd::odbc)});
    ASSERT_TRUE(store("lite", {record("shared", "h1", 100, "lite 1")}));
    ASSERT_TRUE(store("pg", {record("shared", "h1", 200, "pg 1"), record("pg_only", "h1", 300, "a"),
                             record("pg_only", "h1", 400, "b"), record("pg_only", "h2", 400, "c"),
                             record("uname", "h9", 500, "Linux h9")}));

    Rows rows;
    ASSERT_TRUE(vd::select_provider_data({"shared"}, rows, "", false));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].STDOUT, "lite 1");  // SQLite answered first; PostgreSQL was not asked
    rows.clear();
    // SQLite has none of them: its empty answer does not count.
    ASSERT_TRUE(vd::select_provider_data({"pg_only"}, rows, "", false));
    EXPECT_EQ(rows.size(), 3u);
    rows.clear();
    ASSERT_TRUE(vd::get_latest_rows_provider_hosts_data({"pg_only"}, rows, {}, false));
    ASSERT_EQ(rows.size(), 2u);
    for (const auto& r : rows) EXPECT_EQ(r.Unique_timestamp, 400) << r.Hostname;
    rows.clear();
    ASSERT_TRUE(vd::get_latest_rows_provider_data({"pg_only"}, rows, "h1", false));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].STDOUT, "b");
    rows.clear();
    ASSERT_TRUE(vd::get_hosts_data(rows, vd::row_field_index, false));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].Hostname, "h9");
    rows.clear();
    EXPECT_FALSE(vd::select_provider_data({"nowhere"}, rows, "", false));
    EXPECT_TRUE(rows.empty());
}

TEST_F(MixedFrontEndTest, ExecuteIoctlStopsAtTheFirstSuccessAcrossBothBackends) {
    open({config("pg_ro", vd::odbc, true), config("pg", vd::odbc), config("lite", vd::sqlite3)});
    const std::vector<vd::InsertRecord> rows{record("p", "h", 1, "x")};
    statuses.clear();
    // The read-only server datastore refuses; the next one takes the rows.
    EXPECT_TRUE(vd::execute_ioctl({"pg_ro", "lite", "pg"}, vd::OP_BULK_INSERT, &rows, nullptr,
                                  nullptr, note_status));
    EXPECT_EQ(statuses, (std::vector<int>{1, 0}));
    EXPECT_EQ(pg_count(vd::table_name), 0);
    statuses.clear();
    EXPECT_TRUE(vd::execute_ioctl({"pg", "lite"}, vd::OP_BULK_INSERT, &rows, nullptr, nullptr,
                                  note_status));
    EXPECT_EQ(statuses, (std::vector<int>{0}));
    EXPECT_EQ(pg_count(vd::table_name), 1);
    Rows lite;
    vd::SQLParameters all{"", "SELECT * FROM " + vd::table_name + ";", vd::row_field_index};
    vd::ReadParameters request{{"unused"}, {}, {}, &all};
    ASSERT_EQ(controller_->control(Utility::locate_datastores({"lite"}).at(0).second,
                                   vd::OP_SELECT_PROVIDER, &request, &lite, nullptr),
              kOk);
    EXPECT_EQ(lite.size(), 1u);
}

TEST_F(MixedFrontEndTest, SnapshotsGoToTheFirstDataDatastore) {
    open({config("pg", vd::odbc), config("lite", vd::sqlite3)});
    ASSERT_TRUE(store("pg", {record("p", "h1", 700, "a"), record("p", "h2", 700, "b"),
                             record("p", "h1", 600, "old")}));
    ASSERT_TRUE(store("lite", {record("p", "h1", 900, "lite")}));

    // Recorded from the latest run of the first datastore with rows, into the first.
    std::map<std::string, vd::ProviderInfo> providers{{"p", {}}};
    Rows rows;
    Utility::set_baseline_str("s1");
    ASSERT_TRUE(Utility::mark_latest_snapshot_data(providers, rows));
    EXPECT_EQ(rows.size(), 2u);
    EXPECT_EQ(pg_count(vd::table_baseline), 2);

    ASSERT_TRUE(Utility::query_available_baselines());
    const auto known = Utility::get_snapshot_info_set();
    ASSERT_EQ(known.size(), 1u);
    EXPECT_EQ(known.begin()->baseline_id, "s1");
    EXPECT_EQ(known.begin()->latest_unique_timestamp, 700);

    Utility::set_snapshot_remove_str("s1");
    EXPECT_TRUE(Utility::remove_snapshot());
    EXPECT_EQ(pg_count(vd::table_baseline), 0);
    // Only the first is asked: a second removal fails there, whatever the other holds.
    EXPECT_FALSE(Utility::remove_snapshot());
}

}  // namespace
}  // namespace vesk::test
