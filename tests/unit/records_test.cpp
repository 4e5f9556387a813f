// Records, the shared name tables and the exported defaults.
#include "vesk/datastore/records.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_support.h"
#include "vesk/datastore/extension.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/vocabulary.h"

namespace vesk::datastore {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

Row sample_row(int32_t rowid, int64_t unique_timestamp) {
    Row r;
    r.rowid = rowid;
    r.Provider = "provider-" + std::to_string(rowid);
    r.Hostname = "node" + std::to_string(rowid);
    r.num_nodes = 2;
    r.node_names = {"n1", "n" + std::to_string(rowid)};
    r.Exit_status = rowid % 3;
    r.Timestamp = 1000 + rowid;
    r.Duration = 0.5 * rowid;
    r.Encoding = vesk::provider::base64;
    r.STDOUT = std::string(100, 'o') + std::to_string(rowid);  // beyond any short-string buffer
    r.STDERR = "err" + std::to_string(rowid);
    r.OptionID = "opt";
    r.version = 3;
    r.Username = "user";
    r.Unique_timestamp = unique_timestamp;
    return r;
}

void expect_same_row(const Row& a, const Row& b) {
    EXPECT_EQ(a.rowid, b.rowid);
    EXPECT_EQ(a.Provider, b.Provider);
    EXPECT_EQ(a.Hostname, b.Hostname);
    EXPECT_EQ(a.num_nodes, b.num_nodes);
    EXPECT_EQ(a.node_names, b.node_names);
    EXPECT_EQ(a.Exit_status, b.Exit_status);
    EXPECT_EQ(a.Timestamp, b.Timestamp);
    EXPECT_EQ(a.Duration, b.Duration);
    EXPECT_EQ(a.Encoding, b.Encoding);
    EXPECT_EQ(a.STDOUT, b.STDOUT);
    EXPECT_EQ(a.STDERR, b.STDERR);
    EXPECT_EQ(a.OptionID, b.OptionID);
    EXPECT_EQ(a.version, b.version);
    EXPECT_EQ(a.Username, b.Username);
    EXPECT_EQ(a.Unique_timestamp, b.Unique_timestamp);
}

TEST(RecordsTest, Defaults) {
    const ReadParameters read;
    EXPECT_TRUE(read.first.empty());
    EXPECT_TRUE(read.second.empty());
    EXPECT_TRUE(read.third.empty());
    EXPECT_EQ(read.sql, nullptr);

    const ProviderInfo info;
    EXPECT_EQ(info.rowid, 0);
    EXPECT_TRUE(info.name.empty());
    EXPECT_EQ(info.config, nullptr);

    const DataStoreConfig config;
    EXPECT_EQ(config.type, sqlite3);
    EXPECT_TRUE(config.source_types.none());

    const Row row;
    EXPECT_EQ(row.rowid, 0);
    EXPECT_EQ(row.Unique_timestamp, 0);
    EXPECT_TRUE(row.node_names.empty());
}

TEST(RecordsTest, SetsOrderByTheirKeyOnly) {
    ProviderInfoSet providers;
    EXPECT_TRUE(providers.insert({5, "a", nullptr}).second);
    EXPECT_TRUE(providers.insert({2, "b", nullptr}).second);
    EXPECT_FALSE(providers.insert({5, "c", nullptr}).second);  // same rowid: same element
    ASSERT_EQ(providers.size(), 2u);
    EXPECT_EQ(providers.begin()->rowid, 2);
    EXPECT_EQ(providers.rbegin()->name, "a");

    SnapshotInfoSet snapshots;
    snapshots.insert({"b", 1});
    snapshots.insert({"a", 2});
    EXPECT_FALSE(snapshots.insert({"b", 3}).second);
    ASSERT_EQ(snapshots.size(), 2u);
    EXPECT_EQ(snapshots.begin()->baseline_id, "a");
    EXPECT_EQ(snapshots.rbegin()->latest_unique_timestamp, 1);
    // Byte-wise: upper case sorts before lower case.
    snapshots.insert({"Z", 0});
    EXPECT_EQ(snapshots.begin()->baseline_id, "Z");
}

TEST(RecordsTest, RowCopiesMovesAndSorts) {
    const Row original = sample_row(7, 70);
    Row copy(original);
    expect_same_row(copy, original);

    Row assigned;
    assigned = original;
    expect_same_row(assigned, original);

    Row moved(std::move(copy));
    expect_same_row(moved, original);
    Row move_assigned;
    move_assigned = std::move(moved);
    expect_same_row(move_assigned, original);

    std::vector<Row> rows{sample_row(1, 30), sample_row(2, 10), sample_row(3, 20)};
    std::sort(rows.begin(), rows.end(),
              [](const Row& a, const Row& b) { return a.Unique_timestamp < b.Unique_timestamp; });
    // Every field travels with its row.
    expect_same_row(rows[0], sample_row(2, 10));
    expect_same_row(rows[1], sample_row(3, 20));
    expect_same_row(rows[2], sample_row(1, 30));

    std::vector<Row> copied_vector = rows;
    expect_same_row(copied_vector[2], rows[2]);
}

TEST(RecordsTest, ConfigCopyKeepsEveryField) {
    DataStoreConfig c;
    c.type = odbc;
    c.instance_name = "i";
    c.extension_name = "libodbc.so";
    c.extension_path = "/x";
    c.source_parameters = "dsn";
    c.source_types.set(stream);
    const DataStoreConfig copy(c);
    EXPECT_EQ(copy.type, odbc);
    EXPECT_EQ(copy.instance_name, "i");
    EXPECT_EQ(copy.extension_name, "libodbc.so");
    EXPECT_EQ(copy.extension_path, "/x");
    EXPECT_EQ(copy.source_parameters, "dsn");
    EXPECT_EQ(copy.source_types.to_ulong(), 2u);
}

TEST(RecordsTest, StatusConstantsAreTheExportedObjects) {
    // Taking the addresses needs the definitions exported by the library.
    const int32_t* ok = &DataStoreExtension::OPERATION_SUCCESSFULL;
    const int32_t* failed = &DataStoreExtension::OPERATION_UNSUCCESSFULL;
    const int32_t* unsupported = &DataStoreExtension::UNSUPPORTED_OPERATION;
    EXPECT_EQ(*ok, 0);
    EXPECT_EQ(*failed, 1);
    EXPECT_EQ(*unsupported, 512);
}

TEST(VocabularyTest, NodelistMethodsReadLowerAndPrintUpper) {
    EXPECT_EQ(nodelist_method_map.count("NONE"), 0u);
    EXPECT_EQ(nodelist_method_names[vesk::NONE], "NONE");
    ASSERT_EQ(nodelist_method_map.size(), nodelist_method_names.size());
    for (const auto& [word, method] : nodelist_method_map) {
        std::string upper = word;
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        EXPECT_EQ(nodelist_method_names.at(method), upper);
    }
}

TEST(VocabularyTest, SyslogLevelsHaveNoPriorityZero) {
    EXPECT_EQ(syslog_level_map.size(), 7u);
    std::set<int> priorities;
    for (const auto& entry : syslog_level_map) priorities.insert(entry.second);
    EXPECT_THAT(priorities, ElementsAre(1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(syslog_level_map.at("debug"), 7);
    EXPECT_EQ(syslog_level_map.at("error"), 3);
}

// The name of the severity band holding `score`, or "" if none or several do.
std::string band_of(int score) {
    std::string found;
    int hits = 0;
    for (const auto& [name, band] : severity_band_map) {
        if (score >= std::get<0>(band) && score <= std::get<1>(band)) {
            found = name;
            ++hits;
        }
    }
    return hits == 1 ? found : "";
}

TEST(VocabularyTest, SeverityBandsMeetWithoutGapOrOverlap) {
    EXPECT_EQ(band_of(0), "informational");
    EXPECT_EQ(band_of(24), "informational");
    EXPECT_EQ(band_of(25), "warning");
    EXPECT_EQ(band_of(74), "warning");
    EXPECT_EQ(band_of(75), "critical");
    EXPECT_EQ(band_of(100), "critical");
    EXPECT_EQ(band_of(101), "");
    for (int score = 0; score <= 100; ++score) EXPECT_NE(band_of(score), "") << score;
    EXPECT_EQ(std::get<2>(severity_band_map.at("critical")), vesk::postprocessor::critical);
}

TEST(VocabularyTest, FieldIndexesCoverEveryColumnOnce) {
    EXPECT_EQ(row_field_index.count("Version"), 0u);
    EXPECT_EQ(row_field_index.at("version"), 12);
    std::set<int> positions;
    for (const auto& entry : row_field_index) positions.insert(entry.second);
    EXPECT_EQ(positions.size(), 15u);
    EXPECT_EQ(*positions.begin(), 0);
    EXPECT_EQ(*positions.rbegin(), 14);

    positions.clear();
    for (const auto& entry : baseline_field_index) positions.insert(entry.second);
    EXPECT_EQ(positions.size(), 6u);
    EXPECT_EQ(*positions.rbegin(), 5);
    EXPECT_EQ(baseline_field_index.at("datastore_rowid"), 2);
}

TEST(VocabularyTest, CreateStatementsAndLimits) {
    EXPECT_EQ(default_create_table_query.size(), 311u);
    EXPECT_EQ(default_create_baseline_query.size(), 178u);
    EXPECT_EQ(default_create_view_query.size(), 211u);
    EXPECT_EQ(default_create_table_query.find("CREATE TABLE IF NOT EXISTS " + table_name + "("), 0u);
    EXPECT_EQ(default_create_view_query.find("CREATE VIEW IF NOT EXISTS " + table_view + " "), 0u);
    EXPECT_THAT(default_create_view_query, EndsWith(" from " + table_name + ";"));

    EXPECT_EQ(max_node_names_size, max_num_nodes * (max_hostname_size + 2));
    EXPECT_EQ(max_num_nodes, 1 << 18);
    EXPECT_EQ(max_std_stream_size, 1 << 30);
}

TEST(VocabularyTest, DefaultPaths) {
    EXPECT_EQ(DEFAULT_DATA_SOURCE, "$HOME/.vesk/2019.2.1/vesk.db");

    const std::string install = DataStoreParseUtility::default_install_path;
    EXPECT_THAT(install, EndsWith("/../../"));
    // The library runs from the stage folder's lib/lumok64, two levels down.
    EXPECT_EQ(std::filesystem::canonical(install), std::filesystem::canonical(vesk::test::kStageDir));
    EXPECT_EQ(DataStoreParseUtility::default_extension_path, DEFAULT_EXTENSION_PATH);
}

}  // namespace
}  // namespace vesk::datastore
