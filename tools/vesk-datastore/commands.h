#pragma once
// The commands of vesk-datastore. Each returns its exit code (errors.h) or
// throws ToolError; results go to standard output, messages and progress to
// standard error.

#include <string>
#include <vector>

#include "filter.h"
#include "output.h"

namespace vesk::tool {

// Options shared by every command.
struct GlobalOptions {
    std::string config_file;              // empty: the installed default configuration
    std::vector<std::string> datastores;  // restrict to these instance names
    bool verbose = false;
    Format format = Format::table;
};

struct CollectOptions {
    std::string provider_file;           // empty: the built-in set
    std::vector<std::string> providers;  // names to run (all when empty)
    std::vector<std::string> command;    // with one provider name: run this instead
    std::string option_id;               // for `command`
    double timeout = 0;                  // overrides every provider's timeout when > 0
    size_t jobs = 8;
};

struct RowsOptions {
    std::vector<std::string> providers;
    std::vector<std::string> hosts;  // names or globs; also in filter.hosts
    RowFilter filter;
    bool latest = false;
    bool show_output = false;
    size_t limit = 0;                                // 0: every row
    int64_t stale_after = int64_t(86400) * 1000000;  // --latest: stale behind the newest run
};

int cmd_collect(const GlobalOptions& global, const CollectOptions& options);
int cmd_import(const GlobalOptions& global, const std::string& file, size_t batch_size,
               bool allow_duplicates);
// Rows as JSON Lines; with `snapshots`, then one line per snapshot member.
int cmd_export(const GlobalOptions& global, const RowsOptions& options, bool snapshots);
int cmd_rows(const GlobalOptions& global, const RowsOptions& options);
int cmd_hosts(const GlobalOptions& global);
int cmd_providers(const GlobalOptions& global);
struct SnapshotCreateOptions {
    std::string name;
    int64_t run = 0;  // record this run exactly (0: the latest row per host)
    bool replace = false;
    int64_t stale_after = int64_t(86400) * 1000000;  // stale: behind the newest run by more
};

int cmd_snapshot_create(const GlobalOptions& global, const SnapshotCreateOptions& options);
int cmd_snapshot_list(const GlobalOptions& global);
int cmd_snapshot_show(const GlobalOptions& global, const std::string& name, bool show_output);
int cmd_snapshot_remove(const GlobalOptions& global, const std::string& name);
// How diff prints its answer.
enum class DiffMode { summary, stat, name_only, quiet, full };

struct DiffOptions {
    std::vector<std::string> snapshots;  // sides named by snapshot, first
    std::vector<int64_t> runs;           // sides named by run id, after them
    std::vector<std::string> ignore;     // providers left out
    bool use_ignore_file = true;         // also those of $HOME/.vesk/diff-ignore
    double duration_tolerance = -1;      // percent; < 0: durations are not compared
    DiffMode mode = DiffMode::summary;
};

// Compares two sides (snapshot, run, or the latest rows per host): kExitOk
// when equal, kExitNothing when something differs.
int cmd_diff(const GlobalOptions& global, const DiffOptions& options);

struct RunsOptions {
    size_t limit = 0;  // 0: every run
};

// The collection runs, newest first: id, start, hosts, rows, failed rows.
int cmd_runs(const GlobalOptions& global, const RunsOptions& options);
struct PruneOptions {
    size_t keep_runs = 0;    // keep each host's newest N runs
    int64_t older_than = 0;  // or remove runs older than this (microseconds)
    bool dry_run = false;    // count only (the default on a terminal)
    bool yes = false;        // remove even on a terminal
    bool compact = false;    // give the space back to the file system afterwards
    size_t batch = 5000;     // rows per transaction
};

// Removes old rows of the one selected datastore, never rows a snapshot
// records.
int cmd_prune(const GlobalOptions& global, const PruneOptions& options);

int cmd_sql(const std::string& sql_file, const std::string& database_file);
int cmd_config_show(const GlobalOptions& global);
int cmd_config_check(const GlobalOptions& global, const std::string& file);
// SQLite's integrity check of each selected SQLite datastore: kExitOk when
// all are sound, kExitError otherwise.
int cmd_check(const GlobalOptions& global);

}  // namespace vesk::tool
