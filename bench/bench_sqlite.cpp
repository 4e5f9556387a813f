// The SQLite extension against raw SQLite C API code doing the same work
// with the same settings (WAL, synchronous=NORMAL, the same checkpoint size,
// the same schema and indexes) on the same data, side by side in one run:
//   bulk_insert   200,000 rows of 200 B and 4 KiB output, on disk and in memory
//   row_insert    autocommit insert of one row at a time (operation 515)
//   query         a 1,000,000-row datastore (200 providers x 500 hosts x 10 runs)
//                 through the query functions, raw SQLite on the same SQL,
//                 and raw SQLite without the extension's indexes
//   read_memory   peak memory while reading 1,000 rows of 64 KiB output
// At the end a table gives each library/raw ratio, as the ratio of the
// median times.
//
// VESK_BENCH_SCALE and VESK_BENCH_DIR: see bench_support.h;
// VESK_BENCH_REPS the number of repetitions (default 5, the median counts).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "vesk/datastore.h"
#include "vesk/datastore/operations.h"
#include "vesk/datastore/row_fields.h"
#include "vesk/datastore/sql/dialect.h"

#include "bench_support.h"

namespace vd = vesk::datastore;
using namespace vesk::bench;

// ---- allocation counting (for read_memory) ----

namespace {
std::atomic<long long> g_live{0};
std::atomic<long long> g_peak{0};

void* counted_alloc(size_t size) {
    void* p = std::malloc(size ? size : 1);
    if (p == nullptr) throw std::bad_alloc();
    const long long now =
        g_live.fetch_add(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed) +
        static_cast<long long>(malloc_usable_size(p));
    long long peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
    return p;
}
void counted_free(void* p) {
    if (p == nullptr) return;
    g_live.fetch_sub(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
    std::free(p);
}
}  // namespace

void* operator new(size_t size) { return counted_alloc(size); }
void* operator new[](size_t size) { return counted_alloc(size); }
void operator delete(void* p) noexcept { counted_free(p); }
void operator delete[](void* p) noexcept { counted_free(p); }
void operator delete(void* p, size_t) noexcept { counted_free(p); }
void operator delete[](void* p, size_t) noexcept { counted_free(p); }

namespace {

// ---- set-up ----

// Writes back what earlier runs left dirty, so that it does not compete
// with the run about to be timed.
void settle() { ::sync(); }

// The indexes the extension creates, so that raw SQLite holds the same schema.
const char* const kIndexes[] = {
    "CREATE INDEX IF NOT EXISTS provider_datastore_latest ON provider_datastore"
    "(Provider, Hostname, OptionID, Unique_timestamp);",
    "CREATE INDEX IF NOT EXISTS provider_datastore_failed ON provider_datastore"
    "(Provider, Hostname, OptionID, Unique_timestamp) WHERE Exit_status <> 0;",
    "CREATE INDEX IF NOT EXISTS provider_datastore_run ON provider_datastore"
    "(Unique_timestamp, Provider);",
    "CREATE INDEX IF NOT EXISTS baseline_datastore_id ON baseline_datastore"
    "(baseline_id, datastore_rowid);",
};

void check(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        std::fprintf(stderr, "%s: %s\n", what, sqlite3_errmsg(db));
        std::abort();
    }
}

void exec(sqlite3* db, const std::string& sql) {
    check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), db, sql.c_str());
}

// A raw connection with the extension's settings.
sqlite3* raw_open(const std::string& file, bool with_indexes = true) {
    sqlite3* db = nullptr;
    check(
        sqlite3_open_v2(file.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr),
        db, "open");
    sqlite3_busy_timeout(db, 60000);
    exec(db, "PRAGMA journal_mode = WAL;");
    exec(db, "PRAGMA synchronous = NORMAL;");
    exec(db, "PRAGMA wal_autocheckpoint = 16384;");
    exec(db, "PRAGMA journal_size_limit = 67108864;");
    exec(db, vd::default_create_table_query);
    exec(db, vd::default_create_baseline_query);
    exec(db, vd::default_create_view_query);
    if (with_indexes)
        for (const char* sql : kIndexes) exec(db, sql);
    return db;
}

// Every column but rowid, from the field table, bound as ?1 to ?14.
const std::string kInsertSqlText = [] {
    std::string values;
    for (size_t i = 1; i < vd::kRowFieldCount; ++i)
        values += (i > 1 ? ", ?" : "?") + std::to_string(i);
    return "INSERT INTO " + vd::table_name + "(" + vd::row_column_list(1) + ") VALUES(" + values +
           ");";
}();
const char* const kInsertSql = kInsertSqlText.c_str();

// Raw insert of one record from its strings, as an application would write it.
struct RawInserter {
    sqlite3* db;
    sqlite3_stmt* stmt = nullptr;
    std::string nodes;
    explicit RawInserter(sqlite3* d) : db(d) {
        check(sqlite3_prepare_v3(db, kInsertSql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr), db,
              "prepare insert");
    }
    ~RawInserter() { sqlite3_finalize(stmt); }
    void insert(const vd::InsertRecord& r) {
        nodes.clear();
        for (size_t i = 0; i < r.header.node_names.size(); ++i) {
            if (i) nodes += ", ";
            nodes += r.header.node_names[i];
        }
        auto text = [this](int i, const std::string& s) {
            sqlite3_bind_text(stmt, i, s.data(), static_cast<int>(s.size()), SQLITE_STATIC);
        };
        text(1, r.header.provider);
        text(2, r.header.hostname);
        sqlite3_bind_int(stmt, 3, r.header.num_nodes);
        text(4, nodes);
        sqlite3_bind_int(stmt, 5, r.header.exit_status);
        sqlite3_bind_int64(stmt, 6, r.header.timestamp);
        sqlite3_bind_double(stmt, 7, r.header.duration);
        sqlite3_bind_int(stmt, 8, r.header.encoding);
        text(9, r.std_out);
        text(10, r.std_err);
        text(11, r.option_id);
        sqlite3_bind_int(stmt, 12, r.header.version);
        text(13, r.header.username);
        sqlite3_bind_int64(stmt, 14, r.header.unique_timestamp);
        check(sqlite3_step(stmt), db, "insert");
        sqlite3_reset(stmt);
    }
};

// ---- inserts ----

using Seconds = std::chrono::duration<double>;
using BenchClock = std::chrono::steady_clock;

enum class Where { disk, memory };

std::string source_of(Where where) {
    return where == Where::memory ? ":memory:" : bench_dir() + "/insert.db";
}

// Each insert run starts from a new, empty database; only the writing is timed.
double bulk_insert_library(Where where, const std::vector<vd::InsertRecord>& records) {
    vd::DataStoreParseUtility::clear_db_vector();
    if (where == Where::disk) remove_db(source_of(where));
    const std::string name = open_datastore("source=" + source_of(where));
    settle();
    const auto start = BenchClock::now();
    if (!vd::execute_ioctl({name}, vd::OP_BULK_INSERT, &records, nullptr, nullptr, nullptr))
        std::abort();
    const double seconds = Seconds(BenchClock::now() - start).count();
    vd::DataStoreParseUtility::clear_db_vector();
    return seconds;
}

double bulk_insert_raw(Where where, const std::vector<vd::InsertRecord>& records) {
    if (where == Where::disk) remove_db(source_of(where));
    sqlite3* db = raw_open(source_of(where));
    settle();
    const auto start = BenchClock::now();
    {
        RawInserter inserter(db);
        exec(db, "BEGIN IMMEDIATE;");
        for (const auto& r : records) inserter.insert(r);
        exec(db, "COMMIT;");
    }
    const double seconds = Seconds(BenchClock::now() - start).count();
    sqlite3_close(db);
    return seconds;
}

double row_insert_library(const std::vector<vd::InsertRecord>& records) {
    vd::DataStoreParseUtility::clear_db_vector();
    remove_db(source_of(Where::disk));
    const std::vector<std::string> names{open_datastore("source=" + source_of(Where::disk))};
    settle();
    const auto start = BenchClock::now();
    for (const auto& r : records)
        if (!vd::execute_ioctl(names, vd::OP_INSERT, nullptr, const_cast<vd::InsertRecord*>(&r),
                               nullptr, nullptr))
            std::abort();
    const double seconds = Seconds(BenchClock::now() - start).count();
    vd::DataStoreParseUtility::clear_db_vector();
    return seconds;
}

double row_insert_raw(const std::vector<vd::InsertRecord>& records) {
    remove_db(source_of(Where::disk));
    sqlite3* db = raw_open(source_of(Where::disk));
    settle();
    const auto start = BenchClock::now();
    {
        RawInserter inserter(db);
        for (const auto& r : records) inserter.insert(r);
    }
    const double seconds = Seconds(BenchClock::now() - start).count();
    sqlite3_close(db);
    return seconds;
}

// Runs the library path and its raw twin alternately; reports each one's
// mean time and the library's ratio to raw.
void run_pair(benchmark::State& state, const std::function<double()>& library,
              const std::function<double()>& raw, size_t items) {
    const PairTimes t = run_alternately(state, library, raw);
    state.counters["library_ms"] = t.first * 1e3;
    state.counters["raw_ms"] = t.second * 1e3;
    state.counters["library_over_raw_time"] = t.second > 0 ? t.first / t.second : 0;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(items));
}

void BM_BulkInsert(benchmark::State& state, Where where, size_t output) {
    const auto records = make_records(scaled(200000), output);
    run_pair(
        state, [&] { return bulk_insert_library(where, records); },
        [&] { return bulk_insert_raw(where, records); }, records.size());
}

void BM_RowInsert(benchmark::State& state) {
    const auto records = make_records(scaled(20000), 200);
    run_pair(
        state, [&] { return row_insert_library(records); }, [&] { return row_insert_raw(records); },
        records.size());
}

// ---- queries on a 1,000,000-row datastore ----

struct QueryData {
    std::string indexed;  // the extension's schema
    std::string bare;     // the same rows without the extension's indexes
    std::vector<std::string> ten_providers;
    std::string one_provider = "prov007";
};

const QueryData& query_data() {
    static const QueryData data = [] {
        QueryData d;
        d.indexed = bench_dir() + "/query.db";
        d.bare = bench_dir() + "/query_bare.db";
        const int hosts = static_cast<int>(std::max<long>(1, 500 / scale()));
        sqlite3* db = raw_open(d.indexed);
        {
            RawInserter inserter(db);
            exec(db, "BEGIN IMMEDIATE;");
            for (int run = 0; run < 10; ++run)
                for (int p = 0; p < 200; ++p)
                    for (int h = 0; h < hosts; ++h) inserter.insert(make_record(p, h, run, 200));
            exec(db, "COMMIT;");
        }
        exec(db, "PRAGMA journal_mode = DELETE;");
        sqlite3_close(db);
        std::filesystem::copy_file(d.indexed, d.bare);
        db = raw_open(d.bare, false);
        exec(db, "DROP INDEX provider_datastore_latest; DROP INDEX provider_datastore_run;");
        exec(db, "PRAGMA journal_mode = DELETE;");
        sqlite3_close(db);
        for (int p = 0; p < 10; ++p) {
            char name[16];
            std::snprintf(name, sizeof name, "prov%03d", p * 20);
            d.ten_providers.push_back(name);
        }
        return d;
    }();
    return data;
}

std::string in_list(const std::vector<std::string>& values) {
    std::string out;
    for (size_t i = 0; i < values.size(); ++i) out += (i ? ",'" : "'") + values[i] + "'";
    return out;
}

// The statements the extension's base class builds for the three queries,
// from the same dialect texts, so that raw SQLite runs exactly the same SQL.
std::string provider_condition(const std::vector<std::string>& providers) {
    return " (Provider IN (" + in_list(providers) + ") )";
}
std::string latest_rows_sql(const std::vector<std::string>& providers) {
    return vd::sql::default_dialect().latest_rows_sql(provider_condition(providers));
}
std::string latest_run_sql(const std::string& provider) {
    return vd::sql::default_dialect().latest_run_sql(provider_condition({provider}));
}
std::string provider_sql(const std::string& provider) {
    return "SELECT * FROM vesk_1 WHERE (Provider IN ('" + provider + "') )";
}

// Steps `sql` into full Rows, columns in view order, as hand-written code would.
size_t raw_rows(sqlite3* db, const std::string& sql, std::vector<vd::Row>& rows) {
    sqlite3_stmt* stmt = nullptr;
    check(sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr), db, "prepare query");
    auto text = [stmt](int c, std::string& out) {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
        out.assign(p ? p : "", static_cast<size_t>(sqlite3_column_bytes(stmt, c)));
    };
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        vd::Row& r = rows.emplace_back();
        r.rowid = sqlite3_column_int(stmt, 0);
        text(1, r.Provider);
        text(2, r.Hostname);
        r.num_nodes = sqlite3_column_int(stmt, 3);
        std::string nodes;
        text(4, nodes);
        r.node_names.clear();
        for (size_t start = 0; start <= nodes.size();) {
            size_t end = nodes.find(',', start);
            if (end == std::string::npos) end = nodes.size();
            std::string piece = nodes.substr(start, end - start);
            const size_t a = piece.find_first_not_of(' ');
            if (a != std::string::npos)
                r.node_names.push_back(piece.substr(a, piece.find_last_not_of(' ') - a + 1));
            start = end + 1;
        }
        r.Exit_status = sqlite3_column_int(stmt, 5);
        r.Timestamp = sqlite3_column_int64(stmt, 6);
        r.Duration = sqlite3_column_double(stmt, 7);
        r.Encoding = sqlite3_column_int(stmt, 8);
        text(9, r.STDOUT);
        text(10, r.STDERR);
        text(11, r.OptionID);
        r.version = sqlite3_column_int(stmt, 12);
        text(13, r.Username);
        r.Unique_timestamp = sqlite3_column_int64(stmt, 14);
    }
    sqlite3_finalize(stmt);
    return rows.size();
}

std::string sql_of(Query query) {
    const QueryData& d = query_data();
    switch (query) {
        case Query::latest_rows:
            return latest_rows_sql(d.ten_providers);
        case Query::latest_run:
            return latest_run_sql(d.one_provider);
        case Query::provider:
            return provider_sql(d.one_provider);
    }
    return "";
}

// One query through the library's query functions into full Rows.
size_t query_library(Query query, const std::vector<std::string>& names) {
    const QueryData& d = query_data();
    std::vector<vd::Row> rows;
    const bool ok = library_query(query, names, d.ten_providers, d.one_provider, rows);
    if (!ok || rows.empty()) std::abort();
    benchmark::DoNotOptimize(rows.data());
    return rows.size();
}

void BM_Query(benchmark::State& state, Query query) {
    const QueryData& d = query_data();
    const std::vector<std::string> names{open_datastore("read_only=true|source=" + d.indexed)};
    sqlite3* db = nullptr;
    sqlite3_open_v2(d.indexed.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    const std::string sql = sql_of(query);
    size_t library_rows = 0, raw_rows_seen = 0;
    run_pair(
        state,
        [&] {
            const auto start = BenchClock::now();
            library_rows = query_library(query, names);
            return Seconds(BenchClock::now() - start).count();
        },
        [&] {
            const auto start = BenchClock::now();
            std::vector<vd::Row> rows;
            raw_rows_seen = raw_rows(db, sql, rows);
            benchmark::DoNotOptimize(rows.data());
            return Seconds(BenchClock::now() - start).count();
        },
        1);
    sqlite3_close(db);
    vd::DataStoreParseUtility::clear_db_vector();
    if (library_rows != raw_rows_seen) state.SkipWithError("library and raw rows differ");
    state.counters["rows"] = static_cast<double>(library_rows);
}

// The same SQL with raw SQLite on the same rows without the extension's indexes.
void BM_QueryWithoutIndexes(benchmark::State& state, Query query) {
    const QueryData& d = query_data();
    sqlite3* db = nullptr;
    sqlite3_open_v2(d.bare.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    const std::string sql = sql_of(query);
    size_t count = 0;
    for (auto _ : state) {
        std::vector<vd::Row> rows;
        count = raw_rows(db, sql, rows);
        if (count == 0) state.SkipWithError("query failed");
        benchmark::DoNotOptimize(rows.data());
    }
    sqlite3_close(db);
    state.counters["rows"] = static_cast<double>(count);
}

// ---- memory of a large read ----

long rss_kib(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field));
    return 0;
}

void BM_ReadMemory(benchmark::State& state) {
    const size_t count = scaled(1000);
    const size_t output = 64 * 1024;
    const std::string file = bench_dir() + "/wide.db";
    remove_db(file);
    {
        sqlite3* db = raw_open(file);
        RawInserter inserter(db);
        exec(db, "BEGIN IMMEDIATE;");
        for (size_t i = 0; i < count; ++i)
            inserter.insert(make_record(1, static_cast<int>(i), 0, output));
        exec(db, "COMMIT;");
        exec(db, "PRAGMA journal_mode = DELETE;");
        sqlite3_finalize(inserter.stmt);
        inserter.stmt = nullptr;
        sqlite3_close(db);
    }
    open_datastore("read_only=true|source=" + file);
    const double payload = static_cast<double>(count * output);
    double peak_ratio = 0, rss_ratio = 0;
    for (auto _ : state) {
        state.PauseTiming();
        malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM
        const long rss_before = rss_kib("VmRSS:");
        const long long live_before = g_live.load();
        g_peak.store(live_before);
        sqlite3_memory_highwater(1);
        const long long sqlite_before = sqlite3_memory_used();
        state.ResumeTiming();
        {
            std::vector<vd::Row> rows;
            if (!vd::select_provider_data({"prov001"}, rows, "", false) || rows.size() != count)
                state.SkipWithError("read failed");
            state.PauseTiming();
            const double peak = static_cast<double>(g_peak.load() - live_before) +
                                static_cast<double>(sqlite3_memory_highwater(0) - sqlite_before);
            peak_ratio = peak / payload;
            rss_ratio = static_cast<double>(rss_kib("VmHWM:") - rss_before) * 1024.0 / payload;
            state.ResumeTiming();
        }
    }
    vd::DataStoreParseUtility::clear_db_vector();
    state.counters["payload_MiB"] = payload / (1 << 20);
    state.counters["peak_alloc_per_payload"] = peak_ratio;
    state.counters["peak_rss_per_payload"] = rss_ratio;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(payload));
}

// ---- the ratio table ----

// Prints the usual console output, then a table of the paired runs: the
// median over the repetitions of the library's time and of raw time, and the
// ratio of those two medians, so that the ratio agrees with the times beside
// it (share of raw throughput for inserts, time over raw time for queries).
// The console output's library_over_raw_time is the median of the ratios of
// each repetition's pair instead, which may lie on the other side of 1.
class RatioReporter : public TimesReporter {
public:
    void Finalize() override {
        TimesReporter::Finalize();
        std::printf(
            "\n| benchmark | library (median) | raw (median) | ratio of the medians |\n"
            "|---|---|---|---|\n");
        for (const auto& [name, result] : results()) {
            if (!result.counters.count("library_ms") || !result.counters.count("raw_ms")) continue;
            const double library = result.counters.at("library_ms");
            const double raw = result.counters.at("raw_ms");
            const bool insert = name.find("insert") != std::string::npos;
            std::printf("| %s | %.2f ms | %.2f ms | %.3f %s |\n", name.c_str(), library, raw,
                        insert ? raw / library : library / raw,
                        insert ? "of raw throughput" : "of raw time");
            const auto bare = results().find(name + "/raw_without_indexes");
            if (bare != results().end())
                std::printf(
                    "| %s, raw without the extension's indexes | | %.2f ms | "
                    "%.1fx slower than the library |\n",
                    name.c_str(), bare->second.time_ms, bare->second.time_ms / library);
        }
    }
};

void register_all() {
    const int reps = repetitions();
    // Paired runs time themselves; an iteration count of 0 lets a repetition
    // run for at least half a second.
    auto add = [reps](const std::string& name, std::function<void(benchmark::State&)> fn,
                      int64_t iterations, bool manual) {
        add_benchmark(name, std::move(fn), iterations, manual, reps);
    };
    const bool smoke = scale() > 1;
    for (Where where : {Where::memory, Where::disk}) {
        for (size_t output : {size_t(200), size_t(4096)}) {
            const std::string name = std::string("bulk_insert/") +
                                     (where == Where::disk ? "disk/" : "memory/") +
                                     (output == 200 ? "200B" : "4KiB");
            add(
                name, [=](benchmark::State& s) { BM_BulkInsert(s, where, output); }, 1, true);
        }
    }
    add("row_insert/disk", BM_RowInsert, 1, true);
    const std::pair<Query, const char*> queries[] = {
        {Query::latest_rows, "query/latest_rows_10_providers"},
        {Query::latest_run, "query/latest_run_op519"},
        {Query::provider, "query/select_provider_data"}};
    for (const auto& [query, name] : queries) {
        const Query q = query;
        add(
            name, [q](benchmark::State& s) { BM_Query(s, q); }, smoke ? 1 : 0, true);
        add(
            std::string(name) + "/raw_without_indexes",
            [q](benchmark::State& s) { BM_QueryWithoutIndexes(s, q); }, smoke ? 1 : 3, false);
    }
    auto* memory = benchmark::RegisterBenchmark("read_memory/1000x64KiB/library", BM_ReadMemory);
    memory->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
}

}  // namespace

// Keeps freed memory in the process and faults in enough of it up front, so
// that runs reuse warm pages instead of paying page faults in turn: the
// in-memory runs then compare CPU cost only.
void warm_heap() {
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    std::vector<void*> blocks;
    const size_t total = static_cast<size_t>(3) << 30;
    for (size_t used = 0; used < total; used += 4200) {
        void* block = std::malloc(4200);
        std::memset(block, 0, 4200);
        blocks.push_back(block);
    }
    for (void* block : blocks) std::free(block);
}

int main(int argc, char** argv) {
    if (scale() == 1) warm_heap();
    register_all();
    RatioReporter reporter;
    if (!run_interleaved(argc, argv, reporter)) return 1;
    std::error_code ec;
    std::filesystem::remove_all(bench_dir(), ec);
    return 0;
}
