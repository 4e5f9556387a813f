// Peak memory of the staged tool's row output in each format, against
// `export` of the same rows:
//   export             JSON Lines, one provider at a time
//   rows               the table (read twice: widths first)
//   rows_json          --format json rows
//   rows_csv           --format csv rows
// Rows: 200,000 of 200-byte outputs (200 providers x 1,000 rows), stored
// once with one bulk insert. Each benchmark runs the tool with standard
// output to /dev/null and reports its peak resident size (peak_MiB, from
// wait4). At the end the ratio to export is printed for each format (the
// goal is at most 2).
//
// VESK_BENCH_SCALE and VESK_BENCH_DIR: see bench_support.h.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "vesk/datastore.h"
#include "vesk/datastore/operations.h"

#include "bench_support.h"

extern char** environ;

namespace vd = vesk::datastore;
namespace fs = std::filesystem;
using namespace vesk::bench;

namespace {

constexpr size_t kRows = 200000;

std::string home() { return bench_dir() + "/home"; }

// Stores the rows where the tool's default configuration looks ($HOME).
void make_store() {
    const std::string folder = home() + "/.vesk/2019.2.1";
    fs::create_directories(folder);
    const auto rows = make_records(scaled(kRows), 200);
    const std::string name = open_datastore("source=" + folder + "/vesk.db");
    if (!vd::execute_ioctl({name}, vd::OP_BULK_INSERT, &rows, nullptr, nullptr, nullptr)) {
        std::fprintf(stderr, "output_memory: bulk insert failed\n");
        std::_Exit(1);
    }
    vd::DataStoreParseUtility::clear_db_vector();
}

// Runs the tool with `args`, standard output to /dev/null; false unless it
// exits 0. `peak_kib` receives its peak resident size.
bool run_tool(const std::vector<std::string>& args, long& peak_kib) {
    std::vector<std::string> env_text = {"HOME=" + home()};
    for (char** e = environ; *e != nullptr; ++e)
        if (std::string(*e).rfind("HOME=", 0) != 0) env_text.emplace_back(*e);
    std::vector<char*> env;
    for (auto& text : env_text) env.push_back(text.data());
    env.push_back(nullptr);
    std::vector<std::string> words = {VESK_TOOL_PATH};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int status = -1;
    rusage usage{};
    const bool started =
        posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), env.data()) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (!started || ::wait4(pid, &status, 0, &usage) != pid) return false;
    peak_kib = usage.ru_maxrss;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::map<std::string, double> g_peak_mib;

void BM_Output(benchmark::State& state, std::vector<std::string> args, std::string name) {
    long peak = 0;
    for (auto _ : state)
        if (!run_tool(args, peak)) {
            state.SkipWithError("the tool failed");
            return;
        }
    g_peak_mib[name] = double(peak) / 1024.0;
    state.counters["peak_MiB"] = g_peak_mib[name];
    state.SetItemsProcessed(state.iterations() * int64_t(scaled(kRows)));
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"export", {"export"}},
        {"rows", {"rows"}},
        {"rows_json", {"--format", "json", "rows"}},
        {"rows_csv", {"--format", "csv", "rows"}}};
    for (const auto& [name, args] : cases)
        benchmark::RegisterBenchmark(("output_memory/" + name).c_str(), BM_Output, args, name)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // Stored by a child process: a spawned tool starts from its parent's
    // peak (Linux keeps the high-water mark across exec), so the parent
    // must never hold the rows itself.
    (void)bench_dir();  // one folder for both processes
    const pid_t maker = ::fork();
    if (maker == 0) {
        make_store();
        std::_Exit(0);
    }
    int status = -1;
    if (maker < 0 || ::waitpid(maker, &status, 0) != maker || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "output_memory: storing the rows failed\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    const double base = g_peak_mib["export"];
    int code = g_peak_mib.size() == cases.size() ? 0 : 1;
    for (const auto& [name, peak] : g_peak_mib) {
        if (name == "export" || base <= 0) continue;
        std::printf("%s peak %.1f MiB, export %.1f MiB: ratio %.2f (goal: at most 2)\n",
                    name.c_str(), peak, base, peak / base);
        if (peak > 2 * base) code = 1;
    }
    std::error_code ec;
    fs::remove_all(bench_dir(), ec);
    return code;
}
