// vesk-datastore: collect, import, query, snapshot and compare provider
// results from a shell, through the datastore library.
#include <cerrno>
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
#include "filter.h"
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

// Reads the time options of a reading command into `options`; throws
// ToolError (exit 2) naming the option that cannot be read.
void settle_times(RowsOptions& options, const std::string& since, const std::string& until,
                  const std::string& stale_after) {
    const int64_t now = now_microseconds();
    auto read = [&](const std::string& option, const std::string& text, int64_t& when,
                    bool& is_run) {
        if (text.empty()) return;
        const std::string problem = parse_when(text, now, when, is_run);
        if (!problem.empty()) throw ToolError(kExitError, option + " \"" + text + "\" " + problem);
    };
    read("--since", since, options.filter.since, options.filter.since_run);
    read("--until", until, options.filter.until, options.filter.until_run);
    if (!stale_after.empty()) {
        const std::string problem = parse_age(stale_after, options.stale_after);
        if (!problem.empty())
            throw ToolError(kExitError, "--stale-after \"" + stale_after + "\" " + problem);
    }
    options.filter.hosts = options.hosts;
}

// A run id as `runs` lists it: a whole number above 0. (CLI11's
// PositiveNumber would answer "not in range 0.000000 to " and 309 digits.)
const CLI::Validator kRunId(
    [](std::string& value) -> std::string {
        char* end = nullptr;
        errno = 0;
        const long long id = std::strtoll(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || errno != 0 || id <= 0)
            return "not a run id (a whole number above 0, as `vesk-datastore runs` lists "
                   "them): " +
                   value;
        return "";
    },
    "RUN");

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
    // Each batch is one transaction: 50,000 rows commit about as fast as one
    // bulk insert of everything, at about 120 MB of memory; smaller batches
    // use less memory and commit more often.
    size_t batch_size = 50000;
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
    std::string export_since;
    auto* exp = app.add_subcommand("export", "Print stored rows as JSON Lines");
    exp->add_option("--provider", export_options.providers, "Only this provider (repeatable)")
        ->allow_extra_args(false);
    exp->add_option("--host", export_options.hosts,
                    "Only this host, or hosts matching this glob (repeatable)")
        ->allow_extra_args(false);
    exp->add_option("--since", export_since,
                    "Only runs after run id RUN, or at or after TIME (2026-11-23[T10:00], 2h, "
                    "7d): what a node has not shipped yet");
    bool export_snapshots = false;
    exp->add_flag("--snapshots", export_snapshots,
                  "After the rows, one line per snapshot member ({\"Snapshot\": NAME, and the "
                  "row's key}), which import records again: a backup keeps its baselines");

    // rows
    RowsOptions rows;
    std::string rows_since;
    std::string rows_until;
    std::string stale_after;
    int exit_status = 0;
    auto* r = app.add_subcommand("rows", "Show stored rows");
    r->add_option("--provider", rows.providers, "Only this provider (repeatable)")
        ->allow_extra_args(false);
    r->add_option("--host", rows.hosts,
                  "Only this host, or hosts matching this glob like node0[0-4]* (repeatable)")
        ->allow_extra_args(false);
    r->add_flag("--latest", rows.latest,
                "Only the latest row per provider, option and host, with a \"stale\" column");
    r->add_flag("--show-output", rows.show_output, "Print the captured outputs (decoded)");
    r->add_flag("--failed", rows.filter.failed, "Only rows whose exit status is not 0");
    auto* exit_option = r->add_option("--exit", exit_status, "Only rows with this exit status");
    r->add_option("--since", rows_since,
                  "Only runs at or after TIME (2026-11-23[T10:00[:00]][Z], or an age: 2h, 7d), "
                  "or after run id RUN");
    r->add_option("--until", rows_until, "Only runs before TIME, or up to run id RUN");
    r->add_option("--run", rows.filter.run, "Only the collection run with this id")->check(kRunId);
    r->add_option("--limit", rows.limit, "At most N rows (default: all)")
        ->check(CLI::Range(size_t(1), size_t(1) << 40));
    r->add_option("--stale-after", stale_after,
                  "With --latest: a host with no row this much newer than the newest run is "
                  "stale (default 1d)");

    auto* hosts = app.add_subcommand("hosts", "Hosts with stored rows: counts and latest run");
    auto* providers =
        app.add_subcommand("providers", "Providers with stored rows: counts and latest run");

    // snapshot
    auto* snap = app.add_subcommand("snapshot", "Create, list, show, remove and compare snapshots");
    snap->require_subcommand(1);
    std::string snap_name;
    bool snap_show_output = false;
    SnapshotCreateOptions create;
    std::string create_stale;
    auto* s_create = snap->add_subcommand(
        "create",
        "Record the latest row per provider, option and host as snapshot NAME (every host "
        "keeps its own run), or one run with --run");
    s_create->add_option("name", create.name, "Snapshot name")->required();
    s_create->add_option("--run", create.run, "Record this collection run exactly")->check(kRunId);
    s_create->add_flag("--replace", create.replace, "Record NAME anew when it exists");
    s_create->add_option("--stale-after", create_stale,
                         "A host whose newest row lags the newest run by more is named stale "
                         "(default 1d)");
    auto* s_list = snap->add_subcommand("list", "List the snapshots");
    auto* s_show = snap->add_subcommand("show", "Show the rows of snapshot NAME");
    s_show->add_option("name", snap_name, "Snapshot name")->required();
    s_show->add_flag("--show-output", snap_show_output, "Print the captured outputs (decoded)");
    auto* s_remove = snap->add_subcommand("remove", "Remove snapshot NAME");
    s_remove->add_option("name", snap_name, "Snapshot name")->required();
    // diff, and `snapshot diff` with the same options.
    DiffOptions diff;
    std::string diff_format_mode;
    auto add_diff = [&](CLI::App* parent) {
        auto* d = parent->add_subcommand(
            "diff",
            "Compare two of: a snapshot, a run (--run ID), the latest rows per host (the "
            "default right side); exit status 1 when something differs, 0 when nothing does");
        d->add_option("snapshots", diff.snapshots, "One or two snapshot names (left first)")
            ->expected(0, 2);
        d->add_option("--run", diff.runs, "A side given by run id (repeatable; after snapshots)")
            ->allow_extra_args(false)
            ->check(kRunId);
        d->add_option("--ignore-provider", diff.ignore,
                      "Leave this provider out (repeatable; also the names listed in "
                      "$HOME/.vesk/diff-ignore, one a line)")
            ->allow_extra_args(false);
        d->add_flag(
            "--no-ignore-file", [&](int64_t) { diff.use_ignore_file = false; },
            "Do not read $HOME/.vesk/diff-ignore");
        d->add_option("--duration-tolerance", diff.duration_tolerance,
                      "A duration that changed by more than PCT percent is a difference "
                      "(default: durations are not compared)")
            ->check(CLI::Validator(
                [](std::string& value) -> std::string {
                    // NaN passes a range check and would compare as no change.
                    char* end = nullptr;
                    const double percent = std::strtod(value.c_str(), &end);
                    if (value.empty() || *end != '\0' || !(percent >= 0 && percent <= 1e9))
                        return "not a percentage from 0 to 1000000000: " + value;
                    return "";
                },
                "PCT"));
        auto* g = d->add_option_group("mode", "What to print (default: a summary list)");
        g->add_flag(
            "--stat", [&](int64_t) { diff.mode = DiffMode::stat; },
            "Counts per provider and per host");
        g->add_flag(
            "--name-only", [&](int64_t) { diff.mode = DiffMode::name_only; },
            "The hosts that differ, one a line");
        g->add_flag(
            "-q,--quiet", [&](int64_t) { diff.mode = DiffMode::quiet; },
            "Nothing: the exit status only");
        g->add_flag(
            "--full", [&](int64_t) { diff.mode = DiffMode::full; },
            "Every difference with unified diffs of the outputs");
        g->require_option(0, 1);
        return d;
    };
    auto* s_diff = add_diff(snap);
    auto* top_diff = add_diff(&app);

    RunsOptions runs;
    auto* runs_cmd = app.add_subcommand("runs",
                                        "Collection runs, newest first: hosts, rows, "
                                        "failed rows");
    runs_cmd->add_option("--limit", runs.limit, "At most N runs (default: all)")
        ->check(CLI::Range(size_t(1), size_t(1) << 40));

    // prune
    PruneOptions prune;
    std::string prune_age;
    auto* prune_cmd = app.add_subcommand(
        "prune",
        "Remove old rows, never those a snapshot records; a dry run on a terminal unless --yes");
    prune_cmd->add_option("--keep-runs", prune.keep_runs, "Keep each host's newest N runs")
        ->check(CLI::Range(size_t(1), size_t(1) << 40));
    prune_cmd->add_option("--older-than", prune_age, "Remove runs older than AGE (90m, 12h, 30d)");
    prune_cmd->add_flag("--dry-run", prune.dry_run, "Count what would go, remove nothing");
    prune_cmd->add_flag("-y,--yes", prune.yes, "Remove, even when standard output is a terminal");
    prune_cmd->add_flag("--compact", prune.compact,
                        "Then give the freed space back (PRAGMA incremental_vacuum, or VACUUM)");
    prune_cmd->add_option("--batch", prune.batch, "Rows per transaction")
        ->check(CLI::Range(size_t(1), size_t(1000000)))
        ->capture_default_str();

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
            settle_times(export_options, export_since, "", "");
            return cmd_export(global, export_options, export_snapshots);
        }
        if (*chk) return cmd_check(global);
        if (*r) {
            rows.filter.has_exit = exit_option->count() > 0;
            rows.filter.exit_status = exit_status;
            settle_times(rows, rows_since, rows_until, stale_after);
            return cmd_rows(global, rows);
        }
        if (*hosts) return cmd_hosts(global);
        if (*providers) return cmd_providers(global);
        if (*s_create) {
            if (!create_stale.empty()) {
                const std::string problem = parse_age(create_stale, create.stale_after);
                if (!problem.empty())
                    throw ToolError(kExitError,
                                    "--stale-after \"" + create_stale + "\" " + problem);
            }
            return cmd_snapshot_create(global, create);
        }
        if (*runs_cmd) return cmd_runs(global, runs);
        if (*prune_cmd) {
            if (!prune_age.empty()) {
                std::string problem = parse_age(prune_age, prune.older_than);
                if (problem.empty() && prune.older_than <= 0) problem = "is no age above 0";
                if (!problem.empty())
                    throw ToolError(kExitError, "--older-than \"" + prune_age + "\" " + problem);
            }
            return cmd_prune(global, prune);
        }
        if (*top_diff) return cmd_diff(global, diff);
        if (*s_list) return cmd_snapshot_list(global);
        if (*s_show) return cmd_snapshot_show(global, snap_name, snap_show_output);
        if (*s_remove) return cmd_snapshot_remove(global, snap_name);
        if (*s_diff) return cmd_diff(global, diff);
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
