// Owners of the SQLite handles that the tool's direct file commands (check,
// prune, the summary) use; a connection is closed after its statements are
// finalized.
#pragma once

#include <memory>
#include <string>

#include <sqlite3.h>

namespace vesk::tool {

struct CloseDb {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct Finalize {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Db = std::unique_ptr<sqlite3, CloseDb>;
using Stmt = std::unique_ptr<sqlite3_stmt, Finalize>;

// Opens `file` with `flags`; `rc` receives SQLite's answer. On failure the
// handle, when there is one, still gives the message.
inline Db open_db(const std::string& file, int flags, int& rc) {
    sqlite3* raw = nullptr;
    rc = sqlite3_open_v2(file.c_str(), &raw, flags, nullptr);
    return Db(raw);
}

// `sql` prepared on `db`; null when SQLite refuses it (its message is then
// on `db`).
inline Stmt prepare(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) return nullptr;
    return Stmt(raw);
}

}  // namespace vesk::tool
