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

namespace vesk::tool {

namespace {

struct CloseDb {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct Finalize {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Db = std::unique_ptr<sqlite3, CloseDb>;
using Stmt = std::unique_ptr<sqlite3_stmt, Finalize>;

// How long a writer may wait for another one: as the extension's default.
constexpr int kBusyTimeoutMs = 5000;
// Attempts of one batch while other processes keep the file locked.
constexpr int kBusyAttempts = 20;

class Pruner {
public:
    explicit Pruner(const std::string& file) : file_(file) {
        sqlite3* raw = nullptr;
        const int rc = sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
        db_.reset(raw);
        if (rc != SQLITE_OK) fail("cannot open", raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
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
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &raw, nullptr) != SQLITE_OK)
            fail("cannot prepare a statement for", sqlite3_errmsg(db_.get()));
        return Stmt(raw);
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

// Binds the host and its cutoff to ?1 and ?2 where the statement has them.
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
    for (const auto& config : selected_configs(global))
        if (config.instance_name == target) file = datastore_file(config);
    if (file.empty())
        throw ToolError(kExitError,
                        "prune works on SQLite datastore files; \"" + target + "\" is none");
    const bool dry_run = options.dry_run || (!options.yes && ::isatty(STDOUT_FILENO) == 1);

    Pruner pruner(file);
    const std::string table = vesk::datastore::table_name;
    // The rows that snapshots record, once, with a key for quick lookups.
    pruner.exec("CREATE TEMP TABLE keep_rows(id INTEGER PRIMARY KEY)");
    pruner.exec("INSERT OR IGNORE INTO temp.keep_rows SELECT datastore_rowid FROM " +
                vesk::datastore::table_baseline);

    // Each plan step: a host (or "" for all) and a run stamp below which its
    // rows go.
    std::map<std::string, int64_t> plan;
    std::string condition;
    if (options.keep_runs > 0) {
        plan = pruner.cutoffs(options.keep_runs);
        condition = "Hostname = ?1 AND Unique_timestamp < ?2";
    } else {
        plan[""] = now_microseconds() - options.older_than;
        condition = "?1 IS NOT NULL AND Unique_timestamp < ?2";
    }
    const std::string candidates = "FROM " + table + " WHERE " + condition +
                                   " AND rowid NOT IN (SELECT id FROM temp.keep_rows)";

    const auto started = std::chrono::steady_clock::now();
    int64_t removed = 0;
    int64_t kept = 0;
    Stmt count = pruner.prepare("SELECT COUNT(*) " + candidates);
    Stmt kept_count = pruner.prepare("SELECT COUNT(*) FROM " + table + " WHERE " + condition +
                                     " AND rowid IN (SELECT id FROM temp.keep_rows)");
    Stmt remove = pruner.prepare("DELETE FROM " + table + " WHERE rowid IN (SELECT rowid " +
                                 candidates + " LIMIT " + std::to_string(options.batch) + ")");
    Progress progress;
    for (const auto& [host, cutoff] : plan) {
        bind(kept_count.get(), host, cutoff);
        if (sqlite3_step(kept_count.get()) == SQLITE_ROW)
            kept += sqlite3_column_int64(kept_count.get(), 0);
        if (dry_run) {
            bind(count.get(), host, cutoff);
            if (sqlite3_step(count.get()) != SQLITE_ROW)
                pruner.fail("cannot count the rows of", sqlite3_errmsg(pruner.db()));
            removed += sqlite3_column_int64(count.get(), 0);
            continue;
        }
        // One short transaction per batch: others wait for one batch at most.
        for (;;) {
            bind(remove.get(), host, cutoff);
            int step = sqlite3_step(remove.get());
            // A batch is one transaction: when other processes hold the
            // file past the busy timeout, it is simply tried again.
            for (int attempt = 1;
                 (step == SQLITE_BUSY || step == SQLITE_LOCKED) && attempt < kBusyAttempts;
                 ++attempt) {
                ::usleep(100000);
                bind(remove.get(), host, cutoff);
                step = sqlite3_step(remove.get());
            }
            if (step != SQLITE_DONE)
                pruner.fail("cannot delete rows of", sqlite3_errmsg(pruner.db()));
            const int changed = sqlite3_changes(pruner.db());
            removed += changed;
            progress.show("prune: " + std::to_string(removed) + " rows removed");
            if (changed < int(options.batch)) break;
        }
    }
    progress.clear();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    // VACUUM refuses to run while any statement is open.
    count.reset();
    kept_count.reset();
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
