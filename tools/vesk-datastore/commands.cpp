// Configuration, SQL files, collection and the reading commands.
#include "commands.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <pwd.h>
#include <set>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "tessdb/tessdb.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"
#include "vesk/datastore/row_fields.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

#include "codec.h"
#include "collect.h"
#include "errors.h"
#include "filter.h"
#include "jsonl.h"
#include "odbc_parameters.h"
#include "session.h"
#include "validate.h"

namespace vesk::tool {

using vesk::datastore::DataStoreConfig;
using vesk::datastore::DataStoreParseUtility;
using vesk::datastore::InsertRecord;
using vesk::datastore::Row;

namespace {

// The most of one output (stdout or stderr) that collect keeps per provider.
constexpr size_t kMaxCollectedOutput = size_t(64) << 20;
const char* const kOutputCutNote = "output cut at 64 MiB";

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
                        {"datastore_file", datastore_file(c)},
                        {"source_parameters", c.source_parameters}});
    }
    print_result(global.format, Json{{"file", path}, {"datastores", list}}, table,
                 "configuration: " + path + "\n");
    return kExitOk;
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
    // An ODBC datastore's parameters are read as its extension reads them,
    // without reaching for the server.
    for (const auto& c : configs) {
        if (c.type != vesk::datastore::odbc) continue;
        vesk::datastore::odbc_backend::OdbcParameters parameters;
        std::string problem;
        if (!vesk::datastore::odbc_backend::parse_odbc_parameters(c.source_parameters, parameters,
                                                                  problem))
            throw ToolError(kExitError,
                            file + ": datastore \"" + c.instance_name + "\" (ODBC): " + problem);
    }
    // A datastore whose file exists is opened as configured, so that its
    // extension judges the parameters; none is created here.
    std::vector<DataStoreConfig> existing;
    for (const auto& c : configs) {
        const std::string data_file = datastore_file(c);
        if (!data_file.empty() && c.source_types.test(vesk::datastore::data) &&
            ::access(data_file.c_str(), F_OK) == 0)
            existing.push_back(c);
    }
    if (!existing.empty()) {
        try {
            Store opened(existing);
        } catch (const ToolError& e) {
            throw ToolError(kExitError, file + ": " + e.what(), e.datastore_failure,
                            e.open_failure);
        }
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
    // The same file format and messages as the library's SQL loader, run
    // in one transaction: a failing line leaves the database as it was.
    std::ifstream in(sql_file);
    if (!in.is_open())
        throw ToolError(kExitError, "Unable to open sql file for reading " + sql_file + ": " +
                                        std::strerror(errno));
    // A folder opens and fails at its first read: refused before the
    // database file is opened (or created).
    struct stat info {};
    if (::stat(sql_file.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        throw ToolError(kExitError, "Unable to open sql file for reading " + sql_file + ": " +
                                        std::strerror(EISDIR));
    tessdb1::Connection* raw = nullptr;
    if (tessdb1::newConnection(database_file.c_str(), 0, &raw) != 0)
        throw ToolError(kExitError, "Unable to open datastore file " + database_file);
    const std::unique_ptr<tessdb1::Connection> connection(raw);
    if (connection->issueCommand("BEGIN IMMEDIATE;") != 0)
        throw ToolError(kExitError, "Unable to open datastore file " + database_file + ": " +
                                        connection->lastError());
    size_t number = 0;
    for (std::string line; std::getline(in, line, '\n');) {
        ++number;
        if (vesk::str::stripws(line).empty()) continue;
        if (connection->issueCommand(line.c_str()) != 0) {
            const std::string reason = connection->lastError();
            connection->issueCommand("ROLLBACK;");
            throw ToolError(kExitError, "SQL command error: " + line + " (" + sql_file + ":" +
                                            std::to_string(number) + ": " + reason +
                                            "; nothing of the file was applied)");
        }
    }
    if (in.bad())
        throw ToolError(kExitError, "cannot read " + sql_file + ": " + std::strerror(errno));
    if (connection->issueCommand("COMMIT;") != 0)
        throw ToolError(kExitError, "cannot commit " + sql_file + " into " + database_file + ": " +
                                        connection->lastError());
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
            throw ToolError(kExitError, "provider: \"" + options.providers[0] + "\" is not 1 to " +
                                            std::to_string(vesk::datastore::max_provider_size) +
                                            " letters, digits and \"._:+-\"");
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
    if (!options.option_id.empty())
        check_name("option id", options.option_id, size_t(vesk::datastore::max_option_id_size),
                   "max_option_id_size");
    if (providers.empty()) throw ToolError(kExitError, "no provider to run");
    if (options.timeout > 0)
        for (auto& provider : providers) provider.timeout = options.timeout;

    const std::string host = this_host();
    const std::string user = this_user();
    if (const std::string problem =
            name_problem(host, size_t(vesk::datastore::max_hostname_size), "max_hostname_size");
        !problem.empty())
        throw ToolError(kExitError, "Hostname: this host's name \"" + host + "\" " + problem);

    auto store = open_store(global, Access::write);
    const std::string target = store->write_target();
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
    const auto results = run_providers(providers, options.jobs, kMaxCollectedOutput, show);
    progress.clear();

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
        h.username = user.substr(0, size_t(vesk::datastore::max_username_size));
        h.unique_timestamp = run;
        record.option_id = r.option_id;
        // Both texts share one encoding: base64 when either is not UTF-8
        // or holds a NUL byte, which a server's text column (PostgreSQL)
        // cannot store.
        const auto plain = [](const std::string& text) {
            return is_valid_utf8(text) && text.find('\0') == std::string::npos;
        };
        if (plain(r.std_out) && plain(r.std_err)) {
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
        std::string note = r.timed_out                          ? "timed out"
                           : r.exit_status == kNotStartedStatus ? "not started"
                           : r.exit_status > 128                ? "killed by a signal"
                                                                : "";
        if (r.output_cut) note += std::string(note.empty() ? "" : "; ") + kOutputCutNote;
        table.rows.push_back({r.name, r.option_id, std::to_string(r.exit_status),
                              format_seconds(r.duration), std::to_string(r.std_out.size()), note});
        list.push_back({{"provider", r.name},
                        {"option", r.option_id},
                        {"exit_status", r.exit_status},
                        {"duration", r.duration},
                        {"stdout_bytes", r.std_out.size()},
                        {"timed_out", r.timed_out},
                        {"output_cut", r.output_cut}});
    }
    const std::string heading = "run " + std::to_string(run) + " (" + format_run(run) + ") on " +
                                host + ": " + std::to_string(results.size()) +
                                (results.size() == 1 ? " row" : " rows") + " stored in datastore " +
                                target + "\n";
    print_result(
        global.format,
        Json{{"host", host}, {"datastore", target}, {"unique_timestamp", run}, {"rows", list}},
        table, heading, "exit");
    for (const auto& r : results)
        if (r.output_cut)
            diag() << "vesk-datastore: warning: provider " << r.name << ": " << kOutputCutNote
                   << "; the rest was not stored\n";
    // A health check scripts on this: any provider that did not exit 0, or
    // whose output was not stored whole.
    const bool all_passed =
        std::all_of(results.begin(), results.end(),
                    [](const ProviderResult& r) { return r.exit_status == 0 && !r.output_cut; });
    return all_passed ? kExitOk : kExitNothing;
}

// ---- rows ----

void sort_rows(std::vector<Row>& rows) {
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return std::tie(a.Provider, a.Hostname, a.OptionID, a.Unique_timestamp, a.rowid) <
               std::tie(b.Provider, b.Hostname, b.OptionID, b.Unique_timestamp, b.rowid);
    });
}

namespace {

// The columns of a printed row, in every format.
const std::vector<std::string> kRowColumns = [] {
    std::vector<std::string> names;
    for (const auto& field : vesk::datastore::kRowFields) names.emplace_back(field.name);
    return names;
}();

std::string join_nodes(const std::vector<std::string>& names) {
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) text += (i ? "," : "") + names[i];
    return text;
}

// A row's cells under kRowColumns; the texts as stored.
std::vector<std::string> row_cells(const Row& row) {
    using vesk::datastore::FieldKind;
    std::vector<std::string> cells;
    for (const auto& field : vesk::datastore::kRowFields) {
        switch (field.kind) {
            case FieldKind::int32:
                cells.push_back(std::to_string(row.*field.int32));
                break;
            case FieldKind::int64:
                cells.push_back(std::to_string(row.*field.int64));
                break;
            case FieldKind::real:
                cells.push_back(format_seconds(row.*field.real));
                break;
            case FieldKind::text:
                cells.push_back(row.*field.text);
                break;
            case FieldKind::node_list:
                cells.push_back(join_nodes(row.*field.list));
                break;
        }
    }
    return cells;
}

// Indexes of the columns a table shows: all but the two output texts.
bool table_column(size_t index) {
    return kRowColumns[index] != "STDOUT" && kRowColumns[index] != "STDERR";
}

void print_outputs(const std::vector<Row>& rows, const Style& style) {
    for (const auto& row : rows) {
        std::cout << "\n"
                  << style.cyan() << "=== "
                  << terminal_safe(row.Provider + " on " + row.Hostname +
                                       (row.OptionID.empty() ? "" : " [" + row.OptionID + "]"),
                                   false)
                  << ", row " << row.rowid << ", exit " << row.Exit_status << style.reset() << "\n";
        const std::string out = terminal_safe(decode_output(row.STDOUT, row.Encoding), true);
        const std::string err = terminal_safe(decode_output(row.STDERR, row.Encoding), true);
        std::cout << out << (out.empty() || out.back() == '\n' ? "" : "\n");
        if (!err.empty()) {
            std::cout << style.red() << "--- stderr" << style.reset() << "\n"
                      << err << (err.back() == '\n' ? "" : "\n");
        }
    }
}

}  // namespace

int print_rows(const GlobalOptions& global, const RowSource& source, bool show_output,
               bool say_when_empty, RowColumns extra) {
    size_t count = 0;
    // The extra cells of row `i` of `part`, in column order.
    auto origin_of = [](const RowPart& part, size_t i) {
        return i < part.origin.size() ? part.origin[i] : std::string();
    };
    auto stale_of = [](const RowPart& part, size_t i) {
        return i < part.stale.size() && part.stale[i];
    };
    if (global.format == Format::json) {
        // One array, written element by element.
        source([&](const RowPart& part) {
            std::vector<JsonExtra> members;
            std::string origin, out_text, err_text;
            for (size_t i = 0; i < part.rows.size(); ++i) {
                const Row& row = part.rows[i];
                members.clear();
                if (extra.datastore) {
                    origin = origin_of(part, i);
                    members.push_back({"datastore", &origin, false});
                }
                if (extra.stale) members.push_back({"stale", nullptr, stale_of(part, i)});
                if (show_output) {
                    out_text = decode_output(row.STDOUT, row.Encoding);
                    err_text = decode_output(row.STDERR, row.Encoding);
                    members.push_back({"stdout_text", &out_text, false});
                    members.push_back({"stderr_text", &err_text, false});
                }
                // Indented one level inside the array.
                std::cout << (count++ ? ",\n  " : "[\n  ") << row_to_pretty_json(row, members, 1);
            }
            check_stdout();
        });
        std::cout << (count ? "\n]\n" : "[]\n");
    } else if (global.format == Format::csv) {
        std::vector<std::string> columns;
        if (extra.datastore) columns.push_back("datastore");
        columns.insert(columns.end(), kRowColumns.begin(), kRowColumns.end());
        if (extra.stale) columns.push_back("stale");
        if (show_output) {
            columns.push_back("stdout_text");
            columns.push_back("stderr_text");
        }
        print_csv(std::cout, Table{columns, {}});
        source([&](const RowPart& part) {
            Table table{{}, {}};
            for (size_t i = 0; i < part.rows.size(); ++i) {
                const Row& row = part.rows[i];
                std::vector<std::string> cells;
                if (extra.datastore) cells.push_back(origin_of(part, i));
                for (auto& cell : row_cells(row)) cells.push_back(std::move(cell));
                if (extra.stale) cells.push_back(stale_of(part, i) ? "stale" : "");
                if (show_output) {
                    cells.push_back(decode_output(row.STDOUT, row.Encoding));
                    cells.push_back(decode_output(row.STDERR, row.Encoding));
                }
                table.rows.push_back(std::move(cells));
                ++count;
            }
            print_csv_rows(std::cout, table);
            check_stdout();
        });
    } else {
        Table header;
        if (extra.datastore) header.columns.push_back("datastore");
        for (size_t c = 0; c < kRowColumns.size(); ++c)
            if (table_column(c)) header.columns.push_back(kRowColumns[c]);
        if (extra.stale) header.columns.push_back("stale");
        auto table_cells = [&](const RowPart& part, size_t i) {
            const auto all = row_cells(part.rows[i]);
            std::vector<std::string> cells;
            if (extra.datastore) cells.push_back(origin_of(part, i));
            for (size_t c = 0; c < all.size(); ++c)
                if (table_column(c)) cells.push_back(all[c]);
            if (extra.stale) cells.push_back(stale_of(part, i) ? "stale" : "");
            return cells;
        };
        // First pass: the widths.
        TableWidths widths(header);
        source([&](const RowPart& part) {
            for (size_t i = 0; i < part.rows.size(); ++i) widths.add(table_cells(part, i));
            count += part.rows.size();
        });
        if (count > 0) {
            const Style style = stdout_style();
            widths.print_header(std::cout, style);
            source([&](const RowPart& part) {
                for (size_t i = 0; i < part.rows.size(); ++i)
                    widths.print_row(std::cout, table_cells(part, i), style, "Exit_status");
                check_stdout();
            });
            if (show_output)
                source([&](const RowPart& part) {
                    print_outputs(part.rows, style);
                    check_stdout();
                });
        }
    }
    if (count == 0) {
        if (say_when_empty) diag() << "vesk-datastore: no rows found\n";
        return kExitNothing;
    }
    return kExitOk;
}

void check_row_options(const RowsOptions& options) {
    for (const auto& p : options.providers)
        check_name("provider name", p, size_t(vesk::datastore::max_provider_size),
                   "max_provider_size");
    for (const auto& h : options.hosts) {
        // A glob may hold what a name may not ([, ], *, ?), never a quote:
        // check it with those characters taken out.
        std::string plain = h;
        if (is_glob(h))
            for (auto& ch : plain)
                if (ch == '*' || ch == '?' || ch == '[' || ch == ']' || ch == '^' || ch == '-')
                    ch = 'x';
        check_name(is_glob(h) ? "host pattern" : "host name", plain,
                   size_t(vesk::datastore::max_hostname_size), "max_hostname_size");
    }
}

std::string row_query(const std::vector<std::string>& providers, const RowsOptions& options,
                      bool latest, size_t limit, bool glob) {
    std::string names;
    for (const auto& p : providers) names += (names.empty() ? "" : ",") + sql_literal(p);
    const std::string provider_condition =
        providers.size() == 1 ? "Provider = " + names : "Provider IN (" + names + ")";
    std::string where = provider_condition;
    const std::string rows = row_conditions(options.filter, glob);
    if (!rows.empty()) where += " AND " + rows;
    const std::string outcome = outcome_conditions(options.filter);
    const std::string table = vesk::datastore::table_name;
    std::string query;
    if (latest)
        // The newest run per option and host comes from the index alone;
        // each one's row (of rows stored twice under one key, the last
        // stored that passes the outcome conditions) is one more seek in
        // it, and only those rows are read from the table.
        query =
            "SELECT p.* FROM (SELECT Provider AS pr, Hostname AS h, OptionID AS o, "
            "MAX(Unique_timestamp) AS m FROM " +
            table + " WHERE " + where + " GROUP BY Provider, Hostname, OptionID) AS k JOIN " +
            table + " AS p ON p.rowid = (SELECT MAX(rowid) FROM " + table +
            " WHERE Provider = k.pr AND Hostname = k.h AND OptionID = k.o AND "
            "Unique_timestamp = k.m" +
            (outcome.empty() ? "" : " AND " + outcome) + ")";
    else
        query = "SELECT * FROM " + table + " WHERE " + where +
                (outcome.empty() ? "" : " AND " + outcome);
    query += " ORDER BY Provider, Hostname, OptionID, Unique_timestamp, rowid";
    if (limit > 0) query += " LIMIT " + std::to_string(limit);
    return query;
}

std::vector<std::string> rows_providers(Store& store, const RowsOptions& options, bool& reported) {
    std::vector<std::string> providers;
    reported = false;
    if (options.providers.empty()) {
        providers = store.queryable_provider_names();
    } else {
        // Named providers are looked up each, not among all stored ones.
        for (const auto& p : options.providers) {
            if (!store.has_provider(p)) {
                diag() << "vesk-datastore: unknown provider: " << p << " (nothing stored)\n";
                reported = true;
            } else {
                providers.push_back(p);
            }
        }
    }
    std::sort(providers.begin(), providers.end());
    providers.erase(std::unique(providers.begin(), providers.end()), providers.end());
    return providers;
}

int cmd_rows(const GlobalOptions& global, const RowsOptions& options) {
    check_row_options(options);
    auto store = open_store(global, Access::read);
    bool reported = false;
    const auto providers = rows_providers(*store, options, reported);
    const auto names = store->data_names();
    RowColumns extra;
    extra.datastore = names.size() > 1;
    extra.stale = options.latest;

    // Stale: a latest row that is not from its host's newest run, or whose
    // host has no row newer than the threshold. Hosts are looked up as
    // they appear in the answer.
    std::map<std::string, int64_t> host_runs;
    int64_t threshold = 0;
    if (options.latest) threshold = store->last_run() - options.stale_after;
    // One provider at a time keeps memory bounded by the largest provider.
    // All of them in one statement when the answer is bounded anyway: by
    // --limit, or by the named hosts of --latest (a row per provider,
    // option and host). Each datastore is asked itself, a failure of any is
    // an error.
    const bool named_hosts =
        !options.filter.hosts.empty() &&
        std::none_of(options.filter.hosts.begin(), options.filter.hosts.end(), is_glob);
    std::vector<std::vector<std::string>> batches;
    if (!providers.empty() && (options.limit > 0 || (options.latest && named_hosts)))
        batches.push_back(providers);
    else
        for (const auto& provider : providers) batches.push_back({provider});
    // Table output reads the rows twice (widths first); a small answer is
    // kept from the first read instead of being asked for again.
    constexpr size_t kKeptRows = 20000;
    std::vector<RowPart> kept;
    size_t kept_rows = 0;
    bool all_kept = false;
    const RowSource source = [&](const auto& sink) {
        if (all_kept) {
            for (const auto& part : kept) sink(part);
            return;
        }
        bool keeping = true;
        kept.clear();
        kept_rows = 0;
        size_t left = options.limit;
        for (const auto& batch : batches) {
            if (options.limit > 0 && left == 0) break;
            RowPart part;
            const std::string what = batch.size() == 1
                                         ? "reading the rows of provider \"" + batch[0] + "\""
                                         : std::string("reading the rows");
            for (const auto& name : names) {
                auto rows = store->select_from(
                    name, row_query(batch, options, options.latest, left, store->is_sqlite(name)),
                    what);
                for (auto& row : rows) {
                    part.origin.push_back(name);
                    part.rows.push_back(std::move(row));
                }
            }
            if (names.size() > 1) {
                // Merged: ordered as one answer, cut to the limit again.
                std::vector<size_t> order(part.rows.size());
                for (size_t i = 0; i < order.size(); ++i) order[i] = i;
                std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
                    const Row& x = part.rows[a];
                    const Row& y = part.rows[b];
                    return std::tie(x.Provider, x.Hostname, x.OptionID, x.Unique_timestamp) <
                           std::tie(y.Provider, y.Hostname, y.OptionID, y.Unique_timestamp);
                });
                if (options.limit > 0 && order.size() > left) order.resize(left);
                RowPart sorted;
                for (size_t i : order) {
                    sorted.rows.push_back(std::move(part.rows[i]));
                    sorted.origin.push_back(std::move(part.origin[i]));
                }
                part = std::move(sorted);
            }
            if (options.latest) {
                std::set<std::string> unknown;
                for (const auto& row : part.rows)
                    if (!host_runs.count(row.Hostname)) unknown.insert(row.Hostname);
                for (const auto& [host, run] : store->host_latest_runs(unknown))
                    host_runs[host] = run;
                for (const auto& host : unknown) host_runs.emplace(host, 0);
            }
            if (options.latest)
                for (const auto& row : part.rows) {
                    const auto found = host_runs.find(row.Hostname);
                    const int64_t host_run = found == host_runs.end() ? 0 : found->second;
                    part.stale.push_back(row.Unique_timestamp < host_run || host_run < threshold);
                }
            if (options.limit > 0) left -= part.rows.size();
            sink(part);
            kept_rows += part.rows.size();
            keeping = keeping && kept_rows <= kKeptRows;
            if (keeping)
                kept.push_back(std::move(part));
            else
                kept.clear();
        }
        all_kept = keeping;
    };
    // Unknown providers were named already; one message is enough.
    return print_rows(global, source, options.show_output, !(reported && providers.empty()), extra);
}

// ---- hosts, providers ----

namespace {

// Counts of what is stored, grouped by the provider (by_provider) or host.
int print_summary(const GlobalOptions& global, bool by_provider) {
    auto store = open_store(global, Access::read);
    std::map<std::string, GroupSummary> groups;
    if (store->data_names().size() == 1) {
        // One datastore groups by itself: only the groups travel.
        for (auto& g : store->group_summary(by_provider)) groups[g.name] = std::move(g);
    } else {
        // Several may share hosts and providers: merged per provider and host first.
        std::map<std::string, std::set<std::string>> others;
        for (const auto& s : store->summary()) {
            const std::string& name = by_provider ? s.provider : s.host;
            auto& g = groups[name];
            others[name].insert(by_provider ? s.host : s.provider);
            g.rows += s.rows;
            g.latest_run = std::max(g.latest_run, s.latest_run);
        }
        for (auto& [name, g] : groups) g.others = static_cast<int64_t>(others[name].size());
    }
    const std::string key = by_provider ? "provider" : "host";
    const std::string other = by_provider ? "hosts" : "providers";
    Table table{{key, other, "rows", "latest_run", "latest_run_time"}, {}};
    Json list = Json::array();
    for (const auto& [name, g] : groups) {
        table.rows.push_back({name, std::to_string(g.others), std::to_string(g.rows),
                              std::to_string(g.latest_run), format_run(g.latest_run)});
        list.push_back({{key, name},
                        {other, g.others},
                        {"rows", g.rows},
                        {"latest_run", g.latest_run},
                        {"latest_run_time", format_run(g.latest_run)}});
    }
    if (groups.empty()) {
        if (global.format != Format::table) print_result(global.format, list, table);
        diag() << "vesk-datastore: nothing stored\n";
        return kExitNothing;
    }
    print_result(global.format, list, table);
    return kExitOk;
}

}  // namespace

int cmd_hosts(const GlobalOptions& global) { return print_summary(global, false); }

int cmd_runs(const GlobalOptions& global, const RunsOptions& options) {
    auto store = open_store(global, Access::read);
    std::map<int64_t, RunSummary, std::greater<int64_t>> runs;
    for (const auto& name : store->data_names())
        for (const auto& part : store->runs(name, options.limit)) {
            RunSummary& run = runs[part.run];
            run.start = run.start == 0 ? part.start : std::min(run.start, part.start);
            run.hosts += part.hosts;
            run.rows += part.rows;
            run.failed += part.failed;
        }
    if (options.limit > 0)
        while (runs.size() > options.limit) runs.erase(std::prev(runs.end()));
    const auto names = store->data_names();
    if (names.size() > 1 && !runs.empty()) {
        // A host whose run several datastores hold (a node's own store and
        // the central one it ships to) counts once: the hosts of the runs
        // shown are asked for by run id, a few hundred ids a statement.
        std::map<int64_t, std::set<std::string>> hosts_of;
        std::vector<int64_t> ids;
        for (const auto& entry : runs) ids.push_back(entry.first);
        constexpr size_t kIdsPerQuery = 500;
        for (size_t first = 0; first < ids.size(); first += kIdsPerQuery) {
            std::string list;
            for (size_t i = first; i < ids.size() && i < first + kIdsPerQuery; ++i)
                list += (list.empty() ? "" : ",") + std::to_string(ids[i]);
            for (const auto& row : store->select_all("SELECT Unique_timestamp, Hostname FROM " +
                                                         vesk::datastore::table_name +
                                                         " WHERE Unique_timestamp IN (" + list +
                                                         ") GROUP BY Unique_timestamp, Hostname",
                                                     "reading the hosts of the runs"))
                hosts_of[row.Unique_timestamp].insert(row.Hostname);
        }
        for (auto& [id, run] : runs) run.hosts = int64_t(hosts_of[id].size());
    }
    Table table{{"run", "run_time", "start", "hosts", "rows", "failed"}, {}};
    Json list = Json::array();
    for (const auto& [id, run] : runs) {
        table.rows.push_back({std::to_string(id), format_run(id), format_time(run.start),
                              std::to_string(run.hosts), std::to_string(run.rows),
                              std::to_string(run.failed)});
        list.push_back({{"run", id},
                        {"run_time", format_run(id)},
                        {"start", run.start},
                        {"hosts", run.hosts},
                        {"rows", run.rows},
                        {"failed", run.failed}});
    }
    // An empty answer: "[]" and the CSV header for scripts, no table.
    if (!runs.empty() || global.format != Format::table) print_result(global.format, list, table);
    if (runs.empty()) {
        diag() << "vesk-datastore: nothing stored\n";
        return kExitNothing;
    }
    return kExitOk;
}
int cmd_providers(const GlobalOptions& global) { return print_summary(global, true); }

}  // namespace vesk::tool
