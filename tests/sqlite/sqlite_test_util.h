#pragma once
// Helpers of the SQLite extension's tests: the staged libsqlite.so loaded
// for real with dlopen, instances made through its "create" and released
// through its "destroy", sample rows, raw SQLite looks at a file, and the
// deterministic batches of the process tests.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <sqlite3.h>

#include "vesk/datastore/interface.h"
#include "vesk/datastore/records.h"
#include "vesk/datastore/sqlite_extension.h"
#include "vesk/datastore/vocabulary.h"

namespace vesk::test {

namespace vd = vesk::datastore;

// The staged plugin, loaded once per process and kept.
inline void* sqlite_plugin() {
    static void* const handle = ::dlopen(
        (std::string(VESK_STAGE_DIR) + "/datastore/lumok64/libsqlite.so").c_str(), RTLD_NOW);
    if (handle == nullptr) throw std::runtime_error(std::string("dlopen: ") + ::dlerror());
    return handle;
}
// The plugin's exported function `name`.
template <typename Fn>
Fn plugin_function(const char* name) {
    auto* fn = reinterpret_cast<Fn>(::dlsym(sqlite_plugin(), name));
    if (fn == nullptr) throw std::runtime_error(std::string("libsqlite.so lacks ") + name);
    return fn;
}

struct PluginDeleter {
    void operator()(vd::interface* p) const {
        plugin_function<vd::DestroyExtensionFn>("destroy")(p);
    }
};
using SqliteInstance = std::unique_ptr<vd::interface, PluginDeleter>;

// A new instance, opened with `parameters`; `status` receives open's answer.
inline SqliteInstance open_sqlite(const std::string& parameters, int32_t* status = nullptr) {
    SqliteInstance instance(
        dynamic_cast<vd::interface*>(plugin_function<vd::CreateExtensionFn>("create")()));
    if (!instance) throw std::runtime_error("libsqlite.so made no interface instance");
    instance->instance_name = "test_sqlite";
    const int32_t rc = instance->open(parameters);
    if (status) *status = rc;
    return instance;
}

inline std::string params_for(const std::string& file, bool read_only = false,
                              const std::string& more = "") {
    return "source=" + file + "|read_only=" + (read_only ? "true" : "false") + more;
}

// For a child process: an instance opened on `file`, or exit code 3.
inline SqliteInstance open_or_exit(const std::string& file, bool read_only = false) {
    int32_t status = -1;
    auto ext = open_sqlite(params_for(file, read_only), &status);
    if (status != 0) _exit(3);
    return ext;
}

// One sample row; `n` makes it distinct.
inline vd::InsertRecord sample_record(const std::string& provider, const std::string& host,
                                      int64_t run, int n = 0) {
    vd::InsertRecord r;
    r.header = {provider, host,           2,        {host, host + "-peer"},
                n % 3,    1500000000 + n, 0.25 * n, vesk::provider::encoding::base64,
                3,        "tester",       run};
    r.std_out = "out " + provider + " " + host + " " + std::to_string(n);
    r.std_err = "err " + std::to_string(n);
    r.option_id = "opt" + std::to_string(n % 2);
    return r;
}

// `count` sample rows of `provider` in run 1.
inline std::vector<vd::InsertRecord> sample_rows(const std::string& provider, int count) {
    std::vector<vd::InsertRecord> rows;
    for (int i = 0; i < count; ++i) rows.push_back(sample_record(provider, "h", 1, i));
    return rows;
}

inline int32_t insert_record(vd::interface& ext, const vd::InsertRecord& record) {
    return ext.control(vd::OP_INSERT, nullptr, const_cast<vd::InsertRecord*>(&record), nullptr);
}

inline int32_t bulk_insert(vd::interface& ext, const std::vector<vd::InsertRecord>& records) {
    return ext.control(vd::SQLITE_BULK_INSERT, &records, nullptr, nullptr);
}

inline int32_t update_snapshots(vd::interface& ext,
                                const std::map<std::string, vd::ProviderInfoSet>& snapshots) {
    const auto* ptr = &snapshots;
    return ext.control(vd::OP_UPDATE_SNAPSHOT, nullptr, &ptr, nullptr);
}

inline int32_t remove_snapshot(vd::interface& ext, std::string id) {
    return ext.control(vd::OP_REMOVE_SNAPSHOT, nullptr, &id, nullptr);
}

// Runs `body` in a forked child; answers its exit code (what `body`
// answered), or -1 when the child did not exit.
inline int in_child(const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child == 0) _exit(body());
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether `row` holds `record`, every field byte for byte.
inline bool same(const vd::Row& row, const vd::InsertRecord& record) {
    const auto& h = record.header;
    return std::tie(row.Provider, row.Hostname, row.num_nodes, row.node_names, row.Exit_status,
                    row.Timestamp, row.Duration, row.STDOUT, row.STDERR, row.OptionID, row.version,
                    row.Username, row.Unique_timestamp) ==
               std::tie(h.provider, h.hostname, h.num_nodes, h.node_names, h.exit_status,
                        h.timestamp, h.duration, record.std_out, record.std_err, record.option_id,
                        h.version, h.username, h.unique_timestamp) &&
           row.Encoding == static_cast<int32_t>(h.encoding);
}

// Column `c` of every result row of `sql` on `file`, as text, through plain
// SQLite (read-only unless `writable`): a look from outside the extension.
inline std::vector<std::string> raw_column(const std::string& file, const std::string& sql,
                                           int c = 0, bool writable = false) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_open_v2(file.c_str(), &db, writable ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY,
                    nullptr);
    sqlite3_busy_timeout(db, 10000);
    int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
    std::vector<std::string> out;
    while (rc == SQLITE_OK && (rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
        out.emplace_back(text ? std::string(text, sqlite3_column_bytes(stmt, c)) : "");
        rc = SQLITE_OK;
    }
    const std::string error = sqlite3_errmsg(db);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    if (rc != SQLITE_DONE) throw std::runtime_error("raw SQLite on " + file + ": " + error);
    return out;
}
inline long long raw_count(const std::string& file,
                           const std::string& table = "provider_datastore") {
    return std::stoll(raw_column(file, "SELECT count(*) FROM " + table).at(0));
}

// Names of the files in `dir`.
inline std::set<std::string> files_in(const std::string& dir) {
    std::set<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        out.insert(e.path().filename().string());
    return out;
}

// ---- Deterministic rows for the process tests: a batch is known by
// (writer, batch number), and its size and every byte of its rows follow from
// those two numbers, so a checker can regenerate what a killed writer was
// writing.

// VESK_SQLITE_SCALE, a divisor of the default counts of the process tests
// (1 when unset or not a positive number).
inline int count_divisor() {
    const char* text = std::getenv("VESK_SQLITE_SCALE");
    return text && std::atoi(text) > 0 ? std::atoi(text) : 1;
}

// "<writer>-<batch>": the OptionID that marks every row of one batch.
inline std::string batch_tag(uint64_t writer, uint64_t batch) {
    return std::to_string(writer) + "-" + std::to_string(batch);
}

// Whether batch `batch` of `writer` is written as one single insert (about
// one in three) or as a bulk insert.
inline bool is_single(uint64_t writer, uint64_t batch) {
    return std::mt19937_64(writer * 7919 + batch * 31 + 5)() % 3 == 0;
}

// The rows of one batch: 1 row for a single insert, else 1 to `max_rows`;
// at most `left` of them (the rows a writer still owes).
inline std::vector<vd::InsertRecord> make_batch(uint64_t writer, uint64_t batch, size_t max_rows,
                                                size_t left = SIZE_MAX) {
    std::mt19937_64 random(writer * 1000003 + batch);
    std::vector<vd::InsertRecord> rows(
        std::min<size_t>(left, is_single(writer, batch) ? 1 : 1 + random() % max_rows));
    for (size_t i = 0; i < rows.size(); ++i) {
        auto& r = rows[i];
        r.header.provider = "prov" + std::to_string(random() % 5);
        r.header.hostname = "host" + std::to_string(random() % 13);
        r.header.num_nodes = 1;
        r.header.node_names = {r.header.hostname};
        r.header.exit_status = static_cast<int32_t>(random() % 3);
        r.header.timestamp = static_cast<int64_t>(i);
        r.header.duration = static_cast<double>(random() % 1000) / 8.0;
        r.header.username = "w" + std::to_string(writer);
        r.header.unique_timestamp = static_cast<int64_t>(writer * 1000000 + batch);
        r.option_id = batch_tag(writer, batch);
        // Mostly short outputs, now and then one that spans overflow pages;
        // every byte value occurs.
        r.std_out.resize(random() % 64 == 0 ? 8000 + random() % 8000 : random() % 400);
        r.std_err.resize(random() % 64);
        for (std::string* text : {&r.std_out, &r.std_err})
            for (auto& c : *text) c = static_cast<char>(random() >> 56);
    }
    return rows;
}

// Writes one batch the way its numbers say: a single insert or a bulk insert.
inline int32_t write_batch(vd::interface& ext, uint64_t writer, uint64_t batch,
                           const std::vector<vd::InsertRecord>& rows) {
    return is_single(writer, batch) ? insert_record(ext, rows[0]) : bulk_insert(ext, rows);
}

// The rows of the datastore (those matching `where`, when given) read
// through `ext`, by batch tag, each batch in rowid order.
inline std::map<std::string, std::vector<vd::Row>> rows_by_batch(vd::interface& ext,
                                                                 const std::string& where) {
    std::vector<vd::Row> rows;
    const std::string filter = where.empty() ? "" : " WHERE " + where;
    if (!ext.select("SELECT * FROM vesk_1" + filter + " ORDER BY rowid", rows, vd::row_field_index))
        throw std::runtime_error("cannot read the rows back");
    std::map<std::string, std::vector<vd::Row>> out;
    for (auto& row : rows) out[row.OptionID].push_back(std::move(row));
    return out;
}

// Empty when `found` holds exactly the rows `expected`, byte for byte;
// otherwise what differs.
inline std::string check_batch(const std::vector<vd::Row>& found,
                               const std::vector<vd::InsertRecord>& expected,
                               const std::string& tag) {
    if (found.size() != expected.size())
        return "batch " + tag + " has " + std::to_string(found.size()) + " of " +
               std::to_string(expected.size()) + " rows";
    for (size_t i = 0; i < found.size(); ++i)
        if (!same(found[i], expected[i]))
            return "row " + std::to_string(i) + " of batch " + tag + " differs";
    return "";
}

}  // namespace vesk::test
