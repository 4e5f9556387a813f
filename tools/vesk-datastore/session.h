#pragma once
// Helpers shared by the command units: opening the configured datastores,
// a progress line on a terminal, and name checks for values that end up
// inside SQL text.

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "store.h"

namespace vesk::tool {

// The configuration named by --config (or the installed default), reduced
// to the --datastore names. Throws ToolError (exit 2).
std::vector<vesk::datastore::DataStoreConfig> selected_configs(const GlobalOptions& global);

// Opens the selected datastores.
std::unique_ptr<Store> open_store(const GlobalOptions& global);

// Throws ToolError (exit 2) unless `value` is usable as a provider, host or
// snapshot name: no quote, no control character, not blank, at most `max`
// bytes. The datastore places such names into SQL text as they stand.
void check_name(const std::string& what, const std::string& value, size_t max);

// An SQL condition that keeps the rows of `hosts` (names that passed
// check_name), or "" (every row) when `hosts` is empty.
std::string hosts_filter(const std::vector<std::string>& hosts);

// One line of progress on standard error, redrawn in place; silent unless
// standard error is a terminal.
class Progress {
public:
    Progress();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Redraws the line (at most ten times a second unless `force`).
    void show(const std::string& text, bool force = false);
    // Erases the line.
    void clear();
    bool active() const { return tty_; }

private:
    bool tty_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_{};
};

// Prints rows in the chosen format, ordered by provider, host, option and
// run; `show_output` adds the decoded outputs. Returns kExitOk.
int print_rows(const GlobalOptions& global, std::vector<vesk::datastore::Row> rows,
               bool show_output);

// Microseconds since the epoch, now.
int64_t now_microseconds();

}  // namespace vesk::tool
