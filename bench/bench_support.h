#pragma once
// What the benchmark programs share: their environment variables, a work
// folder, a datastore opened through the library's configuration path, and
// the rows they write.
//   VESK_BENCH_SCALE  divides every row count (a smoke run uses 1000)
//   VESK_BENCH_DIR    the folder in which the work folder is made (default /tmp)
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdlib.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "vesk/datastore.h"

namespace vesk::bench {

// VESK_BENCH_SCALE, 1 when unset or not a positive number.
inline long scale() {
    const char* text = std::getenv("VESK_BENCH_SCALE");
    const long value = text ? std::atol(text) : 1;
    return value > 0 ? value : 1;
}
// `n` divided by the scale, at least 1.
inline size_t scaled(size_t n) { return std::max<size_t>(1, n / static_cast<size_t>(scale())); }

// A new folder for this run's files, made on first use; the caller removes it.
inline const std::string& bench_dir() {
    static const std::string dir = [] {
        const char* base = std::getenv("VESK_BENCH_DIR");
        std::string pattern = std::string(base ? base : "/tmp") + "/vesk-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        return pattern;
    }();
    return dir;
}

// Removes a database file and the side files SQLite may have left.
inline void remove_db(const std::string& file) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"})
        std::filesystem::remove(file + suffix);
}

// Opens `parameters` with the SQLite extension as the only datastore of the
// process, through the library's own configuration path; returns its
// instance name.
inline std::string open_datastore(const std::string& parameters) {
    // The controller lives while somebody holds it: the benchmark does.
    static const auto controller = datastore::DataStoreController::createDataStoreController();
    datastore::DataStoreParseUtility::clear_db_vector();
    datastore::DataStoreConfig config;
    config.type = datastore::sqlite3;
    config.instance_name = "bench";
    config.source_parameters = parameters;
    config.source_types.set(datastore::data);
    std::vector<datastore::DataStoreConfig> configs{config};
    datastore::DataStoreParseUtility::fillInVacantFields(configs);
    datastore::DataStoreParseUtility::insert_db_instance(configs);
    return config.instance_name;
}

// The row of provider `provider` ("prov007") on host `host` ("node0042") in
// collection run `run`, with `output` bytes of lower-case letters as STDOUT.
inline datastore::InsertRecord make_record(int provider, int host, int run, size_t output) {
    datastore::InsertRecord r;
    char name[32];
    std::snprintf(name, sizeof name, "prov%03d", provider);
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
    r.std_out.resize(output);
    for (size_t i = 0; i < output; ++i)
        r.std_out[i] = static_cast<char>('a' + (i * 7 + static_cast<size_t>(provider + host)) % 26);
    return r;
}

// The first `count` rows of the sequence that walks 200 providers, then 500
// hosts, then the runs (100,000 rows a run).
inline std::vector<datastore::InsertRecord> make_records(size_t count, size_t output) {
    std::vector<datastore::InsertRecord> out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i)
        out.push_back(make_record(static_cast<int>(i % 200), static_cast<int>(i / 200 % 500),
                                  static_cast<int>(i / 100000), output));
    return out;
}

// The mean seconds of two paths, each run once per iteration in alternating
// order, so that both see the same machine at the same time.
struct PairTimes {
    double first = 0;
    double second = 0;
};

inline PairTimes run_alternately(benchmark::State& state, const std::function<double()>& first,
                                 const std::function<double()>& second) {
    static uint64_t turn = 0;  // alternates across repetitions too
    double first_total = 0, second_total = 0;
    int64_t n = 0;
    for (auto _ : state) {
        double a, b;
        if (turn++ % 2 == 0) {
            a = first();
            b = second();
        } else {
            b = second();
            a = first();
        }
        first_total += a;
        second_total += b;
        ++n;
        state.SetIterationTime(a + b);
    }
    if (n == 0) return {};
    return {first_total / static_cast<double>(n), second_total / static_cast<double>(n)};
}

// Console output (coloured only on a terminal) that keeps each benchmark's
// time and counters, the median where there are repetitions, for a summary
// at the end.
class TimesReporter : public benchmark::ConsoleReporter {
public:
    struct Result {
        double time_ms = 0;  // in the benchmark's unit (milliseconds here)
        std::map<std::string, double> counters;
    };

    TimesReporter() : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.error_occurred ||
                !(run.run_type == Run::RT_Iteration ? run.repetitions <= 1
                                                    : run.aggregate_name == "median"))
                continue;
            Result& result = results_[run.run_name.function_name];
            result.time_ms = run.GetAdjustedRealTime();
            for (const auto& [key, counter] : run.counters) result.counters[key] = counter.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }

protected:
    const std::map<std::string, Result>& results() const { return results_; }
    // The time of benchmark `name`, 0 when it did not run or failed.
    double time_of(const std::string& name) const {
        const auto it = results_.find(name);
        return it == results_.end() ? 0 : it->second.time_ms;
    }

private:
    std::map<std::string, Result> results_;
};

// Repetitions of each benchmark: VESK_BENCH_REPS, 5 by default, 1 in a
// scaled-down (smoke) run.
inline int repetitions() {
    const char* text = std::getenv("VESK_BENCH_REPS");
    return scale() > 1 ? 1 : (text ? std::max(1, std::atoi(text)) : 5);
}

// Registers `fn` in milliseconds: manual or real time, `iterations` per
// repetition (0: as many as fill half a second), `reps` repetitions of which
// only the aggregates are reported.
inline void add_benchmark(const std::string& name, std::function<void(benchmark::State&)> fn,
                          int64_t iterations, bool manual, int reps) {
    auto* b = benchmark::RegisterBenchmark(name.c_str(), std::move(fn));
    b->Unit(benchmark::kMillisecond);
    if (manual)
        b->UseManualTime();
    else
        b->UseRealTime();
    if (iterations > 0)
        b->Iterations(iterations);
    else
        b->MinTime(0.5);
    if (reps > 1) b->Repetitions(reps)->ReportAggregatesOnly(true);
}

// The three queries the benchmarks time against their raw twins.
enum class Query { latest_rows, latest_run, provider };

// Runs `query` through the library's query functions into `rows`: the
// latest rows of `providers`, the newest run of `provider`, or all rows of
// `provider`; `names` are the datastores asked for the newest run.
inline bool library_query(Query query, const std::vector<std::string>& names,
                          const std::vector<std::string>& providers, const std::string& provider,
                          std::vector<datastore::Row>& rows) {
    switch (query) {
        case Query::latest_rows:
            return datastore::get_latest_rows_provider_hosts_data(providers, rows, {}, false);
        case Query::latest_run: {
            datastore::ReadParameters request{{provider}, {}, {}, nullptr};
            return datastore::execute_ioctl(names, datastore::OP_LATEST_COLLECT_ROWS, &request,
                                            &rows, nullptr, nullptr);
        }
        case Query::provider:
            return datastore::select_provider_data({provider}, rows, "", false);
    }
    return false;
}

// Runs the registered benchmarks with `reporter`, their repetitions in random
// interleaved order, so that a library run and its baseline see the same
// machine load on average. False when an argument was not understood.
inline bool run_interleaved(int argc, char** argv, benchmark::BenchmarkReporter& reporter) {
    std::vector<char*> args(argv, argv + argc);
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave.data());
    argc = static_cast<int>(args.size());
    benchmark::Initialize(&argc, args.data());
    if (benchmark::ReportUnrecognizedArguments(argc, args.data())) return false;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return true;
}

}  // namespace vesk::bench
