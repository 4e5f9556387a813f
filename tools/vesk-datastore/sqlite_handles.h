// Owners of the SQLite handles that the tool's direct file commands (check,
// prune) use; a connection is closed after its statements are finalized.
#pragma once

#include <memory>

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

}  // namespace vesk::tool
