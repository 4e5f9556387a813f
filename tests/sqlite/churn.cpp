// Processes that come and go on one file, the way collectors and front ends
// use a datastore: each of N processes, started together, runs C cycles of
// open (insert_db_instance), insert one row (operation 515), close
// (clear_db_vector). Every call must succeed, every row must be stored once,
// and SQLite's integrity check must pass. With "create" the processes also
// create the file together; with "existing" it is created first.
//
// Usage: sqlite_churn [processes] [cycles] [existing|create]
// VESK_CHURN_PLUGIN_DIR, when set, names the folder of another libsqlite.so
// to measure (for comparing builds); the staged one is used otherwise.
// Exit 0 on success; on failure, 1 with the reason on stderr.
#include <cstdio>
#include <set>
#include <sys/wait.h>

#include "vesk/datastore.h"

#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;
using Utility = vd::DataStoreParseUtility;

vd::DataStoreConfig churn_config(const std::string& db) {
    vd::DataStoreConfig config;
    config.type = vd::sqlite3;
    config.instance_name = "churn";
    config.extension_name = "libsqlite.so";
    const char* other = std::getenv("VESK_CHURN_PLUGIN_DIR");
    config.extension_path = other ? other : kStageDir + "/datastore/lumok64/";
    config.source_parameters = params_for(db);
    config.source_types.set(vd::data);
    return config;
}

// The failed calls of one process, as its exit code (0 to 250).
[[noreturn]] void churn_main(const std::string& db, int process, int cycles) {
    const auto controller = vd::DataStoreController::createDataStoreController();
    const std::vector<std::string> names{"churn"};
    int failed = 0;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        try {
            std::vector<vd::DataStoreConfig> configs{churn_config(db)};
            Utility::insert_db_instance(configs);
            if (Utility::get_datastore_vector().size() != 1) {
                ++failed;
                std::fprintf(stderr, "process %d cycle %d: open failed\n", process, cycle);
            } else {
                auto record = sample_record("churn", "p" + std::to_string(process), cycle, cycle);
                record.option_id = std::to_string(process) + "-" + std::to_string(cycle);
                if (!vd::execute_ioctl(names, vd::OP_INSERT, nullptr, &record, nullptr, nullptr)) {
                    ++failed;
                    std::fprintf(stderr, "process %d cycle %d: insert failed\n", process, cycle);
                }
            }
        } catch (const std::exception& e) {
            ++failed;
            std::fprintf(stderr, "process %d cycle %d: %s\n", process, cycle, e.what());
        }
        Utility::clear_db_vector();
    }
    _exit(failed > 250 ? 250 : failed);
}

}  // namespace

int main(int argc, char** argv) {
    const int processes = argc > 1 ? std::atoi(argv[1]) : 8;
    const int cycles = argc > 2 ? std::atoi(argv[2]) : 10;
    const bool create = argc > 3 && std::string(argv[3]) == "create";
    const TempDir temp;
    const std::string db = temp.file("sub/churn.db");
    if (!create) {
        int32_t status = -1;
        open_sqlite(params_for(db), &status);
        if (status != 0) return std::fprintf(stderr, "cannot create %s\n", db.c_str()), 1;
    }
    std::vector<pid_t> pids;
    for (int p = 0; p < processes; ++p)
        if ((pids.emplace_back(::fork())) == 0) churn_main(db, p, cycles);
    long failed = 0;
    for (pid_t pid : pids) {
        int wstatus = 0;
        ::waitpid(pid, &wstatus, 0);
        if (!WIFEXITED(wstatus)) {
            std::fprintf(stderr, "a process died (status %d)\n", wstatus);
            return 1;
        }
        failed += WEXITSTATUS(wstatus);
    }
    const auto tags = raw_column(db, "SELECT OptionID FROM provider_datastore");
    const std::set<std::string> unique(tags.begin(), tags.end());
    long missing = 0;
    for (int p = 0; p < processes; ++p)
        for (int c = 0; c < cycles; ++c)
            missing += unique.count(std::to_string(p) + "-" + std::to_string(c)) == 0;
    const auto integrity = raw_column(db, "PRAGMA integrity_check");
    const bool ok = integrity == std::vector<std::string>{"ok"};
    std::printf(
        "%d processes x %d cycles (%s file): %ld of %d calls failed, %zu rows, %ld "
        "missing, %zu stored twice, integrity %s\n",
        processes, cycles, create ? "new" : "existing", failed, 2 * processes * cycles, tags.size(),
        missing, tags.size() - unique.size(), ok ? "ok" : "NOT ok");
    if (std::fflush(stdout) != 0) return 1;
    return failed == 0 && missing == 0 && tags.size() == unique.size() && ok ? 0 : 1;
}
