// Concurrent use of one SQLite file: 16 writer processes insert 5,000 rows
// each (single inserts and bulk inserts) while 4 reader processes query the
// file through the extension, two of them read-only. Afterwards the file
// holds exactly 80,000 rows, each written once, every one byte-exact; no
// writer gave up and no read failed.
//
// Usage: sqlite_concurrent_writers [writers] [rows per writer] [readers]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vesk/datastore/vocabulary.h"

#include "sqlite/row_generator.h"
#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

namespace vd = vesk::datastore;
constexpr size_t kMaxBatch = 60;

// Writes batches until `rows` rows are in; the last batch is cut to fit.
[[noreturn]] void writer_main(const std::string& db, uint64_t writer, size_t rows) {
    int32_t status = -1;
    auto ext = vesk::test::open_sqlite(vesk::test::params_for(db), &status);
    if (status != 0) _exit(3);
    size_t written = 0;
    for (uint64_t batch = 0; written < rows; ++batch) {
        auto records = vesk::test::make_batch(writer, batch, kMaxBatch);
        if (records.size() > rows - written) records.resize(rows - written);
        const int32_t rc = vesk::test::is_single(writer, batch)
                               ? vesk::test::insert_record(*ext, records[0])
                               : vesk::test::bulk_insert(*ext, records);
        if (rc != 0) _exit(4);
        written += records.size();
    }
    ext.reset();
    _exit(0);
}

// Queries in a loop until told to stop; every query must succeed, and the
// number of rows seen never goes down.
[[noreturn]] void reader_main(const std::string& db, bool read_only) {
    int32_t status = -1;
    auto ext = vesk::test::open_sqlite(vesk::test::params_for(db, read_only), &status);
    if (status != 0) _exit(3);
    static volatile sig_atomic_t stop = 0;
    ::signal(SIGTERM, [](int) { stop = 1; });
    size_t seen = 0;
    while (!stop) {
        std::vector<vd::Row> rows;
        if (!ext->select("SELECT rowid, Provider, Hostname FROM vesk_1", rows, vd::row_field_index))
            _exit(6);
        if (rows.size() < seen) _exit(7);
        seen = rows.size();
        std::vector<vd::Row> latest;
        vd::ReadParameters request{{"prov0", "prov3"}, {"host1", "host2"}, {}, nullptr};
        if (ext->control(vd::OP_LATEST_ROWS_PROVIDER, &request, &latest, nullptr) != 0) _exit(8);
        ::usleep(20000);
    }
    ext.reset();
    _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const int writers = argc > 1 ? std::atoi(argv[1]) : 16;
    const size_t rows_per_writer =
        argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 5000 / vesk::test::count_divisor();
    const int readers = argc > 3 ? std::atoi(argv[3]) : 4;
    vesk::test::TempDir temp;
    const std::string db = temp.file("shared.db");
    vesk::test::SqlitePlugin::get();
    {
        int32_t status = -1;
        auto ext = vesk::test::open_sqlite(vesk::test::params_for(db), &status);
        if (status != 0) return std::fprintf(stderr, "cannot create %s\n", db.c_str()), 1;
    }
    const auto start = std::chrono::steady_clock::now();
    std::vector<pid_t> reader_pids;
    for (int r = 0; r < readers; ++r) {
        const pid_t pid = ::fork();
        if (pid == 0) reader_main(db, r % 2 == 1);
        reader_pids.push_back(pid);
    }
    std::vector<pid_t> writer_pids;
    for (int w = 0; w < writers; ++w) {
        const pid_t pid = ::fork();
        if (pid == 0) writer_main(db, static_cast<uint64_t>(w) + 1, rows_per_writer);
        writer_pids.push_back(pid);
    }
    int failures = 0;
    for (pid_t pid : writer_pids) {
        int wstatus = 0;
        ::waitpid(pid, &wstatus, 0);
        if (!WIFEXITED(wstatus) || WEXITSTATUS(wstatus) != 0) {
            std::fprintf(stderr, "a writer gave up (status %d)\n", wstatus);
            ++failures;
        }
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (pid_t pid : reader_pids) ::kill(pid, SIGTERM);
    for (pid_t pid : reader_pids) {
        int wstatus = 0;
        ::waitpid(pid, &wstatus, 0);
        if (!WIFEXITED(wstatus) || WEXITSTATUS(wstatus) != 0) {
            std::fprintf(stderr, "a reader failed (status %d)\n", wstatus);
            ++failures;
        }
    }
    if (failures) return 1;

    // Every row once, with the content its batch must have.
    int32_t status = -1;
    auto ext = vesk::test::open_sqlite(vesk::test::params_for(db, true), &status);
    std::vector<vd::Row> rows;
    if (status != 0 ||
        !ext->select("SELECT * FROM vesk_1 ORDER BY rowid", rows, vd::row_field_index))
        return std::fprintf(stderr, "cannot read back\n"), 1;
    const size_t expected_total = static_cast<size_t>(writers) * rows_per_writer;
    if (rows.size() != expected_total)
        return std::fprintf(stderr, "%zu rows, expected %zu\n", rows.size(), expected_total), 1;
    std::map<std::string, std::vector<const vd::Row*>> by_batch;
    for (const auto& row : rows) by_batch[row.OptionID].push_back(&row);
    size_t matched = 0;
    for (int w = 1; w <= writers; ++w) {
        size_t written = 0;
        for (uint64_t batch = 0; written < rows_per_writer; ++batch) {
            auto expected = vesk::test::make_batch(static_cast<uint64_t>(w), batch, kMaxBatch);
            if (expected.size() > rows_per_writer - written)
                expected.resize(rows_per_writer - written);
            written += expected.size();
            const auto& found = by_batch[vesk::test::batch_tag(static_cast<uint64_t>(w), batch)];
            if (found.size() != expected.size())
                return std::fprintf(stderr, "batch %d-%llu: %zu rows, expected %zu\n", w,
                                    static_cast<unsigned long long>(batch), found.size(),
                                    expected.size()),
                       1;
            for (size_t i = 0; i < found.size(); ++i) {
                const auto& e = expected[i];
                const auto& f = *found[i];
                if (f.STDOUT != e.std_out || f.STDERR != e.std_err ||
                    f.Provider != e.header.provider || f.Hostname != e.header.hostname ||
                    f.Timestamp != e.header.timestamp)
                    return std::fprintf(stderr, "batch %d-%llu row %zu differs\n", w,
                                        static_cast<unsigned long long>(batch), i),
                           1;
                ++matched;
            }
        }
    }
    if (matched != expected_total) return std::fprintf(stderr, "rows written twice\n"), 1;
    std::printf("%d writers x %zu rows with %d readers: %zu rows, all once, in %.1f s\n", writers,
                rows_per_writer, readers, matched, seconds);
    return 0;
}
