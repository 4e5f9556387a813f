// Crash safety of the SQLite extension: a child process writes batches
// (single inserts and bulk inserts) and acknowledges each one after the
// extension answered success; the parent kills it with SIGKILL at a random
// moment, then checks the file with plain SQLite:
//   - PRAGMA integrity_check answers "ok";
//   - every acknowledged batch is present, once, byte for byte;
//   - every batch present is complete (a bulk insert is all or nothing), and
//     only the batch in flight at the kill may be present unacknowledged.
//
// Usage: sqlite_crash_safety [kills] [folder]   (defaults: 200, a temp folder)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <set>
#include <signal.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "sqlite/row_generator.h"
#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using vesk::test::batch_tag;
using vesk::test::make_batch;
constexpr size_t kMaxBatch = 40;

[[noreturn]] void write_until_killed(const std::string& db, uint64_t writer, int ack_fd) {
    int32_t status = -1;
    auto ext = vesk::test::open_sqlite(vesk::test::params_for(db), &status);
    if (status != 0) _exit(3);
    // Now and then a writer stops by itself, so that close is hit as well.
    vesk::test::Random random(writer);
    const uint64_t stop_after = random.below(4) == 0 ? random.below(40) : UINT64_MAX;
    for (uint64_t batch = 0; batch < stop_after; ++batch) {
        const auto rows = make_batch(writer, batch, kMaxBatch);
        const int32_t rc = rows.size() == 1 && vesk::test::is_single(writer, batch)
                               ? vesk::test::insert_record(*ext, rows[0])
                               : vesk::test::bulk_insert(*ext, rows);
        if (rc != 0) _exit(4);
        const std::string ack = std::to_string(batch) + "\n";
        if (::write(ack_fd, ack.data(), ack.size()) != static_cast<ssize_t>(ack.size())) _exit(5);
    }
    ext.reset();
    _exit(0);
}

struct Checker {
    sqlite3* db = nullptr;
    explicit Checker(const std::string& file) {
        if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) throw std::runtime_error("checker open");
        sqlite3_busy_timeout(db, 10000);
    }
    ~Checker() { sqlite3_close(db); }
    std::string integrity() {
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &stmt, nullptr);
        std::string result;
        while (sqlite3_step(stmt) == SQLITE_ROW)
            result += reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        sqlite3_finalize(stmt);
        return result;
    }
    bool has_table() {
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE name = 'provider_datastore'", -1,
                           &stmt, nullptr);
        const bool found = sqlite3_step(stmt) == SQLITE_ROW;
        sqlite3_finalize(stmt);
        return found;
    }
    // Rows of `writer`, by batch number, in rowid order.
    std::map<uint64_t, std::vector<vesk::datastore::InsertRecord>> rows_of(uint64_t writer) {
        const std::string sql =
            "SELECT OptionID, Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, "
            "Duration, STDOUT, STDERR, Username, Unique_timestamp FROM provider_datastore "
            "WHERE Unique_timestamp / 1000000 = " +
            std::to_string(writer) + " ORDER BY rowid";
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(db));
        auto text = [stmt](int c) {
            const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
            return p ? std::string(p, sqlite3_column_bytes(stmt, c)) : std::string();
        };
        std::map<uint64_t, std::vector<vesk::datastore::InsertRecord>> out;
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            vesk::datastore::InsertRecord r;
            r.option_id = text(0);
            r.header.provider = text(1);
            r.header.hostname = text(2);
            r.header.num_nodes = sqlite3_column_int(stmt, 3);
            r.header.node_names = {text(4)};
            r.header.exit_status = sqlite3_column_int(stmt, 5);
            r.header.timestamp = sqlite3_column_int64(stmt, 6);
            r.header.duration = sqlite3_column_double(stmt, 7);
            r.std_out = text(8);
            r.std_err = text(9);
            r.header.username = text(10);
            r.header.unique_timestamp = sqlite3_column_int64(stmt, 11);
            const uint64_t batch = static_cast<uint64_t>(r.header.unique_timestamp % 1000000);
            out[batch].push_back(std::move(r));
        }
        sqlite3_finalize(stmt);
        if (rc != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db));
        return out;
    }
    void exec(const std::string& sql) {
        if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(db));
    }
};

bool same(const vesk::datastore::InsertRecord& a, const vesk::datastore::InsertRecord& b) {
    return a.option_id == b.option_id && a.header.provider == b.header.provider &&
           a.header.hostname == b.header.hostname && a.header.num_nodes == b.header.num_nodes &&
           a.header.node_names == b.header.node_names &&
           a.header.exit_status == b.header.exit_status &&
           a.header.timestamp == b.header.timestamp && a.header.duration == b.header.duration &&
           a.std_out == b.std_out && a.std_err == b.std_err &&
           a.header.username == b.header.username &&
           a.header.unique_timestamp == b.header.unique_timestamp;
}

// Returns an empty text when writer `writer` left the file as it must.
std::string check(Checker& checker, uint64_t writer, const std::set<uint64_t>& acked) {
    const std::string integrity = checker.integrity();
    if (integrity != "ok") return "integrity_check: " + integrity;
    // A kill during the very first open may leave a file without the schema.
    if (!checker.has_table()) return acked.empty() ? "" : "the table is lost";
    const auto found = checker.rows_of(writer);
    const uint64_t next = acked.empty() ? 0 : *acked.rbegin() + 1;
    for (uint64_t batch : acked)
        if (!found.count(batch))
            return "acknowledged batch " + batch_tag(writer, batch) + " is lost";
    for (const auto& [batch, rows] : found) {
        if (!acked.count(batch) && batch != next)
            return "batch " + batch_tag(writer, batch) + " present but never written";
        const auto expected = make_batch(writer, batch, kMaxBatch);
        if (rows.size() != expected.size())
            return "batch " + batch_tag(writer, batch) + " has " + std::to_string(rows.size()) +
                   " of " + std::to_string(expected.size()) + " rows";
        for (size_t i = 0; i < rows.size(); ++i)
            if (!same(rows[i], expected[i]))
                return "row " + std::to_string(i) + " of batch " + batch_tag(writer, batch) +
                       " differs";
    }
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    const int kills = argc > 1 ? std::atoi(argv[1]) : 200 / vesk::test::count_divisor();
    std::unique_ptr<vesk::test::TempDir> temp;
    std::string folder;
    if (argc > 2) {
        folder = argv[2];
    } else {
        temp = std::make_unique<vesk::test::TempDir>();
        folder = temp->path();
    }
    const std::string db = folder + "/crash.db";
    const std::string acks = folder + "/acks";
    vesk::test::SqlitePlugin::get();  // load before forking: children inherit it
    vesk::test::Random random(static_cast<uint64_t>(::getpid()));
    size_t rows_checked = 0;
    const auto start = std::chrono::steady_clock::now();

    for (int kill_no = 0; kill_no < kills; ++kill_no) {
        const uint64_t writer = static_cast<uint64_t>(kill_no) + 1;
        const int ack_fd = ::open(acks.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        const pid_t pid = ::fork();
        if (pid == 0) write_until_killed(db, writer, ack_fd);
        ::close(ack_fd);
        // Between 0 and 40 ms: the kill falls into open, a write, a commit
        // or close.
        std::this_thread::sleep_for(std::chrono::microseconds(random.below(40000)));
        ::kill(pid, SIGKILL);
        int wstatus = 0;
        ::waitpid(pid, &wstatus, 0);
        if (WIFEXITED(wstatus) && WEXITSTATUS(wstatus) != 0) {
            std::fprintf(stderr, "writer %llu failed with exit code %d\n",
                         static_cast<unsigned long long>(writer), WEXITSTATUS(wstatus));
            return 1;
        }
        std::set<uint64_t> acked;
        std::ifstream in(acks);
        for (uint64_t batch; in >> batch;) acked.insert(batch);
        if (!std::filesystem::exists(db)) {
            if (!acked.empty()) return std::fprintf(stderr, "database lost\n"), 1;
            continue;
        }
        Checker checker(db);
        std::string problem;
        try {
            problem = check(checker, writer, acked);
        } catch (const std::exception& e) {
            problem = e.what();
        }
        if (!problem.empty()) {
            std::fprintf(stderr, "after kill %d: %s\n", kill_no + 1, problem.c_str());
            return 1;
        }
        for (uint64_t b : acked) rows_checked += make_batch(writer, b, kMaxBatch).size();
        // Keep the file small: drop what has been checked now and then.
        if (kill_no % 10 == 9 && checker.has_table())
            checker.exec("DELETE FROM provider_datastore");
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d kills, %zu acknowledged rows checked, %.1f s\n", kills, rows_checked, seconds);
    return 0;
}
