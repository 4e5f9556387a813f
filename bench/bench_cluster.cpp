// vesk-datastore on a whole cluster's store: 1,000,000 rows (200 providers x
// 500 hosts x 10 runs, 200-byte outputs, every host with its own run stamps
// an hour apart, one provider in fifty failing on one host in ten).
//
//   cmd/<command>        the staged tool run as a child process per
//                        iteration (process start included, standard output
//                        to /dev/null, exit status 0 required); manual time
//   import/bulk_insert   one OP_BULK_INSERT of the rows, built in memory
//                        beforehand, into a new datastore file
//   import/bulk_insert_batches  the same in calls of kImportBatch rows (the
//                        tool's default batch), each its own transaction, as
//                        the tool's import stores them
//   import/tool          `vesk-datastore import` of the same rows as JSON
//                        Lines into a new default datastore
//   prune/half           `prune --keep-runs 5 --yes` on a copy of the store
//                        (half of the rows go) while a reader runs
//                        `rows --provider P --host H` over and over; every
//                        read must succeed
// At the end the import/bulk throughput ratio is printed (goal: 0.9 or more).
//
// VESK_CLUSTER_DIR names a folder that keeps the rows (rows.jsonl) and the
// imported store between runs: they are made once. Without it a new folder
// is used and removed at the end. VESK_BENCH_SCALE divides the number of
// hosts (the ctest smoke run uses 100: 5 hosts, 10,000 rows);
// VESK_BENCH_DIR: see bench_support.h.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "vesk/datastore.h"
#include "vesk/datastore/operations.h"
#include "vesk/datastore/vocabulary.h"

#include "bench_support.h"

extern char** environ;

namespace vd = vesk::datastore;
namespace fs = std::filesystem;
using namespace vesk::bench;

namespace {

constexpr size_t kProviders = 200;
constexpr size_t kHosts = 500;
constexpr size_t kRuns = 10;
constexpr int64_t kHour = int64_t(3600) * 1000000;
// Rows per batch of `vesk-datastore import` by default.
constexpr int kImportBatch = 50000;

size_t hosts() { return scaled(kHosts); }
size_t row_count() { return kProviders * hosts() * kRuns; }

std::string numbered(const char* prefix, size_t n, int width) {
    char text[32];
    std::snprintf(text, sizeof text, "%s%0*zu", prefix, width, n);
    return text;
}
// A host that exists at every scale, and a provider.
std::string some_host() { return numbered("node", std::min<size_t>(42, hosts() - 1), 4); }
const char* kSomeProvider = "provider007";

// The folder of this run's files: VESK_CLUSTER_DIR (kept) or a new one.
const std::string& work_dir() {
    static const std::string dir = [] {
        const char* kept = std::getenv("VESK_CLUSTER_DIR");
        const std::string path = kept && *kept ? std::string(kept) : bench_dir() + "/cluster";
        fs::create_directories(path);
        return fs::absolute(path).string();
    }();
    return dir;
}

// When the rows were made (microseconds): their run stamps lie before it.
int64_t generated_at() {
    static const int64_t at = [] {
        const std::string file = work_dir() + "/generated_at";
        int64_t value = 0;
        if (std::ifstream in(file); in >> value && value > 0) return value;
        value = int64_t(std::time(nullptr)) * 1000000;
        std::ofstream(file) << value << "\n";
        return value;
    }();
    return at;
}

// Every row, in the order of run, host, provider.
template <typename Visit>
void for_each_row(Visit visit) {
    const int64_t now = generated_at();
    vd::InsertRecord r;
    auto& h = r.header;
    for (size_t run = 0; run < kRuns; ++run) {
        for (size_t host = 0; host < hosts(); ++host) {
            h.hostname = numbered("node", host, 4);
            h.node_names = {h.hostname};
            h.num_nodes = 1;
            h.unique_timestamp = now - int64_t(kRuns - run) * kHour + int64_t(host) * 1000;
            h.timestamp = h.unique_timestamp / 1000000;
            h.version = 1;
            h.username = "bench";
            for (size_t p = 0; p < kProviders; ++p) {
                h.provider = numbered("provider", p, 3);
                h.exit_status = p % 50 == 0 && host % 10 == 0 ? 1 : 0;
                h.duration = 0.01 * double(p % 7 + 1);
                std::string text;
                const std::string word =
                    h.hostname + " " + h.provider + " run " + std::to_string(run) + " ";
                while (text.size() < 199) text += word;
                text.resize(199);
                r.std_out = text + "\n";
                visit(r);
            }
        }
    }
}

// The rows as JSON Lines, written once (no text needs escaping but the
// line break of each output).
const std::string& rows_file() {
    static const std::string path = [] {
        const std::string file = work_dir() + "/rows.jsonl";
        const std::string done = file + ".done";
        if (fs::exists(done)) return file;
        std::ofstream out(file, std::ios::binary);
        char number[64];
        for_each_row([&](const vd::InsertRecord& r) {
            const auto& h = r.header;
            std::snprintf(number, sizeof number, "%.17g", h.duration);
            out << R"({"Provider":")" << h.provider << R"(","Hostname":")" << h.hostname
                << R"(","num_nodes":1,"node_names":[")" << h.hostname << R"("],"Exit_status":)"
                << h.exit_status << R"(,"Timestamp":)" << h.timestamp << R"(,"Duration":)" << number
                << R"(,"STDOUT":")" << r.std_out.substr(0, r.std_out.size() - 1)
                << R"(\n","OptionID":"","version":1,"Username":"bench","Unique_timestamp":)"
                << h.unique_timestamp << "}\n";
        });
        out.close();
        if (!out) {
            std::fprintf(stderr, "cannot write %s\n", file.c_str());
            std::exit(1);
        }
        std::ofstream(done) << "\n";
        return file;
    }();
    return path;
}

// The environment of the children: this one with HOME replaced.
std::vector<std::string> environment(const std::string& home) {
    std::vector<std::string> env = {"HOME=" + home};
    for (char** e = environ; *e != nullptr; ++e)
        if (std::string(*e).rfind("HOME=", 0) != 0) env.emplace_back(*e);
    return env;
}

// Runs the staged tool with `args` under `home`, standard output (and, when
// `quiet`, standard error) to /dev/null; its exit status, or -1 when it did
// not exit normally.
int run_tool(const std::string& home, const std::vector<std::string>& args, bool quiet = false) {
    static const std::string tool = VESK_TOOL_PATH;
    std::vector<std::string> env_text = environment(home);
    std::vector<char*> env;
    for (auto& text : env_text) env.push_back(text.data());
    env.push_back(nullptr);
    std::vector<std::string> arg_text = {tool};
    arg_text.insert(arg_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& text : arg_text) argv.push_back(text.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    if (quiet) posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int status = -1;
    const bool spawned =
        posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv.data(), env.data()) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (!spawned || ::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The datastore file of the default datastore under `home`, or "".
std::string store_file(const std::string& home) {
    std::error_code ec;
    for (fs::recursive_directory_iterator it(home + "/.vesk", ec), end; !ec && it != end;
         it.increment(ec))
        if (it->path().filename() == "vesk.db") return it->path().string();
    return "";
}

// The imported store and its "bench" snapshot, made once, with its
// summary up to date (as the first `hosts` after the import leaves it;
// BM_FirstSummaryRead times that first one).
const std::string& store_home() {
    static const std::string home = [] {
        const std::string dir = work_dir() + "/home";
        if (fs::exists(dir + "/.done")) {
            if (run_tool(dir, {"hosts"}) != 0) {
                std::fprintf(stderr, "hosts failed on %s\n", dir.c_str());
                std::exit(1);
            }
            return dir;
        }
        fs::remove_all(dir);
        fs::create_directories(dir);
        std::fprintf(stderr, "importing %zu rows into %s\n", row_count(), dir.c_str());
        if (run_tool(dir, {"import", rows_file()}) != 0 ||
            run_tool(dir, {"snapshot", "create", "bench"}) != 0 || run_tool(dir, {"hosts"}) != 0) {
            std::fprintf(stderr, "making the store failed\n");
            std::exit(1);
        }
        std::ofstream(dir + "/.done") << "\n";
        return dir;
    }();
    return home;
}

int64_t count_rows(const std::string& file) {
    sqlite3* db = nullptr;
    int64_t n = -1;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* st = nullptr;
        const std::string sql = "SELECT COUNT(*) FROM " + vd::table_name;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) == SQLITE_OK &&
            sqlite3_step(st) == SQLITE_ROW)
            n = sqlite3_column_int64(st, 0);
        sqlite3_finalize(st);
    }
    sqlite3_close(db);
    return n;
}

// Runs the tool once and records the run's wall time as the iteration's
// time; the tool's exit status.
int timed_tool_run(benchmark::State& state, const std::string& home,
                   const std::vector<std::string>& args) {
    const auto start = std::chrono::steady_clock::now();
    const int status = run_tool(home, args);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return status;
}

// One command of the tool per iteration, timed from spawn to exit. One run
// before the timed ones: the first `hosts`, `providers` or `runs` after new
// rows folds them into the store's summary, which BM_FirstSummaryRead times
// on its own.
void BM_Command(benchmark::State& state, std::vector<std::string> args) {
    const std::string& home = store_home();
    if (run_tool(home, args) != 0) {
        state.SkipWithError("the untimed first run failed");
        return;
    }
    for (auto _ : state) {
        const int status = timed_tool_run(state, home, args);
        if (status != 0) {
            state.SkipWithError(("exit status " + std::to_string(status)).c_str());
            break;
        }
    }
}

// Writes the files of the runs before to the disk, so that a timed run
// does not pay for their write-back.
void settle() { ::sync(); }

// One bulk insert of every row (argument 0), or one per `argument` rows,
// each its own transaction, as the tool's import stores its batches. The
// time runs from the first call to the datastore's close, as an import's
// runs to its exit: closing moves the write-ahead log into the file.
void BM_BulkInsert(benchmark::State& state) {
    std::vector<vd::InsertRecord> rows;
    rows.reserve(row_count());
    for_each_row([&](const vd::InsertRecord& r) { rows.push_back(r); });
    const size_t batch = state.range(0) > 0 ? size_t(state.range(0)) : rows.size();
    std::vector<std::vector<vd::InsertRecord>> parts;
    for (size_t first = 0; first < rows.size(); first += batch)
        parts.emplace_back(rows.begin() + long(first),
                           rows.begin() + long(std::min(rows.size(), first + batch)));
    rows = {};
    const std::string db = work_dir() + "/bulk.db";
    for (auto _ : state) {
        vd::DataStoreParseUtility::clear_db_vector();
        remove_db(db);
        const std::string name = open_datastore("source=" + db);
        settle();
        const auto start = std::chrono::steady_clock::now();
        bool ok = true;
        for (const auto& part : parts)
            ok = ok &&
                 vd::execute_ioctl({name}, vd::OP_BULK_INSERT, &part, nullptr, nullptr, nullptr);
        const auto inserted = std::chrono::steady_clock::now();
        vd::DataStoreParseUtility::clear_db_vector();
        const auto closed = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(closed - start).count());
        state.counters["close_s"] = std::chrono::duration<double>(closed - inserted).count();
        if (!ok) state.SkipWithError("bulk insert failed");
    }
    vd::DataStoreParseUtility::clear_db_vector();
    remove_db(db);
    state.counters["rows/s"] =
        benchmark::Counter(double(state.iterations() * row_count()), benchmark::Counter::kIsRate);
}

void BM_ToolImport(benchmark::State& state) {
    const std::string& file = rows_file();
    const std::string home = work_dir() + "/import";
    for (auto _ : state) {
        fs::remove_all(home);
        fs::create_directories(home);
        settle();
        const int status = timed_tool_run(state, home, {"import", file});
        if (status != 0) state.SkipWithError("import failed");
    }
    fs::remove_all(home);
    state.counters["rows/s"] =
        benchmark::Counter(double(state.iterations() * row_count()), benchmark::Counter::kIsRate);
}

// A fresh `home` holding a copy of the benchmark's store; the copy's file.
std::string copy_store(const std::string& home) {
    const std::string source = store_file(store_home());
    fs::remove_all(home);
    const fs::path copy = fs::path(home) / fs::relative(source, store_home());
    fs::create_directories(copy.parent_path());
    fs::copy_file(source, copy);
    return copy.string();
}

// `hosts` on a copy of the store without its summary: the first summary
// read after an import of every row builds it from them.
void BM_FirstSummaryRead(benchmark::State& state) {
    const std::string home = work_dir() + "/first-read";
    for (auto _ : state) {
        const std::string copy = copy_store(home);
        sqlite3* db = nullptr;
        bool dropped =
            sqlite3_open_v2(copy.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK;
        for (const char* object :
             {"TRIGGER IF EXISTS vesk_summary_insert", "TRIGGER IF EXISTS vesk_summary_delete",
              "TRIGGER IF EXISTS vesk_summary_update", "TABLE IF EXISTS vesk_summary_mark",
              "TABLE IF EXISTS vesk_summary_run", "TABLE IF EXISTS vesk_summary_host_provider"})
            dropped = dropped && sqlite3_exec(db, (std::string("DROP ") + object).c_str(), nullptr,
                                              nullptr, nullptr) == SQLITE_OK;
        sqlite3_close(db);
        if (!dropped) {
            state.SkipWithError("cannot drop the summary of the copy");
            break;
        }
        const int status = timed_tool_run(state, home, {"hosts"});
        if (status != 0) state.SkipWithError("hosts failed");
    }
    fs::remove_all(home);
    state.counters["rows/s"] =
        benchmark::Counter(double(state.iterations() * row_count()), benchmark::Counter::kIsRate);
}

void BM_Prune(benchmark::State& state) {
    const std::string home = work_dir() + "/prune";
    int64_t removed = 0;
    int64_t failures = 0;
    int64_t reads = 0;
    for (auto _ : state) {
        const std::string copy = copy_store(home);
        const int64_t before = count_rows(copy);
        std::atomic<bool> done{false};
        std::thread reader([&] {
            while (!done) {
                if (run_tool(home, {"rows", "--provider", kSomeProvider, "--host", some_host()},
                             true) != 0)
                    ++failures;
                ++reads;
            }
        });
        const int status = timed_tool_run(state, home, {"prune", "--keep-runs", "5", "--yes"});
        done = true;
        reader.join();
        removed += before - count_rows(copy);
        if (status != 0) state.SkipWithError("prune failed");
    }
    fs::remove_all(home);
    state.counters["rows_removed/s"] =
        benchmark::Counter(double(removed), benchmark::Counter::kIsRate);
    state.counters["reads"] = double(reads);
    state.counters["reader_failures"] = double(failures);
    if (failures > 0) state.SkipWithError("a read failed while prune ran");
}

// Console output plus the import/bulk throughput ratios at the end.
class RatioReporter : public TimesReporter {
public:
    void Finalize() override {
        TimesReporter::Finalize();
        const double bulk = time_of("import/bulk_insert");
        const double batches = time_of("import/bulk_insert_batches");
        const double tool = time_of("import/tool");
        if (bulk > 0 && tool > 0)
            std::printf("import/bulk throughput for %zu rows: %.2f (goal: 0.9 or more)\n",
                        row_count(), bulk / tool);
        if (batches > 0 && tool > 0)
            std::printf("import/bulk in batches of %d: %.2f\n", kImportBatch, batches / tool);
    }
};

}  // namespace

int main(int argc, char** argv) {
    const std::string glob = "node00[0-4]*";
    const std::string host = some_host();
    // Failed rows of the last two runs: the time two hours before the rows
    // were made, so that a kept store answers the same later.
    char since[32];
    const std::time_t two_hours_before = std::time_t(generated_at() / 1000000 - 2 * 3600);
    std::tm utc{};
    gmtime_r(&two_hours_before, &utc);
    std::strftime(since, sizeof since, "%Y-%m-%dT%H:%M:%SZ", &utc);

    const std::vector<std::pair<std::string, std::vector<std::string>>> commands = {
        {"rows --provider P --host H", {"rows", "--provider", kSomeProvider, "--host", host}},
        {"rows --latest --host H", {"rows", "--latest", "--host", host}},
        {"rows --latest --provider P --host GLOB",
         {"rows", "--latest", "--provider", kSomeProvider, "--host", glob}},
        {"rows --failed --since 2h --limit 1000",
         {"rows", "--failed", "--since", since, "--limit", "1000"}},
        {"runs --limit 20", {"runs", "--limit", "20"}},
        {"runs", {"runs"}},
        {"providers", {"providers"}},
        {"hosts", {"hosts"}},
        {"snapshot create --replace", {"snapshot", "create", "bench", "--replace"}},
        {"diff --quiet", {"diff", "bench", "--quiet"}},
        {"export (every row)", {"export"}},
    };
    for (const auto& [name, args] : commands)
        benchmark::RegisterBenchmark(("cmd/" + name).c_str(), BM_Command, args)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime();
    // The rows in one bulk insert; in the import's default batches, each
    // its own transaction (the best the tool's import can do); and through
    // the tool.
    for (auto* b : {benchmark::RegisterBenchmark("import/bulk_insert", BM_BulkInsert)->Arg(0),
                    benchmark::RegisterBenchmark("import/bulk_insert_batches", BM_BulkInsert)
                        ->Arg(kImportBatch),
                    benchmark::RegisterBenchmark("import/tool", BM_ToolImport),
                    benchmark::RegisterBenchmark("summary/first_read", BM_FirstSummaryRead),
                    benchmark::RegisterBenchmark("prune/half", BM_Prune)})
        b->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (const char* kept = std::getenv("VESK_CLUSTER_DIR"); !kept || !*kept) {
        std::error_code ec;
        fs::remove_all(bench_dir(), ec);
    }
    return 0;
}
