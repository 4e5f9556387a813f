// The SQLite extension's latest-rows query against the base class's text
// ("SELECT *, MAX(unique_timestamp) ... GROUP BY ...") on the same file:
// random tables full of ties, NULL time stamps and NULL options must give
// the same rows, column for column and in the same order.
#include <random>

#include <gtest/gtest.h>

#include "recording_interface.h"
#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;

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
