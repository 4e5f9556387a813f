#pragma once
// The commands of vesk-datastore. Each returns its exit code (errors.h) or
// throws ToolError; results go to standard output, messages and progress to
// standard error.

#include <string>
#include <vector>

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
    std::vector<std::string> hosts;
    bool latest = false;
    bool show_output = false;
};

int cmd_collect(const GlobalOptions& global, const CollectOptions& options);
int cmd_import(const GlobalOptions& global, const std::string& file, size_t batch_size,
               bool allow_duplicates);
int cmd_export(const GlobalOptions& global, const RowsOptions& options);
int cmd_rows(const GlobalOptions& global, const RowsOptions& options);
int cmd_hosts(const GlobalOptions& global);
int cmd_providers(const GlobalOptions& global);
int cmd_snapshot_create(const GlobalOptions& global, const std::string& name);
int cmd_snapshot_list(const GlobalOptions& global);
int cmd_snapshot_show(const GlobalOptions& global, const std::string& name, bool show_output);
int cmd_snapshot_remove(const GlobalOptions& global, const std::string& name);
int cmd_snapshot_diff(const GlobalOptions& global, const std::string& name,
                      const std::string& other);
int cmd_sql(const std::string& sql_file, const std::string& database_file);
int cmd_config_show(const GlobalOptions& global);
int cmd_config_check(const GlobalOptions& global, const std::string& file);
// SQLite's integrity check of each selected SQLite datastore: kExitOk when
// all are sound, kExitError otherwise.
int cmd_check(const GlobalOptions& global);

}  // namespace vesk::tool
