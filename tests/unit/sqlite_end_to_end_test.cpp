// The SQLite extension end to end through the real default configuration:
// the staged group file and default_sqlite.xml are parsed, the default
// datastore lands in $HOME (a temporary folder here), rows of two collection
// runs go in, every query function reads them back, and snapshots are
// recorded, listed, read, removed and forgotten through
// DataStoreParseUtility.
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "vesk/datastore.h"

#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;
using Utility = vd::DataStoreParseUtility;
constexpr int64_t kRun1 = 1700000000000000;
constexpr int64_t kRun2 = 1700000600000000;

// "provider@host#run" of every row, sorted.
std::vector<std::string> ids(const std::vector<vd::Row>& rows) {
    std::vector<std::string> out;
    for (const auto& r : rows)
        out.push_back(r.Provider + "@" + r.Hostname + (r.Unique_timestamp == kRun2 ? "#2" : "#1"));
    std::sort(out.begin(), out.end());
    return out;
}

TEST(SqliteEndToEndTest, DefaultConfigurationStoresQueriesAndSnapshots) {
    const TempDir home;
    const ScopedEnv home_env("HOME", home.path());
    const auto controller = vd::DataStoreController::createDataStoreController();
    // The staged group file names libsqlite.so and default_sqlite.xml: one
    // SQLite file under $HOME.
    const std::string group = kStageDir + "/etc/datastore/datastore_group.xml";
    xmlDoc* doc = xmlReadFile(group.c_str(), nullptr, 0);
    ASSERT_NE(doc, nullptr) << group;
    auto configs = Utility::parse_db_configs(xmlDocGetRootElement(doc), vd::DataStoreConfig{});
    xmlFreeDoc(doc);
    ASSERT_EQ(configs.size(), 1u);
    Utility::insert_db_instance(configs);
    const std::string file = home.file(".vesk/2019.2.1/vesk.db");

    // Run 1 one row at a time, run 2 (where n2 has no uname row) in one bulk insert.
    std::vector<vd::InsertRecord> run1, run2;
    for (const char* host : {"n1", "n2"})
        for (const char* provider : {"cpu", "uname"}) {
            run1.push_back(sample_record(provider, host, kRun1, 1));
            run2.push_back(sample_record(provider, host, kRun2, 3));  // same OptionID
        }
    run2.pop_back();
    const std::vector<std::string> names{vd::DEFAULT_DATASTORE_NAME};
    for (auto& r : run1)
        ASSERT_TRUE(vd::execute_ioctl(names, vd::OP_INSERT, nullptr, &r, nullptr, nullptr));
    ASSERT_TRUE(vd::execute_ioctl(names, vd::SQLITE_BULK_INSERT, &run2, nullptr, nullptr, nullptr));
    EXPECT_EQ(raw_count(file), 7);

    std::vector<vd::Row> rows;
    auto fresh = [&rows]() -> std::vector<vd::Row>& {  // the result vector, emptied
        rows.clear();
        return rows;
    };
    ASSERT_TRUE(vd::select_provider_data({"cpu"}, rows, "", false));
    EXPECT_EQ(ids(rows),
              (std::vector<std::string>{"cpu@n1#1", "cpu@n1#2", "cpu@n2#1", "cpu@n2#2"}));
    ASSERT_TRUE(vd::select_provider_data({"cpu", "uname"}, fresh(), "Hostname = 'n2'", false));
    EXPECT_EQ(ids(rows), (std::vector<std::string>{"cpu@n2#1", "cpu@n2#2", "uname@n2#1"}));
    ASSERT_TRUE(vd::get_latest_rows_provider_hosts_data({"cpu", "uname"}, fresh(), {}, false));
    EXPECT_EQ(ids(rows),
              (std::vector<std::string>{"cpu@n1#2", "cpu@n2#2", "uname@n1#2", "uname@n2#1"}));
    ASSERT_TRUE(vd::get_latest_rows_provider_data({"uname"}, fresh(), "n2", false));
    EXPECT_EQ(ids(rows), (std::vector<std::string>{"uname@n2#1"}));
    ASSERT_TRUE(vd::get_hosts_data(fresh(), vd::row_field_index, false));
    EXPECT_EQ(ids(rows), (std::vector<std::string>{"uname@n1#2", "uname@n2#1"}));
    for (const auto& row : rows) EXPECT_TRUE(same(row, row.Hostname == "n1" ? run2[1] : run1[3]));
    // select_data sends a table name without providers; the SQL base needs
    // providers, so the datastore answers "failed" (its messages, and those
    // of the expected failures below, go to the capture).
    CerrCapture log;
    EXPECT_FALSE(vd::select_data(vd::table_name, fresh(), vd::row_field_index, false));
    EXPECT_TRUE(rows.empty());

    // Record the latest run of both providers as snapshot "snap1".
    auto config = std::make_shared<vesk::provider_config>(
        vesk::provider_config{"cpu", "cpu-fwd", "psum", "csum"});
    std::map<std::string, vd::ProviderInfo> providers{{"cpu", {0, "cpu", config}},
                                                      {"uname", {0, "uname", nullptr}}};
    auto record = [&](const std::string& snapshot) {
        Utility::set_baseline_str(snapshot);
        return Utility::mark_latest_snapshot_data(providers, fresh());
    };
    auto remove = [](const std::string& snapshot) {
        Utility::set_snapshot_remove_str(snapshot);
        return Utility::remove_snapshot();
    };
    ASSERT_TRUE(record("snap1"));
    EXPECT_EQ(ids(rows), (std::vector<std::string>{"cpu@n1#2", "cpu@n2#2", "uname@n1#2"}));
    EXPECT_EQ(raw_count(file, vd::table_baseline), 3);

    ASSERT_TRUE(Utility::query_available_baselines());
    const auto infos = Utility::get_snapshot_info_set();
    ASSERT_EQ(infos.size(), 1u);
    EXPECT_EQ(infos.begin()->baseline_id, "snap1");
    EXPECT_EQ(infos.begin()->latest_unique_timestamp, kRun2);

    std::map<std::string, std::vector<vd::Row>> by_provider;
    std::map<std::string, std::vector<vd::Row_baseline>> baselines;
    ASSERT_TRUE(vd::get_snapshot_provider_data("snap1", by_provider, baselines, {"cpu", "uname"},
                                               {}, false));
    EXPECT_EQ(ids(by_provider["cpu"]), (std::vector<std::string>{"cpu@n1#2", "cpu@n2#2"}));
    EXPECT_EQ(ids(by_provider["uname"]), (std::vector<std::string>{"uname@n1#2"}));
    ASSERT_EQ(baselines["cpu"].size(), 2u);
    EXPECT_EQ(baselines["cpu"][0].fwd_name, "cpu-fwd");
    EXPECT_EQ(baselines["cpu"][0].provider_checksum, "psum");

    EXPECT_TRUE(remove("snap1"));
    EXPECT_EQ(raw_count(file, vd::table_baseline), 0);
    EXPECT_FALSE(Utility::remove_snapshot());  // already gone
    // A removed snapshot does not come back with the next one recorded.
    using Ids = std::vector<std::string>;
    const auto stored = [&file] {
        return raw_column(file, "SELECT DISTINCT baseline_id FROM " +
                                    std::string(vd::table_baseline) + " ORDER BY 1");
    };
    ASSERT_TRUE(record("second"));
    EXPECT_EQ(stored(), Ids{"second"});

    // A snapshot the extension refuses (a blank id) is sent again with every
    // later one, so they all fail; removing it cannot help, as it was never
    // stored, but forgetting it does.
    const std::string blank = "  ";
    EXPECT_FALSE(record(blank));
    EXPECT_FALSE(record("third"));
    EXPECT_FALSE(remove(blank));
    EXPECT_EQ(stored(), Ids{"second"});
    EXPECT_TRUE(Utility::forget_snapshot(blank));
    EXPECT_TRUE(record("third"));
    EXPECT_EQ(stored(), (Ids{"second", "third"}));
    EXPECT_EQ(raw_count(file, vd::table_baseline), 6);
    // Closing leaves the datastore file alone in its folder.
    Utility::clear_db_vector();
    EXPECT_EQ(files_in(home.file(".vesk/2019.2.1")), std::set<std::string>{"vesk.db"});
}

}  // namespace
