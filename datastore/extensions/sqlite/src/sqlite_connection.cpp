// The statement seam over SQLite: thin calls of SQLite's C interface.
#include "sqlite_connection.h"

namespace vesk::datastore::sqlite_ext {
namespace {

class SqliteStatement final : public sql::Statement {
public:
    SqliteStatement(SqliteConnection& connection, sqlite3_stmt* stmt)
        : connection_(connection), stmt_(stmt) {}
    ~SqliteStatement() override { sqlite3_finalize(stmt_); }

    bool bind_text(int index, std::string_view value) override {
        // A null pointer would bind NULL, not an empty text.
        const char* data = value.data() != nullptr ? value.data() : "";
        return check(
            sqlite3_bind_text64(stmt_, index, data, value.size(), SQLITE_STATIC, SQLITE_UTF8));
    }
    bool bind_int64(int index, int64_t value) override {
        return check(sqlite3_bind_int64(stmt_, index, value));
    }
    bool bind_double(int index, double value) override {
        return check(sqlite3_bind_double(stmt_, index, value));
    }
    bool bind_null(int index) override { return check(sqlite3_bind_null(stmt_, index)); }

    sql::StepResult step() override {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return sql::StepResult::row;
        if (rc == SQLITE_DONE) return sql::StepResult::done;
        failed_ = true;
        connection_.fail(rc);
        return sql::StepResult::error;
    }
    bool reset() override {
        // sqlite3_reset repeats the failure of the last step: that one is
        // already recorded.
        const int rc = sqlite3_reset(stmt_);
        const bool stepped_badly = failed_;
        failed_ = false;
        if (rc == SQLITE_OK || stepped_badly) return true;
        connection_.fail(rc);
        return false;
    }

    int column_count() override { return sqlite3_column_count(stmt_); }
    std::string column_name(int i) override {
        const char* name = sqlite3_column_name(stmt_, i);
        return name ? name : "";
    }
    sql::ColumnType column_type(int i) override {
        switch (sqlite3_column_type(stmt_, i)) {
            case SQLITE_INTEGER:
                return sql::ColumnType::integer;
            case SQLITE_FLOAT:
                return sql::ColumnType::real;
            case SQLITE_NULL:
                return sql::ColumnType::null;
            default:
                return sql::ColumnType::text;
        }
    }
    bool column_text(int i, std::string& out) override {
        // sqlite3_column_text before sqlite3_column_bytes: the documented
        // order that keeps the pointer valid. Byte-exact, NULs included.
        const unsigned char* text = sqlite3_column_text(stmt_, i);
        if (text == nullptr) {
            out.clear();
            if (sqlite3_errcode(connection_.handle()) == SQLITE_NOMEM) {
                connection_.fail(SQLITE_NOMEM);
                return false;
            }
            return true;
        }
        out.assign(reinterpret_cast<const char*>(text),
                   static_cast<size_t>(sqlite3_column_bytes(stmt_, i)));
        return true;
    }
    int64_t column_int64(int i) override { return sqlite3_column_int64(stmt_, i); }
    double column_double(int i) override { return sqlite3_column_double(stmt_, i); }

private:
    bool check(int rc) {
        if (rc == SQLITE_OK) return true;
        connection_.fail(rc);
        return false;
    }

    SqliteConnection& connection_;
    sqlite3_stmt* stmt_;
    bool failed_ = false;
};

}  // namespace

std::unique_ptr<sql::Statement> wrap(SqliteConnection& connection, sqlite3_stmt* stmt) {
    try {
        return std::make_unique<SqliteStatement>(connection, stmt);
    } catch (...) {
        sqlite3_finalize(stmt);
        throw;
    }
}

SqliteConnection::~SqliteConnection() = default;

void SqliteConnection::fail(int rc) {
    error_.native_code = rc;
    error_.message = sqlite3_extended_errcode(db_) == rc ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
}

std::unique_ptr<sql::Statement> SqliteConnection::prepare(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    const int rc = sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()),
                                      SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_finalize(stmt);
        fail(rc);
        return nullptr;
    }
    return wrap(*this, stmt);
}

bool SqliteConnection::run_kept(std::unique_ptr<sql::Statement>& stmt, const char* sql) {
    if (!stmt && !(stmt = prepare(sql))) return false;
    const sql::StepResult r = stmt->step();
    const bool reset = stmt->reset();
    return r == sql::StepResult::done && reset;
}

bool SqliteConnection::begin() { return run_kept(begin_, "BEGIN IMMEDIATE;"); }
bool SqliteConnection::commit() { return run_kept(commit_, "COMMIT;"); }
bool SqliteConnection::rollback() {
    if (sqlite3_get_autocommit(db_)) return true;
    return run_kept(rollback_, "ROLLBACK;");
}

}  // namespace vesk::datastore::sqlite_ext
