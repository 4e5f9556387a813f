// SQL files run into SQLite databases, and test datastores opened from them.
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"
#include "vesk/datastore.h"

namespace {

using namespace vesk::datastore;
using vesk::test::ScopedEnv;
using vesk::test::TempDir;
using Utility = DataStoreParseUtility;

// Runs `sql` on `database` and returns the first column of every row, as text.
std::vector<std::string> query(const std::string& database, const std::string& sql) {
    ::sqlite3* raw = nullptr;
    if (sqlite3_open_v2(database.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(raw);
        throw std::runtime_error("cannot open " + database);
    }
    std::unique_ptr<::sqlite3, int (*)(::sqlite3*)> db(raw, sqlite3_close);
    std::vector<std::string> rows;
    char* error = nullptr;
    const auto collect = [](void* out, int, char** values, char**) {
        static_cast<std::vector<std::string>*>(out)->push_back(values[0] ? values[0] : "NULL");
        return 0;
    };
    if (sqlite3_exec(db.get(), sql.c_str(), collect, &rows, &error) != SQLITE_OK) {
        const std::string message = error ? error : "?";
        sqlite3_free(error);
        throw std::runtime_error(message);
    }
    return rows;
}

std::string message_of(const std::string& sql_file, const std::string& database) {
    try {
        Utility::create_from_sqlfile(sql_file, database);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no exception)";
}

class SqlFileTest : public ::testing::Test {
protected:
    TempDir dir_;
};

TEST_F(SqlFileTest, RunsOneStatementPerLineAndSkipsBlankLines) {
    const std::string sql = dir_.write(
        "fill.sql",
        "CREATE TABLE t(a INTEGER, b TEXT);\n"
        "\n"
        "   \t\n"
        "INSERT INTO t VALUES(1, 'one');\n"
        "INSERT INTO t VALUES(2, 'two'); INSERT INTO t VALUES(3, 'three');\n"
        "INSERT INTO t VALUES(4, 'no newline at the end');");
    const std::string db = dir_.file("fill.db");
    Utility::create_from_sqlfile(sql, db);
    EXPECT_EQ(query(db, "SELECT b FROM t ORDER BY a"),
              (std::vector<std::string>{"one", "two", "three", "no newline at the end"}));

    // Running it again appends to the same file: the table exists by then.
    EXPECT_EQ(message_of(sql, db), "SQL command error: CREATE TABLE t(a INTEGER, b TEXT);");
}

TEST_F(SqlFileTest, EmptyFileCreatesAnEmptyDatabase) {
    const std::string db = dir_.file("empty.db");
    Utility::create_from_sqlfile(dir_.write("empty.sql", ""), db);
    EXPECT_TRUE(std::filesystem::exists(db));
    EXPECT_EQ(query(db, "SELECT count(*) FROM sqlite_master"), std::vector<std::string>{"0"});
}

TEST_F(SqlFileTest, StatementOverTwoLinesFailsAtItsFirstLine) {
    const std::string sql = dir_.write("split.sql",
                                       "CREATE TABLE before(a INTEGER);\n"
                                       "CREATE TABLE t(a INTEGER,\n"
                                       "  b TEXT);\n"
                                       "CREATE TABLE after(a INTEGER);\n");
    const std::string db = dir_.file("split.db");
    EXPECT_EQ(message_of(sql, db), "SQL command error: CREATE TABLE t(a INTEGER,");
    // What ran before the failure stays; nothing after it runs.
    EXPECT_EQ(query(db, "SELECT name FROM sqlite_master ORDER BY name"),
              std::vector<std::string>{"before"});
}

TEST_F(SqlFileTest, MissingFilesAreNamedInTheMessage) {
    const std::string missing_sql = dir_.file("missing.sql");
    EXPECT_EQ(message_of(missing_sql, dir_.file("a.db")),
              "Unable to open sql file for reading " + missing_sql);

    // The database is opened first, so its failure wins over a missing SQL file.
    const std::string unopenable = dir_.file("no/such/folder/a.db");
    EXPECT_EQ(message_of(missing_sql, unopenable), "Unable to open datastore file " + unopenable);
    EXPECT_EQ(message_of(dir_.write("ok.sql", "SELECT 1;\n"), unopenable),
              "Unable to open datastore file " + unopenable);
}

// ---- test datastores ----

// The scripted test plugin stands in for libsqlite.so in a folder of its own,
// which VESK_DSE_PATH names.
class UtestDatastoreTest : public SqlFileTest {
protected:
    void SetUp() override {
        std::filesystem::create_directories(dse_dir());
        std::filesystem::create_symlink(vesk::test::kPluginDir + "/libscripted_plugin.so",
                                        dse_dir() + "/libsqlite.so");
        controller_ = DataStoreController::createDataStoreController();
    }
    void TearDown() override {
        Utility::clear_db_vector();
        controller_.reset();
    }
    std::string dse_dir() const { return dir_.file("dse"); }

    std::shared_ptr<DataStoreController> controller_;
};

TEST_F(UtestDatastoreTest, LoadsSqlFileAndRecordsTheDatastore) {
    ScopedEnv dse("VESK_DSE_PATH", dse_dir());
    const std::string sql = dir_.write("fill.sql", "CREATE TABLE t(a INTEGER);\n");
    const std::string db = dir_.file("test.db");
    Utility::load_utest_sql_file(sql, db, true, "ro", true);
    EXPECT_EQ(query(db, "SELECT name FROM sqlite_master"), std::vector<std::string>{"t"});
    Utility::load_utest_sql_file(sql, db, false, "rw", false);

    const auto recorded = Utility::get_datastore_vector();
    ASSERT_EQ(recorded.size(), 2u);
    const DataStoreConfig& ro = recorded[0].first;
    EXPECT_EQ(ro.instance_name, "ro");
    EXPECT_EQ(ro.source_parameters, "source=" + db + "|read_only=true");
    EXPECT_EQ(ro.extension_name, "libsqlite.so");
    EXPECT_EQ(ro.extension_path, dse_dir());
    EXPECT_EQ(ro.type, DatabaseType::sqlite3);
    EXPECT_EQ(ro.source_types, std::bitset<2>("01"));
    EXPECT_FALSE(recorded[0].second.expired());

    EXPECT_EQ(recorded[1].first.instance_name, "rw");
    EXPECT_EQ(recorded[1].first.source_parameters, "source=" + db + "|read_only=false");
    EXPECT_FALSE(recorded[1].second.expired());
}

TEST_F(UtestDatastoreTest, UnsetExtensionFolderFailsBeforeTouchingTheDatabase) {
    ScopedEnv dse("VESK_DSE_PATH", "");
    ::unsetenv("VESK_DSE_PATH");
    const std::string db = dir_.file("never.db");
    EXPECT_THROW(Utility::load_utest_sql_file(dir_.write("fill.sql", "SELECT 1;\n"), db, true,
                                              "x", false),
                 std::logic_error);
    EXPECT_FALSE(std::filesystem::exists(db));
    EXPECT_TRUE(Utility::db_vec.empty());
}

TEST_F(UtestDatastoreTest, LoadUtestConfigFillsOnRequest) {
    DataStoreConfig config;
    config.type = other;
    config.extension_name = "libscripted_plugin.so";
    config.extension_path = vesk::test::kPluginDir;
    config.source_parameters = "trace=" + dir_.file("trace.log");
    Utility::load_utest_config(config, true);
    const auto recorded = Utility::locate_datastores({"vesk_default"});
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0].first.source_types, std::bitset<2>("01"));
    EXPECT_FALSE(recorded[0].second.expired());
    EXPECT_EQ(vesk::test::read_file(dir_.file("trace.log")),
              "create\nopen vesk_default trace=" + dir_.file("trace.log") + "\n");
}

}  // namespace
