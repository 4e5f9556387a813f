// Concurrent writers on one PostgreSQL database through the ODBC extension:
// N writer processes open a new, empty database at the same moment (all of
// them create the schema), then write M rows each, in turns of bulk inserts
// of 100 rows and runs of 25 single inserts. Afterwards the database holds
// exactly N x M rows, each key once, each row with the content it was given,
// and no call failed.
//
// Usage: odbc_concurrent_writers [writers] [rows per writer]   (16 x 5000)
// Needs the test server of the ctest fixture (ODBCSYSINI names its folder).
// Exit status 0 on success, 77 when there is no server (outside CI), 1 on
// any failure.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "odbc_datastore.h"
#include "pg_test_server.h"

namespace {

using namespace vesk::test;

constexpr int64_t kBulkRows = 100;
constexpr int64_t kSingleRows = 25;

// Waits for the start signal (the end of `start_pipe`), opens the datastore
// and writes its rows; exits 0 when every call succeeded.
[[noreturn]] void writer_main(int start_pipe, const std::string& source, int writer, int64_t rows) {
    char byte;
    while (::read(start_pipe, &byte, 1) < 0) {
    }
    ::close(start_pipe);
    int status = 0;
    {
        OdbcDatastore store("writer" + std::to_string(writer), source);
        if (!store.is_open()) {
            std::fprintf(stderr, "writer %d: cannot open: %s\n", writer, store.error().c_str());
            _exit(2);
        }
        for (int64_t next = 0, turn = 0; next < rows && status == 0; ++turn) {
            const bool bulk = turn % 2 == 0;
            const int64_t n = std::min(bulk ? kBulkRows : kSingleRows, rows - next);
            std::vector<vd::InsertRecord> records;
            for (int64_t i = 0; i < n; ++i, ++next)
                records.push_back(keyed_record(row_key(writer, next), writer * rows + next));
            bool ok = !bulk || store.bulk_insert(records);
            for (size_t k = 0; !bulk && ok && k < records.size(); ++k)
                ok = store.insert(records[k]);
            if (!ok) {
                status = bulk ? 3 : 4;
                std::fprintf(stderr, "writer %d: a %s insert failed near row %lld\n", writer,
                             bulk ? "bulk" : "single", static_cast<long long>(next));
            }
        }
    }
    std::fflush(stderr);
    _exit(status);
}

}  // namespace

int main(int argc, char** argv) {
    const int writers = argc > 1 ? std::atoi(argv[1]) : 16;
    const int64_t rows = argc > 2 ? std::atoll(argv[2]) : 5000;
    if (writers < 1 || rows < 1)
        return std::fprintf(stderr, "usage: %s [writers] [rows per writer]\n", argv[0]), 1;
    std::string why;
    const std::string admin = pg_connection_string(why);
    if (admin.empty()) {
        std::fprintf(stderr, "no PostgreSQL test server: %s\n", why.c_str());
        return running_in_ci() ? 1 : 77;
    }
    std::string error;
    if (!fresh_database(admin, "vesk_concurrent", error))
        return std::fprintf(stderr, "%s\n", error.c_str()), 1;
    const std::string source = with_database(admin, "vesk_concurrent");

    // The writers start together, so that they create the schema together.
    int start[2];
    if (::pipe(start) != 0) return std::perror("pipe"), 1;
    std::vector<pid_t> pids;
    for (int w = 1; w <= writers; ++w) {
        const pid_t pid = ::fork();
        if (pid < 0) return std::perror("fork"), 1;
        if (pid == 0) {
            ::close(start[1]);
            writer_main(start[0], source, w, rows);
        }
        pids.push_back(pid);
    }
    ::close(start[0]);
    const auto began = std::chrono::steady_clock::now();
    ::close(start[1]);  // every writer's read returns: go
    int failures = 0;
    for (const pid_t pid : pids) {
        int status = 0;
        if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            std::fprintf(stderr, "a writer failed (wait status %d)\n", status);
            ++failures;
        }
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    if (failures) return 1;

    const StoredRows stored = stored_rows(source);
    if (!stored.error.empty()) return std::fprintf(stderr, "%s\n", stored.error.c_str()), 1;
    const size_t expected = static_cast<size_t>(writers) * static_cast<size_t>(rows);
    size_t missing = 0, repeated = 0;
    for (int w = 1; w <= writers; ++w)
        for (int64_t i = 0; i < rows; ++i) {
            const auto at = stored.count_by_key.find(row_key(w, i));
            if (at == stored.count_by_key.end())
                ++missing;
            else if (at->second > 1)
                ++repeated;
        }
    if (stored.total != expected || missing || repeated || stored.wrong_content) {
        std::fprintf(stderr,
                     "%zu rows, expected %zu: %zu missing, %zu stored more than once, %zu with "
                     "wrong content\n",
                     stored.total, expected, missing, repeated, stored.wrong_content);
        return 1;
    }
    const bool printed =
        std::printf("%d writers x %lld rows: %zu rows, each once, in %.1f s (%.0f rows/s)\n",
                    writers, static_cast<long long>(rows), stored.total, seconds,
                    static_cast<double>(stored.total) / seconds) >= 0;
    return printed && std::fflush(stdout) == 0 ? 0 : 1;
}
