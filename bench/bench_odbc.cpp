// The ODBC extension on a PostgreSQL server against the server's own tools
// and raw ODBC, side by side in one run against the same server:
//   bulk_insert   200,000 rows of 200 B output through operation 1024,
//                 against psql's \copy of the same rows from a CSV file
//   query         a 1,000,000-row datastore (200 providers x 500 hosts x 10
//                 runs) through the query functions, raw ODBC reading the
//                 same SQL into rows, and raw ODBC on a copy of the database
//                 without the extension's indexes (nor its table of each
//                 group's latest row, so the latest rows are chosen from
//                 the rows there, as without that table); beside each, the
//                 server's own execution time on both copies (EXPLAIN
//                 ANALYZE, no rows sent), so that the table shows what the
//                 server costs and what sending and reading the rows cost
//   read_memory   peak memory while reading 1,000 rows of 64 KiB output
// At the end a table gives each ratio with its goal.
//
// The server: VESK_BENCH_PG, an ODBC connection string (DSN-less, with
// Server, Port, Database and Uid; the user may create databases); without
// it the program starts a private server with tests/odbc/pg-server, runs
// itself against it with a private ODBCSYSINI, and stops it afterwards.
// VESK_BENCH_SCALE and VESK_BENCH_DIR: see bench_support.h;
// VESK_BENCH_REPS the number of repetitions (default 5, 9 for the queries;
// the median counts).
#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <map>
#include <memory>
#include <sql.h>
#include <sqlext.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "vesk/datastore.h"
#include "vesk/datastore/operations.h"
#include "vesk/datastore/row_fields.h"

#include "bench_support.h"
#include "pg_dialect.h"

namespace vd = vesk::datastore;
using namespace vesk::bench;

// ---- heap accounting (for read_memory) ----
//
// Every malloc of the process, the ODBC driver's included, goes through
// these definitions, which count the live bytes and their peak. Sanitizer
// builds keep their own allocator (and report resident memory only).

#if defined(__SANITIZE_ADDRESS__)
#define VESK_BENCH_COUNTS_HEAP 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VESK_BENCH_COUNTS_HEAP 0
#endif
#endif
#ifndef VESK_BENCH_COUNTS_HEAP
#define VESK_BENCH_COUNTS_HEAP 1
#endif

namespace {
std::atomic<long long> g_live{0};
std::atomic<long long> g_peak{0};
}  // namespace

#if VESK_BENCH_COUNTS_HEAP
namespace {

void* counted(void* p) {
    if (p == nullptr) return p;
    const auto size = static_cast<long long>(malloc_usable_size(p));
    const long long now = g_live.fetch_add(size, std::memory_order_relaxed) + size;
    long long peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
    return p;
}
void uncounted(void* p) {
    if (p != nullptr)
        g_live.fetch_sub(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
}
}  // namespace

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t size) { return counted(__libc_malloc(size)); }
void* calloc(size_t n, size_t size) { return counted(__libc_calloc(n, size)); }
void* realloc(void* p, size_t size) {
    uncounted(p);
    void* q = __libc_realloc(p, size);
    if (q == nullptr && size != 0) {
        counted(p);  // the old block stays
        return nullptr;
    }
    return counted(q);
}
void free(void* p) {
    uncounted(p);
    __libc_free(p);
}
void* memalign(size_t alignment, size_t size) { return counted(__libc_memalign(alignment, size)); }
void* aligned_alloc(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}
int posix_memalign(void** out, size_t alignment, size_t size) {
    void* p = counted(__libc_memalign(alignment, size));
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}
}
#endif

namespace {

using Seconds = std::chrono::duration<double>;
using BenchClock = std::chrono::steady_clock;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "bench_odbc: %s\n", what.c_str());
    std::fflush(stderr);
    std::_Exit(1);
}

// ---- the server ----

// The connection string's items, keys in lower case.
std::map<std::string, std::string> connection_items(const std::string& conn) {
    std::map<std::string, std::string> items;
    size_t start = 0;
    while (start < conn.size()) {
        size_t end = conn.find(';', start);
        if (end == std::string::npos) end = conn.size();
        const std::string item = conn.substr(start, end - start);
        const size_t eq = item.find('=');
        if (eq != std::string::npos) {
            std::string key = item.substr(0, eq);
            std::transform(key.begin(), key.end(), key.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            items[key] = item.substr(eq + 1);
        }
        start = end + 1;
    }
    return items;
}

const std::string& server_connection() {
    static const std::string conn = [] {
        const char* text = std::getenv("VESK_BENCH_PG");
        if (text == nullptr || *text == '\0') die("VESK_BENCH_PG is not set");
        return std::string(text);
    }();
    return conn;
}

// VESK_BENCH_ODBC_OPTIONS: driver options added to every connection string
// of the extension and of raw ODBC alike (e.g. "UseDeclareFetch=1;Fetch=100;").
std::string bench_options() {
    const char* text = std::getenv("VESK_BENCH_ODBC_OPTIONS");
    std::string options = text ? text : "";
    if (!options.empty() && options.back() != ';') options += ';';
    return options;
}

// The server's connection string with database `database`, then `options`
// and VESK_BENCH_ODBC_OPTIONS.
std::string on_database(const std::string& database, const std::string& options = "") {
    std::string out;
    bool replaced = false;
    for (const auto& [key, value] : connection_items(server_connection())) {
        if (key == "database") {
            out += "Database=" + database + ";";
            replaced = true;
        } else {
            out += key + "=" + value + ";";
        }
    }
    if (!replaced) out += "Database=" + database + ";";
    return out + options + bench_options();
}

// ---- raw ODBC ----

bool ok(SQLRETURN rc) { return rc == SQL_SUCCESS || rc == SQL_SUCCESS_WITH_INFO; }

std::string diagnostics(SQLSMALLINT type, SQLHANDLE handle) {
    std::string out;
    SQLCHAR state[6];
    SQLCHAR text[1024];
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    for (SQLSMALLINT i = 1;
         ok(SQLGetDiagRec(type, handle, i, state, &native, text, sizeof text, &length)); ++i)
        out += std::string("[") + reinterpret_cast<char*>(state) + "] " +
               reinterpret_cast<char*>(text) + " ";
    return out;
}

// One raw ODBC connection in autocommit mode.
class Raw {
public:
    explicit Raw(const std::string& conn) {
        if (!ok(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env_)) ||
            !ok(SQLSetEnvAttr(env_, SQL_ATTR_ODBC_VERSION,
                              reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0)) ||
            !ok(SQLAllocHandle(SQL_HANDLE_DBC, env_, &dbc_)))
            die("cannot allocate ODBC handles");
        std::string text = conn;
        if (!ok(SQLDriverConnect(dbc_, nullptr, reinterpret_cast<SQLCHAR*>(text.data()), SQL_NTS,
                                 nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT)))
            die("cannot connect: " + diagnostics(SQL_HANDLE_DBC, dbc_));
    }
    ~Raw() {
        SQLDisconnect(dbc_);
        SQLFreeHandle(SQL_HANDLE_DBC, dbc_);
        SQLFreeHandle(SQL_HANDLE_ENV, env_);
    }
    Raw(const Raw&) = delete;
    Raw& operator=(const Raw&) = delete;

    // Runs `sql`; dies on failure.
    void exec(const std::string& sql) {
        SQLHSTMT stmt = statement();
        const SQLRETURN rc = SQLExecDirect(
            stmt, reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql.c_str())), SQL_NTS);
        if (!ok(rc) && rc != SQL_NO_DATA) die(sql + ": " + diagnostics(SQL_HANDLE_STMT, stmt));
        SQLFreeHandle(SQL_HANDLE_STMT, stmt);
    }
    // The first column of the first row of `sql`.
    long long number(const std::string& sql) {
        SQLHSTMT stmt = statement();
        SQLBIGINT value = 0;
        if (!ok(SQLExecDirect(stmt, reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql.c_str())),
                              SQL_NTS)) ||
            !ok(SQLFetch(stmt)) ||
            !ok(SQLGetData(stmt, 1, SQL_C_SBIGINT, &value, sizeof value, nullptr)))
            die(sql + ": " + diagnostics(SQL_HANDLE_STMT, stmt));
        SQLFreeHandle(SQL_HANDLE_STMT, stmt);
        return value;
    }

    // The first column of every row of `sql`, as text.
    std::vector<std::string> texts(const std::string& sql) {
        SQLHSTMT stmt = statement();
        if (!ok(SQLExecDirect(stmt, reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql.c_str())),
                              SQL_NTS)))
            die(sql + ": " + diagnostics(SQL_HANDLE_STMT, stmt));
        std::vector<std::string> out;
        SQLRETURN rc;
        while ((rc = SQLFetch(stmt)) == SQL_SUCCESS || rc == SQL_SUCCESS_WITH_INFO)
            text(stmt, 1, out.emplace_back());
        if (rc != SQL_NO_DATA) die(sql + ": " + diagnostics(SQL_HANDLE_STMT, stmt));
        SQLFreeHandle(SQL_HANDLE_STMT, stmt);
        return out;
    }

    // Runs `sql` and reads every row into `rows`, columns in the view's
    // order, as hand-written ODBC code would: every column bound, so that one
    // SQLFetch converts the row, and a text longer than its bound buffer read
    // again, whole, in chunks with SQLGetData.
    size_t rows(const std::string& sql, std::vector<vd::Row>& rows) {
        SQLHSTMT stmt = statement();
        if (!ok(SQLExecDirect(stmt, reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql.c_str())),
                              SQL_NTS)))
            die(sql + ": " + diagnostics(SQL_HANDLE_STMT, stmt));
        constexpr int columns = 15;
        constexpr size_t text_size = 1024;
        static const bool is_text[columns + 1] = {false, false, true,  true,  false, true,
                                                  false, false, false, false, true,  true,
                                                  true,  false, true,  false};
        SQLBIGINT integers[columns + 1] = {};
        SQLDOUBLE duration = 0;
        std::vector<std::array<char, text_size + 1>> texts(columns + 1);
        SQLLEN indicators[columns + 1] = {};
        for (SQLUSMALLINT c = 1; c <= columns; ++c) {
            SQLRETURN rc;
            if (c == 8)
                rc = SQLBindCol(stmt, c, SQL_C_DOUBLE, &duration, 0, &indicators[c]);
            else if (is_text[c])
                rc =
                    SQLBindCol(stmt, c, SQL_C_CHAR, texts[c].data(), text_size + 1, &indicators[c]);
            else
                rc = SQLBindCol(stmt, c, SQL_C_SBIGINT, &integers[c], 0, &indicators[c]);
            if (!ok(rc)) die("SQLBindCol: " + diagnostics(SQL_HANDLE_STMT, stmt));
        }
        auto integer = [&](SQLUSMALLINT c) {
            return indicators[c] == SQL_NULL_DATA ? 0 : static_cast<int64_t>(integers[c]);
        };
        auto text_of = [&](SQLUSMALLINT c, std::string& out) {
            if (indicators[c] == SQL_NULL_DATA)
                out.clear();
            else if (indicators[c] >= 0 && static_cast<size_t>(indicators[c]) <= text_size)
                out.assign(texts[c].data(), static_cast<size_t>(indicators[c]));
            else
                text(stmt, c, out);
        };
        std::string nodes;
        SQLRETURN rc;
        while ((rc = SQLFetch(stmt)) == SQL_SUCCESS || rc == SQL_SUCCESS_WITH_INFO) {
            vd::Row& r = rows.emplace_back();
            r.rowid = static_cast<int>(integer(1));
            text_of(2, r.Provider);
            text_of(3, r.Hostname);
            r.num_nodes = static_cast<int>(integer(4));
            text_of(5, nodes);
            r.node_names.clear();
            for (size_t start = 0; start <= nodes.size();) {
                size_t end = nodes.find(',', start);
                if (end == std::string::npos) end = nodes.size();
                const size_t a = nodes.find_first_not_of(' ', start);
                if (a < end) {
                    const size_t b = nodes.find_last_not_of(' ', end - 1);
                    r.node_names.push_back(nodes.substr(a, b - a + 1));
                }
                start = end + 1;
            }
            r.Exit_status = static_cast<int>(integer(6));
            r.Timestamp = integer(7);
            r.Duration = indicators[8] == SQL_NULL_DATA ? 0 : duration;
            r.Encoding = static_cast<int>(integer(9));
            text_of(10, r.STDOUT);
            text_of(11, r.STDERR);
            text_of(12, r.OptionID);
            r.version = static_cast<int>(integer(13));
            text_of(14, r.Username);
            r.Unique_timestamp = integer(15);
        }
        if (rc != SQL_NO_DATA) die(sql + ": " + diagnostics(SQL_HANDLE_STMT, stmt));
        SQLFreeHandle(SQL_HANDLE_STMT, stmt);
        return rows.size();
    }

private:
    SQLHSTMT statement() {
        SQLHSTMT stmt = SQL_NULL_HSTMT;
        if (!ok(SQLAllocHandle(SQL_HANDLE_STMT, dbc_, &stmt))) die("cannot allocate a statement");
        return stmt;
    }
    static void text(SQLHSTMT stmt, SQLUSMALLINT column, std::string& out) {
        out.clear();
        char chunk[16384];
        for (;;) {
            SQLLEN indicator = 0;
            const SQLRETURN rc =
                SQLGetData(stmt, column, SQL_C_CHAR, chunk, sizeof chunk, &indicator);
            if (rc == SQL_NO_DATA || indicator == SQL_NULL_DATA) return;
            if (!ok(rc)) die("SQLGetData: " + diagnostics(SQL_HANDLE_STMT, stmt));
            const size_t room = sizeof chunk - 1;  // the driver ends each piece with a NUL
            if (rc == SQL_SUCCESS_WITH_INFO &&
                (indicator == SQL_NO_TOTAL || static_cast<size_t>(indicator) > room)) {
                if (indicator != SQL_NO_TOTAL)
                    out.reserve(out.size() + static_cast<size_t>(indicator));
                out.append(chunk, room);
                continue;
            }
            out.append(chunk, static_cast<size_t>(indicator));
            return;
        }
    }

    SQLHENV env_ = SQL_NULL_HENV;
    SQLHDBC dbc_ = SQL_NULL_HDBC;
};

// Makes `database` new and empty.
void fresh_database(const std::string& database) {
    Raw admin(server_connection());
    admin.exec("DROP DATABASE IF EXISTS " + database + " WITH (FORCE);");
    admin.exec("CREATE DATABASE " + database + ";");
}

// Opens the ODBC extension on `database` as the only datastore of the
// process, through the library's configuration path; returns its name.
std::string open_odbc(const std::string& database, bool read_only,
                      const std::string& options = "") {
    static const auto controller = vd::DataStoreController::createDataStoreController();
    vd::DataStoreParseUtility::clear_db_vector();
    vd::DataStoreConfig config;
    config.type = vd::odbc;
    config.instance_name = "bench";
    config.source_parameters =
        "source=" + on_database(database, options) + (read_only ? "|read_only=true" : "");
    config.source_types.set(vd::data);
    std::vector<vd::DataStoreConfig> configs{config};
    vd::DataStoreParseUtility::fillInVacantFields(configs);
    vd::DataStoreParseUtility::insert_db_instance(configs);
    if (vd::DataStoreParseUtility::get_datastore_vector().empty())
        die("cannot open the datastore on " + database);
    return config.instance_name;
}

// ---- paired runs ----

// Runs the library path and its baseline alternately; reports each one's
// mean time and rows per second.
void run_pair(benchmark::State& state, const std::function<double()>& library,
              const std::function<double()>& baseline, size_t items) {
    const PairTimes t = run_alternately(state, library, baseline);
    state.counters["library_ms"] = t.first * 1e3;
    state.counters["baseline_ms"] = t.second * 1e3;
    state.counters["library_rows_per_s"] = t.first > 0 ? static_cast<double>(items) / t.first : 0;
    state.counters["baseline_rows_per_s"] =
        t.second > 0 ? static_cast<double>(items) / t.second : 0;
}

// Vacuums and checkpoints the database `raw` is on, so that no work of a
// setup is left for the server to do during the timed runs that follow:
// the benchmarks' repetitions interleave, on the same two cores.
void settle(Raw& raw) {
    raw.exec("VACUUM ANALYZE;");
    raw.exec("CHECKPOINT;");
}

// ---- bulk insert against psql \copy ----

std::string csv_text(const std::string& value) {
    std::string out = "\"";
    for (char c : value) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

// The records as CSV in the order of row_column_list(1), texts quoted (so
// that an empty text stays a text, not NULL).
std::string write_csv(const std::vector<vd::InsertRecord>& records) {
    const std::string file = bench_dir() + "/rows.csv";
    std::ofstream out(file, std::ios::binary);
    for (const auto& r : records) {
        std::string nodes;
        for (size_t i = 0; i < r.header.node_names.size(); ++i)
            nodes += (i ? vd::kNodeListSeparator : "") + r.header.node_names[i];
        char number[64];
        std::snprintf(number, sizeof number, "%.17g", r.header.duration);
        out << csv_text(r.header.provider) << ',' << csv_text(r.header.hostname) << ','
            << r.header.num_nodes << ',' << csv_text(nodes) << ',' << r.header.exit_status << ','
            << r.header.timestamp << ',' << number << ',' << static_cast<int>(r.header.encoding)
            << ',' << csv_text(r.std_out) << ',' << csv_text(r.std_err) << ','
            << csv_text(r.option_id) << ',' << r.header.version << ','
            << csv_text(r.header.username) << ',' << r.header.unique_timestamp << '\n';
    }
    out.close();
    if (!out) die("cannot write " + file);
    return file;
}

// Runs psql on `database` with the one command `command`; false on failure.
bool psql(const std::string& database, const std::string& command) {
    auto items = connection_items(server_connection());
    std::vector<std::string> args = {"psql", "-X", "-q", "-v", "ON_ERROR_STOP=1"};
    if (items.count("server")) args.insert(args.end(), {"-h", items["server"]});
    if (items.count("servername")) args.insert(args.end(), {"-h", items["servername"]});
    if (items.count("port")) args.insert(args.end(), {"-p", items["port"]});
    if (items.count("uid")) args.insert(args.end(), {"-U", items["uid"]});
    if (items.count("username")) args.insert(args.end(), {"-U", items["username"]});
    args.insert(args.end(), {"-d", database, "-c", command});
    const pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid == 0) {
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execvp("psql", argv.data());
        std::_Exit(127);
    }
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_BulkInsert(benchmark::State& state) {
    const std::string database = "vesk_bench_insert";
    static const auto records = make_records(scaled(200000), 200);
    static const std::string csv = write_csv(records);
    static const bool made = (fresh_database(database), true);
    (void)made;
    const std::string name = open_odbc(database, false);
    Raw raw(on_database(database));
    const std::string copy = "\\copy " + vd::table_name + "(" + vd::row_column_list(1) +
                             ") FROM '" + csv + "' WITH (FORMAT csv)";
    const std::string truncate = "TRUNCATE " + vd::table_name + " RESTART IDENTITY;";
    auto empty_table = [&] {
        raw.exec(truncate);
        raw.exec("CHECKPOINT;");  // earlier runs' writes do not compete with this one
    };
    auto check_count = [&] {
        if (raw.number("SELECT count(*) FROM " + vd::table_name + ";") !=
            static_cast<long long>(records.size()))
            state.SkipWithError("the table does not hold every row");
    };
    run_pair(
        state,
        [&] {
            empty_table();
            const auto start = BenchClock::now();
            if (!vd::execute_ioctl({name}, vd::OP_BULK_INSERT, &records, nullptr, nullptr, nullptr))
                die("bulk insert failed");
            const double seconds = Seconds(BenchClock::now() - start).count();
            check_count();
            return seconds;
        },
        [&] {
            empty_table();
            const auto start = BenchClock::now();
            if (!psql(database, copy)) die("psql \\copy failed");
            const double seconds = Seconds(BenchClock::now() - start).count();
            check_count();
            return seconds;
        },
        records.size());
    // Neither the rows left behind nor the entries the truncations removed
    // from the table of each group's latest row are left to autovacuum.
    raw.exec(truncate);
    settle(raw);
    vd::DataStoreParseUtility::clear_db_vector();
}

// ---- queries on a 1,000,000-row datastore ----

struct QueryData {
    std::string indexed = "vesk_bench_query";    // the extension's schema
    std::string bare = "vesk_bench_query_bare";  // the same rows without its indexes
    std::vector<std::string> ten_providers;
    std::string one_provider = "prov007";
    long long rows = 0;
};

// The rows of bench_sqlite's query set, made by the server itself: run,
// then provider, then host; each field as make_record makes it (STDOUT is
// the letter sequence 'a' + (7i + provider + host) mod 26).
std::string generate_rows_sql(int hosts) {
    std::string letters;  // 'a' + 7i mod 26: STDOUT starts at (provider+host) * 15 mod 26
    for (int i = 0; i < 26; ++i) letters += static_cast<char>('a' + i * 7 % 26);
    const std::string per_run = std::to_string(200 * hosts);
    const std::string h = "(i % " + std::to_string(hosts) + ")";
    const std::string p = "(i / " + std::to_string(hosts) + " % 200)";
    const std::string run = "(i / " + per_run + ")";
    return "INSERT INTO " + vd::table_name + "(" + vd::row_column_list(1) +
           ") SELECT 'prov' || lpad(" + p + "::text, 3, '0'), 'node' || lpad(" + h +
           "::text, 4, '0'), 1, 'node' || lpad(" + h + "::text, 4, '0'), (" + p + " + " + h +
           ") % 3, 1600000000 + " + run + " * 600, 0.5, 0, substr(repeat('" + letters +
           "', 9), 1 + ((" + p + " + " + h +
           ") * 15) % 26, 200), '', 'default', 2, "
           "'collector', 1600000000000000 + " +
           run + " * 600000000::bigint FROM generate_series(0, " + per_run + " * 10 - 1) AS i;";
}

const QueryData& query_data() {
    static const QueryData data = [] {
        QueryData d;
        const int hosts = static_cast<int>(std::max<long>(1, 500 / scale()));
        const auto start = BenchClock::now();
        fresh_database(d.indexed);
        open_odbc(d.indexed, false);  // the extension makes its schema
        vd::DataStoreParseUtility::clear_db_vector();
        {
            Raw raw(on_database(d.indexed));
            raw.exec(generate_rows_sql(hosts));
            raw.exec("VACUUM ANALYZE;");
            d.rows = raw.number("SELECT count(*) FROM " + vd::table_name + ";");
        }
        {
            Raw admin(server_connection());
            admin.exec("DROP DATABASE IF EXISTS " + d.bare + " WITH (FORCE);");
            admin.exec("CREATE DATABASE " + d.bare + " TEMPLATE " + d.indexed + ";");
        }
        {
            Raw raw(on_database(d.bare));
            // The table of each group's latest row is an index of the
            // extension's too: it goes with its triggers.
            raw.exec(
                "DROP INDEX provider_datastore_latest; DROP INDEX provider_datastore_run; "
                "DROP INDEX provider_datastore_failed; DROP TABLE " +
                vd::odbc_backend::pg::newest_table + "; DROP FUNCTION " +
                vd::odbc_backend::pg::newest_table + "_keep() CASCADE;");
            settle(raw);
        }
        for (int p = 0; p < 10; ++p) {
            char name[16];
            std::snprintf(name, sizeof name, "prov%03d", p * 20);
            d.ten_providers.push_back(name);
        }
        std::fprintf(stderr, "bench_odbc: %lld rows made in %.1f s\n", d.rows,
                     Seconds(BenchClock::now() - start).count());
        return d;
    }();
    return data;
}

std::string in_list(const std::vector<std::string>& values) {
    std::string out;
    for (size_t i = 0; i < values.size(); ++i) out += (i ? ",'" : "'") + values[i] + "'";
    return out;
}

// The statements the extension runs for the three queries: the base
// class's condition in the PostgreSQL texts; with `bare`, those it runs on a
// database without the table of each group's latest row.
std::string sql_of(Query query, bool bare = false) {
    const QueryData& d = query_data();
    const std::string providers = " (Provider IN (" + in_list(d.ten_providers) + ") )";
    switch (query) {
        case Query::latest_rows:
            return bare ? vd::odbc_backend::pg::latest_rows_scan_sql(providers)
                        : vd::odbc_backend::pg::latest_rows_sql(providers);
        case Query::latest_run:
            return vd::odbc_backend::pg::latest_run_sql(" (Provider IN ('" + d.one_provider +
                                                        "') )");
        case Query::provider:
            return "SELECT * FROM " + vd::table_view + " WHERE (Provider IN ('" + d.one_provider +
                   "') )";
    }
    return "";
}

// The server's own time for `sql` in milliseconds: the median execution
// time of `EXPLAIN (ANALYZE, TIMING OFF)` over 7 runs, which executes the
// statement whole but sends no rows. Run outside the timed loops; the
// difference to a timed read is what sending, receiving and converting the
// rows cost.
double server_ms(Raw& raw, const std::string& sql) {
    std::vector<double> times;
    const std::string label = "Execution Time: ";
    for (int i = 0; i < 7; ++i)
        for (const std::string& line : raw.texts("EXPLAIN (ANALYZE, TIMING OFF) " + sql))
            if (line.rfind(label, 0) == 0) times.push_back(std::atof(line.c_str() + label.size()));
    if (times.empty()) return 0;
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// One query through the library's query functions into full Rows.
std::vector<vd::Row> query_library(Query query, const std::vector<std::string>& names) {
    const QueryData& d = query_data();
    std::vector<vd::Row> rows;
    const bool ok = library_query(query, names, d.ten_providers, d.one_provider, rows);
    if (!ok || rows.empty()) die("a query through the library failed");
    return rows;
}

// The library's rows are what make_record made, and the same as raw ODBC's.
bool same_rows(std::vector<vd::Row> library, std::vector<vd::Row> raw) {
    if (library.size() != raw.size()) return false;
    auto by_id = [](const vd::Row& a, const vd::Row& b) { return a.rowid < b.rowid; };
    std::sort(library.begin(), library.end(), by_id);
    std::sort(raw.begin(), raw.end(), by_id);
    for (size_t i = 0; i < library.size(); ++i) {
        const vd::Row& a = library[i];
        const vd::Row& b = raw[i];
        if (a.rowid != b.rowid || a.STDOUT != b.STDOUT || a.Hostname != b.Hostname ||
            a.Unique_timestamp != b.Unique_timestamp || a.node_names != b.node_names)
            return false;
        const int provider = std::atoi(a.Provider.c_str() + 4);
        const int host = std::atoi(a.Hostname.c_str() + 4);
        const int run = static_cast<int>((a.Timestamp - 1600000000) / 600);
        if (a.STDOUT != make_record(provider, host, run, 200).std_out) return false;
    }
    return true;
}

void BM_Query(benchmark::State& state, Query query) {
    const QueryData& d = query_data();
    const std::vector<std::string> names{open_odbc(d.indexed, true)};
    Raw raw(on_database(d.indexed));
    const std::string sql = sql_of(query);
    {
        std::vector<vd::Row> raw_rows;
        raw.rows(sql, raw_rows);
        if (!same_rows(query_library(query, names), raw_rows))
            state.SkipWithError("library and raw ODBC rows differ");
    }
    size_t count = 0;
    run_pair(
        state,
        [&] {
            const auto start = BenchClock::now();
            const auto rows = query_library(query, names);
            benchmark::DoNotOptimize(rows.data());
            count = rows.size();
            return Seconds(BenchClock::now() - start).count();
        },
        [&] {
            const auto start = BenchClock::now();
            std::vector<vd::Row> rows;
            raw.rows(sql, rows);
            benchmark::DoNotOptimize(rows.data());
            return Seconds(BenchClock::now() - start).count();
        },
        1);
    vd::DataStoreParseUtility::clear_db_vector();
    state.counters["rows"] = static_cast<double>(count);
    state.counters["server_ms"] = server_ms(raw, sql);
}

// The same SQL with raw ODBC on the same rows without the extension's indexes.
void BM_QueryWithoutIndexes(benchmark::State& state, Query query) {
    const QueryData& d = query_data();
    Raw raw(on_database(d.bare));
    const std::string sql = sql_of(query, true);
    size_t count = 0;
    for (auto _ : state) {
        std::vector<vd::Row> rows;
        count = raw.rows(sql, rows);
        benchmark::DoNotOptimize(rows.data());
    }
    state.counters["rows"] = static_cast<double>(count);
    state.counters["server_ms"] = server_ms(raw, sql);
}

// ---- memory of a large read ----

long status_kib(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field));
    return 0;
}

// Peak heap and peak resident growth of `read`, per byte of payload.
struct Peak {
    double heap = 0;
    double rss = 0;
};
Peak measure_peak(const std::function<void()>& read, double payload) {
    malloc_trim(0);
    {
        std::ofstream clear("/proc/self/clear_refs");
        clear << "5";  // resets VmHWM
    }
    const long rss_before = status_kib("VmRSS:");
    const long long live_before = g_live.load();
    g_peak.store(live_before);
    read();
    Peak peak;
    peak.heap = static_cast<double>(g_peak.load() - live_before) / payload;
    peak.rss = static_cast<double>(status_kib("VmHWM:") - rss_before) * 1024.0 / payload;
    return peak;
}

// `options`: driver options of the reading connections ("" for the
// configured ones).
void BM_ReadMemory(benchmark::State& state, const std::string& options) {
    const size_t count = scaled(1000);
    const size_t output = 64 * 1024;
    const std::string database = "vesk_bench_wide";
    fresh_database(database);
    open_odbc(database, false);
    vd::DataStoreParseUtility::clear_db_vector();
    {
        Raw raw(on_database(database));
        raw.exec("INSERT INTO " + vd::table_name + "(" + vd::row_column_list(1) +
                 ") SELECT 'prov001', 'node' || lpad(i::text, 4, '0'), 1, 'node' || "
                 "lpad(i::text, 4, '0'), 0, 1600000000, 0.5, 0, repeat('abcdefgh', " +
                 std::to_string(output / 8) +
                 "), '', 'default', 2, 'collector', 1600000000000000 FROM generate_series(0, " +
                 std::to_string(count - 1) + ") AS i;");
        settle(raw);
    }
    open_odbc(database, true, options);
    const double payload = static_cast<double>(count * output);
    Peak library, raw_peak;
    for (auto _ : state) {
        library = measure_peak(
            [&] {
                std::vector<vd::Row> rows;
                if (!vd::select_provider_data({"prov001"}, rows, "", false) ||
                    rows.size() != count || rows.back().STDOUT.size() != output)
                    state.SkipWithError("read failed");
            },
            payload);
    }
    vd::DataStoreParseUtility::clear_db_vector();
    {
        Raw raw(on_database(database, options));
        raw_peak = measure_peak(
            [&] {
                std::vector<vd::Row> rows;
                raw.rows("SELECT * FROM " + vd::table_view + " WHERE (Provider IN ('prov001') )",
                         rows);
                if (rows.size() != count) state.SkipWithError("raw read failed");
            },
            payload);
    }
    state.counters["payload_MiB"] = payload / (1 << 20);
    state.counters["peak_heap_per_payload"] = VESK_BENCH_COUNTS_HEAP ? library.heap : -1;
    state.counters["peak_rss_per_payload"] = library.rss;
    state.counters["raw_odbc_peak_heap_per_payload"] = VESK_BENCH_COUNTS_HEAP ? raw_peak.heap : -1;
    state.counters["raw_odbc_peak_rss_per_payload"] = raw_peak.rss;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(payload));
}

// ---- the table of goals ----

// Prints the usual console output, then one line per goal from the medians
// over the repetitions.
class GoalReporter : public TimesReporter {
public:
    void Finalize() override {
        TimesReporter::Finalize();
        std::printf(
            "\n| measure | extension (median) | baseline (median) | ratio | goal |\n"
            "|---|---|---|---|---|\n");
        for (const auto& [name, result] : results()) {
            const auto& c = result.counters;
            if (name.rfind("bulk_insert", 0) == 0 && c.count("library_rows_per_s")) {
                const double l = c.at("library_rows_per_s"), b = c.at("baseline_rows_per_s");
                std::printf(
                    "| %s | %.0f rows/s | psql \\copy %.0f rows/s | %.2f of \\copy | >= 0.5 "
                    "%s |\n",
                    name.c_str(), l, b, l / b, l / b >= 0.5 ? "met" : "MISSED");
            } else if (name.rfind("query", 0) == 0 && c.count("library_ms")) {
                const double l = c.at("library_ms"), b = c.at("baseline_ms");
                std::printf("| %s | %.2f ms | raw ODBC %.2f ms | %.2fx raw time | <= 1.2 %s |\n",
                            name.c_str(), l, b, l / b, l / b <= 1.2 ? "met" : "MISSED");
                const auto bare = results().find(name + "/raw_without_indexes");
                if (bare != results().end()) {
                    const double t = bare->second.time_ms;
                    std::printf(
                        "| %s without the indexes | %.2f ms | raw ODBC %.2f ms | %.1fx faster "
                        "with them | >= 5 %s |\n",
                        name.c_str(), l, t, t / l, t / l >= 5 ? "met" : "MISSED");
                    // What no reader of this SQL can beat: raw ODBC on both
                    // copies, and the server's own time on both.
                    std::printf(
                        "| %s, raw ODBC with and without the indexes | %.2f ms | %.2f ms "
                        "| %.1fx | |\n",
                        name.c_str(), b, t, t / b);
                    const auto s = c.find("server_ms");
                    const auto bs = bare->second.counters.find("server_ms");
                    if (s != c.end() && bs != bare->second.counters.end() && s->second > 0)
                        std::printf(
                            "| %s, server execution with and without the indexes | %.2f ms | "
                            "%.2f ms | %.1fx | |\n",
                            name.c_str(), s->second, bs->second, bs->second / s->second);
                }
            } else if (name.rfind("read_memory", 0) == 0 && c.count("peak_rss_per_payload")) {
                const double heap = c.at("peak_heap_per_payload");
                const double rss = c.at("peak_rss_per_payload");
                const double judged = heap >= 0 ? heap : rss;
                std::printf(
                    "| %s, peak heap (resident) per payload | %.2f (%.2f) | raw ODBC %.2f "
                    "(%.2f) | | <= 1.5 %s |\n",
                    name.c_str(), heap, rss, c.at("raw_odbc_peak_heap_per_payload"),
                    c.at("raw_odbc_peak_rss_per_payload"), judged <= 1.5 ? "met" : "MISSED");
            }
        }
        if (std::fflush(stdout) != 0) std::perror("bench_odbc: standard output");
    }
};

void register_all() {
    const int reps = repetitions();
    const bool smoke = scale() > 1;
    auto add = [reps](const std::string& name, std::function<void(benchmark::State&)> fn,
                      int64_t iterations, bool manual) {
        add_benchmark(name, std::move(fn), iterations, manual, reps);
    };
    add("bulk_insert/200B", BM_BulkInsert, 1, true);
    const std::pair<Query, const char*> queries[] = {
        {Query::latest_rows, "query/latest_rows_10_providers"},
        {Query::latest_run, "query/latest_run_op519"},
        {Query::provider, "query/select_provider_data"}};
    // A server on a shared machine varies by a tenth from one half second
    // to the next: the queries' medians are taken over 9 repetitions unless
    // VESK_BENCH_REPS says otherwise.
    const int query_reps = std::getenv("VESK_BENCH_REPS") != nullptr || smoke ? reps : 9;
    for (const auto& [query, name] : queries) {
        const Query q = query;
        add_benchmark(
            name, [q](benchmark::State& s) { BM_Query(s, q); }, smoke ? 1 : 0, true, query_reps);
        add_benchmark(
            std::string(name) + "/raw_without_indexes",
            [q](benchmark::State& s) { BM_QueryWithoutIndexes(s, q); }, smoke ? 1 : 5, false,
            query_reps);
    }
    // As configured, and with the driver fetching 100 rows at a time
    // through a cursor instead of holding the whole answer.
    for (const std::string options : {"", "UseDeclareFetch=1;Fetch=100;"}) {
        const std::string name = std::string("read_memory/1000x64KiB") +
                                 (options.empty() ? "" : "/UseDeclareFetch=1;Fetch=100");
        auto* memory = benchmark::RegisterBenchmark(
            name.c_str(), [options](benchmark::State& s) { BM_ReadMemory(s, options); });
        memory->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    }
}

// Without VESK_BENCH_PG: starts a private server, runs this program again
// against it (ODBCSYSINI must be set before unixODBC starts), stops the
// server, and returns the run's exit status.
int run_on_private_server(char** argv) {
    char state_pattern[] = "/tmp/vesk-bench-pg-XXXXXX";
    if (::mkdtemp(state_pattern) == nullptr) die("mkdtemp failed");
    const std::string state = state_pattern;
    const std::string script = VESK_PG_SERVER_SCRIPT;
    if (std::system(("'" + script + "' start '" + state + "' >&2").c_str()) != 0)
        die("the private server did not start");
    std::ifstream unavailable(state + "/unavailable");
    std::string why;
    if (std::getline(unavailable, why)) {
        std::fprintf(stderr, "bench_odbc: no PostgreSQL server: %s\n", why.c_str());
        std::filesystem::remove_all(state);
        return 77;
    }
    std::ifstream in(state + "/connection-string");
    std::string conn;
    if (!std::getline(in, conn) || conn.empty()) die("no connection string in " + state);
    ::setenv("VESK_BENCH_PG", conn.c_str(), 1);
    ::setenv("ODBCSYSINI", (state + "/odbcsysini").c_str(), 1);
    int status = 1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execv("/proc/self/exe", argv);
        std::perror("bench_odbc: execv");
        std::_Exit(127);
    }
    int wstatus = 0;
    if (pid > 0 && ::waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus))
        status = WEXITSTATUS(wstatus);
    if (std::system(("'" + script + "' stop '" + state + "' >&2").c_str()) != 0) {
        std::fprintf(stderr, "bench_odbc: the private server did not stop\n");
        status = 1;
    }
    std::error_code ec;
    std::filesystem::remove_all(state, ec);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const char* given = std::getenv("VESK_BENCH_PG");
    if (given == nullptr || *given == '\0') return run_on_private_server(argv);
    if (std::getenv("ODBCSYSINI") == nullptr)
        std::fprintf(stderr,
                     "bench_odbc: ODBCSYSINI is not set: a packaged odbcinst.ini with CommLog=1 "
                     "makes the driver log every statement and slows every run\n");
    register_all();
    GoalReporter reporter;
    if (!run_interleaved(argc, argv, reporter)) return 1;
    std::error_code ec;
    std::filesystem::remove_all(bench_dir(), ec);
    {
        Raw admin(server_connection());
        for (const char* db :
             {"vesk_bench_insert", "vesk_bench_query", "vesk_bench_query_bare", "vesk_bench_wide"})
            admin.exec(std::string("DROP DATABASE IF EXISTS ") + db + " WITH (FORCE);");
    }
    return 0;
}
