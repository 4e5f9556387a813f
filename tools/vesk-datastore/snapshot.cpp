// The snapshot commands: create, list, show, remove and diff.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sys/stat.h>
#include <tuple>

#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"
#include "vesk/datastore/vocabulary.h"

#include "codec.h"
#include "commands.h"
#include "errors.h"
#include "filter.h"
#include "session.h"
#include "textdiff.h"
#include "validate.h"

namespace vesk::tool {

using vesk::datastore::DataStoreParseUtility;
using vesk::datastore::Row;

namespace {

bool has_snapshot(const vesk::datastore::SnapshotInfoSet& known, const std::string& name) {
    return known.count(vesk::datastore::SnapshotInfo{name, 0}) > 0;
}

// A missing snapshot is an error, never "a difference".
ToolError no_snapshot(const std::string& name) {
    return ToolError(kExitError, "no snapshot named \"" + name +
                                     "\" (`vesk-datastore snapshot list` shows the snapshots)");
}

void require_snapshot(Store& store, const std::string& name) {
    if (!has_snapshot(store.snapshots(), name)) throw no_snapshot(name);
}

}  // namespace

int cmd_snapshot_create(const GlobalOptions& global, const SnapshotCreateOptions& options) {
    const std::string& name = options.name;
    check_name("snapshot name", name, kMaxSnapshotNameSize, "the snapshot name limit");
    auto store = open_store(global, Access::read);
    const std::string target = store->write_target();
    const bool exists = has_snapshot(store->snapshots(), name);
    if (exists && !options.replace)
        throw ToolError(kExitError,
                        "snapshot \"" + name + "\" exists already (--replace records it anew)");

    const auto names = store->queryable_provider_names();
    std::vector<Row> rows;
    if (options.run != 0) {
        // One collection run exactly, on every host that took part.
        const std::set<std::string> queryable(names.begin(), names.end());
        for (auto& row :
             store->select_from(target,
                                "SELECT * FROM " + vesk::datastore::table_name +
                                    " WHERE Unique_timestamp = " + std::to_string(options.run),
                                "reading run " + std::to_string(options.run)))
            if (queryable.count(row.Provider)) rows.push_back(std::move(row));
        if (rows.empty())
            throw ToolError(kExitError, "no rows of run " + std::to_string(options.run) +
                                            " (`vesk-datastore runs` lists the runs)");
    } else {
        // Every host has its own run stamp: the latest row per provider,
        // option and host, whatever run it belongs to.
        rows = store->latest_rows(target, names);
    }
    if (rows.empty()) {
        diag() << "vesk-datastore: nothing stored to take a snapshot of\n";
        return kExitNothing;
    }

    if (exists) {
        DataStoreParseUtility::set_snapshot_remove_str(name);
        if (!DataStoreParseUtility::remove_snapshot())
            throw ToolError(kExitError, "removing the old snapshot \"" + name + "\" failed", true);
    }
    std::map<std::string, vesk::datastore::ProviderInfo> providers;
    for (const auto& provider : names) providers[provider].name = provider;
    DataStoreParseUtility::update_snapshot_dictionary(name, target, rows, providers);
    const bool committed = DataStoreParseUtility::commit_snapshot_updates();
    // The dictionary would send this snapshot again with every later commit.
    DataStoreParseUtility::forget_snapshot(name);
    if (!committed) throw ToolError(kExitError, "recording snapshot \"" + name + "\" failed", true);

    // Hosts whose newest recorded row lags the newest run by more than the
    // stale age: their baseline is old news.
    std::map<std::string, int64_t> host_runs;
    int64_t newest = 0;
    for (const auto& row : rows) {
        auto& run = host_runs[row.Hostname];
        run = std::max(run, row.Unique_timestamp);
        newest = std::max(newest, row.Unique_timestamp);
    }
    const int64_t threshold = newest - options.stale_after;
    std::vector<std::string> stale;
    for (const auto& [host, run] : host_runs)
        if (run < threshold) stale.push_back(host);

    if (global.format == Format::json) {
        print_json(std::cout, Json{{"snapshot", name},
                                   {"datastore", target},
                                   {"rows", rows.size()},
                                   {"hosts", host_runs.size()},
                                   {"run", newest},
                                   {"stale_before", threshold},
                                   {"stale_hosts", stale}});
    } else if (global.format == Format::csv) {
        print_csv(std::cout, Table{{"snapshot", "datastore", "rows", "hosts", "run", "stale_hosts"},
                                   {{name, target, std::to_string(rows.size()),
                                     std::to_string(host_runs.size()), std::to_string(newest),
                                     std::to_string(stale.size())}}});
    } else {
        std::cout << "snapshot \"" << name << "\" in datastore " << target << " records "
                  << rows.size() << (rows.size() == 1 ? " row" : " rows") << " of "
                  << host_runs.size() << (host_runs.size() == 1 ? " host" : " hosts");
        if (options.run != 0)
            std::cout << " of run " << options.run << " (" << format_run(options.run) << ")";
        else
            std::cout << "; " << stale.size() << (stale.size() == 1 ? " host has" : " hosts have")
                      << " no row newer than " << format_run(threshold);
        std::cout << "\n";
    }
    if (!stale.empty() && options.run == 0) {
        std::string list;
        for (size_t i = 0; i < stale.size() && i < 20; ++i) list += (i ? ", " : "") + stale[i];
        if (stale.size() > 20) list += ", ...";
        diag() << "vesk-datastore: warning: " << stale.size()
               << (stale.size() == 1 ? " host has" : " hosts have") << " no row newer than "
               << format_run(threshold) << ": " << terminal_safe(list, false) << "\n";
    }
    return kExitOk;
}

int cmd_snapshot_list(const GlobalOptions& global) {
    auto store = open_store(global, Access::read);
    const auto known = store->snapshots();
    // Members per snapshot, counted on the baseline table's index (the
    // snapshot id travels in the Provider field).
    std::map<std::string, int64_t> members;
    for (const auto& row :
         store->select_all("SELECT baseline_id AS Provider, COUNT(*) AS num_nodes FROM " +
                               vesk::datastore::table_baseline + " GROUP BY baseline_id",
                           "counting the members of the snapshots"))
        members[row.Provider] += row.num_nodes;
    Table table{{"snapshot", "rows", "run", "run_time"}, {}};
    Json list = Json::array();
    for (const auto& info : known) {
        const int64_t rows = members[info.baseline_id];
        table.rows.push_back({info.baseline_id, std::to_string(rows),
                              std::to_string(info.latest_unique_timestamp),
                              format_run(info.latest_unique_timestamp)});
        list.push_back({{"snapshot", info.baseline_id},
                        {"rows", rows},
                        {"run", info.latest_unique_timestamp},
                        {"run_time", format_run(info.latest_unique_timestamp)}});
    }
    if (known.empty()) {
        if (global.format != Format::table) print_result(global.format, list, table);
        diag() << "vesk-datastore: no snapshots\n";
        return kExitNothing;
    }
    print_result(global.format, list, table);
    return kExitOk;
}

int cmd_snapshot_show(const GlobalOptions& global, const std::string& name, bool show_output) {
    check_name("snapshot name", name, kMaxSnapshotNameSize, "the snapshot name limit");
    auto store = open_store(global, Access::read);
    require_snapshot(*store, name);
    const auto providers = store->queryable_provider_names();
    const auto names = store->data_names();
    RowColumns extra;
    extra.datastore = names.size() > 1;
    // Each datastore is asked itself; several answers are merged in the
    // order of one.
    const RowSource source = [&](const auto& sink) {
        for (const auto& provider : providers) {
            std::vector<std::pair<Row, std::string>> found;
            for (const auto& datastore : names)
                for (auto& row : store->snapshot_rows(datastore, name, {provider}))
                    found.emplace_back(std::move(row), datastore);
            std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
                const Row& x = a.first;
                const Row& y = b.first;
                return std::tie(x.Hostname, x.OptionID, x.Unique_timestamp, x.rowid) <
                       std::tie(y.Hostname, y.OptionID, y.Unique_timestamp, y.rowid);
            });
            RowPart part;
            for (auto& [row, datastore] : found) {
                part.rows.push_back(std::move(row));
                part.origin.push_back(datastore);
            }
            sink(part);
        }
    };
    return print_rows(global, source, show_output, true, extra);
}

int cmd_snapshot_remove(const GlobalOptions& global, const std::string& name) {
    check_name("snapshot name", name, kMaxSnapshotNameSize, "the snapshot name limit");
    auto store = open_store(global, Access::read);
    const std::string target = store->write_target();
    require_snapshot(*store, name);
    DataStoreParseUtility::set_snapshot_remove_str(name);
    if (!DataStoreParseUtility::remove_snapshot())
        throw ToolError(kExitError, "removing snapshot \"" + name + "\" failed", true);
    if (global.format == Format::json)
        print_json(std::cout, Json{{"removed", name}, {"datastore", target}});
    else if (global.format == Format::csv)
        print_csv(std::cout, Table{{"removed", "datastore"}, {{name, target}}});
    else
        std::cout << "snapshot \"" << name << "\" removed from datastore " << target << "\n";
    return kExitOk;
}

// ---- diff ----

namespace {

using Key = std::tuple<std::string, std::string, std::string>;  // provider, host, option

std::string provider_text(const std::string& provider, const std::string& option) {
    return provider + (option.empty() ? "" : "[" + option + "]");
}

std::string key_text(const Key& key) {
    const auto& [provider, host, option] = key;
    return provider_text(provider, option) + " on " + host;
}

// One row per key: the newest when a side holds several.
std::map<Key, Row> by_key(std::vector<Row> rows) {
    std::map<Key, Row> result;
    for (auto& row : rows) {
        const Key key{row.Provider, row.Hostname, row.OptionID};
        auto found = result.find(key);
        if (found == result.end() || found->second.Unique_timestamp < row.Unique_timestamp)
            result[key] = std::move(row);
    }
    return result;
}

// One side of a comparison: a snapshot, a run, or the latest row per host.
struct Side {
    std::string label;  // for messages and diff headers
    std::string title;  // for the heading
    std::map<Key, Row> rows;
};

Side load_side(Store& store, const vesk::datastore::SnapshotInfoSet& known,
               const std::string& snapshot, int64_t run) {
    Side side;
    const auto providers = store.queryable_provider_names();
    if (!snapshot.empty()) {
        if (!has_snapshot(known, snapshot)) throw no_snapshot(snapshot);
        side.label = snapshot;
        side.title = "snapshot \"" + snapshot + "\"";
        // The members joined to their rows in one read per datastore.
        const std::set<std::string> queryable(providers.begin(), providers.end());
        std::vector<Row> rows;
        for (auto& row : store.select_all("SELECT p.* FROM " + vesk::datastore::table_baseline +
                                              " AS b JOIN " + vesk::datastore::table_name +
                                              " AS p ON p.rowid = b.datastore_rowid WHERE " +
                                              "b.baseline_id = " + sql_literal(snapshot),
                                          "reading snapshot \"" + snapshot + "\""))
            if (queryable.count(row.Provider)) rows.push_back(std::move(row));
        side.rows = by_key(std::move(rows));
    } else if (run != 0) {
        side.label = "run " + std::to_string(run);
        side.title = side.label + " (" + format_run(run) + ")";
        const std::set<std::string> queryable(providers.begin(), providers.end());
        std::vector<Row> rows;
        for (auto& row : store.select_all("SELECT * FROM " + vesk::datastore::table_name +
                                              " WHERE Unique_timestamp = " + std::to_string(run),
                                          "reading run " + std::to_string(run)))
            if (queryable.count(row.Provider)) rows.push_back(std::move(row));
        if (rows.empty())
            throw ToolError(kExitError, "no rows of run " + std::to_string(run) +
                                            " (`vesk-datastore runs` lists the runs)");
        side.rows = by_key(std::move(rows));
    } else {
        side.label = "latest";
        side.title = "the latest rows per host";
        // The same rows as the library's latest-rows query, read per
        // provider through the index: only the newest rows leave the table.
        RowsOptions latest;
        std::vector<Row> rows;
        for (const auto& name : store.data_names())
            for (const auto& provider : providers)
                for (auto& row :
                     store.select_from(name, row_query({provider}, latest, true, 0),
                                       "reading the latest rows of \"" + provider + "\""))
                    rows.push_back(std::move(row));
        side.rows = by_key(std::move(rows));
    }
    return side;
}

// The providers a comparison leaves out: --ignore-provider and the lines
// of $HOME/.vesk/diff-ignore (one name per line, # starts a comment).
std::set<std::string> ignored_providers(const DiffOptions& options) {
    std::set<std::string> ignored(options.ignore.begin(), options.ignore.end());
    const char* home = std::getenv("HOME");
    if (options.use_ignore_file && home != nullptr && *home != '\0') {
        const std::string path = std::string(home) + "/.vesk/diff-ignore";
        // No file means nothing to leave out; a file that cannot be read
        // is an error, never an empty list.
        std::ifstream in(path);
        if (!in.is_open()) {
            if (errno == ENOENT) return ignored;
            throw ToolError(kExitError, "cannot read " + path + ": " + std::strerror(errno));
        }
        struct stat info {};
        if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
            throw ToolError(kExitError, "cannot read " + path + ": " + std::strerror(EISDIR));
        std::string line;
        while (std::getline(in, line)) {
            line = line.substr(0, line.find('#'));
            const size_t first = line.find_first_not_of(" \t\r");
            if (first == std::string::npos) continue;
            ignored.insert(line.substr(first, line.find_last_not_of(" \t\r") + 1 - first));
        }
        if (in.bad())
            throw ToolError(kExitError, "cannot read " + path + ": " + std::strerror(errno));
    }
    return ignored;
}

// What differs between two rows of one key.
struct Change {
    Key key;
    std::string kind;  // "changed", "missing" (left only) or "new" (right only)
    const Row* left = nullptr;
    const Row* right = nullptr;
    bool exit_changed = false;
    bool duration_changed = false;
    std::string out_diff;  // unified diff or a binary summary; "" when equal
    std::string err_diff;

    // "exit 0 -> 1; stdout; duration": what changed, for grouping.
    std::string what() const {
        std::string text;
        auto add = [&](const std::string& part) { text += (text.empty() ? "" : "; ") + part; };
        if (exit_changed)
            add("exit " + std::to_string(left->Exit_status) + " -> " +
                std::to_string(right->Exit_status));
        if (!out_diff.empty()) add("stdout");
        if (!err_diff.empty()) add("stderr");
        if (duration_changed) add("duration");
        return text;
    }
};

std::string compare_text(const std::string& a, const std::string& b, const std::string& a_name,
                         const std::string& b_name) {
    if (a == b) return "";
    // Output that is not text is compared whole, by its sizes.
    if (!is_valid_utf8(a) || !is_valid_utf8(b))
        return "binary output differs (" + std::to_string(a.size()) + " bytes -> " +
               std::to_string(b.size()) + " bytes)\n";
    return unified_diff(a, b, a_name, b_name);
}

bool duration_beyond(double a, double b, double tolerance) {
    if (tolerance < 0) return false;
    if (a <= 0) return b > 0;
    return std::abs(b - a) / a * 100.0 > tolerance;
}

std::string join(const std::vector<std::string>& items) {
    std::string text;
    for (const auto& item : items) text += (text.empty() ? "" : ", ") + item;
    return text;
}

void print_full(const std::vector<Change>& changes, const Side& left, const Side& right,
                const Style& style) {
    for (const auto& c : changes) {
        if (c.kind != "changed") {
            const std::string side = c.kind == "missing" ? left.label : right.label;
            std::cout << style.bold() << "only in " << terminal_safe(side, false) << ": "
                      << style.reset() << terminal_safe(key_text(c.key), false) << "\n";
            continue;
        }
        std::cout << style.bold() << "changed: " << style.reset()
                  << terminal_safe(key_text(c.key), false) << "\n";
        if (c.exit_changed)
            std::cout << "  exit status " << c.left->Exit_status << " -> " << c.right->Exit_status
                      << "\n";
        if (c.duration_changed)
            std::cout << "  duration " << format_seconds(c.left->Duration) << " -> "
                      << format_seconds(c.right->Duration) << " s\n";
        for (const auto* diff : {&c.out_diff, &c.err_diff})
            for (const auto& raw_line : split_lines(*diff)) {
                const std::string line = terminal_safe(raw_line, false);
                const bool header = line.rfind("---", 0) == 0 || line.rfind("+++", 0) == 0;
                const std::string colour = header           ? style.bold()
                                           : line[0] == '-' ? style.red()
                                           : line[0] == '+' ? style.green()
                                           : line[0] == '@' ? style.cyan()
                                                            : "";
                std::cout << "  " << colour << line << (colour.empty() ? "" : style.reset())
                          << "\n";
            }
        check_stdout();
    }
}

// "changed: P on H1, H2 (exit 0 -> 1)", one line per provider and kind of
// change; hosts in order.
void print_summary(const std::vector<Change>& changes, const Style& style) {
    std::map<std::tuple<int, std::string, std::string, std::string>, std::vector<std::string>>
        groups;
    for (const auto& c : changes) {
        const auto& [provider, host, option] = c.key;
        const int order = c.kind == "changed" ? 0 : c.kind == "missing" ? 1 : 2;
        groups[{order, provider_text(provider, option), c.kind, c.what()}].push_back(host);
    }
    for (const auto& [group, hosts] : groups) {
        const auto& [order, provider, kind, what] = group;
        const std::string heading = kind == "changed"   ? "changed: "
                                    : kind == "missing" ? "missing on the right: "
                                                        : "new: ";
        const std::string colour = kind == "changed"   ? style.bold()
                                   : kind == "missing" ? style.red()
                                                       : style.green();
        std::cout << colour << heading << style.reset()
                  << terminal_safe(provider + " on " + join(hosts), false)
                  << (what.empty() ? "" : " (" + what + ")") << "\n";
    }
}

void print_stat(const GlobalOptions& global, const std::vector<Change>& changes) {
    struct Counts {
        size_t changed = 0, missing = 0, added = 0;
    };
    std::map<std::string, Counts> per_provider;
    std::map<std::string, Counts> per_host;
    for (const auto& c : changes) {
        const auto& [provider, host, option] = c.key;
        for (auto* counts : {&per_provider[provider_text(provider, option)], &per_host[host]}) {
            if (c.kind == "changed") ++counts->changed;
            if (c.kind == "missing") ++counts->missing;
            if (c.kind == "new") ++counts->added;
        }
    }
    Table table{{"by", "name", "changed", "missing", "new"}, {}};
    Json json = Json::array();
    for (const auto* part : {&per_provider, &per_host}) {
        const std::string by = part == &per_provider ? "provider" : "host";
        for (const auto& [name, counts] : *part) {
            table.rows.push_back({by, name, std::to_string(counts.changed),
                                  std::to_string(counts.missing), std::to_string(counts.added)});
            json.push_back({{"by", by},
                            {"name", name},
                            {"changed", counts.changed},
                            {"missing", counts.missing},
                            {"new", counts.added}});
        }
    }
    print_result(global.format, json, table);
}

}  // namespace

int cmd_diff(const GlobalOptions& global, const DiffOptions& options) {
    for (const auto& name : options.snapshots)
        check_name("snapshot name", name, kMaxSnapshotNameSize, "the snapshot name limit");
    for (const auto& provider : options.ignore)
        check_name("provider name", provider, size_t(vesk::datastore::max_provider_size),
                   "max_provider_size");
    // The sides in order: snapshots named on the command line, then runs;
    // the right side defaults to the latest row per host.
    std::vector<std::pair<std::string, int64_t>> sides;
    for (const auto& name : options.snapshots) sides.emplace_back(name, 0);
    for (const auto run : options.runs) sides.emplace_back("", run);
    if (sides.empty() || sides.size() > 2)
        throw ToolError(kExitError,
                        "diff compares two sides: one or two snapshot names and --run IDs "
                        "(the right side defaults to the latest rows per host)");
    if (sides.size() == 1) sides.emplace_back("", 0);
    const std::set<std::string> ignored = ignored_providers(options);

    auto store = open_store(global, Access::read);
    const auto known = store->snapshots();
    // Both sides are checked before either is read: a typo is an error, never a difference.
    for (const auto& [name, run] : sides)
        if (!name.empty() && !has_snapshot(known, name)) throw no_snapshot(name);
    const Side left = load_side(*store, known, sides[0].first, sides[0].second);
    const Side right = load_side(*store, known, sides[1].first, sides[1].second);

    std::set<Key> keys;
    for (const auto& [key, row] : left.rows) keys.insert(key);
    for (const auto& [key, row] : right.rows) keys.insert(key);

    std::vector<Change> changes;
    std::set<std::string> hosts;
    size_t same = 0;
    for (const auto& key : keys) {
        const auto& [provider, host, option] = key;
        if (ignored.count(provider)) continue;
        const auto l = left.rows.find(key);
        const auto r = right.rows.find(key);
        Change change;
        change.key = key;
        if (r == right.rows.end() || l == left.rows.end()) {
            change.kind = r == right.rows.end() ? "missing" : "new";
            change.left = l == left.rows.end() ? nullptr : &l->second;
            change.right = r == right.rows.end() ? nullptr : &r->second;
        } else {
            const Row& a = l->second;
            const Row& b = r->second;
            change.kind = "changed";
            change.left = &a;
            change.right = &b;
            change.exit_changed = a.Exit_status != b.Exit_status;
            change.duration_changed =
                duration_beyond(a.Duration, b.Duration, options.duration_tolerance);
            const std::string where = provider + "/" + host;
            change.out_diff = compare_text(
                decode_output(a.STDOUT, a.Encoding), decode_output(b.STDOUT, b.Encoding),
                left.label + "/" + where + "/stdout", right.label + "/" + where + "/stdout");
            change.err_diff = compare_text(
                decode_output(a.STDERR, a.Encoding), decode_output(b.STDERR, b.Encoding),
                left.label + "/" + where + "/stderr", right.label + "/" + where + "/stderr");
            if (!change.exit_changed && !change.duration_changed && change.out_diff.empty() &&
                change.err_diff.empty()) {
                ++same;
                continue;
            }
        }
        hosts.insert(host);
        changes.push_back(std::move(change));
    }
    const int code = changes.empty() ? kExitOk : kExitNothing;
    if (options.mode == DiffMode::quiet) return code;

    const Style style = stdout_style();
    if (options.mode == DiffMode::name_only) {
        for (const auto& host : hosts) std::cout << terminal_safe(host, false) << "\n";
        return code;
    }
    if (options.mode == DiffMode::stat) {
        print_stat(global, changes);
        if (global.format == Format::table)
            std::cout << changes.size() << (changes.size() == 1 ? " difference" : " differences")
                      << " on " << hosts.size() << (hosts.size() == 1 ? " host" : " hosts") << ", "
                      << same << " identical\n";
        return code;
    }
    if (global.format == Format::json) {
        Json differences = Json::array();
        for (const auto& c : changes) {
            const auto& [provider, host, option] = c.key;
            Json entry = {
                {"provider", provider}, {"host", host}, {"option", option}, {"change", c.kind}};
            if (c.exit_changed) entry["exit_status"] = {c.left->Exit_status, c.right->Exit_status};
            if (c.duration_changed) entry["duration"] = {c.left->Duration, c.right->Duration};
            if (!c.out_diff.empty()) entry["stdout_diff"] = c.out_diff;
            if (!c.err_diff.empty()) entry["stderr_diff"] = c.err_diff;
            if (c.left) entry["left_run"] = c.left->Unique_timestamp;
            if (c.right) entry["right_run"] = c.right->Unique_timestamp;
            differences.push_back(std::move(entry));
        }
        print_json(std::cout, Json{{"first", left.label},
                                   {"second", right.label},
                                   {"identical", same},
                                   {"hosts", hosts},
                                   {"ignored", ignored},
                                   {"differences", differences}});
        return code;
    }
    if (global.format == Format::csv) {
        Table table{{"provider", "host", "option", "change", "detail"}, {}};
        for (const auto& c : changes) {
            const auto& [provider, host, option] = c.key;
            table.rows.push_back({provider, host, option, c.kind, c.what()});
        }
        print_csv(std::cout, table);
        return code;
    }
    std::cout << "comparing " << terminal_safe(left.title, false) << " with "
              << terminal_safe(right.title, false) << "\n";
    if (options.mode == DiffMode::full)
        print_full(changes, left, right, style);
    else
        print_summary(changes, style);
    std::cout << changes.size() << (changes.size() == 1 ? " difference, " : " differences, ")
              << same << " identical; " << hosts.size()
              << (hosts.size() == 1 ? " host differs" : " hosts differ") << "\n";
    return code;
}

}  // namespace vesk::tool
