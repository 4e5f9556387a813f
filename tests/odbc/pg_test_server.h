#pragma once
// The test server started by the ctest fixture (tests/odbc/pg-server): its
// connection string, a database of one's own, and plain statement runners.

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "odbc_connection.h"

namespace vesk::test {

// The connection string of the server whose pg-server state folder is
// `state`; empty with `why` set when there is none.
inline std::string pg_state_connection_string(const std::string& state, std::string& why) {
    if (std::ifstream unavailable(state + "/unavailable"); unavailable) {
        std::getline(unavailable, why);
        return "";
    }
    std::string line;
    if (std::getline(std::ifstream(state + "/connection-string"), line) && !line.empty())
        return line;
    why = "no connection string in " + state + " (did the fixture start?)";
    return "";
}

// The fixture's connection string; empty with `why` set when there is none.
// The fixture's state folder is the parent of ODBCSYSINI (see CMakeLists.txt).
inline std::string pg_connection_string(std::string& why) {
    const char* sysini = std::getenv("ODBCSYSINI");
    const std::string path = sysini ? sysini : "", suffix = "/odbcsysini";
    if (path.size() > suffix.size() &&
        path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0)
        return pg_state_connection_string(path.substr(0, path.size() - suffix.size()), why);
    why =
        "ODBCSYSINI does not name the fixture's folder: run the test through ctest, whose "
        "fixture starts the server";
    return "";
}

// The connection string with another database.
inline std::string with_database(std::string conn, const std::string& database) {
    const std::string from = "Database=postgres;";
    const auto at = conn.find(from);
    if (at != std::string::npos) conn.replace(at, from.size(), "Database=" + database + ";");
    return conn;
}

// Makes database `database` new and empty (dropped first when it exists,
// with its connections); false with `error` set on failure.
inline bool fresh_database(const std::string& admin_connection, const std::string& database,
                           std::string& error) {
    datastore::sql::Error connect_error;
    auto c = datastore::odbc_backend::OdbcConnection::connect(admin_connection, {}, connect_error);
    if (!c) {
        error = "cannot connect: " + connect_error.message;
        return false;
    }
    for (const std::string& sql : {"DROP DATABASE IF EXISTS " + database + " WITH (FORCE);",
                                   "CREATE DATABASE " + database + ";"}) {
        auto s = c->prepare(sql);
        if (!s || s->step() != datastore::sql::StepResult::done) {
            error = sql + ": " + c->last_error().message;
            return false;
        }
    }
    return true;
}

inline bool running_in_ci() {
    const char* ci = std::getenv("CI");
    return ci != nullptr && std::string(ci) == "true";
}

// Runs `sql` to its end, failing the test on error.
inline void exec(datastore::sql::Connection& c, const std::string& sql) {
    auto s = c.prepare(sql);
    ASSERT_NE(s, nullptr) << sql << ": " << c.last_error().message;
    datastore::sql::StepResult r;
    while ((r = s->step()) == datastore::sql::StepResult::row) {
    }
    ASSERT_EQ(r, datastore::sql::StepResult::done) << sql << ": " << c.last_error().message;
}

// The first column of the first row of `sql` as a number.
inline int64_t query_int(datastore::sql::Connection& c, const std::string& sql) {
    auto s = c.prepare(sql);
    if (!s || s->step() != datastore::sql::StepResult::row) {
        ADD_FAILURE() << sql << ": " << c.last_error().message;
        return -1;
    }
    return s->column_int64(0);
}

// A test fixture with `conn_string` set and `connection` open to the
// fixture's server.
class PgTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        use_server(pg_connection_string(why), why);
    }
    // Connects to the server of `conn`; skips, or fails under CI=true, when
    // `conn` is empty for the reason `why`.
    void use_server(const std::string& conn, const std::string& why) {
        conn_string = conn;
        if (conn_string.empty()) {
            if (running_in_ci()) FAIL() << "no PostgreSQL test server: " << why;
            GTEST_SKIP() << "no PostgreSQL test server: " << why;
        }
        connection = connect(conn_string);
        ASSERT_NE(connection, nullptr);
        prepare();
    }
    // The fixture's own set-up, once the server is reachable.
    virtual void prepare() {}

    static std::unique_ptr<datastore::odbc_backend::OdbcConnection> connect(
        const std::string& conn) {
        datastore::sql::Error error;
        auto c = datastore::odbc_backend::OdbcConnection::connect(conn, {}, error);
        EXPECT_NE(c, nullptr) << "cannot connect: " << error.message;
        if (c) c->set_require_utf8(true);
        return c;
    }

    // Database `name`, new and empty: its connection string ("" when it failed).
    std::string fresh(const std::string& name) {
        std::string error;
        if (fresh_database(conn_string, name, error)) return with_database(conn_string, name);
        ADD_FAILURE() << error;
        return "";
    }

    std::string conn_string;
    std::unique_ptr<datastore::odbc_backend::OdbcConnection> connection;
};

}  // namespace vesk::test
