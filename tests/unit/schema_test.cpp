// The datastore schema: the three create statements run against a real
// SQLite file through tessdb1, and the tables they make match the column
// maps that rows are filled through.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "tessdb/tessdb.h"
#include "vesk/datastore/vocabulary.h"

#include "test_support.h"

namespace {

namespace ds = vesk::datastore;

// Column `column` of every row that `sql` answers, as text.
std::vector<std::string> texts(sqlite3* db, const std::string& sql, int column) {
    std::vector<std::string> out;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) return out;
    while (sqlite3_step(stmt) == SQLITE_ROW)
        if (const unsigned char* text = sqlite3_column_text(stmt, column))
            out.emplace_back(reinterpret_cast<const char*>(text));
    sqlite3_finalize(stmt);
    return out;
}

TEST(SchemaTest, StatementsRunTwiceAndTheViewReadsTheVersionColumn) {
    vesk::test::TempDir dir;
    const std::string path = dir.file("schema.db");
    tessdb1::Connection* raw = nullptr;
    ASSERT_EQ(tessdb1::newConnection(path.c_str(), 0, &raw), 0);
    std::unique_ptr<tessdb1::Connection> connection(raw);
    const std::string insert =
        "INSERT INTO " + ds::table_name + " (Provider, version) VALUES ('uname', 42);";
    for (const std::string* statement :
         {&ds::default_create_table_query, &ds::default_create_baseline_query,
          &ds::default_create_view_query, &ds::default_create_table_query,
          &ds::default_create_baseline_query, &ds::default_create_view_query, &insert})
        EXPECT_EQ(connection->issueCommand(statement->c_str()), 0)
            << *statement << ": " << connection->lastError();

    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> owner(db, sqlite3_close);
    const auto columns = [&](const std::string& table) {
        return texts(db, "PRAGMA table_info(" + table + ")", 1);
    };
    // Columns sit where the field maps expect them.
    const auto table = columns(ds::table_name), baseline = columns(ds::table_baseline);
    ASSERT_EQ(table.size(), ds::row_field_index.size());
    ASSERT_EQ(baseline.size(), ds::baseline_field_index.size());
    for (const auto& [name, position] : ds::row_field_index) EXPECT_EQ(table[position], name);
    for (const auto& [name, at] : ds::baseline_field_index) EXPECT_EQ(baseline[at], name);
    // The view writes "Version", but SQL matches names without regard to
    // case: it exposes the table's columns, in the table's order.
    EXPECT_EQ(columns(ds::table_view), table);
    EXPECT_EQ(texts(db, "SELECT Version || '/' || Provider FROM vesk_1", 0),
              std::vector<std::string>{"42/uname"});
}

}  // namespace
