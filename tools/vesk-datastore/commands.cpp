// Configuration, SQL files, collection and the reading commands.
#include "commands.h"

#include <algorithm>
#include <climits>
#include <filesystem>
#include <iostream>
#include <map>
#include <pwd.h>
#include <set>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"
#include "vesk/datastore/vocabulary.h"

#include "codec.h"
#include "collect.h"
#include "errors.h"
#include "session.h"

namespace vesk::tool {

using vesk::datastore::DataStoreConfig;
using vesk::datastore::DataStoreParseUtility;
using vesk::datastore::InsertRecord;
using vesk::datastore::Row;

namespace {

const char* type_name(vesk::datastore::DatabaseType type) {
    switch (type) {
        case vesk::datastore::sqlite3:
            return "sqlite3";
        case vesk::datastore::odbc:
            return "odbc";
        default:
            return "other";
    }
}

std::string source_types_text(const std::bitset<2>& types) {
    std::string text;
    if (types.test(vesk::datastore::data)) text = "data";
    if (types.test(vesk::datastore::stream)) text += text.empty() ? "stream" : "|stream";
    return text;
}

// A path without "..", "." and repeated slashes, for people to read.
std::string tidy(const std::string& path) {
    return std::filesystem::path(path).lexically_normal().string();
}

int print_configs(const GlobalOptions& global, const std::string& path,
                  const std::vector<DataStoreConfig>& configs) {
    Table table{{"instance", "type", "source_types", "library", "source_parameters"}, {}};
    Json list = Json::array();
    for (const auto& c : configs) {
        const std::string library = tidy(c.extension_path + "/" + c.extension_name);
        table.rows.push_back({c.instance_name, type_name(c.type), source_types_text(c.source_types),
                              library, c.source_parameters});
        list.push_back({{"instance_name", c.instance_name},
                        {"type", type_name(c.type)},
                        {"source_types", source_types_text(c.source_types)},
                        {"extension_path", tidy(c.extension_path + "/")},
                        {"extension_name", c.extension_name},
                        {"library_found", ::access(library.c_str(), R_OK) == 0},
                        {"source_parameters", c.source_parameters}});
    }
    print_result(global.format, Json{{"file", path}, {"datastores", list}}, table,
                 "configuration: " + path + "\n");
    return kExitOk;
}

// Rows in a stable order: provider, host, option, run, row number.
void sort_rows(std::vector<Row>& rows) {
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return std::tie(a.Provider, a.Hostname, a.OptionID, a.Unique_timestamp, a.rowid) <
               std::tie(b.Provider, b.Hostname, b.OptionID, b.Unique_timestamp, b.rowid);
    });
}

std::string this_host() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return "localhost";
    return name;
}

std::string this_user() {
    if (const passwd* pw = ::getpwuid(::geteuid())) return pw->pw_name;
    if (const char* user = std::getenv("USER")) return user;
    return std::to_string(::geteuid());
}

}  // namespace

// ---- config ----

int cmd_config_show(const GlobalOptions& global) {
    const std::string path =
        global.config_file.empty() ? default_config_path() : global.config_file;
    return print_configs(global, path, selected_configs(global));
}

int cmd_config_check(const GlobalOptions& global, const std::string& file) {
    const auto configs = read_config_file(file);
    for (const auto& c : configs) {
        const std::string library = tidy(c.extension_path + "/" + c.extension_name);
        if (c.type != vesk::datastore::other && ::access(library.c_str(), R_OK) != 0)
            throw ToolError(kExitError, file + ": datastore \"" + c.instance_name +
                                            "\": extension library " + library + " not found");
    }
    if (global.format == Format::table) {
        std::cout << file << ": ok, " << configs.size()
                  << (configs.size() == 1 ? " datastore" : " datastores") << "\n";
        return kExitOk;
    }
    return print_configs(global, file, configs);
}

// ---- sql ----

int cmd_sql(const std::string& sql_file, const std::string& database_file) {
    try {
        DataStoreParseUtility::create_from_sqlfile(sql_file, database_file);
    } catch (const std::exception& e) {
        throw ToolError(kExitError, e.what());
    }
    return kExitOk;
}

// ---- collect ----

int cmd_collect(const GlobalOptions& global, const CollectOptions& options) {
    // Choose the providers before touching the datastore.
    std::vector<ProviderCommand> providers;
    if (!options.command.empty()) {
        if (options.providers.size() != 1)
            throw ToolError(kExitError, "a command after \"--\" needs exactly one --provider NAME");
        if (!valid_provider_name(options.providers[0]))
            throw ToolError(kExitError, "invalid provider name \"" + options.providers[0] + "\"");
        ProviderCommand provider;
        provider.name = options.providers[0];
        provider.argv = options.command;
        provider.option_id = options.option_id;
        providers.push_back(provider);
    } else {
        const auto all = options.provider_file.empty() ? default_providers()
                                                       : read_provider_file(options.provider_file);
        for (const auto& name : options.providers) {
            bool found = false;
            for (const auto& provider : all)
                if (provider.name == name) {
                    providers.push_back(provider);
                    found = true;
                }
            if (!found)
                throw ToolError(kExitError,
                                "unknown provider: " + name + " (not in " +
                                    (options.provider_file.empty() ? std::string("the built-in set")
                                                                   : options.provider_file) +
                                    ")");
        }
        if (options.providers.empty()) providers = all;
    }
    if (!options.option_id.empty()) check_name("option id", options.option_id, 64);
    if (providers.empty()) throw ToolError(kExitError, "no provider to run");
    if (options.timeout > 0)
        for (auto& provider : providers) provider.timeout = options.timeout;

    auto store = open_store(global);
    // One time stamp for the whole run, later than every run stored.
    const int64_t run = std::max(now_microseconds(), store->last_run() + 1);
    timeval run_tv{};
    run_tv.tv_sec = run / 1000000;
    run_tv.tv_usec = run % 1000000;
    DataStoreParseUtility::set_unique_timestamp(run_tv);

    Progress progress;
    auto show = [&](size_t done, size_t total, const std::vector<std::string>& running) {
        std::string text =
            "collect: " + std::to_string(done) + "/" + std::to_string(total) + " done";
        if (!running.empty()) {
            text += ", running:";
            for (const auto& name : running) text += " " + name;
        }
        progress.show(text, true);
    };
    const auto results = run_providers(providers, options.jobs, size_t(64) << 20, show);
    progress.clear();

    const std::string host = this_host();
    const std::string user = this_user();
    std::vector<InsertRecord> records;
    for (const auto& r : results) {
        InsertRecord record;
        auto& h = record.header;
        h.provider = r.name;
        h.hostname = host;
        h.num_nodes = 1;
        h.node_names = {host};
        h.exit_status = r.exit_status;
        h.timestamp = r.start;
        h.duration = r.duration;
        h.version = 1;
        h.username = user;
        h.unique_timestamp = run;
        record.option_id = r.option_id;
        // Both texts share one encoding: base64 when either is not UTF-8.
        if (is_valid_utf8(r.std_out) && is_valid_utf8(r.std_err)) {
            h.encoding = vesk::provider::none;
            record.std_out = r.std_out;
            record.std_err = r.std_err;
        } else {
            h.encoding = vesk::provider::base64;
            record.std_out = base64_encode(r.std_out);
            record.std_err = base64_encode(r.std_err);
        }
        records.push_back(std::move(record));
    }
    store->insert(records);

    Table table{{"provider", "option", "exit", "duration", "stdout_bytes", "note"}, {}};
    Json list = Json::array();
    for (const auto& r : results) {
        const std::string note = r.timed_out                          ? "timed out"
                                 : r.exit_status == kNotStartedStatus ? "not started"
                                 : r.exit_status > 128                ? "killed by a signal"
                                                                      : "";
        table.rows.push_back({r.name, r.option_id, std::to_string(r.exit_status),
                              format_seconds(r.duration), std::to_string(r.std_out.size()), note});
        list.push_back({{"provider", r.name},
                        {"option", r.option_id},
                        {"exit_status", r.exit_status},
                        {"duration", r.duration},
                        {"stdout_bytes", r.std_out.size()},
                        {"timed_out", r.timed_out}});
    }
    const std::string heading = "run " + std::to_string(run) + " (" + format_run(run) + ") on " +
                                host + ": " + std::to_string(results.size()) +
                                (results.size() == 1 ? " row" : " rows") + " stored\n";
    print_result(global.format, Json{{"host", host}, {"unique_timestamp", run}, {"rows", list}},
                 table, heading, "exit");
    return kExitOk;
}

// ---- rows ----

namespace {

void print_outputs(const std::vector<Row>& rows, const Style& style) {
    for (const auto& row : rows) {
        std::cout << "\n"
                  << style.cyan() << "=== " << row.Provider << " on " << row.Hostname
                  << (row.OptionID.empty() ? "" : " [" + row.OptionID + "]") << ", row "
                  << row.rowid << ", exit " << row.Exit_status << style.reset() << "\n";
        const std::string out = decode_output(row.STDOUT, row.Encoding);
        const std::string err = decode_output(row.STDERR, row.Encoding);
        std::cout << out << (out.empty() || out.back() == '\n' ? "" : "\n");
        if (!err.empty()) {
            std::cout << style.red() << "--- stderr" << style.reset() << "\n"
                      << err << (err.back() == '\n' ? "" : "\n");
        }
    }
}

}  // namespace

int print_rows(const GlobalOptions& global, std::vector<Row> rows, bool show_output) {
    sort_rows(rows);
    if (global.format == Format::json) {
        Json list = Json::array();
        for (const auto& row : rows) {
            Json j = row_to_json(row);
            if (show_output) {
                j["stdout_text"] = decode_output(row.STDOUT, row.Encoding);
                j["stderr_text"] = decode_output(row.STDERR, row.Encoding);
            }
            list.push_back(std::move(j));
        }
        print_json(std::cout, list);
        return kExitOk;
    }
    Table table{{"rowid", "provider", "host", "option", "exit", "start", "duration", "run"}, {}};
    if (global.format == Format::csv) {
        table.columns = {"rowid", "provider", "host",     "option",
                         "exit",  "start",    "duration", "unique_timestamp"};
        if (show_output) {
            table.columns.push_back("stdout");
            table.columns.push_back("stderr");
        }
    }
    for (const auto& row : rows) {
        std::vector<std::string> cells = {std::to_string(row.rowid), row.Provider, row.Hostname,
                                          row.OptionID, std::to_string(row.Exit_status)};
        if (global.format == Format::csv) {
            cells.push_back(std::to_string(row.Timestamp));
            cells.push_back(format_seconds(row.Duration));
            cells.push_back(std::to_string(row.Unique_timestamp));
            if (show_output) {
                cells.push_back(decode_output(row.STDOUT, row.Encoding));
                cells.push_back(decode_output(row.STDERR, row.Encoding));
            }
        } else {
            cells.push_back(format_time(row.Timestamp));
            cells.push_back(format_seconds(row.Duration));
            cells.push_back(std::to_string(row.Unique_timestamp));
        }
        table.rows.push_back(std::move(cells));
    }
    if (global.format == Format::csv) {
        print_csv(std::cout, table);
    } else {
        const Style style = stdout_style();
        print_table(std::cout, table, style, "exit");
        if (show_output) print_outputs(rows, style);
    }
    return kExitOk;
}

int cmd_rows(const GlobalOptions& global, const RowsOptions& options) {
    for (const auto& p : options.providers) check_name("provider name", p, 64);
    for (const auto& h : options.hosts) check_name("host name", h, 256);
    auto store = open_store(global);
    const auto stored = store->provider_names();

    std::vector<std::string> providers;
    bool reported = false;
    for (const auto& p : options.providers) {
        if (std::find(stored.begin(), stored.end(), p) == stored.end()) {
            diag() << "vesk-datastore: unknown provider: " << p << " (nothing stored)\n";
            reported = true;
        } else {
            providers.push_back(p);
        }
    }
    if (options.providers.empty()) providers = stored;
    if (providers.empty()) {
        // Unknown providers were named already; one message is enough.
        if (!reported) diag() << "vesk-datastore: no rows found\n";
        return kExitNothing;
    }

    std::vector<Row> rows;
    if (options.latest) {
        vesk::datastore::get_latest_rows_provider_hosts_data(providers, rows, options.hosts, false);
    } else {
        vesk::datastore::select_provider_data(providers, rows, hosts_filter(options.hosts), false);
    }
    if (rows.empty()) {
        diag() << "vesk-datastore: no rows found\n";
        return kExitNothing;
    }
    return print_rows(global, std::move(rows), options.show_output);
}

// ---- hosts, providers ----

namespace {

// Counts of what is stored, grouped by the provider (by_provider) or host.
int print_summary(const GlobalOptions& global, bool by_provider) {
    auto store = open_store(global);
    struct Group {
        std::set<std::string> others;
        int64_t rows = 0;
        int64_t latest_run = 0;
    };
    std::map<std::string, Group> groups;
    for (const auto& s : store->summary()) {
        auto& g = groups[by_provider ? s.provider : s.host];
        g.others.insert(by_provider ? s.host : s.provider);
        g.rows += s.rows;
        g.latest_run = std::max(g.latest_run, s.latest_run);
    }
    if (groups.empty()) {
        diag() << "vesk-datastore: nothing stored\n";
        return kExitNothing;
    }
    const std::string key = by_provider ? "provider" : "host";
    const std::string other = by_provider ? "hosts" : "providers";
    Table table{{key, other, "rows", "latest_run"}, {}};
    Json list = Json::array();
    for (const auto& [name, g] : groups) {
        table.rows.push_back({name, std::to_string(g.others.size()), std::to_string(g.rows),
                              global.format == Format::csv ? std::to_string(g.latest_run)
                                                           : format_run(g.latest_run)});
        list.push_back({{key, name},
                        {other, g.others.size()},
                        {"rows", g.rows},
                        {"latest_run", g.latest_run}});
    }
    print_result(global.format, list, table);
    return kExitOk;
}

}  // namespace

int cmd_hosts(const GlobalOptions& global) { return print_summary(global, false); }
int cmd_providers(const GlobalOptions& global) { return print_summary(global, true); }

}  // namespace vesk::tool
