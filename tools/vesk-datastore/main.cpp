// vesk-datastore: collect, import, query, snapshot and compare provider
// results from a shell, through the datastore library.
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "vesk/log.h"

#include "commands.h"
#include "errors.h"
#include "output.h"
#include "session.h"
#include "validate.h"

namespace {

using namespace vesk::tool;

// The library's own messages go up to level 7 (debug).
constexpr int kVerboseLogLevel = 7;

// "datastore <file> is damaged: <reason>; ..." when `text` (a message and
// the library's log) says SQLite found a file corrupt, else "".
std::string damage_message(const std::string& text) {
    std::string cause;
    for (const char* sign : {"database disk image is malformed", "file is not a database"})
        if (text.find(sign) != std::string::npos) cause = sign;
    if (cause.empty()) return "";
    std::string file = opened_files().empty() ? std::string("?") : opened_files().front();
    for (const auto& each : opened_files())
        if (text.find(each) != std::string::npos) file = each;
    return "datastore " + file + " is damaged: " + cause + "; `vesk-datastore check` tells more";
}

// The datastore's open failure, cause first, with a hint where one is
// obvious. `reason` is what the datastore logged, messages joined by ";".
std::string open_message(const std::string& reason) {
    // Of several messages, the first one of the datastore names the cause.
    std::string first = reason.substr(0, reason.find(';'));
    const std::string marker = ": cannot open: ";
    const size_t at = first.find(marker);
    std::string text = at == std::string::npos ? "cannot open datastore: " + first
                                               : "cannot open " + first.substr(0, at) + ": " +
                                                     first.substr(at + marker.size());
    if (text.find("readonly database") != std::string::npos ||
        text.find("Permission denied") != std::string::npos)
        text += "; to read it without writing, add read_only=true to its source_parameters";
    else if (text.find("unable to open database file") != std::string::npos)
        text += "; check that its folder exists and may be written";
    return text;
}

int run(int argc, char** argv) {
    GlobalOptions global;
    std::string format = "table";

    CLI::App app{
        "vesk-datastore: collect, import, query, snapshot and compare provider results.\n"
        "Exit codes: 0 success; 1 nothing found, a difference, or a provider that did\n"
        "not exit 0; 2 bad usage, bad configuration, a missing snapshot or datastore,\n"
        "a write error or a datastore error.",
        "vesk-datastore"};
    app.fallthrough();
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("vesk-datastore ") + VESK_TOOL_VERSION);
    app.add_option("--config", global.config_file,
                   "Group file or datastore configuration file (default: the installed "
                   "default configuration)");
    app.add_option("--datastore", global.datastores,
                   "Use only the named datastore instance (repeatable)")
        ->allow_extra_args(false);
    app.add_flag("-v,--verbose", global.verbose, "Show the library's messages");
    app.add_option("--format", format, "Output format where a command prints rows")
        ->check(CLI::IsMember({"table", "json", "csv"}));

    // collect
    CollectOptions collect;
    auto* c = app.add_subcommand("collect",
                                 "Run providers on this host as one collection run "
                                 "and store one row per provider");
    c->add_option("--providers-file", collect.provider_file,
                  "Provider file: lines of \"NAME [timeout=S] [option=ID] : COMMAND\"");
    c->add_option("--provider", collect.providers,
                  "Run only this provider (repeatable); with \"-- COMMAND ARGS...\" run that "
                  "command under this name")
        ->allow_extra_args(false);
    c->add_option("--option", collect.option_id, "Option id of the command given after \"--\"");
    c->add_option("--timeout", collect.timeout,
                  "Timeout of every provider, seconds (default: each provider's own, 10 "
                  "unless its line says timeout=S)")
        ->check(CLI::Validator(
            [](std::string& value) -> std::string {
                char* end = nullptr;
                const double seconds = std::strtod(value.c_str(), &end);
                if (value.empty() || *end != '\0') return "not a number: " + value;
                return timeout_problem(seconds);
            },
            "SECONDS"));
    c->add_option("--jobs", collect.jobs, "Providers run at the same time")
        ->check(CLI::Range(1, 256))
        ->capture_default_str();
    c->add_option("command", collect.command, "Command to run as the one provider (after \"--\")");

    // import / export
    std::string import_file;
    size_t batch_size = 10000;
    auto* imp = app.add_subcommand("import", "Store rows from JSON Lines (FILE or - for stdin)");
    imp->add_option("file", import_file, "JSON Lines file, or - for standard input")->required();
    imp->add_option("--batch", batch_size, "Rows per bulk insert")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    bool allow_duplicates = false;
    imp->add_flag("--allow-duplicates", allow_duplicates,
                  "Store rows whose (Provider, Hostname, OptionID, Unique_timestamp) is "
                  "stored already (default: skip and count them)");

    RowsOptions export_options;
    auto* exp = app.add_subcommand("export", "Print stored rows as JSON Lines");
    exp->add_option("--provider", export_options.providers, "Only this provider (repeatable)")
        ->allow_extra_args(false);
    exp->add_option("--host", export_options.hosts, "Only this host (repeatable)")
        ->allow_extra_args(false);

    // rows
    RowsOptions rows;
    auto* r = app.add_subcommand("rows", "Show stored rows");
    r->add_option("--provider", rows.providers, "Only this provider (repeatable)")
        ->allow_extra_args(false);
    r->add_option("--host", rows.hosts, "Only this host (repeatable)")->allow_extra_args(false);
    r->add_flag("--latest", rows.latest, "Only the latest row per provider, option and host");
    r->add_flag("--show-output", rows.show_output, "Print the captured outputs (decoded)");

    auto* hosts = app.add_subcommand("hosts", "Hosts with stored rows: counts and latest run");
    auto* providers =
        app.add_subcommand("providers", "Providers with stored rows: counts and latest run");

    // snapshot
    auto* snap = app.add_subcommand("snapshot", "Create, list, show, remove and compare snapshots");
    snap->require_subcommand(1);
    std::string snap_name;
    std::string snap_other;
    bool snap_show_output = false;
    auto* s_create = snap->add_subcommand("create", "Record the latest run as snapshot NAME");
    s_create->add_option("name", snap_name, "Snapshot name")->required();
    auto* s_list = snap->add_subcommand("list", "List the snapshots");
    auto* s_show = snap->add_subcommand("show", "Show the rows of snapshot NAME");
    s_show->add_option("name", snap_name, "Snapshot name")->required();
    s_show->add_flag("--show-output", snap_show_output, "Print the captured outputs (decoded)");
    auto* s_remove = snap->add_subcommand("remove", "Remove snapshot NAME");
    s_remove->add_option("name", snap_name, "Snapshot name")->required();
    auto* s_diff =
        snap->add_subcommand("diff",
                             "Compare snapshot NAME with the latest run, or with snapshot OTHER; "
                             "exit status 1 when something differs");
    s_diff->add_option("name", snap_name, "Snapshot name")->required();
    s_diff->add_option("other", snap_other, "Other snapshot (default: the latest run)");

    // sql
    std::string sql_file;
    std::string database_file;
    auto* sql = app.add_subcommand("sql",
                                   "Run an SQL file (one statement per line) into a "
                                   "database file");
    sql->add_option("file", sql_file, "SQL file")->required();
    sql->add_option("database", database_file, "Database file")->required();

    // config
    auto* cfg = app.add_subcommand("config", "Show or check datastore configurations");
    cfg->require_subcommand(1);
    auto* cfg_show = cfg->add_subcommand("show", "The configured datastores, defaults filled in");
    std::string check_file;
    auto* cfg_check = cfg->add_subcommand("check", "Check a configuration file");
    cfg_check->add_option("file", check_file, "Group file or datastore configuration file")
        ->required();

    // check
    auto* chk = app.add_subcommand("check",
                                   "Run SQLite's integrity check on the configured datastores; "
                                   "exit status 2 when one is damaged");

    // Every command's --help names the options that go before it.
    std::vector<CLI::App*> pending{&app};
    while (!pending.empty()) {
        CLI::App* each = pending.back();
        pending.pop_back();
        for (CLI::App* sub : each->get_subcommands({})) {
            sub->footer(
                "Global options (before the command): --config FILE, --datastore NAME,\n"
                "--format table|json|csv (default table), -v/--verbose, --version.");
            pending.push_back(sub);
        }
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // A word that is no command reads better named than as CLI11's
        // "A subcommand is required".
        CLI::App* deepest = &app;
        while (!deepest->get_subcommands().empty()) deepest = deepest->get_subcommands().front();
        const auto extras = app.remaining();
        const bool needs_command = !deepest->get_subcommands({}).empty();
        std::cerr << "vesk-datastore: "
                  << (needs_command && !extras.empty() ? "unknown command: " + extras.front()
                                                       : std::string(e.what()))
                  << "\n"
                  << "Run with --help for more information.\n";
        return kExitError;
    }

    auto dispatch = [&]() -> int {
        if (*c) return cmd_collect(global, collect);
        if (*imp) return cmd_import(global, import_file, batch_size, allow_duplicates);
        if (*exp) {
            if (global.format == Format::csv)
                throw ToolError(kExitError,
                                "export writes JSON Lines; --format csv does not "
                                "apply (use `--format csv rows`)");
            return cmd_export(global, export_options);
        }
        if (*chk) return cmd_check(global);
        if (*r) return cmd_rows(global, rows);
        if (*hosts) return cmd_hosts(global);
        if (*providers) return cmd_providers(global);
        if (*s_create) return cmd_snapshot_create(global, snap_name);
        if (*s_list) return cmd_snapshot_list(global);
        if (*s_show) return cmd_snapshot_show(global, snap_name, snap_show_output);
        if (*s_remove) return cmd_snapshot_remove(global, snap_name);
        if (*s_diff) return cmd_snapshot_diff(global, snap_name, snap_other);
        if (*sql) return cmd_sql(sql_file, database_file);
        if (*cfg_show) return cmd_config_show(global);
        if (*cfg_check) return cmd_config_check(global, check_file);
        return kExitError;
    };

    global.format = format == "json" ? Format::json : format == "csv" ? Format::csv : Format::table;
    if (global.verbose) vesk::log::LOG_LEVEL = kVerboseLogLevel;

    // Unless verbose, what the library logs while the command runs is kept
    // back: a failure reports it as its reason, a success passes it on.
    std::ostream terminal(std::cerr.rdbuf());
    std::ostringstream library_log;
    set_diag(&terminal);
    struct Restore {
        std::streambuf* buffer;
        ~Restore() {
            std::cerr.rdbuf(buffer);
            set_diag(nullptr);
        }
    } restore{global.verbose ? std::cerr.rdbuf() : std::cerr.rdbuf(library_log.rdbuf())};

    auto joined_log = [&] {
        std::string reason = library_log.str();
        while (!reason.empty() && reason.back() == '\n') reason.pop_back();
        for (auto& ch : reason)
            if (ch == '\n') ch = ';';
        return reason;
    };
    try {
        const int code = dispatch();
        check_stdout(true);
        // A read that met a damaged file may still have answered in part.
        const std::string log = joined_log();
        if (const std::string damage = damage_message(log); !damage.empty()) {
            terminal << "vesk-datastore: " << terminal_safe(damage, false) << "\n";
            return kExitError;
        }
        terminal << library_log.str() << std::flush;
        return code;
    } catch (const std::exception& e) {
        std::cout.flush();
        const auto* tool_error = dynamic_cast<const ToolError*>(&e);
        std::string message = e.what();
        std::string reason = joined_log();
        bool explained = false;
        if (const std::string damage = damage_message(message + ";" + reason); !damage.empty()) {
            message = damage;
            reason.clear();
            explained = true;
        } else if (tool_error != nullptr && tool_error->open_failure && !reason.empty()) {
            // The datastore's own reason first; the controller's account
            // of the same failure is left to -v.
            // What the command put before the controller's text stays.
            const size_t controller = message.find("cannot open datastore: ");
            message = (controller == std::string::npos ? "" : message.substr(0, controller)) +
                      open_message(reason);
            reason.clear();
            explained = true;
        }
        const bool hint = !explained && reason.empty() && !global.verbose &&
                          tool_error != nullptr && tool_error->datastore_failure;
        // Names in a message may hold any byte: the terminal gets them escaped.
        terminal << "vesk-datastore: " << terminal_safe(message, false)
                 << (reason.empty() ? "" : " [" + terminal_safe(reason, false) + "]")
                 << (hint ? " (run with -v for the datastore's messages)" : "") << "\n";
        return tool_error != nullptr ? tool_error->code : int(kExitError);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // A closed pipe (`export | head`) ends the output quietly.
    std::signal(SIGPIPE, SIG_DFL);
    // Character classes of UTF-8 for display widths; nothing else of the
    // locale is used.
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) std::setlocale(LC_CTYPE, "C.utf8");
    try {
        install_checked_stdout();
        settle_home();
        const int code = run(argc, argv);
        check_stdout(true);  // --help and --version print outside the commands
        return code;
    } catch (const ToolError& e) {
        std::cerr << "vesk-datastore: " << e.what() << "\n";
        return e.code;
    } catch (const std::exception& e) {
        std::cerr << "vesk-datastore: " << e.what() << "\n";
        return kExitError;
    }
}
