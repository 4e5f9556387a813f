// The SQLite extension when the disk fails: each write operation meets a
// full disk or an I/O error at every possible point in turn (through the
// "fault" VFS of tests/sqlite/fault_vfs.h). Each call answers failure with a
// message that names the file and the reason, nothing acknowledged is lost,
// no batch is stored in part, SQLite's integrity check passes, and the next
// open and write succeed once the fault is gone. Also: a read-only datastore
// reads a WAL file in a folder it cannot write.
#include <sys/stat.h>

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

// One write operation under test: `run` does it as call number `n`, whose
// `size` rows in `table` carry `column` = `tag` n. A removal's rows are
// recorded by `prepare` first and count as stored while still there.
struct Operation {
    const char* name;
    const char* table;
    const char* column;
    std::string tag;
    long long size;
    std::function<void(vd::interface&, const std::string& id, int n)> prepare;
    std::function<int32_t(vd::interface&, const std::string& id, int n)> run;
};

std::vector<vd::InsertRecord> batch(const std::string& id, int n) {
    std::vector<vd::InsertRecord> out;
    for (int i = 0; i < 20; ++i) {
        out.push_back(sample_record("bulk", "h" + std::to_string(i), n, i));
        out.back().std_out.assign(1500 + 37 * i, static_cast<char>('a' + i % 26));  // pages
        out.back().option_id = id;
    }
    return out;
}

std::vector<Operation> operations() {
    vd::ProviderInfoSet five;
    for (int32_t id = 1; id <= 5; ++id) five.insert({id, "p", nullptr});
    const auto record = [five](vd::interface& ext, const std::string& id, int) {
        ASSERT_EQ(update_snapshots(ext, {{id, five}}), kOk);
    };
    return {
        {"bulk insert", "provider_datastore", "OptionID", "b", 20, nullptr,
         [](vd::interface& ext, const std::string& id, int n) {
             return bulk_insert(ext, batch(id, n));
         }},
        {"single insert", "provider_datastore", "OptionID", "s", 1, nullptr,
         [](vd::interface& ext, const std::string& id, int n) {
             auto r = sample_record("single", "h", n, n);
             r.option_id = id;
             return insert_record(ext, r);
         }},
        {"snapshot update", "baseline_datastore", "baseline_id", "u", 5, nullptr,
         [five](vd::interface& ext, const std::string& id, int) {
             return update_snapshots(ext, {{id, five}});
         }},
        {"snapshot removal", "baseline_datastore", "baseline_id", "r", 5, record,
         [](vd::interface& ext, const std::string& id, int) { return remove_snapshot(ext, id); }},
    };
}

TEST(SqliteFaultTest, EveryWriteMeetsAFaultAtEveryPointAndLosesNothing) {
    fv::install();
    for (const auto& op : operations()) {
        const bool removal = op.prepare != nullptr, inserts = op.table[0] == 'p';
        for (const auto& fault : kFaults) {
            SCOPED_TRACE(std::string(op.name) + ", " + fault.name);
            const TempDir dir;
            const std::string db = dir.file("vesk.db");
            ASSERT_EQ(bulk_insert(*open_sqlite(params_for(db)), sample_rows("base", 5)), kOk);
            long long acknowledged = 5;  // rows of provider_datastore that must be there
            int failures = 0, fired = 1, n = 0;
            for (; n < 3000 && fired > 0; ++n) {
                SCOPED_TRACE("fault after " + std::to_string(n) + " operations");
                const std::string id = op.tag + std::to_string(n);
                int32_t status = -1;
                auto ext = open_sqlite(params_for(db, false, "|vfs=fault"), &status);
                ASSERT_EQ(status, kOk);
                if (removal) op.prepare(*ext, id, n);
                CerrCapture log;
                fv::arm(n, fault.kinds, fault.code);
                const int32_t rc = op.run(*ext, id, n);
                fired = fv::disarm();
                ext.reset();
                const long long found =
                    std::stoll(raw_column(db, std::string("SELECT count(*) FROM ") + op.table +
                                                  " WHERE " + op.column + " = '" + id + "'")
                                   .at(0));
                const long long stored = removal ? op.size - found : found;
                if (rc == kOk) {
                    EXPECT_EQ(stored, op.size);
                    if (inserts) acknowledged += op.size;
                } else {
                    ++failures;
                    EXPECT_EQ(stored, 0) << "a failed call left part of its work";
                    EXPECT_NE(log.text().find(db), std::string::npos) << log.text();
                    EXPECT_NE(log.text().find("SQLITE_"), std::string::npos) << log.text();
                    EXPECT_GT(fired, 0) << "failed without a fault: " << log.text();
                }
                EXPECT_EQ(raw_column(db, "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
                EXPECT_EQ(raw_count(db), acknowledged);
                // The fault is gone: the next open and write succeed.
                ASSERT_EQ(
                    insert_record(*open_sqlite(params_for(db)), sample_record("next", "h", n)),
                    kOk);
                ++acknowledged;
                if (::testing::Test::HasFailure()) return;
            }
            EXPECT_EQ(fired, 0) << "the operation never ran without meeting the fault";
            std::printf("%s, %s: %d points, %d failed calls\n", op.name, fault.name, n, failures);
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
    const std::string folder = dir.file("store"), db = folder + "/vesk.db";
    ASSERT_EQ(bulk_insert(*open_sqlite(params_for(db)), sample_rows("p", 7)), kOk);
    ASSERT_EQ(raw_column(db, "PRAGMA journal_mode"), std::vector<std::string>{"wal"});
    open_sqlite(params_for(db));  // the last writer to close takes the side files
    ASSERT_EQ(files_in(folder), std::set<std::string>{"vesk.db"});
    ::chmod(dir.path().c_str(), 0755);
    ::chmod(folder.c_str(), 0555);
    ::chmod(db.c_str(), 0644);
    const std::string before = read_file(db);
    sqlite_plugin();  // loaded while still allowed to read the build tree
    EXPECT_EQ(
        in_child([&] {
            if (::getuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 10;
            if (::access(folder.c_str(), W_OK) == 0) return 11;  // must be read-only
            int32_t status = -1;
            auto ext = open_sqlite(params_for(db, true), &status);
            std::vector<vd::Row> rows;
            if (status != kOk || !ext->select("SELECT * FROM vesk_1", rows, vd::row_field_index) ||
                rows.size() != 7)
                return 12;
            ext.reset();
            CerrCapture log;
            open_sqlite(params_for(db), &status);
            return status == kOk || log.text().find("read_only=true") == std::string::npos ? 13 : 0;
        }),
        0);
    ::chmod(folder.c_str(), 0755);
    EXPECT_EQ(files_in(folder), std::set<std::string>{"vesk.db"});
    EXPECT_TRUE(read_file(db) == before);
}

}  // namespace
