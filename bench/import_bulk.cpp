// `vesk-datastore import` against the bulk insert it is built on, for the
// same rows, side by side in one run:
//   bulk_insert/1M       one SQLITE_BULK_INSERT call with every row, into a
//                        new datastore file (rows built in memory beforehand)
//   tool_import/1M       the staged tool importing the same rows from a JSON
//                        Lines file into a new default datastore (a fresh
//                        HOME), process start and JSON parsing included
// Rows: 200-byte outputs, 200 providers x 500 hosts, ten runs. At the end
// the import/bulk ratio is printed (the goal is at most 1.5).
//
// VESK_BENCH_SCALE divides the row count (a smoke run uses 1000);
// VESK_BENCH_DIR chooses the folder of the files (default: /tmp).
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
#include "vesk/datastore/sqlite_extension.h"

extern char** environ;

namespace vd = vesk::datastore;
namespace fs = std::filesystem;

namespace {

constexpr size_t kRows = 1000000;

size_t scaled(size_t rows) {
    const char* scale = std::getenv("VESK_BENCH_SCALE");
    const long divisor = scale != nullptr ? std::atol(scale) : 1;
    return divisor > 1 ? rows / size_t(divisor) : rows;
}

const std::string& work_dir() {
    static const std::string dir = [] {
        const char* base = std::getenv("VESK_BENCH_DIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/vesk-import-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        return pattern;
    }();
    return dir;
}

vd::InsertRecord make_record(size_t i) {
    const int provider = int(i % 200);
    const int host = int(i / 200 % 500);
    const int64_t run = int64_t(i / 100000);
    vd::InsertRecord r;
    char name[32];
    std::snprintf(name, sizeof name, "provider%03d", provider);
    r.header.provider = name;
    std::snprintf(name, sizeof name, "node%04d", host);
    r.header.hostname = name;
    r.header.num_nodes = 1;
    r.header.node_names = {r.header.hostname};
    r.header.exit_status = (provider + host) % 3;
    r.header.timestamp = 1600000000 + run * 600;
    r.header.duration = 0.5;
    r.header.version = 2;
    r.header.username = "collector";
    r.header.unique_timestamp = INT64_C(1600000000000000) + run * INT64_C(600000000);
    r.option_id = "default";
    r.std_out.resize(200);
    for (size_t k = 0; k < r.std_out.size(); ++k)
        r.std_out[k] = char('a' + (k * 7 + size_t(provider + host)) % 26);
    return r;
}

const std::vector<vd::InsertRecord>& records() {
    static const std::vector<vd::InsertRecord> rows = [] {
        std::vector<vd::InsertRecord> out;
        out.reserve(scaled(kRows));
        for (size_t i = 0; i < scaled(kRows); ++i) out.push_back(make_record(i));
        return out;
    }();
    return rows;
}

// The same rows as JSON Lines (every text is plain letters: no escaping).
const std::string& jsonl_file() {
    static const std::string path = [] {
        const std::string file = work_dir() + "/rows.jsonl";
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
    static const auto controller = vd::DataStoreController::createDataStoreController();
    const auto& rows = records();
    const std::string db = work_dir() + "/bulk.db";
    for (auto _ : state) {
        state.PauseTiming();
        vd::DataStoreParseUtility::clear_db_vector();
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) fs::remove(db + suffix);
        vd::DataStoreConfig config;
        config.instance_name = "bulk";
        config.source_parameters = "source=" + db;
        config.source_types.set(vd::data);
        std::vector<vd::DataStoreConfig> configs{config};
        vd::DataStoreParseUtility::fillInVacantFields(configs);
        vd::DataStoreParseUtility::insert_db_instance(configs);
        state.ResumeTiming();
        if (!vd::execute_ioctl({"bulk"}, vd::SQLITE_BULK_INSERT, &rows, nullptr, nullptr, nullptr))
            state.SkipWithError("bulk insert failed");
    }
    vd::DataStoreParseUtility::clear_db_vector();
    state.SetItemsProcessed(state.iterations() * int64_t(rows.size()));
}

void BM_ToolImport(benchmark::State& state) {
    const std::string file = jsonl_file();
    const std::string home = work_dir() + "/home";
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
class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Colour only on a terminal.
    RatioReporter() : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs)
            if (!run.error_occurred &&
                (run.run_type == Run::RT_Iteration ? run.repetitions <= 1
                                                   : run.aggregate_name == "median"))
                times_[run.run_name.function_name] = run.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        const auto bulk = times_.find("bulk_insert/1M");
        const auto tool = times_.find("tool_import/1M");
        if (bulk != times_.end() && tool != times_.end() && bulk->second > 0)
            std::printf("import/bulk ratio for %zu rows: %.2f (goal: at most 1.5)\n",
                        records().size(), tool->second / bulk->second);
    }

private:
    std::map<std::string, double> times_;
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
    fs::remove_all(work_dir(), ec);
    return 0;
}
