// The SQLite extension end to end through the real default configuration:
// the staged group file and default_sqlite.xml are parsed, the default
// datastore lands in $HOME (a temporary folder here), rows of two collection
// runs go in, every query function reads them back, and a snapshot is
// recorded, listed, read and removed through DataStoreParseUtility.
#include <filesystem>

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "vesk/datastore.h"

#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace vd = vesk::datastore;
using vesk::test::sample_record;

namespace {

constexpr int64_t kRun1 = 1700000000000000;
constexpr int64_t kRun2 = 1700000600000000;

class SqliteEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        controller_ = vd::DataStoreController::createDataStoreController();
        vd::DataStoreParseUtility::clear_db_vector();
    }
    void TearDown() override {
        vd::DataStoreParseUtility::clear_db_vector();
        vd::DataStoreParseUtility::snapshot_dict.clear();
        vd::DataStoreParseUtility::snapshot_info_set.clear();
    }

    vesk::test::TempDir home_;
    vesk::test::ScopedEnv home_env_{"HOME", home_.path()};
    std::shared_ptr<vd::DataStoreController> controller_;
};

std::vector<std::string> providers_of(const std::vector<vd::Row>& rows) {
    std::vector<std::string> out;
    for (const auto& r : rows)
        out.push_back(r.Provider + "@" + r.Hostname + "#" +
                      std::to_string(r.Unique_timestamp == kRun2 ? 2 : 1));
    std::sort(out.begin(), out.end());
    return out;
}

TEST_F(SqliteEndToEndTest, DefaultConfigurationStoresQueriesAndSnapshots) {
    // Parse the staged group file: it names libsqlite.so and default_sqlite.xml.
    const std::string group = vesk::test::kStageDir + "/etc/datastore/datastore_group.xml";
    xmlDoc* doc = xmlReadFile(group.c_str(), nullptr, 0);
    ASSERT_NE(doc, nullptr) << group;
    std::vector<vd::DataStoreConfig> configs = vd::DataStoreParseUtility::parse_db_configs(
        xmlDocGetRootElement(doc), vd::DataStoreConfig{});
    xmlFreeDoc(doc);
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0].instance_name, vd::DEFAULT_DATASTORE_NAME);
    vd::DataStoreParseUtility::insert_db_instance(configs);
    ASSERT_EQ(vd::DataStoreParseUtility::get_datastore_vector().size(), 1u);
    const std::string file = home_.file(".vesk/2019.2.1/vesk.db");
    ASSERT_TRUE(std::filesystem::exists(file));
    const std::vector<std::string> names{vd::DEFAULT_DATASTORE_NAME};

    // Run 1 one row at a time, run 2 in one bulk insert.
    std::vector<vd::InsertRecord> run1, run2;
    for (const char* host : {"n1", "n2"}) {
        for (const char* provider : {"cpu", "uname"}) {
            run1.push_back(sample_record(provider, host, kRun1, 1));
            run2.push_back(sample_record(provider, host, kRun2, 2));
        }
    }
    run2.pop_back();  // n2 has no uname row in run 2
    for (auto& r : run1) {
        r.option_id = "default";
        ASSERT_TRUE(vd::execute_ioctl(names, vd::OP_INSERT, nullptr, &r, nullptr, nullptr));
    }
    for (auto& r : run2) r.option_id = "default";
    ASSERT_TRUE(vd::execute_ioctl(names, vd::SQLITE_BULK_INSERT, &run2, nullptr, nullptr, nullptr));
    EXPECT_EQ(vesk::test::RawDb(file).count(), 7);

    std::vector<vd::Row> rows;
    ASSERT_TRUE(vd::select_provider_data({"cpu"}, rows, "", false));
    EXPECT_EQ(providers_of(rows),
              (std::vector<std::string>{"cpu@n1#1", "cpu@n1#2", "cpu@n2#1", "cpu@n2#2"}));
    rows.clear();
    ASSERT_TRUE(vd::select_provider_data({"cpu", "uname"}, rows, "Hostname = 'n2'", false));
    EXPECT_EQ(rows.size(), 3u);

    rows.clear();
    ASSERT_TRUE(vd::get_latest_rows_provider_hosts_data({"cpu", "uname"}, rows, {}, false));
    EXPECT_EQ(providers_of(rows),
              (std::vector<std::string>{"cpu@n1#2", "cpu@n2#2", "uname@n1#2", "uname@n2#1"}));
    rows.clear();
    ASSERT_TRUE(vd::get_latest_rows_provider_data({"uname"}, rows, "n2", false));
    EXPECT_EQ(providers_of(rows), (std::vector<std::string>{"uname@n2#1"}));

    rows.clear();
    ASSERT_TRUE(vd::get_hosts_data(rows, vd::row_field_index, false));
    EXPECT_EQ(providers_of(rows), (std::vector<std::string>{"uname@n1#2", "uname@n2#1"}));
    EXPECT_EQ(rows[0].node_names.size(), 2u);

    // select_data sends a table name without providers; the SQL base needs
    // providers, so the datastore answers "failed" and nothing is read.
    {
        vesk::test::CerrCapture log;
        rows.clear();
        EXPECT_FALSE(vd::select_data(vd::table_name, rows, vd::row_field_index, false));
        EXPECT_TRUE(rows.empty());
    }

    // Record the latest run of both providers as snapshot "snap1".
    auto config = std::make_shared<vesk::provider_config>(
        vesk::provider_config{"cpu", "cpu-fwd", "psum", "csum"});
    std::map<std::string, vd::ProviderInfo> providers{{"cpu", {0, "cpu", config}},
                                                      {"uname", {0, "uname", nullptr}}};
    vd::DataStoreParseUtility::set_baseline_str("snap1");
    rows.clear();
    ASSERT_TRUE(vd::DataStoreParseUtility::mark_latest_snapshot_data(providers, rows));
    EXPECT_EQ(rows.size(), 3u);  // cpu on n1 and n2, uname on n1: the rows of run 2
    EXPECT_EQ(vesk::test::RawDb(file).count(vd::table_baseline), 3);

    ASSERT_TRUE(vd::DataStoreParseUtility::query_available_baselines());
    const auto infos = vd::DataStoreParseUtility::get_snapshot_info_set();
    ASSERT_EQ(infos.size(), 1u);
    EXPECT_EQ(infos.begin()->baseline_id, "snap1");
    EXPECT_EQ(infos.begin()->latest_unique_timestamp, kRun2);

    std::map<std::string, std::vector<vd::Row>> by_provider;
    std::map<std::string, std::vector<vd::Row_baseline>> baselines;
    ASSERT_TRUE(vd::get_snapshot_provider_data("snap1", by_provider, baselines, {"cpu", "uname"},
                                               {}, false));
    EXPECT_EQ(by_provider["cpu"].size(), 2u);
    EXPECT_EQ(by_provider["uname"].size(), 1u);
    ASSERT_EQ(baselines["cpu"].size(), 2u);
    EXPECT_EQ(baselines["cpu"][0].fwd_name, "cpu-fwd");
    EXPECT_EQ(baselines["cpu"][0].provider_checksum, "psum");
    for (const auto& row : by_provider["cpu"]) EXPECT_EQ(row.Unique_timestamp, kRun2);

    vd::DataStoreParseUtility::set_snapshot_remove_str("snap1");
    EXPECT_TRUE(vd::DataStoreParseUtility::remove_snapshot());
    EXPECT_EQ(vesk::test::RawDb(file).count(vd::table_baseline), 0);
    {
        vesk::test::CerrCapture log;
        EXPECT_FALSE(vd::DataStoreParseUtility::remove_snapshot());  // already gone
    }

    // Closing leaves the datastore file alone in its folder.
    vd::DataStoreParseUtility::clear_db_vector();
    EXPECT_EQ(vesk::test::files_in(home_.file(".vesk/2019.2.1")), std::set<std::string>{"vesk.db"});
}

}  // namespace
