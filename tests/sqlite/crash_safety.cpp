// Crash safety of the SQLite extension: a child process writes batches
// (single inserts and bulk inserts) and acknowledges each one after the
// extension answered success; the parent kills it with SIGKILL at a random
// moment, then checks the file:
//   - PRAGMA integrity_check (plain SQLite) answers "ok";
//   - every acknowledged batch is present, once, byte for byte;
//   - every batch present is complete (a bulk insert is all or nothing), and
//     only the batch in flight at the kill may be present unacknowledged.
//
// Usage: sqlite_crash_safety [kills]   (default 200; files go to $TMPDIR)
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <signal.h>
#include <sys/wait.h>
#include <thread>

#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;
constexpr size_t kMaxBatch = 40;

[[noreturn]] void write_until_killed(const std::string& db, uint64_t writer, int ack_fd) {
    auto ext = open_or_exit(db);
    // Now and then a writer stops by itself, so that close is hit as well.
    std::mt19937_64 random(writer);
    const uint64_t stop_after = random() % 4 == 0 ? random() % 40 : UINT64_MAX;
    for (uint64_t batch = 0; batch < stop_after; ++batch) {
        if (write_batch(*ext, writer, batch, make_batch(writer, batch, kMaxBatch)) != 0) _exit(4);
        const std::string ack = std::to_string(batch) + "\n";
        if (::write(ack_fd, ack.data(), ack.size()) != static_cast<ssize_t>(ack.size())) _exit(5);
    }
    ext.reset();
    _exit(0);
}

// Empty when writer `writer` left `db` as it must; otherwise what is wrong.
std::string check(const std::string& db, uint64_t writer, const std::set<uint64_t>& acked) {
    const auto integrity = raw_column(db, "PRAGMA integrity_check", 0, true);
    if (integrity != std::vector<std::string>{"ok"}) return "integrity_check: " + integrity.at(0);
    // A kill during the very first open may leave a file without the schema.
    if (raw_column(db, "SELECT 1 FROM sqlite_master WHERE name = 'provider_datastore'", 0, true)
            .empty())
        return acked.empty() ? "" : "the table is lost";
    const auto found = rows_by_batch(*open_sqlite(params_for(db)),
                                     "Unique_timestamp / 1000000 = " + std::to_string(writer));
    for (uint64_t batch : acked)
        if (!found.count(batch_tag(writer, batch)))
            return "acknowledged batch " + batch_tag(writer, batch) + " is lost";
    const uint64_t in_flight = acked.empty() ? 0 : *acked.rbegin() + 1;
    for (const auto& [tag, rows] : found) {
        const auto batch = static_cast<uint64_t>(rows.at(0).Unique_timestamp % 1000000);
        if (!acked.count(batch) && batch != in_flight)
            return "batch " + tag + " present but never written";
        const std::string problem = check_batch(rows, make_batch(writer, batch, kMaxBatch), tag);
        if (!problem.empty()) return problem;
    }
    // Keep the file small: drop what has been checked now and then.
    if (writer % 10 == 0) raw_column(db, "DELETE FROM provider_datastore", 0, true);
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    const int kills = argc > 1 ? std::atoi(argv[1]) : 200 / count_divisor();
    const TempDir temp;
    const std::string db = temp.file("crash.db"), acks = temp.file("acks");
    sqlite_plugin();  // load before forking: children inherit it
    std::mt19937_64 random(static_cast<uint64_t>(::getpid()));
    size_t rows_checked = 0;
    const auto start = std::chrono::steady_clock::now();

    for (int kill_no = 1; kill_no <= kills; ++kill_no) {
        const auto writer = static_cast<uint64_t>(kill_no);
        const int ack_fd = ::open(acks.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        const pid_t pid = ::fork();
        if (pid == 0) write_until_killed(db, writer, ack_fd);
        ::close(ack_fd);
        // Between 0 and 40 ms: the kill falls into open, a write, a commit
        // or close.
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
        ::kill(pid, SIGKILL);
        int wstatus = 0;
        ::waitpid(pid, &wstatus, 0);
        std::set<uint64_t> acked;
        std::ifstream in(acks);
        for (uint64_t batch; in >> batch;) acked.insert(batch);
        std::string problem;
        if (WIFEXITED(wstatus) && WEXITSTATUS(wstatus) != 0)
            problem = "the writer failed with exit code " + std::to_string(WEXITSTATUS(wstatus));
        else if (std::filesystem::exists(db) || !acked.empty())  // may be killed before creating it
            try {
                problem = check(db, writer, acked);
            } catch (const std::exception& e) {
                problem = e.what();
            }
        if (!problem.empty())
            return std::fprintf(stderr, "after kill %d: %s\n", kill_no, problem.c_str()), 1;
        for (uint64_t b : acked) rows_checked += make_batch(writer, b, kMaxBatch).size();
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d kills, %zu acknowledged rows checked, %.1f s\n", kills, rows_checked, seconds);
    return 0;
}
