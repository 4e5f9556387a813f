// The SQLite extension's latest-rows query against the base class's text
// ("SELECT *, MAX(unique_timestamp) ... GROUP BY ...") on the same file:
// random tables full of ties, NULL time stamps and NULL options must give
// the same rows, column for column and in the same order.
#include <random>

#include <gtest/gtest.h>

#include "vesk/datastore/row_fields.h"

#include "recording_interface.h"
#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;

// Every field of `row` as text, through the field table.
std::string describe(const vd::Row& row) {
    std::string text;
    for (const auto& field : vd::kRowFields) {
        text += field.name;
        text += '=';
        switch (field.kind) {
            case vd::FieldKind::int32:
                text += std::to_string(row.*field.int32);
                break;
            case vd::FieldKind::int64:
                text += std::to_string(row.*field.int64);
                break;
            case vd::FieldKind::real:
                text += std::to_string(row.*field.real);
                break;
            case vd::FieldKind::text:
                text += row.*field.text;
                break;
            case vd::FieldKind::node_list:
                for (const auto& n : row.*field.list) text += n + ",";
                break;
        }
        text += ' ';
    }
    return text;
}

std::vector<std::string> describe(const std::vector<vd::Row>& rows) {
    std::vector<std::string> out;
    for (const auto& row : rows) out.push_back(describe(row));
    return out;
}

// Few distinct values, so that groups share their greatest time stamp,
// have NULL options or only NULL time stamps; rowids with gaps, inserted
// out of order, each row with an output of its own.
void fill_random(const std::string& file, unsigned seed) {
    std::mt19937 rng(seed);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    const int n = 20 + static_cast<int>(rng() % 150);
    std::vector<int64_t> ids(static_cast<size_t>(n));
    int64_t id = 0;
    for (auto& slot : ids) slot = id += 1 + static_cast<int64_t>(rng() % 3);
    std::shuffle(ids.begin(), ids.end(), rng);
    sqlite3_stmt* s = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db,
                                 "INSERT INTO provider_datastore(rowid, Provider, Hostname, "
                                 "num_nodes, node_names, Exit_status, Timestamp, Duration, "
                                 "Encoding, STDOUT, STDERR, OptionID, version, Username, "
                                 "Unique_timestamp) VALUES(?, ?, ?, 1, 'n1', ?, 1700000000, 0.5, "
                                 "0, ?, '', ?, 1, 'u', ?);",
                                 -1, &s, nullptr),
              SQLITE_OK);
    const char* providers[] = {"p1", "p2", "p3", "uname"};
    const char* hosts[] = {"h1", "h2", "h3"};
    const char* options[] = {"", "a", "b"};
    ASSERT_EQ(sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr), SQLITE_OK);
    for (int64_t rowid : ids) {
        const std::string out = "output of " + std::to_string(rowid);
        sqlite3_bind_int64(s, 1, rowid);
        sqlite3_bind_text(s, 2, providers[rng() % 4], -1, SQLITE_STATIC);
        sqlite3_bind_text(s, 3, hosts[rng() % 3], -1, SQLITE_STATIC);
        sqlite3_bind_int(s, 4, static_cast<int>(rng() % 3));
        sqlite3_bind_text(s, 5, out.c_str(), -1, SQLITE_TRANSIENT);
        if (rng() % 4 == 0)
            sqlite3_bind_null(s, 6);
        else
            sqlite3_bind_text(s, 6, options[rng() % 3], -1, SQLITE_STATIC);
        if (rng() % 5 == 0)
            sqlite3_bind_null(s, 7);
        else
            sqlite3_bind_int64(s, 7, 1700000000000000 + static_cast<int64_t>(rng() % 4));
        ASSERT_EQ(sqlite3_step(s), SQLITE_DONE) << sqlite3_errmsg(db);
        sqlite3_reset(s);
    }
    ASSERT_EQ(sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_finalize(s);
    sqlite3_close(db);
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
        ASSERT_NO_FATAL_FAILURE(fill_random(file, seed));
        auto ext = open_or_exit(file);
        ties += tie_groups(*ext);
        for (const auto& f : filters) {
            std::vector<vd::Row> unused;
            ASSERT_TRUE(base.get_latest_rows_provider(f.providers, unused, f.hosts));
            std::vector<vd::Row> expected;
            ASSERT_TRUE(ext->select(base.last_sql, expected, vd::row_field_index));
            std::vector<vd::Row> found;
            ASSERT_TRUE(ext->get_latest_rows_provider(f.providers, found, f.hosts));
            EXPECT_EQ(describe(found), describe(expected)) << base.last_sql;
            compared += expected.size();
        }
        if (HasFailure()) break;
    }
    EXPECT_GT(ties, 30);       // the data exercised the tie-breaks
    EXPECT_GT(compared, 500);  // and the comparisons saw rows
}

}  // namespace
