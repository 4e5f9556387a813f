#pragma once
// The tool's view of the configured datastores. Everything goes through the
// library's public functions: configuration parsing, the datastore list,
// execute_ioctl and the query front end. One Store per process; it holds
// the controller for its whole life and closes the datastores at the end.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "vesk/datastore/controller.h"
#include "vesk/datastore/records.h"

namespace vesk::tool {

// The installed default configuration: <install path>/etc/datastore/default_sqlite.xml.
std::string default_config_path();

// Reads a group file, or a single datastore configuration file (root element
// "configuration"), and fills in the defaults. Throws ToolError (exit 2)
// with the file name and the library's message when the file is bad.
std::vector<vesk::datastore::DataStoreConfig> read_config_file(const std::string& path);

// Per provider and host: the number of rows and the latest run.
struct StoredSummary {
    std::string provider;
    std::string host;
    int64_t rows = 0;
    int64_t latest_run = 0;
};

// Per provider (or per host): the number of hosts (or providers), rows and
// the latest run.
struct GroupSummary {
    std::string name;
    int64_t others = 0;
    int64_t rows = 0;
    int64_t latest_run = 0;
};

// One collection run: its id (Unique_timestamp), the first start time of
// its rows, and its hosts, rows and failed rows.
struct RunSummary {
    int64_t run = 0;
    int64_t start = 0;
    int64_t hosts = 0;
    int64_t rows = 0;
    int64_t failed = 0;
};

class Store {
public:
    // Opens `configs` (all of them) and records them in the library's list.
    // Throws ToolError (exit 2) when one cannot be opened.
    explicit Store(std::vector<vesk::datastore::DataStoreConfig> configs);
    // Closes what was opened.
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Instance names of the open "data" datastores, in list order.
    std::vector<std::string> data_names() const;
    // True when the datastore `name` is a SQLite file (its SQL may use GLOB).
    bool is_sqlite(const std::string& name) const;
    // True when the datastore `name` is reached through ODBC (its texts hold
    // no NUL byte).
    bool is_odbc(const std::string& name) const;
    // The file of the SQLite datastore `name`; "" for other datastores.
    std::string sqlite_path(const std::string& name) const;

    // What is stored, per provider and host, merged over the "data"
    // datastores, ordered by provider and host. A writable SQLite file
    // answers from its running summary (see summary.h), others from their
    // rows. Throws ToolError (exit 2) when a datastore fails to answer.
    std::vector<StoredSummary> summary();
    // The same grouped per provider (`by_provider`) or per host, by the one
    // "data" datastore; callers with several use summary().
    std::vector<GroupSummary> group_summary(bool by_provider);
    // The collection runs of the "data" datastore `name`, newest first, at
    // most `limit` (0: all); from the summary as summary() reads it.
    std::vector<RunSummary> runs(const std::string& name, size_t limit);
    // Every stored provider name, sorted; read once, again after insert().
    std::vector<std::string> provider_names();
    // True when some "data" datastore holds a row of `provider`.
    bool has_provider(const std::string& provider);
    // The provider names that the library's queries can name: a stored name
    // they would refuse or misread (a quote, blanks around it) is left out,
    // with one warning on standard error naming it.
    std::vector<std::string> queryable_provider_names();
    // The greatest Unique_timestamp stored (0 when nothing is).
    int64_t last_run();
    // The greatest row number stored (0 when nothing is).
    int64_t last_rowid();

    // (Provider, Hostname, OptionID, Unique_timestamp) of a row.
    using RowKey = std::tuple<std::string, std::string, std::string, int64_t>;
    // The keys of `records` already stored in a row numbered at most
    // `max_rowid`: one read that walks the provider table's index on these
    // four columns. Throws ToolError (exit 2) when no datastore answers.
    std::set<RowKey> stored_keys(const std::vector<vesk::datastore::InsertRecord>& records,
                                 int64_t max_rowid);

    // The stored rows (rowid and key columns only) whose keys are among
    // `keys`, numbered at most `max_rowid`: one indexed read.
    std::vector<vesk::datastore::Row> rows_with_keys(const std::set<RowKey>& keys,
                                                     int64_t max_rowid);

    // Stores `records` in the first "data" datastore that accepts them:
    // the bulk-insert code when the datastore has it, one insert per row
    // otherwise. Throws ToolError (exit 2) when no datastore accepts them.
    void insert(const std::vector<vesk::datastore::InsertRecord>& records);

    // The latest row per provider, option and host of `providers` in the
    // "data" datastore `name` (the library's latest-rows query). Throws
    // ToolError (exit 2) when it fails.
    std::vector<vesk::datastore::Row> latest_rows(const std::string& name,
                                                  const std::vector<std::string>& providers);

    // The rows of the newest collection run of `providers` (operation 519).
    std::vector<vesk::datastore::Row> latest_run_rows(const std::vector<std::string>& providers);

    // Known snapshots (ids and their newest run), merged over the "data"
    // datastores, each asked itself. Throws ToolError (exit 2) when a
    // datastore fails; an empty set means there are none.
    vesk::datastore::SnapshotInfoSet snapshots();

    // The rows that snapshot `snapshot` records in the "data" datastore
    // `name`, of `providers` (the library's snapshot query). Throws
    // ToolError (exit 2) when it fails.
    std::vector<vesk::datastore::Row> snapshot_rows(const std::string& name,
                                                    const std::string& snapshot,
                                                    const std::vector<std::string>& providers);

    // The rows of `query` (SQL on the provider table, columns named like
    // its own) from the "data" datastore `name`. Throws ToolError (exit 2)
    // naming `what` and the datastore when it fails: a failed read never
    // passes for an empty one.
    std::vector<vesk::datastore::Row> select_from(const std::string& name, const std::string& query,
                                                  const std::string& what);
    // The same from every "data" datastore, one answer after the other.
    std::vector<vesk::datastore::Row> select_all(const std::string& query, const std::string& what);

    // The one "data" datastore a writing command writes to. Throws
    // ToolError (exit 2) when several are selected: the target must be
    // named with --datastore.
    std::string write_target() const;

    // Per host of `hosts`, its newest run (Unique_timestamp), merged over
    // the "data" datastores.
    std::map<std::string, int64_t> host_latest_runs(const std::set<std::string>& hosts);

private:
    std::shared_ptr<vesk::datastore::DataStoreController> controller_;
    bool bulk_supported_ = true;
    std::set<std::string> warned_;  // skipped provider names already reported
    // provider_names() as last read; insert() forgets it.
    std::optional<std::vector<std::string>> provider_names_;
};

}  // namespace vesk::tool
