// Records, the shared name tables and the exported defaults.
#include "vesk/datastore/records.h"

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/datastore/vocabulary.h"

namespace vesk::datastore {
namespace {

TEST(RecordsTest, DefaultsAndSetOrdering) {
    const ReadParameters read;
    EXPECT_TRUE(read.first.empty() && read.second.empty() && read.third.empty());
    EXPECT_EQ(read.sql, nullptr);
    const ProviderInfo info;
    EXPECT_EQ(info.rowid, 0);
    EXPECT_TRUE(info.name.empty());
    EXPECT_EQ(info.config, nullptr);

    // Provider sets order and deduplicate by rowid alone.
    ProviderInfoSet providers{{5, "a", nullptr}, {2, "b", nullptr}};
    EXPECT_FALSE(providers.insert({5, "c", nullptr}).second);
    ASSERT_EQ(providers.size(), 2u);
    EXPECT_EQ(providers.begin()->rowid, 2);
    EXPECT_EQ(providers.rbegin()->name, "a");

    // Snapshot sets by baseline_id alone, byte-wise: upper case first.
    SnapshotInfoSet snapshots{{"b", 1}, {"a", 2}};
    EXPECT_FALSE(snapshots.insert({"b", 3}).second);
    EXPECT_EQ(snapshots.rbegin()->latest_unique_timestamp, 1);
    snapshots.insert({"Z", 0});
    EXPECT_EQ(snapshots.begin()->baseline_id, "Z");
}

TEST(VocabularyTest, NameTablesAndDefaults) {
    EXPECT_EQ(nodelist_method_map.count("NONE"), 0u);  // read in lower case only
    EXPECT_EQ(nodelist_method_names[vesk::NONE], "NONE");
    EXPECT_EQ(row_field_index.count("Version"), 0u);
    EXPECT_EQ(DEFAULT_DATA_SOURCE, "$HOME/.vesk/2019.2.1/vesk.db");  // expanded by the reader
    std::set<int> priorities;                                        // no priority 0
    for (const auto& entry : syslog_level_map) priorities.insert(entry.second);
    EXPECT_EQ(priorities, (std::set<int>{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(syslog_level_map.at("debug"), 7);

    // Severity bands meet without a gap or an overlap.
    const std::vector<std::pair<int, std::string>> scores{
        {0, "informational"}, {24, "informational"}, {25, "warning"}, {74, "warning"},
        {75, "critical"},     {100, "critical"},     {101, ""}};
    for (const auto& [score, expected] : scores) {
        std::string found;
        for (const auto& [name, band] : severity_band_map) {
            if (score >= std::get<0>(band) && score <= std::get<1>(band)) found += name;
        }
        EXPECT_EQ(found, expected) << score;
    }
}

}  // namespace
}  // namespace vesk::datastore
