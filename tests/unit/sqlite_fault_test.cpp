// The SQLite extension when the disk fails: each write operation meets a
// full disk or an I/O error at every possible point in turn (through the
// "fault" VFS of tests/sqlite/fault_vfs.h). Each call answers failure with a
// message that names the file and the reason, nothing acknowledged is lost,
// no batch is stored in part, SQLite's integrity check passes, and the next
// open and write succeed once the fault is gone. Also: a read-only datastore
// reads a WAL file in a folder it cannot write.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "sqlite/fault_vfs.h"
#include "sqlite/sqlite_test_util.h"
#include "test_support.h"

namespace {

using namespace vesk::test;
namespace fv = vesk::test::fault_vfs;
constexpr int32_t kOk = 0;

struct Fault {
    const char* name;
    int kinds;
    int code;
};
const Fault kFaults[] = {
    {"disk full on write", fv::kWrite, SQLITE_FULL},
    {"I/O error on write", fv::kWrite, SQLITE_IOERR_WRITE},
    {"I/O error on read", fv::kRead, SQLITE_IOERR_READ},
    {"I/O error on sync", fv::kSync, SQLITE_IOERR_FSYNC},
    {"I/O error on truncate", fv::kTruncate, SQLITE_IOERR_TRUNCATE},
    {"every operation fails", fv::kRead | fv::kWrite | fv::kSync | fv::kTruncate, SQLITE_IOERR},
};

int32_t update_snapshots(vd::interface& ext, const std::map<std::string, vd::ProviderInfoSet>& s) {
    const auto* ptr = &s;
    return ext.control(vd::OP_UPDATE_SNAPSHOT, nullptr, &ptr, nullptr);
}
int32_t remove_snapshot(vd::interface& ext, std::string id) {
    return ext.control(vd::OP_REMOVE_SNAPSHOT, nullptr, &id, nullptr);
}
long long count(const std::string& db, const std::string& table, const std::string& where) {
    return std::stoll(raw_column(db, "SELECT count(*) FROM " + table + " WHERE " + where).at(0));
}

// One write operation under test: `run` does it as call number `n` and
// answers the extension's status; `stored` counts what of it is in the file
// (all of it is `size`).
struct Operation {
    const char* name;
    long long size;
    std::function<void(vd::interface&, int)> prepare;  // before the fault, may be empty
    std::function<int32_t(vd::interface&, int)> run;
    std::function<long long(const std::string&, int)> stored;
};

std::vector<vd::InsertRecord> batch(int n, int rows) {
    std::vector<vd::InsertRecord> out;
    for (int i = 0; i < rows; ++i) {
        auto r = sample_record("bulk", "h" + std::to_string(i), n, i);
        r.std_out.assign(1500 + 37 * i, static_cast<char>('a' + i % 26));  // several pages
        r.option_id = "b" + std::to_string(n);
        out.push_back(r);
    }
    return out;
}

std::vector<Operation> operations() {
    auto tagged = [](const char* table, const char* column, const std::string& prefix) {
        return [=](const std::string& db, int n) {
            return count(db, table,
                         std::string(column) + " = '" + prefix + std::to_string(n) + "'");
        };
    };
    vd::ProviderInfoSet five;
    for (int32_t id = 1; id <= 5; ++id) five.insert({id, "p", nullptr});
    return {
        {"bulk insert", 20, nullptr,
         [](vd::interface& ext, int n) { return bulk_insert(ext, batch(n, 20)); },
         tagged("provider_datastore", "OptionID", "b")},
        {"single insert", 1, nullptr,
         [](vd::interface& ext, int n) {
             auto r = sample_record("single", "h", n, n);
             r.option_id = "s" + std::to_string(n);
             return insert_record(ext, r);
         },
         tagged("provider_datastore", "OptionID", "s")},
        {"snapshot update", 5, nullptr,
         [five](vd::interface& ext, int n) {
             return update_snapshots(ext, {{"u" + std::to_string(n), five}});
         },
         tagged("baseline_datastore", "baseline_id", "u")},
        // Stored means "still there": a removal stores 0 of 5.
        {"snapshot removal", 5,
         [five](vd::interface& ext, int n) {
             ASSERT_EQ(update_snapshots(ext, {{"r" + std::to_string(n), five}}), kOk);
         },
         [](vd::interface& ext, int n) { return remove_snapshot(ext, "r" + std::to_string(n)); },
         [](const std::string& db, int n) {
             return 5 -
                    count(db, "baseline_datastore", "baseline_id = 'r" + std::to_string(n) + "'");
         }},
    };
}

TEST(SqliteFaultTest, EveryWriteMeetsAFaultAtEveryPointAndLosesNothing) {
    fv::install();
    for (const auto& op : operations()) {
        for (const auto& fault : kFaults) {
            SCOPED_TRACE(std::string(op.name) + ", " + fault.name);
            const TempDir dir;
            const std::string db = dir.file("vesk.db");
            long long acknowledged = 0;  // rows of provider_datastore that must be there
            {
                auto ext = open_sqlite(params_for(db));
                ASSERT_EQ(bulk_insert(*ext, sample_rows("base", 5)), kOk);
                acknowledged = 5;
            }
            int failures = 0;
            bool done = false;
            int n_points = 0;
            for (int n = 0; n < 3000 && !done; ++n, ++n_points) {
                SCOPED_TRACE("fault after " + std::to_string(n) + " operations");
                int32_t status = -1;
                auto ext = open_sqlite(params_for(db, false, "|vfs=fault"), &status);
                ASSERT_EQ(status, kOk);
                if (op.prepare) op.prepare(*ext, n);
                CerrCapture log;
                fv::arm(n, fault.kinds, fault.code);
                const int32_t rc = op.run(*ext, n);
                const int fired = fv::disarm();
                ext.reset();
                done = fired == 0;
                const long long stored = op.stored(db, n);
                if (rc == kOk) {
                    EXPECT_EQ(stored, op.size);
                } else {
                    ++failures;
                    EXPECT_EQ(stored, 0) << "a failed call left part of its work";
                    EXPECT_NE(log.text().find(db), std::string::npos) << log.text();
                    EXPECT_NE(log.text().find("SQLITE_"), std::string::npos) << log.text();
                    EXPECT_GT(fired, 0) << "failed without a fault: " << log.text();
                }
                if (rc == kOk && std::string(op.name) != "snapshot update" &&
                    std::string(op.name) != "snapshot removal")
                    acknowledged += op.size;
                EXPECT_EQ(raw_column(db, "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
                EXPECT_EQ(raw_count(db), acknowledged);
                // The fault is gone: the next open and write succeed.
                auto next = open_sqlite(params_for(db), &status);
                ASSERT_EQ(status, kOk);
                ASSERT_EQ(insert_record(*next, sample_record("next", "h", n, n)), kOk);
                ++acknowledged;
                if (::testing::Test::HasFailure()) return;
            }
            EXPECT_TRUE(done) << "the operation never ran without meeting the fault";
            std::printf("%s, %s: %d points, %d failed calls\n", op.name, fault.name, n_points,
                        failures);
            // Faults that reach this operation at all make it fail at least once.
            if (fault.kinds & fv::kWrite) {
                EXPECT_GT(failures, 0);
            }
        }
    }
}

// A WAL datastore in a folder this process cannot write: a read-only
// datastore reads it without creating anything; a writable one says why it
// cannot open and what to do. Run as an unprivileged user in a child
// process, since root may write anywhere.
TEST(SqliteFaultTest, ReadOnlyDatastoreReadsAWalFileInAReadOnlyFolder) {
    const TempDir dir;
    const std::string folder = dir.file("store");
    const std::string db = folder + "/vesk.db";
    ASSERT_EQ(bulk_insert(*open_sqlite(params_for(db)), sample_rows("p", 7)), kOk);
    ASSERT_EQ(raw_column(db, "PRAGMA journal_mode"), std::vector<std::string>{"wal"});
    open_sqlite(params_for(db));  // the last writer to close takes the side files
    ASSERT_EQ(files_in(folder), std::set<std::string>{"vesk.db"});
    ::chmod(dir.path().c_str(), 0755);
    ::chmod(folder.c_str(), 0555);
    ::chmod(db.c_str(), 0644);
    const std::string before = read_file(db);
    sqlite_plugin();  // loaded while still allowed to read the build tree
    const pid_t child = ::fork();
    if (child == 0) {
        if (::getuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) _exit(10);
        if (::access(folder.c_str(), W_OK) == 0) _exit(11);  // the folder must be read-only
        int32_t status = -1;
        auto ext = open_sqlite(params_for(db, true), &status);
        if (status != kOk) _exit(12);
        std::vector<vd::Row> rows;
        if (!ext->select("SELECT * FROM vesk_1", rows, vd::row_field_index) || rows.size() != 7)
            _exit(13);
        ext.reset();
        CerrCapture log;
        open_sqlite(params_for(db), &status);
        if (status == kOk) _exit(14);
        if (log.text().find("read_only=true") == std::string::npos) _exit(15);
        _exit(0);
    }
    int wstatus = 0;
    ::waitpid(child, &wstatus, 0);
    ::chmod(folder.c_str(), 0755);
    EXPECT_TRUE(WIFEXITED(wstatus)) << wstatus;
    EXPECT_EQ(WEXITSTATUS(wstatus), 0);
    EXPECT_EQ(files_in(folder), std::set<std::string>{"vesk.db"});
    EXPECT_TRUE(read_file(db) == before);
}

}  // namespace
