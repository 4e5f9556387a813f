// The datastore schema: the three create statements run against a real
// SQLite file through tessdb1, and the tables they make match the column
// maps that rows are filled through.
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tessdb/tessdb.h"
#include "test_support.h"
#include "vesk/datastore/vocabulary.h"

namespace {

namespace ds = vesk::datastore;

struct SqliteClose {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, SqliteClose>;

Database open_database(const std::string& path) {
    sqlite3* db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
        sqlite3_close(db);
        return nullptr;
    }
    return Database(db);
}

// The column names of `table` in declaration order.
std::vector<std::string> columns(sqlite3* db, const std::string& table) {
    std::vector<std::string> out;
    sqlite3_stmt* stmt = nullptr;
    const std::string sql = "PRAGMA table_info(" + table + ")";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) return out;
    while (sqlite3_step(stmt) == SQLITE_ROW)
        out.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)));
    sqlite3_finalize(stmt);
    return out;
}

class SchemaTest : public ::testing::Test {
protected:
    void SetUp() override {
        path = dir.file("schema.db");
        tessdb1::Connection* raw = nullptr;
        ASSERT_EQ(tessdb1::newConnection(path.c_str(), 0, &raw), 0);
        connection.reset(raw);
    }

    void create_schema() {
        for (const std::string* statement : {&ds::default_create_table_query,
                                             &ds::default_create_baseline_query,
                                             &ds::default_create_view_query}) {
            EXPECT_EQ(connection->issueCommand(statement->c_str()), 0)
                << *statement << ": " << connection->lastError();
        }
    }

    vesk::test::TempDir dir;
    std::string path;
    std::unique_ptr<tessdb1::Connection> connection;
};

TEST_F(SchemaTest, StatementsRunTwiceOnOneDatabase) {
    create_schema();
    create_schema();
    Database db = open_database(path);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(columns(db.get(), ds::table_name).size(), 15u);
    EXPECT_EQ(columns(db.get(), ds::table_baseline).size(), 6u);
    EXPECT_EQ(columns(db.get(), ds::table_view).size(), 15u);
}

TEST_F(SchemaTest, ColumnsSitWhereTheFieldMapsExpectThem) {
    create_schema();
    Database db = open_database(path);
    ASSERT_NE(db, nullptr);

    const auto table = columns(db.get(), ds::table_name);
    ASSERT_EQ(table.size(), ds::row_field_index.size());
    for (const auto& [name, position] : ds::row_field_index) EXPECT_EQ(table[position], name);

    const auto baseline = columns(db.get(), ds::table_baseline);
    ASSERT_EQ(baseline.size(), ds::baseline_field_index.size());
    for (const auto& [name, position] : ds::baseline_field_index)
        EXPECT_EQ(baseline[position], name);

    // The view writes "Version", but SQL matches names without regard to
    // case: it exposes the table's columns, in the table's order.
    EXPECT_EQ(columns(db.get(), ds::table_view), table);
}

TEST_F(SchemaTest, TheViewReadsTheTablesVersionColumn) {
    create_schema();
    ASSERT_EQ(connection->issueCommand(("INSERT INTO " + ds::table_name +
                                        " (Provider, Hostname, version, Unique_timestamp) VALUES "
                                        "('uname', 'node1', 42, 7);")
                                           .c_str()),
              0)
        << connection->lastError();
    Database db = open_database(path);
    ASSERT_NE(db, nullptr);
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db.get(), "SELECT Version, Provider FROM vesk_1", -1, &stmt,
                                 nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(stmt, 0), 42);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)), "uname");
    EXPECT_EQ(sqlite3_step(stmt), SQLITE_DONE);
    sqlite3_finalize(stmt);
}

TEST(SchemaStatements, LengthsAndNames) {
    EXPECT_EQ(ds::default_create_table_query.size(), 311u);
    EXPECT_EQ(ds::default_create_baseline_query.size(), 178u);
    EXPECT_EQ(ds::default_create_view_query.size(), 211u);
    // The table names run straight into the column list.
    EXPECT_EQ(ds::default_create_table_query.find("provider_datastore(rowid"), 27u);
    EXPECT_EQ(ds::default_create_baseline_query.find("baseline_datastore(rowid"), 27u);
    EXPECT_NE(ds::default_create_view_query.find(" from provider_datastore;"), std::string::npos);
}

}  // namespace
