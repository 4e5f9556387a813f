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

namespace vesk::tool {

using vesk::datastore::DataStoreParseUtility;
using vesk::datastore::Row;

namespace {

bool has_snapshot(const vesk::datastore::SnapshotInfoSet& known, const std::string& name) {
    return known.count(vesk::datastore::SnapshotInfo{name, 0}) > 0;
}

// The rows recorded under snapshot `name`, for every stored provider.
std::vector<Row> snapshot_rows(Store& store, const std::string& name) {
    std::map<std::string, std::vector<Row>> rows_by_provider;
    std::map<std::string, std::vector<vesk::datastore::Row_baseline>> baselines;
    const auto providers = store.provider_names();
    std::vector<Row> rows;
    if (providers.empty()) return rows;
    if (!vesk::datastore::get_snapshot_provider_data(name, rows_by_provider, baselines, providers,
                                                     {}, false))
        throw ToolError(kExitError, "reading snapshot \"" + name + "\" failed", true);
    for (auto& [provider, list] : rows_by_provider)
        for (auto& row : list) rows.push_back(std::move(row));
    return rows;
}

void require_snapshot(Store& store, const std::string& name) {
    if (!has_snapshot(store.snapshots(), name))
        throw ToolError(kExitNothing, "no snapshot named \"" + name + "\"");
}

}  // namespace

int cmd_snapshot_create(const GlobalOptions& global, const std::string& name) {
    check_name("snapshot name", name, 256);
    auto store = open_store(global);
    if (has_snapshot(store->snapshots(), name))
        throw ToolError(kExitError, "snapshot \"" + name + "\" exists already");

    // Every stored provider takes part; the library fills in the row ids
    // of the latest run.
    std::map<std::string, vesk::datastore::ProviderInfo> providers;
    for (const auto& provider : store->provider_names()) providers[provider].name = provider;
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
    auto store = open_store(global);
    const auto known = store->snapshots();
    if (known.empty()) {
        diag() << "vesk-datastore: no snapshots\n";
        return kExitNothing;
    }
    Table table{{"snapshot", "rows", "run"}, {}};
    Json list = Json::array();
    for (const auto& info : known) {
        const size_t rows = snapshot_rows(*store, info.baseline_id).size();
        table.rows.push_back({info.baseline_id, std::to_string(rows),
                              global.format == Format::csv
                                  ? std::to_string(info.latest_unique_timestamp)
                                  : format_run(info.latest_unique_timestamp)});
        list.push_back({{"snapshot", info.baseline_id},
                        {"rows", rows},
                        {"run", info.latest_unique_timestamp}});
    }
    print_result(global.format, list, table);
    return kExitOk;
}

int cmd_snapshot_show(const GlobalOptions& global, const std::string& name, bool show_output) {
    check_name("snapshot name", name, 256);
    auto store = open_store(global);
    require_snapshot(*store, name);
    auto rows = snapshot_rows(*store, name);
    if (rows.empty()) {
        diag() << "vesk-datastore: snapshot \"" << name << "\" holds no rows\n";
        return kExitNothing;
    }
    return print_rows(global, std::move(rows), show_output);
}

int cmd_snapshot_remove(const GlobalOptions& global, const std::string& name) {
    check_name("snapshot name", name, 256);
    auto store = open_store(global);
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
    check_name("snapshot name", name, 256);
    if (!other.empty()) check_name("snapshot name", other, 256);
    auto store = open_store(global);
    const auto known = store->snapshots();
    if (!has_snapshot(known, name))
        throw ToolError(kExitNothing, "no snapshot named \"" + name + "\"");
    if (!other.empty() && !has_snapshot(known, other))
        throw ToolError(kExitNothing, "no snapshot named \"" + other + "\"");

    const std::string left_label = name;
    const std::string right_label = other.empty() ? "latest" : other;
    const auto left = by_key(snapshot_rows(*store, name));
    const auto right = by_key(other.empty() ? store->latest_run_rows(store->provider_names())
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
            text += style.bold() + "only in " + side + ": " + style.reset() + key_text(key) + "\n";
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
        const std::string out_diff =
            unified_diff(a_out, b_out, left_label + "/" + where + "/stdout",
                         right_label + "/" + where + "/stdout");
        const std::string err_diff =
            unified_diff(a_err, b_err, left_label + "/" + where + "/stderr",
                         right_label + "/" + where + "/stderr");
        if (!status_changed && out_diff.empty() && err_diff.empty()) {
            ++same;
            continue;
        }
        entry["change"] = "changed";
        std::string detail;
        text += style.bold() + "changed: " + style.reset() + key_text(key) + "\n";
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
            for (const auto& line : split_lines(*diff)) {
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
