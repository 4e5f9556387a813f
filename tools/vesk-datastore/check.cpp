// The check command: SQLite's own integrity check of every configured
// SQLite datastore, read-only.
#include <algorithm>
#include <memory>
#include <unistd.h>

#include <sqlite3.h>

#include "commands.h"
#include "errors.h"
#include "session.h"
#include "sqlite_handles.h"

namespace vesk::tool {

namespace {

// SQLite's findings for `file` ("ok" alone when it is sound), or why the
// check could not run.
std::vector<std::string> integrity_check(const std::string& file) {
    int rc = SQLITE_OK;
    Db db = open_db(file, SQLITE_OPEN_READONLY, rc);
    if (rc != SQLITE_OK)
        return {std::string("cannot open: ") +
                (db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(rc))};
    sqlite3_busy_timeout(db.get(), 5000);
    Stmt stmt = prepare(db.get(), "PRAGMA integrity_check;");
    if (!stmt) return {sqlite3_errmsg(db.get())};
    std::vector<std::string> findings;
    int step;
    while ((step = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
        // One answer may hold several findings, one per line.
        std::string all = text ? text : "";
        for (size_t start = 0; start <= all.size();) {
            const size_t end = std::min(all.find('\n', start), all.size());
            if (end > start) findings.push_back(all.substr(start, end - start));
            start = end + 1;
        }
    }
    if (step != SQLITE_DONE) findings.emplace_back(sqlite3_errmsg(db.get()));
    return findings;
}

}  // namespace

int cmd_check(const GlobalOptions& global) {
    const auto configs = selected_configs(global);
    Table table{{"datastore", "file", "result"}, {}};
    Json list = Json::array();
    bool all_ok = true;
    size_t checked = 0;
    for (const auto& config : configs) {
        const std::string file = datastore_file(config);
        if (file.empty()) continue;
        ++checked;
        if (::access(file.c_str(), F_OK) != 0)
            throw ToolError(kExitError, "no datastore at " + file);
        const std::vector<std::string> findings = integrity_check(file);
        const bool ok = findings.size() == 1 && findings[0] == "ok";
        all_ok = all_ok && ok;
        for (const auto& finding : findings)
            table.rows.push_back({config.instance_name, file, finding});
        list.push_back({{"datastore", config.instance_name},
                        {"file", file},
                        {"ok", ok},
                        {"findings", findings}});
    }
    if (checked == 0) {
        for (const auto& config : configs)
            if (config.type == vesk::datastore::odbc)
                throw ToolError(kExitError,
                                "check works on SQLite datastore files; \"" + config.instance_name +
                                    "\" is an ODBC datastore, whose database server checks "
                                    "its own data");
        throw ToolError(kExitError, "no SQLite datastore is configured");
    }
    print_result(global.format, list, table);
    return all_ok ? kExitOk : kExitError;
}

}  // namespace vesk::tool
