#include "tessdb/tessdb.h"

#include <string>

#include <sqlite3.h>

namespace tessdb1 {
namespace {

class SqliteConnection final : public Connection {
public:
    explicit SqliteConnection(::sqlite3* db) : db_(db) {}
    ~SqliteConnection() override { sqlite3_close_v2(db_); }

    int issueCommand(const char* sql) override {
        char* message = nullptr;
        const int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &message);
        error_ = message != nullptr ? message : (rc == SQLITE_OK ? "" : sqlite3_errstr(rc));
        sqlite3_free(message);
        return rc;
    }

    const char* lastError() const override { return error_.c_str(); }

private:
    ::sqlite3* db_;
    std::string error_;
};

}  // namespace

Connection::~Connection() = default;

int newConnection(const char* path, unsigned flags, Connection** out) {
    *out = nullptr;
    if (path == nullptr || flags != 0) return SQLITE_MISUSE;
    ::sqlite3* db = nullptr;
    const int rc = sqlite3_open_v2(path, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close_v2(db);
        return rc;
    }
    sqlite3_busy_timeout(db, 5000);
    try {
        *out = new SqliteConnection(db);
    } catch (...) {
        sqlite3_close_v2(db);
        return SQLITE_NOMEM;
    }
    return 0;
}

}  // namespace tessdb1
