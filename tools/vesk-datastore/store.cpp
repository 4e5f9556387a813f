#include "store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <libxml/tree.h>

#include "vesk/datastore/interface.h"
#include "vesk/datastore/operations.h"
#include "vesk/datastore/parameter_pack.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/log.h"
#include "vesk/str.h"

#include "errors.h"
#include "session.h"
#include "summary.h"
#include "validate.h"

namespace vesk::tool {

using vesk::datastore::DataStoreConfig;
using vesk::datastore::DataStoreExtension;
using vesk::datastore::DataStoreParseUtility;
using vesk::datastore::InsertRecord;
using vesk::datastore::ReadParameters;
using vesk::datastore::Row;
using vesk::datastore::SQLParameters;

namespace {

// Bulk insert: all rows or none.
constexpr uint16_t kBulkInsertOp = vesk::datastore::OP_BULK_INSERT;

// Statuses reported by execute_ioctl's callback, per visited datastore.
struct Outcome {
    std::string instance;
    int status;
};
std::vector<Outcome>* g_outcomes = nullptr;

void record_outcome(int status, uint16_t, std::weak_ptr<DataStoreExtension> instance, const void*,
                    const void*) {
    if (g_outcomes == nullptr) return;
    const auto locked = instance.lock();
    g_outcomes->push_back({locked ? locked->instance_name : std::string("?"), status});
}

// execute_ioctl with the statuses collected in `outcomes`.
bool run_ioctl(const std::vector<std::string>& names, uint16_t op, const void* in, void* out,
               std::vector<Outcome>& outcomes) {
    outcomes.clear();
    g_outcomes = &outcomes;
    const bool ok = vesk::datastore::execute_ioctl(names, op, in, out, nullptr, &record_outcome);
    g_outcomes = nullptr;
    return ok;
}

std::string describe(const std::vector<Outcome>& outcomes) {
    if (outcomes.empty()) return "no datastore answered";
    std::ostringstream text;
    for (size_t i = 0; i < outcomes.size(); ++i) {
        if (i) text << "; ";
        text << "datastore " << outcomes[i].instance << ": ";
        if (outcomes[i].status == DataStoreExtension::UNSUPPORTED_OPERATION)
            text << "not supported";
        else
            text << "failed (status " << outcomes[i].status << ")";
    }
    return text.str();
}

ToolError datastore_error(const std::string& what, const std::vector<Outcome>& outcomes) {
    return ToolError(kExitError, what + " failed: " + describe(outcomes), true);
}

// Captures what the library's error log writes to standard error while it
// lives, so that configuration problems become one message of ours.
class CerrCapture {
public:
    CerrCapture() : old_(std::cerr.rdbuf(text_.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(old_); }
    CerrCapture(const CerrCapture&) = delete;
    CerrCapture& operator=(const CerrCapture&) = delete;
    std::string text() const { return vesk::str::stripws(text_.str()); }

private:
    std::ostringstream text_;
    std::streambuf* old_;
};

// The last line of `text` (the library logs the cause last).
std::string last_line(const std::string& text) {
    const auto end = text.find_last_not_of('\n');
    if (end == std::string::npos) return "";
    const auto start = text.rfind('\n', end);
    return text.substr(start == std::string::npos ? 0 : start + 1,
                       end - (start == std::string::npos ? 0 : start + 1) + 1);
}

// While it lives, the library's error log writes level 3 and below to
// standard error (where CerrCapture takes it), whatever the settings.
class LogToCapture {
public:
    LogToCapture() : level_(vesk::log::LOG_LEVEL), output_(vesk::log::LOG_OUTPUT) {
        vesk::log::LOG_LEVEL = std::max(level_, 3);
        vesk::log::LOG_OUTPUT = 0;
    }
    ~LogToCapture() {
        vesk::log::LOG_LEVEL = level_;
        vesk::log::LOG_OUTPUT = output_;
    }
    LogToCapture(const LogToCapture&) = delete;
    LogToCapture& operator=(const LogToCapture&) = delete;

private:
    int level_;
    int output_;
};

}  // namespace

namespace {

// A text as an SQL literal: quotes doubled. Callers never pass a NUL byte.
std::string literal(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') out += '\'';
        out += c;
    }
    return out + "'";
}

}  // namespace

std::string default_config_path() {
    const std::filesystem::path path =
        DataStoreParseUtility::get_default_install_path() + "/etc/datastore/default_sqlite.xml";
    return path.lexically_normal().string();
}

std::vector<DataStoreConfig> read_config_file(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0)
        throw ToolError(kExitError,
                        "cannot read configuration file " + path + ": " + std::strerror(errno));
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        throw ToolError(kExitError, "cannot read configuration file " + path + ": Is a directory");

    // The library reads and checks every configuration document, and logs
    // why it refuses one (level 3) before it throws its fixed message: that
    // log line, captured here, is the cause the message starts with.
    LogToCapture log_settings;
    CerrCapture capture;
    std::vector<DataStoreConfig> configs;
    try {
        xmlNode* root = DataStoreParseUtility::read_config_document(path);
        if (std::strcmp(reinterpret_cast<const char*>(root->name), "configuration") == 0) {
            // A single datastore configuration file.
            DataStoreConfig config;
            DataStoreParseUtility::parse_xml(root, config);
            configs.push_back(config);
        } else {
            // A group file. The fallback marks "no entry at all"; messages
            // the walk logs mean it stopped at a bad entry.
            DataStoreConfig none;
            none.instance_name = "\x01no entry";
            configs = DataStoreParseUtility::parse_db_configs(root, none);
            const std::string logged = last_line(capture.text());
            if (!logged.empty()) throw ToolError(kExitError, logged + " in " + path);
            if (configs.size() == 1 && configs[0].instance_name == none.instance_name)
                throw ToolError(kExitError, "no datastore entry in " + path);
        }
    } catch (const ToolError&) {
        throw;
    } catch (const std::exception& e) {
        // "<cause> in <file> (<library's fixed text>)", the fixed text left
        // out where the cause already says it.
        const std::string logged = last_line(capture.text());
        const std::string what = e.what();
        if (logged.empty()) throw ToolError(kExitError, what + " in " + path);
        if (logged.find(what) != std::string::npos) throw ToolError(kExitError, logged);
        throw ToolError(kExitError, logged + " (" + what + ")");
    }
    DataStoreParseUtility::fillInVacantFields(configs);
    return configs;
}

Store::Store(std::vector<DataStoreConfig> configs)
    : controller_(vesk::datastore::DataStoreController::createDataStoreController()) {
    try {
        DataStoreParseUtility::insert_db_instance(configs);
    } catch (const std::exception& e) {
        throw ToolError(kExitError, std::string("cannot open datastore: ") + e.what(), true, true);
    }
    if (data_names().empty())
        throw ToolError(kExitError, "no datastore of source type \"data\" is configured");
}

Store::~Store() {
    try {
        DataStoreParseUtility::clear_db_vector();
    } catch (...) {
        // Closing at exit: nothing left to report to.
    }
}

std::vector<std::string> Store::data_names() const {
    std::vector<std::string> names;
    for (const auto& [config, instance] : DataStoreParseUtility::get_datastore_vector())
        if (config.source_types.test(vesk::datastore::data) && !instance.expired())
            names.push_back(config.instance_name);
    return names;
}

bool Store::is_sqlite(const std::string& name) const {
    for (const auto& entry : DataStoreParseUtility::get_datastore_vector())
        if (entry.first.instance_name == name) return entry.first.type == vesk::datastore::sqlite3;
    return true;
}

bool Store::is_odbc(const std::string& name) const {
    for (const auto& entry : DataStoreParseUtility::get_datastore_vector())
        if (entry.first.instance_name == name) return entry.first.type == vesk::datastore::odbc;
    return false;
}

namespace {

// The file of the SQLite datastore `name` and whether it was configured
// read-only; "" for other datastores.
std::string sqlite_file(const std::string& name, bool* read_only = nullptr) {
    for (const auto& entry : DataStoreParseUtility::get_datastore_vector())
        if (entry.first.instance_name == name) return datastore_file(entry.first, read_only);
    if (read_only != nullptr) *read_only = false;
    return "";
}

// `read(summary)` on the summary of the datastore `name`, brought up to
// date first; nothing when the datastore keeps none (another type,
// read-only, a file this process cannot write) or covered rows changed
// under the read. The caller then reads the rows.
template <typename Read>
auto from_summary(const std::string& name, Read&& read)
    -> std::optional<decltype(read(std::declval<SummaryFile&>()))> {
    bool read_only = false;
    const std::string file = sqlite_file(name, &read_only);
    if (file.empty() || read_only) return std::nullopt;
    auto summary = SummaryFile::fold(file, name);
    if (!summary) return std::nullopt;
    try {
        return read(*summary);
    } catch (const ToolError&) {
        return std::nullopt;
    }
}

// Rows after a summary's mark that a reader adds itself rather than wait
// for a fold: a rowid range of that many rows reads in a few milliseconds.
constexpr int64_t kSummaryLag = 20000;

}  // namespace

std::string Store::sqlite_path(const std::string& name) const { return sqlite_file(name); }

std::vector<StoredSummary> Store::summary() {
    std::map<std::pair<std::string, std::string>, StoredSummary> merged;
    for (const auto& name : data_names()) {
        auto summarised =
            from_summary(name, [](SummaryFile& summary) { return summary.per_provider_host(); });
        std::vector<StoredSummary> part =
            summarised ? std::move(*summarised) : std::vector<StoredSummary>();
        if (!summarised)
            // Per provider and host from the index on (Provider, Hostname,
            // OptionID, Unique_timestamp): it holds every column asked for,
            // so the table itself is never read. Text names only, as
            // provider_names() finds them.
            for (const auto& row : select_from(
                     name,
                     "SELECT Provider, Hostname, COUNT(*) AS Timestamp, MAX(Unique_timestamp) AS "
                     "Unique_timestamp FROM " +
                         vesk::datastore::table_name +
                         " WHERE Provider >= '' GROUP BY Provider, Hostname",
                     "reading what is stored"))
                part.push_back({row.Provider, row.Hostname, row.Timestamp, row.Unique_timestamp});
        for (const auto& s : part) {
            auto& entry = merged[{s.provider, s.host}];
            entry.provider = s.provider;
            entry.host = s.host;
            entry.rows += s.rows;
            entry.latest_run = std::max(entry.latest_run, s.latest_run);
        }
    }
    std::vector<StoredSummary> result;
    for (auto& [key, entry] : merged) result.push_back(entry);
    return result;
}

std::vector<GroupSummary> Store::group_summary(bool by_provider) {
    const std::string name = data_names().front();
    if (auto groups =
            from_summary(name, [&](SummaryFile& summary) { return summary.groups(by_provider); }))
        return std::move(*groups);
    // Grouped in the datastore: per provider and host from the index alone
    // (as summary() reads it), then per provider or per host, so that only
    // the groups travel. The counts ride in Row fields of their own type
    // (num_nodes: providers or hosts, Timestamp: rows).
    const std::string key = by_provider ? "Provider" : "Hostname";
    const auto rows = select_from(
        name,
        "SELECT " + key +
            ", COUNT(*) AS num_nodes, SUM(n) AS Timestamp, MAX(m) AS Unique_timestamp FROM "
            "(SELECT Provider, Hostname, COUNT(*) AS n, MAX(Unique_timestamp) AS m FROM " +
            vesk::datastore::table_name +
            " WHERE Provider >= '' GROUP BY Provider, Hostname) AS g GROUP BY " + key,
        "reading what is stored");
    std::vector<GroupSummary> groups;
    for (const auto& row : rows)
        groups.push_back({by_provider ? row.Provider : row.Hostname, row.num_nodes, row.Timestamp,
                          row.Unique_timestamp});
    return groups;
}

std::vector<RunSummary> Store::runs(const std::string& name, size_t limit) {
    if (auto runs = from_summary(name, [&](SummaryFile& summary) { return summary.runs(limit); }))
        return std::move(*runs);
    // Grouped on the index that starts with Unique_timestamp, newest first;
    // the counts travel in Row fields of their own type (rowid: rows,
    // num_nodes: hosts, Exit_status: failed rows, Timestamp: first start).
    const std::string query =
        "SELECT Unique_timestamp, MIN(Timestamp) AS Timestamp, COUNT(DISTINCT Hostname) AS "
        "num_nodes, COUNT(*) AS rowid, SUM(CASE WHEN Exit_status <> 0 THEN 1 ELSE 0 END) AS "
        "Exit_status FROM " +
        vesk::datastore::table_name + " GROUP BY Unique_timestamp ORDER BY Unique_timestamp DESC" +
        (limit > 0 ? " LIMIT " + std::to_string(limit) : std::string());
    std::vector<RunSummary> runs;
    for (const auto& row : select_from(name, query, "listing the runs"))
        runs.push_back(
            {row.Unique_timestamp, row.Timestamp, row.num_nodes, row.rowid, row.Exit_status});
    return runs;
}

std::map<std::string, int64_t> Store::host_latest_runs(const std::set<std::string>& hosts) {
    std::map<std::string, int64_t> latest;
    if (hosts.empty()) return latest;
    auto merge = [&](const std::string& host, int64_t run) {
        auto& known = latest[host];
        known = std::max(known, run);
    };
    // A file whose summary is current answers in one seek per host;
    // others seek the index on (Provider, Hostname, ...) once per provider
    // and host, never a walk over the table. The inner grouping follows
    // the index; only its answer (a row per provider and host) is grouped
    // again.
    std::vector<std::string> unsummarised;
    for (const auto& name : data_names()) {
        const std::string file = sqlite_file(name);
        bool answered = false;
        if (auto summary = file.empty() ? nullptr : SummaryFile::current(file, kSummaryLag)) {
            try {
                for (const auto& [host, run] : summary->host_latest_runs(hosts)) merge(host, run);
                answered = true;
            } catch (const ToolError&) {
                // Covered rows changed under the read: the index answers.
            }
        }
        if (!answered) unsummarised.push_back(name);
    }
    if (unsummarised.empty()) return latest;
    std::string provider_list;
    for (const auto& p : provider_names())
        provider_list += (provider_list.empty() ? "" : ",") + literal(p);
    if (provider_list.empty()) return latest;
    std::string host_list;
    for (const auto& h : hosts) host_list += (host_list.empty() ? "" : ",") + literal(h);
    for (const auto& name : unsummarised)
        for (const auto& row : select_from(
                 name,
                 "SELECT Hostname, MAX(m) AS Unique_timestamp FROM (SELECT Provider, Hostname, "
                 "MAX(Unique_timestamp) AS m FROM " +
                     vesk::datastore::table_name + " WHERE Provider IN (" + provider_list +
                     ") AND Hostname IN (" + host_list + ") GROUP BY Provider, Hostname) AS g " +
                     "GROUP BY Hostname",
                 "reading the hosts' latest runs"))
            merge(row.Hostname, row.Unique_timestamp);
    return latest;
}

std::vector<Row> Store::select_from(const std::string& name, const std::string& query,
                                    const std::string& what) {
    std::vector<Row> rows;
    SQLParameters sql{"", query, vesk::datastore::row_field_index};
    ReadParameters request;
    request.sql = &sql;
    std::vector<Outcome> outcomes;
    if (!run_ioctl({name}, vesk::datastore::OP_SELECT_PROVIDER, &request, &rows, outcomes))
        throw datastore_error(what, outcomes);
    return rows;
}

std::vector<Row> Store::select_all(const std::string& query, const std::string& what) {
    std::vector<Row> rows;
    for (const auto& name : data_names()) {
        auto part = select_from(name, query, what);
        rows.insert(rows.end(), std::make_move_iterator(part.begin()),
                    std::make_move_iterator(part.end()));
    }
    return rows;
}

std::string Store::write_target() const {
    const auto names = data_names();
    if (names.size() == 1) return names.front();
    std::string list;
    for (const auto& name : names) list += (list.empty() ? "" : ", ") + name;
    throw ToolError(kExitError, "several datastores are selected (" + list +
                                    "): name the one to write to with --datastore NAME");
}

namespace {

// Distinct providers one statement finds: each step is one seek.
constexpr int kProviderSteps = 32;

// The next kProviderSteps distinct provider names after `after` (from the
// first when `first`), as a chain of common table expressions: each takes
// the least name above the one before, a seek on the index that starts
// with Provider, so one statement walks kProviderSteps names without
// touching the other entries. A missing name reads as NULL and ends the
// chain. Plain SQL, without recursion (the SQLite extension refuses it).
std::string provider_steps_query(const std::string& after, bool first) {
    const std::string& table = vesk::datastore::table_name;
    std::string with = "WITH s0(v) AS (SELECT MIN(Provider) FROM " + table + " WHERE Provider " +
                       (first ? ">= " : "> ") + literal(after) + ")";
    // num_nodes tells NULL (1: no further name) from an empty name.
    std::string select =
        "SELECT v AS Provider, CASE WHEN v IS NULL THEN 1 ELSE 0 END AS num_nodes FROM s0";
    for (int i = 1; i < kProviderSteps; ++i) {
        const std::string n = std::to_string(i);
        const std::string before = "s" + std::to_string(i - 1);
        with += ", s" + n + "(v) AS (SELECT MIN(Provider) FROM " + table +
                " WHERE Provider > (SELECT v FROM " + before + "))";
        select += " UNION ALL SELECT v, CASE WHEN v IS NULL THEN 1 ELSE 0 END FROM s" + n;
    }
    return with + " " + select;
}

}  // namespace

std::vector<std::string> Store::provider_names() {
    if (provider_names_) return *provider_names_;
    // A skip-scan on the index that starts with Provider: one seek per
    // provider instead of a walk over every row's entry, kProviderSteps
    // seeks per statement.
    std::set<std::string> names;
    for (const auto& name : data_names()) {
        std::string after;
        bool first = true;
        for (bool more = true; more;) {
            const auto rows = select_from(name, provider_steps_query(after, first),
                                          "reading the stored providers");
            first = false;
            // A NULL step (num_nodes 1) lies past the last name.
            more = rows.size() == static_cast<size_t>(kProviderSteps);
            for (const auto& row : rows) {
                if (row.num_nodes != 0) {
                    more = false;
                    continue;
                }
                if (row.Provider > after) after = row.Provider;
                names.insert(row.Provider);
            }
        }
    }
    provider_names_.emplace(names.begin(), names.end());
    return *provider_names_;
}

bool Store::has_provider(const std::string& provider) {
    for (const auto& name : data_names())
        if (!select_from(name,
                         "SELECT Provider FROM " + vesk::datastore::table_name +
                             " WHERE Provider = " + literal(provider) + " LIMIT 1",
                         "looking up provider \"" + provider + "\"")
                 .empty())
            return true;
    return false;
}

std::vector<std::string> Store::queryable_provider_names() {
    std::vector<std::string> names;
    for (auto& name : provider_names()) {
        const std::string problem = name_problem(name, name.size(), "its own size");
        if (problem.empty()) {
            names.push_back(std::move(name));
        } else if (warned_.insert(name).second) {
            diag() << "vesk-datastore: warning: skipping the rows of provider \"" << name
                   << "\": the name " << problem << ", and the datastore's queries cannot "
                   << "name it\n";
        }
    }
    return names;
}

int64_t Store::last_rowid() {
    // Aliased to the row's columns so that the extension maps it onto Row.
    SQLParameters sql{"", "SELECT MAX(rowid) AS rowid FROM " + vesk::datastore::table_name,
                      vesk::datastore::row_field_index};
    ReadParameters request;
    request.sql = &sql;
    std::vector<Row> rows;
    std::vector<Outcome> outcomes;
    if (!run_ioctl(data_names(), vesk::datastore::OP_SELECT_PROVIDER, &request, &rows, outcomes))
        throw datastore_error("reading the last row number", outcomes);
    int64_t last = 0;
    for (const auto& row : rows) last = std::max<int64_t>(last, row.rowid);
    return last;
}

std::vector<Row> Store::rows_with_keys(const std::set<RowKey>& keys, int64_t max_rowid) {
    std::vector<Row> found;
    if (keys.empty() || max_rowid <= 0) return found;
    // The keys form a VALUES table joined to the provider table: SQLite
    // looks each one up in the index on (Provider, Hostname, OptionID,
    // Unique_timestamp) instead of scanning the table.
    std::string query =
        "SELECT p.rowid AS rowid, p.Provider AS Provider, p.Hostname AS Hostname, "
        "p.OptionID AS OptionID, p.Unique_timestamp AS Unique_timestamp FROM (VALUES ";
    bool first = true;
    for (const auto& [provider, host, option, run] : keys) {
        query += first ? "(" : ",(";
        query += literal(provider) + "," + literal(host) + "," + literal(option) + "," +
                 std::to_string(run) + ")";
        first = false;
    }
    query += ") AS k JOIN " + vesk::datastore::table_name +
             " AS p ON p.Provider = k.column1 AND p.Hostname = k.column2 AND p.OptionID = "
             "k.column3 AND p.Unique_timestamp = k.column4 WHERE p.rowid <= " +
             std::to_string(max_rowid);
    SQLParameters sql{"", query, vesk::datastore::row_field_index};
    ReadParameters request;
    request.sql = &sql;
    std::vector<Outcome> outcomes;
    if (!run_ioctl(data_names(), vesk::datastore::OP_SELECT_PROVIDER, &request, &found, outcomes))
        throw datastore_error("looking up rows already stored", outcomes);
    return found;
}

std::set<Store::RowKey> Store::stored_keys(const std::vector<InsertRecord>& records,
                                           int64_t max_rowid) {
    std::set<RowKey> wanted;
    for (const auto& r : records)
        wanted.emplace(r.header.provider, r.header.hostname, r.option_id,
                       r.header.unique_timestamp);
    std::set<RowKey> found;
    for (auto& row : rows_with_keys(wanted, max_rowid))
        found.emplace(std::move(row.Provider), std::move(row.Hostname), std::move(row.OptionID),
                      row.Unique_timestamp);
    return found;
}

int64_t Store::last_run() {
    int64_t last = 0;
    for (const auto& row : select_all(
             "SELECT MAX(Unique_timestamp) AS Unique_timestamp FROM " + vesk::datastore::table_name,
             "reading the latest run"))
        last = std::max(last, row.Unique_timestamp);
    return last;
}

void Store::insert(const std::vector<InsertRecord>& records) {
    if (records.empty()) return;
    provider_names_.reset();
    const std::vector<std::string> names{write_target()};
    std::vector<Outcome> outcomes;
    if (bulk_supported_) {
        if (run_ioctl(names, kBulkInsertOp, &records, nullptr, outcomes)) return;
        const bool all_unsupported =
            !outcomes.empty() &&
            std::all_of(outcomes.begin(), outcomes.end(), [](const Outcome& o) {
                return o.status == DataStoreExtension::UNSUPPORTED_OPERATION;
            });
        if (!all_unsupported) throw datastore_error("storing rows", outcomes);
        bulk_supported_ = false;
    }
    // One row at a time: the record travels in `out` for the insert code.
    for (const auto& record : records) {
        InsertRecord copy = record;
        if (!run_ioctl(names, vesk::datastore::OP_INSERT, nullptr, &copy, outcomes))
            throw datastore_error("storing a row", outcomes);
    }
}

std::vector<Row> Store::latest_rows(const std::string& name,
                                    const std::vector<std::string>& providers) {
    std::vector<Row> rows;
    if (providers.empty()) return rows;
    ReadParameters request;
    request.first = providers;
    std::vector<Outcome> outcomes;
    if (!run_ioctl({name}, vesk::datastore::OP_LATEST_ROWS_PROVIDER, &request, &rows, outcomes))
        throw datastore_error("reading the latest rows per host", outcomes);
    return rows;
}

std::vector<Row> Store::latest_run_rows(const std::vector<std::string>& providers) {
    std::vector<Row> rows;
    if (providers.empty()) return rows;
    ReadParameters request;
    request.first = providers;
    std::vector<Outcome> outcomes;
    if (!run_ioctl(data_names(), vesk::datastore::OP_LATEST_COLLECT_ROWS, &request, &rows,
                   outcomes))
        throw datastore_error("reading the latest run", outcomes);
    return rows;
}

vesk::datastore::SnapshotInfoSet Store::snapshots() {
    // Each datastore is asked itself: the library's listing stops at the
    // first one that knows a snapshot, which would hide those of the
    // others. A name known to several gets the newest run of them.
    vesk::datastore::SnapshotInfoSet known;
    for (const auto& name : data_names()) {
        vesk::datastore::SnapshotInfoSet part;
        std::vector<Outcome> outcomes;
        if (!run_ioctl({name}, vesk::datastore::OP_QUERY_BASELINE_IDS, nullptr, &part, outcomes))
            throw datastore_error("listing snapshots", outcomes);
        for (const auto& info : part) {
            auto found = known.find(info);
            if (found == known.end()) {
                known.insert(info);
            } else if (found->latest_unique_timestamp < info.latest_unique_timestamp) {
                known.erase(found);
                known.insert(info);
            }
        }
    }
    return known;
}

std::vector<Row> Store::snapshot_rows(const std::string& name, const std::string& snapshot,
                                      const std::vector<std::string>& providers) {
    std::vector<Row> rows;
    if (providers.empty()) return rows;
    // The library's own walk stops at the first datastore that answers,
    // whether the snapshot lives there or not: this one is asked itself.
    ReadParameters request;
    request.first = {snapshot};
    request.second = providers;
    std::map<std::string, std::vector<Row>> by_provider;
    std::map<std::string, std::vector<vesk::datastore::Row_baseline>> baselines;
    void* maps[2] = {&baselines, &by_provider};
    std::vector<Outcome> outcomes;
    if (!run_ioctl({name}, vesk::datastore::OP_SNAPSHOT_PROVIDER, &request, maps, outcomes))
        throw datastore_error("reading snapshot \"" + snapshot + "\"", outcomes);
    for (auto& [provider, list] : by_provider)
        rows.insert(rows.end(), std::make_move_iterator(list.begin()),
                    std::make_move_iterator(list.end()));
    return rows;
}

}  // namespace vesk::tool
