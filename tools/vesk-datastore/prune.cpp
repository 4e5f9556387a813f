// prune: removes old rows, never those a snapshot records, in short
// transactions so that readers and writers alongside wait at most for one
// batch.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <unistd.h>

#include <sqlite3.h>

#include "vesk/datastore/vocabulary.h"

#include "commands.h"
#include "errors.h"
#include "session.h"
#include "sqlite_handles.h"
#include "summary.h"

namespace vesk::tool {

namespace {

// How long a writer may wait for another one: as the extension's default.
constexpr int kBusyTimeoutMs = 5000;
// Attempts of one batch while other processes keep the file locked.
constexpr int kBusyAttempts = 20;

class Pruner {
public:
    Pruner(const std::string& file, bool read_only) : file_(file) {
        int rc = SQLITE_OK;
        db_ = open_db(file, read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE, rc);
        if (rc != SQLITE_OK)
            fail("cannot open", db_ ? sqlite3_errmsg(db_.get()) : sqlite3_errstr(rc));
        sqlite3_busy_timeout(db_.get(), kBusyTimeoutMs);
    }

    [[noreturn]] void fail(const std::string& what, const std::string& reason) const {
        throw ToolError(kExitError, "prune: " + what + " " + file_ + ": " + reason);
    }

    void exec(const std::string& sql) {
        char* message = nullptr;
        if (sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            const std::string reason = message ? message : sqlite3_errmsg(db_.get());
            sqlite3_free(message);
            fail("cannot run \"" + sql.substr(0, 60) + "\" on", reason);
        }
    }

    Stmt prepare(const std::string& sql) {
        Stmt stmt = vesk::tool::prepare(db_.get(), sql);
        if (!stmt) fail("cannot prepare a statement for", sqlite3_errmsg(db_.get()));
        return stmt;
    }

    // The first column of the single-row answer of `sql`.
    int64_t number(const std::string& sql) {
        Stmt stmt = prepare(sql);
        const int step = sqlite3_step(stmt.get());
        if (step != SQLITE_ROW) fail("cannot read", sqlite3_errmsg(db_.get()));
        return sqlite3_column_int64(stmt.get(), 0);
    }

    // Per host, the oldest of its `keep` newest runs (hosts with fewer runs
    // keep everything and are left out).
    std::map<std::string, int64_t> cutoffs(size_t keep) {
        std::map<std::string, int64_t> result;
        Stmt stmt =
            prepare("SELECT Hostname, Unique_timestamp FROM " + vesk::datastore::table_name +
                    " GROUP BY Hostname, Unique_timestamp ORDER BY Hostname, "
                    "Unique_timestamp DESC");
        std::string host;
        size_t seen = 0;
        int step;
        while ((step = sqlite3_step(stmt.get())) == SQLITE_ROW) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
            const std::string name = text ? text : "";
            if (name != host) {
                host = name;
                seen = 0;
            }
            if (++seen == keep) result[host] = sqlite3_column_int64(stmt.get(), 1);
        }
        if (step != SQLITE_DONE) fail("cannot read the runs of", sqlite3_errmsg(db_.get()));
        return result;
    }

    sqlite3* db() { return db_.get(); }

private:
    std::string file_;
    Db db_;
};

// Binds a host and its cutoff to ?1 and ?2.
void bind(sqlite3_stmt* stmt, const std::string& host, int64_t cutoff) {
    sqlite3_reset(stmt);
    sqlite3_bind_text(stmt, 1, host.data(), int(host.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(stmt, 2, cutoff);
}

}  // namespace

int cmd_prune(const GlobalOptions& global, const PruneOptions& options) {
    if ((options.keep_runs > 0) == (options.older_than > 0))
        throw ToolError(kExitError, "prune needs one of --keep-runs N and --older-than AGE");
    auto store = open_store(global, Access::read);
    const std::string target = store->write_target();
    std::string file;
    bool read_only = false;
    for (const auto& config : selected_configs(global))
        if (config.instance_name == target) file = datastore_file(config, &read_only);
    if (file.empty())
        throw ToolError(kExitError,
                        "prune works on SQLite datastore files; \"" + target + "\" is none");
    const bool dry_run = options.dry_run || (!options.yes && ::isatty(STDOUT_FILENO) == 1);
    // The file is opened directly, past the extension that would refuse
    // the writes: a datastore configured read-only is only counted.
    if (read_only && !dry_run)
        throw ToolError(kExitError, "datastore " + target +
                                        " is read-only (read_only=true in its "
                                        "source_parameters): prune removes nothing from it; "
                                        "--dry-run counts what would go");

    Pruner pruner(file, read_only);
    const std::string table = vesk::datastore::table_name;
    // The rows that snapshots record, once, with a key for quick lookups.
    pruner.exec("CREATE TEMP TABLE keep_rows(id INTEGER PRIMARY KEY)");
    pruner.exec("INSERT OR IGNORE INTO temp.keep_rows SELECT datastore_rowid FROM " +
                vesk::datastore::table_baseline);

    // Which rows go: runs below each host's cutoff (a temporary table
    // looked up by host) or below one time; never a snapshot's row.
    std::string condition;
    if (options.keep_runs > 0) {
        pruner.exec("CREATE TEMP TABLE cut(host TEXT PRIMARY KEY, stamp INTEGER)");
        Stmt add = pruner.prepare("INSERT INTO temp.cut VALUES(?1, ?2)");
        for (const auto& [host, cutoff] : pruner.cutoffs(options.keep_runs)) {
            bind(add.get(), host, cutoff);
            if (sqlite3_step(add.get()) != SQLITE_DONE)
                pruner.fail("cannot note the cutoffs of", sqlite3_errmsg(pruner.db()));
        }
        condition = "Unique_timestamp < (SELECT stamp FROM temp.cut WHERE host = Hostname)";
    } else {
        condition = "Unique_timestamp < " + std::to_string(now_microseconds() - options.older_than);
    }
    const std::string candidates = condition + " AND rowid NOT IN (SELECT id FROM temp.keep_rows)";

    const auto started = std::chrono::steady_clock::now();
    int64_t removed = 0;
    int64_t kept = pruner.number("SELECT COUNT(*) FROM " + table + " WHERE " + condition +
                                 " AND rowid IN (SELECT id FROM temp.keep_rows)");
    // Batches walk the table once in row-number order: each ends where the
    // next one starts, so no batch scans what an earlier one has seen.
    Stmt batch_end = pruner.prepare("SELECT MAX(rowid) FROM (SELECT rowid FROM " + table +
                                    " WHERE rowid > ?1 AND " + candidates +
                                    " ORDER BY rowid LIMIT " + std::to_string(options.batch) + ")");
    Stmt remove = pruner.prepare("DELETE FROM " + table + " WHERE rowid > ?1 AND rowid <= ?2 AND " +
                                 candidates);
    // A statement is one transaction: when other processes hold the file
    // past the busy timeout, it is simply tried again.
    auto step = [&](sqlite3_stmt* stmt, int64_t first, int64_t last) {
        int rc = SQLITE_BUSY;
        for (int attempt = 0; (rc == SQLITE_BUSY || rc == SQLITE_LOCKED) && attempt < kBusyAttempts;
             ++attempt) {
            if (attempt > 0) ::usleep(100000);
            sqlite3_reset(stmt);
            sqlite3_bind_int64(stmt, 1, first);
            sqlite3_bind_int64(stmt, 2, last);
            rc = sqlite3_step(stmt);
        }
        return rc;
    };
    Progress progress;
    if (dry_run) {
        removed = pruner.number("SELECT COUNT(*) FROM " + table + " WHERE " + candidates);
    } else {
        int64_t last = 0;
        for (;;) {
            if (step(batch_end.get(), last, 0) != SQLITE_ROW)
                pruner.fail("cannot read the rows of", sqlite3_errmsg(pruner.db()));
            if (sqlite3_column_type(batch_end.get(), 0) == SQLITE_NULL) break;
            const int64_t end = sqlite3_column_int64(batch_end.get(), 0);
            if (step(remove.get(), last, end) != SQLITE_DONE)
                pruner.fail("cannot delete rows of", sqlite3_errmsg(pruner.db()));
            removed += sqlite3_changes(pruner.db());
            progress.show("prune: " + std::to_string(removed) + " rows removed");
            last = end;
        }
    }
    progress.clear();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    // VACUUM refuses to run while any statement is open.
    batch_end.reset();
    remove.reset();
    std::string compacted;
    if (!dry_run && options.compact) {
        // Incremental when the file was created for it, else a full rewrite.
        if (pruner.number("PRAGMA auto_vacuum") == 2) {
            pruner.exec("PRAGMA incremental_vacuum");
            compacted = "incremental_vacuum";
        } else {
            pruner.exec("VACUUM");
            compacted = "vacuum";
        }
    }
    // Removing rows dropped the summary's mark; built again here, so that
    // the next `hosts` or `runs` does not pay for it. When it cannot be
    // now, the next reader that can write builds it.
    if (!dry_run && removed > 0 &&
        pruner.number("SELECT COUNT(*) FROM sqlite_master WHERE "
                      "name = 'vesk_summary_mark'") > 0)
        (void)SummaryFile::fold(file, target);
    const int64_t rate = seconds > 0 ? int64_t(double(removed) / seconds) : 0;
    if (global.format == Format::json) {
        print_json(std::cout, Json{{"datastore", target},
                                   {"dry_run", dry_run},
                                   {"rows", removed},
                                   {"kept_for_snapshots", kept},
                                   {"seconds", seconds},
                                   {"rows_per_second", rate},
                                   {"compacted", compacted}});
    } else if (global.format == Format::csv) {
        print_csv(std::cout, Table{{"datastore", "dry_run", "rows", "kept_for_snapshots", "seconds",
                                    "rows_per_second", "compacted"},
                                   {{target, dry_run ? "true" : "false", std::to_string(removed),
                                     std::to_string(kept), format_seconds(seconds),
                                     std::to_string(rate), compacted}}});
    } else if (dry_run) {
        std::cout << "would remove " << removed << " rows from datastore " << target << "; keeps "
                  << kept << " old rows that snapshots record (a dry run: --yes removes them)\n";
    } else {
        std::cout << "removed " << removed << " rows from datastore " << target << " in "
                  << format_seconds(seconds) << " s (" << rate << " rows/s); kept " << kept
                  << " old rows that snapshots record"
                  << (compacted.empty() ? "" : "; compacted (" + compacted + ")") << "\n";
    }
    return kExitOk;
}

}  // namespace vesk::tool
