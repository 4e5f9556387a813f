// Concurrent use of one SQLite file: 16 writer processes insert 5,000 rows
// each (single inserts and bulk inserts) while 4 reader processes query the
// file through the extension, two of them read-only. Afterwards the file
// holds exactly 80,000 rows, each written once, every one byte-exact; no
// writer gave up and no read failed.
//
// Usage: sqlite_concurrent_writers [writers] [rows per writer] [readers]
#include <chrono>
#include <cstdio>
#include <signal.h>
#include <sys/wait.h>

#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;
constexpr size_t kMaxBatch = 60;

[[noreturn]] void writer_main(const std::string& db, uint64_t writer, size_t rows) {
    auto ext = open_or_exit(db, false);
    for (uint64_t batch = 0, written = 0; written < rows; ++batch) {
        const auto records = make_batch(writer, batch, kMaxBatch, rows - written);
        if (write_batch(*ext, writer, batch, records) != 0) _exit(4);
        written += records.size();
    }
    ext.reset();
    _exit(0);
}

// Queries in a loop until told to stop; every query must succeed, and the
// number of rows seen never goes down.
[[noreturn]] void reader_main(const std::string& db, bool read_only) {
    auto ext = open_or_exit(db, read_only);
    static volatile sig_atomic_t stop = 0;
    ::signal(SIGTERM, [](int) { stop = 1; });
    for (size_t seen = 0; !stop; ::usleep(20000)) {
        std::vector<vd::Row> rows;
        if (!ext->select("SELECT rowid, Provider, Hostname FROM vesk_1", rows, vd::row_field_index))
            _exit(6);
        if (rows.size() < seen) _exit(7);
        seen = rows.size();
        vd::ReadParameters request{{"prov0", "prov3"}, {"host1", "host2"}, {}, nullptr};
        if (ext->control(vd::OP_LATEST_ROWS_PROVIDER, &request, &rows, nullptr) != 0) _exit(8);
    }
    ext.reset();
    _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const int writers = argc > 1 ? std::atoi(argv[1]) : 16;
    const size_t rows_per_writer =
        argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 5000 / count_divisor();
    const int readers = argc > 3 ? std::atoi(argv[3]) : 4;
    const TempDir temp;
    const std::string db = temp.file("shared.db");
    int32_t status = -1;
    open_sqlite(params_for(db), &status);  // creates the file and its schema
    if (status != 0) return std::fprintf(stderr, "cannot create %s\n", db.c_str()), 1;
    const auto start = std::chrono::steady_clock::now();
    std::vector<pid_t> reader_pids, writer_pids;
    for (int r = 0; r < readers; ++r)
        if ((reader_pids.emplace_back(::fork())) == 0) reader_main(db, r % 2 == 1);
    for (int w = 1; w <= writers; ++w)
        if ((writer_pids.emplace_back(::fork())) == 0)
            writer_main(db, static_cast<uint64_t>(w), rows_per_writer);
    int failures = 0;
    auto reap = [&failures](pid_t pid, const char* who) {
        int wstatus = 0;
        ::waitpid(pid, &wstatus, 0);
        if (WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0) return;
        std::fprintf(stderr, "a %s failed (status %d)\n", who, wstatus);
        ++failures;
    };
    for (pid_t pid : writer_pids) reap(pid, "writer");
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (pid_t pid : reader_pids) ::kill(pid, SIGTERM);
    for (pid_t pid : reader_pids) reap(pid, "reader");
    if (failures) return 1;

    // Exactly the rows written, each batch once with the content it must have.
    auto found = rows_by_batch(*open_sqlite(params_for(db, true)), "");
    const auto total = static_cast<size_t>(raw_count(db));
    const size_t expected_total = static_cast<size_t>(writers) * rows_per_writer;
    if (total != expected_total)
        return std::fprintf(stderr, "%zu rows, expected %zu\n", total, expected_total), 1;
    for (int w = 1; w <= writers; ++w) {
        const auto writer = static_cast<uint64_t>(w);
        for (uint64_t batch = 0, written = 0; written < rows_per_writer; ++batch) {
            const auto expected = make_batch(writer, batch, kMaxBatch, rows_per_writer - written);
            written += expected.size();
            const auto tag = batch_tag(writer, batch);
            const std::string problem = check_batch(found[tag], expected, tag);
            if (!problem.empty()) return std::fprintf(stderr, "%s\n", problem.c_str()), 1;
        }
    }
    std::printf("%d writers x %zu rows with %d readers: %zu rows, all once, in %.1f s\n", writers,
                rows_per_writer, readers, total, seconds);
    return 0;
}
