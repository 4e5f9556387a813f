// The snapshot commands: create, list, show, remove and diff.
#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <tuple>

#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"

#include "codec.h"
#include "commands.h"
#include "errors.h"
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

// The rows recorded under snapshot `name` for `providers`.
std::vector<Row> snapshot_rows(const std::string& name, const std::vector<std::string>& providers) {
    std::map<std::string, std::vector<Row>> rows_by_provider;
    std::map<std::string, std::vector<vesk::datastore::Row_baseline>> baselines;
    std::vector<Row> rows;
    if (providers.empty()) return rows;
    if (!vesk::datastore::get_snapshot_provider_data(name, rows_by_provider, baselines, providers,
                                                     {}, false))
        throw ToolError(kExitError, "reading snapshot \"" + name + "\" failed", true);
    for (auto& [provider, list] : rows_by_provider)
        for (auto& row : list) rows.push_back(std::move(row));
    return rows;
}

// The same for every provider the queries can name.
std::vector<Row> snapshot_rows(Store& store, const std::string& name) {
    return snapshot_rows(name, store.queryable_provider_names());
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

int cmd_snapshot_create(const GlobalOptions& global, const std::string& name) {
    check_name("snapshot name", name, kMaxSnapshotNameSize, "the snapshot name limit");
    auto store = open_store(global, Access::read);
    if (has_snapshot(store->snapshots(), name))
        throw ToolError(kExitError, "snapshot \"" + name + "\" exists already");

    // Every stored provider takes part; the library fills in the row ids
    // of the latest run.
    std::map<std::string, vesk::datastore::ProviderInfo> providers;
    for (const auto& provider : store->queryable_provider_names())
        providers[provider].name = provider;
    if (providers.empty()) {
        diag() << "vesk-datastore: nothing stored to take a snapshot of\n";
        return kExitNothing;
    }
    DataStoreParseUtility::set_baseline_str(name);
    std::vector<Row> rows;
    if (!DataStoreParseUtility::mark_latest_snapshot_data(providers, rows))
        throw ToolError(kExitError, "recording snapshot \"" + name + "\" failed", true);
    if (rows.empty()) {
        diag() << "vesk-datastore: nothing stored to take a snapshot of\n";
        return kExitNothing;
    }
    int64_t run = 0;
    for (const auto& row : rows) run = std::max(run, row.Unique_timestamp);
    if (global.format == Format::json) {
        print_json(std::cout, Json{{"snapshot", name}, {"rows", rows.size()}, {"run", run}});
    } else if (global.format == Format::csv) {
        print_csv(std::cout, Table{{"snapshot", "rows", "run"},
                                   {{name, std::to_string(rows.size()), std::to_string(run)}}});
    } else {
        std::cout << "snapshot \"" << name << "\" records " << rows.size()
                  << (rows.size() == 1 ? " row" : " rows") << " of run " << run << " ("
                  << format_run(run) << ")\n";
    }
    return kExitOk;
}

int cmd_snapshot_list(const GlobalOptions& global) {
    auto store = open_store(global, Access::read);
    const auto known = store->snapshots();
    const auto providers = store->queryable_provider_names();
    Table table{{"snapshot", "rows", "run", "run_time"}, {}};
    Json list = Json::array();
    for (const auto& info : known) {
        size_t rows = 0;
        for (const auto& provider : providers)
            rows += snapshot_rows(info.baseline_id, {provider}).size();
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
    const RowSource source = [&](const auto& sink) {
        for (const auto& provider : providers) {
            auto rows = snapshot_rows(name, {provider});
            sort_rows(rows);
            sink(rows);
        }
    };
    return print_rows(global, source, show_output);
}

int cmd_snapshot_remove(const GlobalOptions& global, const std::string& name) {
    check_name("snapshot name", name, kMaxSnapshotNameSize, "the snapshot name limit");
    auto store = open_store(global, Access::read);
    require_snapshot(*store, name);
    DataStoreParseUtility::set_snapshot_remove_str(name);
    if (!DataStoreParseUtility::remove_snapshot())
        throw ToolError(kExitError, "removing snapshot \"" + name + "\" failed", true);
    if (global.format == Format::json)
        print_json(std::cout, Json{{"removed", name}});
    else if (global.format == Format::table)
        std::cout << "snapshot \"" << name << "\" removed\n";
    return kExitOk;
}

// ---- diff ----

namespace {

using Key = std::tuple<std::string, std::string, std::string>;  // provider, host, option

std::string key_text(const Key& key) {
    const auto& [provider, host, option] = key;
    return provider + (option.empty() ? "" : "[" + option + "]") + " on " + host;
}

// One row per key: the newest when a side holds several.
std::map<Key, Row> by_key(const std::vector<Row>& rows) {
    std::map<Key, Row> result;
    for (const auto& row : rows) {
        const Key key{row.Provider, row.Hostname, row.OptionID};
        auto found = result.find(key);
        if (found == result.end() || found->second.Unique_timestamp < row.Unique_timestamp)
            result[key] = row;
    }
    return result;
}

}  // namespace

int cmd_snapshot_diff(const GlobalOptions& global, const std::string& name,
                      const std::string& other) {
    check_name("snapshot name", name, kMaxSnapshotNameSize, "the snapshot name limit");
    if (!other.empty())
        check_name("snapshot name", other, kMaxSnapshotNameSize, "the snapshot name limit");
    auto store = open_store(global, Access::read);
    const auto known = store->snapshots();
    if (!has_snapshot(known, name)) throw no_snapshot(name);
    if (!other.empty() && !has_snapshot(known, other)) throw no_snapshot(other);

    const std::string left_label = name;
    const std::string right_label = other.empty() ? "latest" : other;
    const auto left = by_key(snapshot_rows(*store, name));
    const auto right =
        by_key(other.empty() ? store->latest_run_rows(store->queryable_provider_names())
                             : snapshot_rows(*store, other));

    std::set<Key> keys;
    for (const auto& [key, row] : left) keys.insert(key);
    for (const auto& [key, row] : right) keys.insert(key);

    Json differences = Json::array();
    Table table{{"provider", "host", "option", "change", "detail"}, {}};
    std::string text;  // what the table format prints
    const Style style = stdout_style();
    size_t same = 0;
    for (const auto& key : keys) {
        const auto& [provider, host, option] = key;
        const auto l = left.find(key);
        const auto r = right.find(key);
        Json entry = {{"provider", provider}, {"host", host}, {"option", option}};
        if (r == right.end() || l == left.end()) {
            const std::string side = r == right.end() ? left_label : right_label;
            entry["change"] = "only_in_" + std::string(r == right.end() ? "first" : "second");
            entry["only_in"] = side;
            table.rows.push_back({provider, host, option, std::string(entry["change"]), side});
            text += style.bold() + "only in " + terminal_safe(side, false) + ": " + style.reset() +
                    terminal_safe(key_text(key), false) + "\n";
            differences.push_back(std::move(entry));
            continue;
        }
        const Row& a = l->second;
        const Row& b = r->second;
        const std::string a_out = decode_output(a.STDOUT, a.Encoding);
        const std::string b_out = decode_output(b.STDOUT, b.Encoding);
        const std::string a_err = decode_output(a.STDERR, a.Encoding);
        const std::string b_err = decode_output(b.STDERR, b.Encoding);
        const bool status_changed = a.Exit_status != b.Exit_status;
        const std::string where = provider + "/" + host;
        // Output that is not text is compared whole, by its sizes.
        auto compare = [&](const std::string& a, const std::string& b, const std::string& name) {
            if (a == b) return std::string();
            if (!is_valid_utf8(a) || !is_valid_utf8(b))
                return "binary output differs (" + std::to_string(a.size()) + " bytes -> " +
                       std::to_string(b.size()) + " bytes)\n";
            return unified_diff(a, b, left_label + "/" + where + "/" + name,
                                right_label + "/" + where + "/" + name);
        };
        const std::string out_diff = compare(a_out, b_out, "stdout");
        const std::string err_diff = compare(a_err, b_err, "stderr");
        if (!status_changed && out_diff.empty() && err_diff.empty()) {
            ++same;
            continue;
        }
        entry["change"] = "changed";
        std::string detail;
        text +=
            style.bold() + "changed: " + style.reset() + terminal_safe(key_text(key), false) + "\n";
        if (status_changed) {
            entry["exit_status"] = {a.Exit_status, b.Exit_status};
            detail = "exit status " + std::to_string(a.Exit_status) + " -> " +
                     std::to_string(b.Exit_status);
            text += "  exit status " + std::to_string(a.Exit_status) + " -> " +
                    std::to_string(b.Exit_status) + "\n";
        }
        for (const auto* diff : {&out_diff, &err_diff}) {
            if (diff->empty()) continue;
            const bool is_out = diff == &out_diff;
            entry[is_out ? "stdout_diff" : "stderr_diff"] = *diff;
            detail += std::string(detail.empty() ? "" : "; ") + (is_out ? "stdout" : "stderr");
            for (const auto& raw_line : split_lines(*diff)) {
                const std::string line = terminal_safe(raw_line, false);
                const bool header = line.rfind("---", 0) == 0 || line.rfind("+++", 0) == 0;
                const std::string colour = header           ? style.bold()
                                           : line[0] == '-' ? style.red()
                                           : line[0] == '+' ? style.green()
                                           : line[0] == '@' ? style.cyan()
                                                            : "";
                text += "  " + colour + line + (colour.empty() ? "" : style.reset()) + "\n";
            }
        }
        table.rows.push_back({provider, host, option, "changed", detail});
        differences.push_back(std::move(entry));
    }

    switch (global.format) {
        case Format::json:
            print_json(std::cout, Json{{"first", left_label},
                                       {"second", right_label},
                                       {"identical", same},
                                       {"differences", differences}});
            break;
        case Format::csv:
            print_csv(std::cout, table);
            break;
        case Format::table:
            std::cout << "comparing snapshot \"" << name << "\" with "
                      << (other.empty() ? std::string("the latest run")
                                        : "snapshot \"" + other + "\"")
                      << "\n"
                      << text << differences.size()
                      << (differences.size() == 1 ? " difference, " : " differences, ") << same
                      << " identical\n";
            break;
    }
    return differences.empty() ? kExitOk : kExitNothing;
}

}  // namespace vesk::tool
