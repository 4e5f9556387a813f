// `vesk-datastore import` against the bulk insert it is built on, for the
// same rows, side by side in one run:
//   bulk_insert/1M       one OP_BULK_INSERT call with every row, into a
//                        new datastore file (rows built in memory beforehand)
//   tool_import/1M       the staged tool importing the same rows from a JSON
//                        Lines file into a new default datastore (a fresh
//                        HOME), process start and JSON parsing included
// Rows: 200-byte outputs, 200 providers x 500 hosts, ten runs. At the end
// the import/bulk throughput ratio is printed (the goal is 0.9 or more).
//
// VESK_BENCH_SCALE and VESK_BENCH_DIR: see bench_support.h.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <spawn.h>
#include <string>
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

constexpr size_t kRows = 1000000;

const std::vector<vd::InsertRecord>& records() {
    static const std::vector<vd::InsertRecord> rows = make_records(scaled(kRows), 200);
    return rows;
}

// The same rows as JSON Lines (every text is plain letters: no escaping).
const std::string& jsonl_file() {
    static const std::string path = [] {
        const std::string file = bench_dir() + "/rows.jsonl";
        std::ofstream out(file);
        for (const auto& r : records()) {
            const auto& h = r.header;
            out << R"({"Provider":")" << h.provider << R"(","Hostname":")" << h.hostname
                << R"(","num_nodes":1,"node_names":[")" << h.node_names[0] << R"("],"Exit_status":)"
                << h.exit_status << R"(,"Timestamp":)" << h.timestamp
                << R"(,"Duration":0.5,"Encoding":0,"STDOUT":")" << r.std_out
                << R"(","STDERR":"","OptionID":")" << r.option_id << R"(","version":)" << h.version
                << R"(,"Username":")" << h.username << R"(","Unique_timestamp":)"
                << h.unique_timestamp << "}\n";
        }
        return file;
    }();
    return path;
}

void BM_BulkInsert(benchmark::State& state) {
    const auto& rows = records();
    const std::string db = bench_dir() + "/bulk.db";
    for (auto _ : state) {
        state.PauseTiming();
        vd::DataStoreParseUtility::clear_db_vector();
        remove_db(db);
        const std::string name = open_datastore("source=" + db);
        state.ResumeTiming();
        if (!vd::execute_ioctl({name}, vd::OP_BULK_INSERT, &rows, nullptr, nullptr, nullptr))
            state.SkipWithError("bulk insert failed");
    }
    vd::DataStoreParseUtility::clear_db_vector();
    state.SetItemsProcessed(state.iterations() * int64_t(rows.size()));
}

void BM_ToolImport(benchmark::State& state) {
    const std::string file = jsonl_file();
    const std::string home = bench_dir() + "/home";
    const std::string tool = VESK_TOOL_PATH;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove_all(home);
        fs::create_directories(home);
        std::vector<std::string> env_text = {"HOME=" + home};
        for (char** e = environ; *e != nullptr; ++e)
            if (std::string(*e).rfind("HOME=", 0) != 0) env_text.emplace_back(*e);
        std::vector<char*> env;
        for (auto& text : env_text) env.push_back(text.data());
        env.push_back(nullptr);
        std::string arg0 = tool, arg1 = "import", arg2 = file;
        char* argv[] = {arg0.data(), arg1.data(), arg2.data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        state.ResumeTiming();
        pid_t pid = -1;
        int status = -1;
        if (posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv, env.data()) == 0)
            ::waitpid(pid, &status, 0);
        state.PauseTiming();
        posix_spawn_file_actions_destroy(&actions);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("import failed");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(records().size()));
}

// Console output plus the ratio of the two times at the end.
class RatioReporter : public TimesReporter {
public:
    void Finalize() override {
        TimesReporter::Finalize();
        const double bulk = time_of("bulk_insert/1M");
        const double tool = time_of("tool_import/1M");
        if (bulk > 0 && tool > 0)
            std::printf("import/bulk throughput for %zu rows: %.2f (goal: 0.9 or more)\n",
                        records().size(), bulk / tool);
    }
};

}  // namespace

int main(int argc, char** argv) {
    const int reps = scaled(kRows) < kRows ? 1 : 3;
    for (const auto& [name, fn] : {std::pair{"bulk_insert/1M", &BM_BulkInsert},
                                   std::pair{"tool_import/1M", &BM_ToolImport}}) {
        auto* b = benchmark::RegisterBenchmark(name, fn);
        b->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
        if (reps > 1) b->Repetitions(reps)->ReportAggregatesOnly(true);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    (void)jsonl_file();  // made before any timing
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(bench_dir(), ec);
    return 0;
}
