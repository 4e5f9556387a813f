#pragma once
// Helpers shared by the command units: opening the configured datastores,
// a progress line on a terminal, and name checks for values that end up
// inside SQL text.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "store.h"

namespace vesk::tool {

// The configuration named by --config (or the installed default), reduced
// to the --datastore names. Throws ToolError (exit 2).
std::vector<vesk::datastore::DataStoreConfig> selected_configs(const GlobalOptions& global);

// What a command does with the datastores: a reading command never creates
// one.
enum class Access { read, write };

// Opens the selected datastores. For Access::read, throws ToolError (exit
// 2, "no datastore at <file>") when an SQLite datastore's file is missing.
std::unique_ptr<Store> open_store(const GlobalOptions& global, Access access);

// The file of an SQLite datastore as its extension reads the parameters
// ("source", blanks and quotes removed, variables expanded); "" for other
// types and in-memory databases. `read_only`, when given, receives the
// "read_only" parameter.
std::string datastore_file(const vesk::datastore::DataStoreConfig& config,
                           bool* read_only = nullptr);

// The files of the datastores opened by open_store, for messages.
const std::vector<std::string>& opened_files();

// Sets HOME from the password database when it is unset or empty, so that
// "$HOME" in a datastore path never becomes the root folder. Leaves it
// unset when there is no home directory either (open_store then refuses).
void settle_home();

// Throws ToolError (exit 2) unless `value` is usable as a provider, host or
// snapshot name (see name_problem). The datastore places such names into
// SQL text as they stand.
void check_name(const std::string& what, const std::string& value, size_t max,
                const std::string& limit);

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

// A part of a command's answer: rows, and per row the datastore it came
// from and whether it is stale (both may be left empty).
struct RowPart {
    std::vector<vesk::datastore::Row> rows;
    std::vector<std::string> origin;
    std::vector<bool> stale;
};

// Extra columns of printed rows.
struct RowColumns {
    bool datastore = false;  // "datastore" first: the answer merges several
    bool stale = false;      // "stale" last: --latest marks old rows
};

// Hands the rows of a command to `sink` one part at a time, each part
// ordered by host, option, run and row number; called once per output pass.
using RowSource = std::function<void(const std::function<void(const RowPart&)>& sink)>;

// Prints the rows of `source` in the chosen format as a stream, one part at
// a time (a table reads the source twice: widths first); `show_output` adds
// the decoded outputs. Every format has the same columns: those of the
// provider table (a table leaves the two output texts to --show-output).
// An empty answer prints "[]" in JSON and the header in CSV, and "no rows
// found" on standard error unless `say_when_empty` is false. Returns kExitOk,
// or kExitNothing when empty.
int print_rows(const GlobalOptions& global, const RowSource& source, bool show_output,
               bool say_when_empty = true, RowColumns extra = {});

// Throws ToolError (exit 2) for a provider name or host name or pattern
// of `options` that a query cannot hold.
void check_row_options(const RowsOptions& options);

// The SQL that reads the rows of `providers` (at least one) that `options`
// keeps (the latest per provider, option and host when `latest`), ordered
// by provider, host, option and run, at most `limit` of them (0: all).
// `glob`: the datastore reads SQLite's GLOB (see row_conditions).
std::string row_query(const std::vector<std::string>& providers, const RowsOptions& options,
                      bool latest, size_t limit, bool glob = true);

// The providers a reading command asks for: those of `options` that are
// stored (naming the others on standard error, `reported` then true), or
// every queryable one.
std::vector<std::string> rows_providers(Store& store, const RowsOptions& options, bool& reported);

// Sorts one provider's rows by host, option, run and row number.
void sort_rows(std::vector<vesk::datastore::Row>& rows);

// Microseconds since the epoch, now.
int64_t now_microseconds();

}  // namespace vesk::tool
