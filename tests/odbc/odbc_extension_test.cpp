// The staged libodbc.so: loads beside the system's unixODBC libodbc.so,
// exports its entry points, and opens a datastore on the test server.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <limits>
#include <link.h>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "vesk/datastore.h"
#include "vesk/datastore/operations.h"

#include "odbc_datastore.h"
#include "pg_dialect.h"
#include "pg_test_server.h"
#include "test_support.h"

namespace vesk::test {
namespace {

namespace vd = vesk::datastore;
namespace fs = std::filesystem;

const std::string kExtension = kStageDir + "/datastore/lumok64/libodbc.so";

// The extension, loaded as the controller loads it (null when it cannot be).
using Library = std::unique_ptr<void, int (*)(void*)>;
Library load_extension() {
    return Library(dlopen(kExtension.c_str(), RTLD_NOW | RTLD_LOCAL), dlclose);
}

// The output of `command`, or "" when it cannot run.
std::string run(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

TEST(OdbcExtensionLibrary, LoadsAndResolvesTheSystemDriverManager) {
    Library lib = load_extension();
    ASSERT_NE(lib, nullptr) << dlerror();

    // SQLDriverConnect, seen from the extension, is not the extension's own.
    void* connect = dlsym(lib.get(), "SQLDriverConnect");
    ASSERT_NE(connect, nullptr) << dlerror();
    Dl_info info{};
    ASSERT_NE(dladdr(connect, &info), 0);
    EXPECT_NE(fs::canonical(info.dli_fname), fs::canonical(kExtension));

    // This program links libodbc.so.2 itself, so the load above would reuse
    // it whatever the extension's own search path; ldd shows what a process
    // without it gets.
    const std::string ldd = run("ldd '" + kExtension + "'");
    ASSERT_FALSE(ldd.empty());
    EXPECT_EQ(ldd.find("not found"), std::string::npos) << ldd;
    const auto at = ldd.find("libodbc.so.2 => ");
    ASSERT_NE(at, std::string::npos) << ldd;
    const std::string line = ldd.substr(at, ldd.find('\n', at) - at);
    EXPECT_EQ(line.find(kStageDir), std::string::npos) << line;
    EXPECT_NE(line.find("/lib/"), std::string::npos) << line;
}

// One instance of the extension, destroyed through the library.
using Instance = std::unique_ptr<vd::DataStoreExtension, vd::DestroyExtensionFn>;
const int32_t kOk = vd::DataStoreExtension::OPERATION_SUCCESSFULL;
const int32_t kFailed = vd::DataStoreExtension::OPERATION_UNSUCCESSFULL;

// The library's entry points on a new, empty database of the test server.
class OdbcExtensionTest : public PgTest {
protected:
    void prepare() override {
        ASSERT_NE(lib, nullptr) << dlerror();
        create = reinterpret_cast<vd::CreateExtensionFn>(dlsym(lib.get(), "create"));
        destroy = reinterpret_cast<vd::DestroyExtensionFn>(dlsym(lib.get(), "destroy"));
        ASSERT_TRUE(create && destroy);
        source = fresh("vesk_extension");
        ASSERT_FALSE(source.empty());
    }

    Instance make() {
        Instance instance(create(), destroy);
        EXPECT_NE(instance, nullptr);
        if (instance) instance->instance_name = "odbc_test";
        return instance;
    }
    // Opens, reads and closes an instance with `parameters`: the status of open.
    int32_t open_with(const std::string& parameters) {
        Instance instance = make();
        if (!instance) return -1;
        const int32_t status = instance->open(parameters);
        if (status == kOk) {
            EXPECT_TRUE(instance->is_open());
            vd::SnapshotInfoSet ids;
            EXPECT_EQ(instance->control(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids, nullptr), kOk);
        }
        EXPECT_EQ(instance->close(), kOk);
        EXPECT_FALSE(instance->is_open());
        return status;
    }
    Instance open_instance(const std::string& extra = "") {
        Instance instance = make();
        EXPECT_TRUE(instance && instance->open("source=" + source + extra) == kOk);
        return instance;
    }

    int32_t bulk(Instance& i, const std::vector<vd::InsertRecord>& records) {
        return i->control(vd::OP_BULK_INSERT, &records, nullptr, nullptr);
    }
    int32_t insert(Instance& i, vd::InsertRecord record) {
        return i->control(vd::OP_INSERT, nullptr, &record, nullptr);
    }
    // Operation 514: the caller's statement `sql`, or without one the
    // select_provider of "p" with `filter`.
    int32_t select(Instance& i, std::vector<vd::Row>& rows, const std::string& sql,
                   const std::string& filter = "") {
        vd::SQLParameters statement{filter, sql, vd::row_field_index};
        vd::ReadParameters request{{"p"}, {}, {}, &statement};
        return i->control(vd::OP_SELECT_PROVIDER, &request, &rows, nullptr);
    }
    int32_t latest(Instance& i, uint16_t op, std::vector<vd::Row>& rows) {
        vd::ReadParameters request{{"p"}, {}, {}, nullptr};
        return i->control(op, &request, &rows, nullptr);
    }
    std::vector<vd::Row> all_rows(Instance& i) {
        std::vector<vd::Row> rows;
        EXPECT_EQ(select(i, rows, "SELECT * FROM " + vd::table_name + " ORDER BY rowid;"), kOk);
        return rows;
    }
    // Ends every server process of the test's database but this one's.
    void terminate_backends() {
        EXPECT_GE(query_int(*connection,
                            "SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity "
                            "WHERE datname = 'vesk_extension' AND pid <> pg_backend_pid();"),
                  1);
    }

    Library lib = load_extension();
    vd::CreateExtensionFn create = nullptr;
    vd::DestroyExtensionFn destroy = nullptr;
    std::string source;
};

// Row `n` of `provider`, on host "h<n>", whose STDOUT names its host.
vd::InsertRecord row(const std::string& provider, int n) {
    vd::InsertRecord r = keyed_record("h" + std::to_string(n), n);
    r.header.provider = provider;
    return r;
}

TEST_F(OdbcExtensionTest, OpensCreatesTheSchemaAndRefusesBadParameters) {
    EXPECT_EQ(open_with("source=" + source), kOk);
    auto c = connect(source);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(query_int(*c, "SELECT count(*) FROM vesk_1;"), 0);
    EXPECT_EQ(query_int(*c,
                        "SELECT count(*) FROM pg_indexes WHERE indexname IN "
                        "('provider_datastore_latest', 'provider_datastore_failed', "
                        "'provider_datastore_run', 'baseline_datastore_id');"),
              4);
    EXPECT_EQ(open_with("source=" + source + "|read_only=true|login_timeout_s=5"), kOk);
    // The private ODBCSYSINI defines the DSN vesk_pg_test (database postgres).
    EXPECT_EQ(open_with("vesk_pg_test"), kOk);

    // A malformed string (every kind is in the OdbcParameters tests), an
    // unknown DSN, a database that does not exist.
    for (const std::string& p :
         {std::string("source=" + source + "|unknown_key=1"), std::string("vesk_no_such_dsn"),
          "source=" + with_database(conn_string, "vesk_no_such_database")})
        EXPECT_EQ(open_with(p), kFailed) << p;
}

// Opening a datastore whose schema exists takes no lock on its table or
// view: with a writer's transaction open, an open whose statements may wait
// one second at most still succeeds. A missing index is made again.
TEST_F(OdbcExtensionTest, OpeningAnExistingSchemaWaitsForNoWriterAndRepairsAMissingIndex) {
    ASSERT_EQ(open_with("source=" + source), kOk);
    auto writer = connect(source);
    ASSERT_NE(writer, nullptr);
    ASSERT_TRUE(writer->begin());
    exec(*writer, "INSERT INTO " + vd::table_name + "(Provider) VALUES ('pending');");
    EXPECT_EQ(open_with("source=" + source + "|query_timeout_s=1"), kOk);
    ASSERT_TRUE(writer->rollback());

    auto c = connect(source);
    ASSERT_NE(c, nullptr);
    exec(*c, "DROP INDEX provider_datastore_run;");
    ASSERT_EQ(open_with("source=" + source), kOk);
    EXPECT_EQ(query_int(*c,
                        "SELECT count(*) FROM pg_indexes WHERE indexname = "
                        "'provider_datastore_run';"),
              1);
}

// A database made before the table of each group's latest row, with rows
// in it: a read-only open chooses the latest rows among the rows, a
// writable one makes the table from the rows, and both give the same rows.
TEST_F(OdbcExtensionTest, ADatabaseWithoutTheLatestRowTableGetsItFilledFromItsRows) {
    {
        auto i = open_instance();
        ASSERT_TRUE(i);
        std::vector<vd::InsertRecord> records;
        for (int n = 0; n < 40; ++n) {
            records.push_back(row("p", n % 7));
            records.back().header.unique_timestamp = n % 5 == 0 ? 0 : 1700000000000000 + n % 4;
        }
        ASSERT_EQ(bulk(i, records), kOk);
    }
    auto c = connect(source);
    ASSERT_NE(c, nullptr);
    exec(*c, "DROP TABLE provider_datastore_newest;");
    exec(*c, "DROP FUNCTION provider_datastore_newest_keep() CASCADE;");
    // Rows written meanwhile by a writer that knows nothing of the table.
    exec(*c,
         "INSERT INTO provider_datastore(Provider, Hostname, OptionID, Unique_timestamp) VALUES "
         "('p', 'h1', 'o', 1700000000000009), ('p', 'h8', 'o', NULL), ('p', 'h8', 'o', NULL);");
    auto rowids = [](const std::vector<vd::Row>& rows) {
        std::vector<int64_t> ids;
        for (const vd::Row& r : rows) ids.push_back(r.rowid);
        return ids;
    };
    std::vector<vd::Row> scanned, kept;
    {
        auto reader = open_instance("|read_only=true");
        ASSERT_TRUE(reader);
        ASSERT_EQ(latest(reader, vd::OP_LATEST_ROWS_PROVIDER, scanned), kOk);
    }
    EXPECT_EQ(query_int(*c,
                        "SELECT count(*) FROM pg_class WHERE relname = "
                        "'provider_datastore_newest';"),
              0);
    auto writer = open_instance();
    ASSERT_TRUE(writer);
    ASSERT_EQ(latest(writer, vd::OP_LATEST_ROWS_PROVIDER, kept), kOk);
    EXPECT_EQ(scanned.size(), 9u);  // h0 to h6 under option "faults", h1 and h8 under "o"
    EXPECT_EQ(rowids(kept), rowids(scanned));
    EXPECT_EQ(query_int(*c, "SELECT count(*) FROM provider_datastore_newest;"), 9);
    // The triggers are back: a later row of h8 is the latest one at once.
    exec(*c,
         "INSERT INTO provider_datastore(Provider, Hostname, OptionID, Unique_timestamp) "
         "VALUES ('p', 'h8', 'o', 1);");
    ASSERT_EQ(latest(writer, vd::OP_LATEST_ROWS_PROVIDER, kept), kOk);
    ASSERT_EQ(kept.size(), 9u);
    EXPECT_EQ(kept.back().Hostname, "h8");
    EXPECT_EQ(kept.back().Unique_timestamp, 1);
}

// A latest-row table made by an earlier version, whose group index lacks
// the rowid: a writable open replaces the index, and writes go on finding
// each group's entry through the new one.
TEST_F(OdbcExtensionTest, TheOldGroupIndexGivesWayToTheOneWithRowids) {
    {
        auto i = open_instance();
        ASSERT_TRUE(i);
        ASSERT_EQ(bulk(i, {row("p", 1), row("p", 2)}), kOk);
    }
    auto c = connect(source);
    ASSERT_NE(c, nullptr);
    exec(*c, "DROP INDEX provider_datastore_newest_rowid;");
    exec(*c,
         "CREATE UNIQUE INDEX provider_datastore_newest_group ON provider_datastore_newest "
         "(Provider NULLS FIRST, Hostname NULLS FIRST, OptionID NULLS FIRST) NULLS NOT "
         "DISTINCT;");
    auto writer = open_instance();
    ASSERT_TRUE(writer);
    EXPECT_EQ(query_int(*c,
                        "SELECT count(*) FROM pg_indexes WHERE tablename = "
                        "'provider_datastore_newest' AND indexname = "
                        "'provider_datastore_newest_group';"),
              0);
    EXPECT_EQ(query_int(*c,
                        "SELECT count(*) FROM pg_indexes WHERE tablename = "
                        "'provider_datastore_newest' AND indexdef LIKE '%INCLUDE (rowid)%';"),
              1);
    vd::InsertRecord newer = row("p", 1);
    newer.header.unique_timestamp = 1800000000000000;
    ASSERT_EQ(bulk(writer, {newer}), kOk);
    std::vector<vd::Row> rows;
    ASSERT_EQ(latest(writer, vd::OP_LATEST_ROWS_PROVIDER, rows), kOk);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].Unique_timestamp, 1800000000000000);
    EXPECT_EQ(query_int(*c, "SELECT count(*) FROM provider_datastore_newest;"), 2);
}

// With a trigger disabled by hand the table no longer follows the rows: a
// read-only open does not read it, and a writable one makes the triggers
// and the table again.
TEST_F(OdbcExtensionTest, ALatestRowTableWithoutItsTriggersIsNotReadAndIsMadeAgain) {
    auto writer = open_instance();
    ASSERT_TRUE(writer);
    ASSERT_EQ(bulk(writer, {row("p", 1), row("p", 1), row("p", 2)}), kOk);
    auto c = connect(source);
    ASSERT_NE(c, nullptr);
    exec(*c, "ALTER TABLE provider_datastore DISABLE TRIGGER provider_datastore_newest_delete;");
    // The latest row of h1 (of two with the same time stamp, the first) goes;
    // the table still names it.
    exec(*c, "DELETE FROM provider_datastore WHERE rowid = 1;");
    auto hosts_of = [](const std::vector<vd::Row>& rows) {
        std::vector<std::string> hosts;
        for (const vd::Row& r : rows) hosts.push_back(r.Hostname + "/" + std::to_string(r.rowid));
        return hosts;
    };
    std::vector<vd::Row> rows;
    {
        auto reader = open_instance("|read_only=true");
        ASSERT_TRUE(reader);
        ASSERT_EQ(latest(reader, vd::OP_LATEST_ROWS_PROVIDER, rows), kOk);
        EXPECT_EQ(hosts_of(rows), (std::vector<std::string>{"h1/2", "h2/3"}));
    }
    auto again = open_instance();
    ASSERT_TRUE(again);
    ASSERT_EQ(latest(again, vd::OP_LATEST_ROWS_PROVIDER, rows), kOk);
    EXPECT_EQ(hosts_of(rows), (std::vector<std::string>{"h1/2", "h2/3"}));
    exec(*c, "DELETE FROM provider_datastore WHERE rowid = 2;");
    ASSERT_EQ(latest(again, vd::OP_LATEST_ROWS_PROVIDER, rows), kOk);
    EXPECT_EQ(hosts_of(rows), (std::vector<std::string>{"h2/3"}));
}

// A caller's select that takes a session-level advisory lock, even the one
// the rows table's triggers take, does not keep it: a writer of another
// session, which waits one second at most, stores its row.
TEST_F(OdbcExtensionTest, AdvisoryLocksACallersSelectTakesAreReleased) {
    auto reader = open_instance("|read_only=true");
    auto writer = open_instance("|query_timeout_s=1");
    ASSERT_TRUE(reader && writer);
    for (const std::string& sql :
         {"SELECT pg_advisory_lock(" + std::to_string(vd::odbc_backend::pg::newest_lock_key) +
              ") AS rowid;",
          std::string("SELECT PG_TRY_ADVISORY_LOCK_SHARED(") +
              std::to_string(vd::odbc_backend::pg::newest_lock_key) + ")::int AS rowid;"}) {
        SCOPED_TRACE(sql);
        std::vector<vd::Row> rows;
        ASSERT_EQ(select(reader, rows, sql), kOk);
        EXPECT_EQ(insert(writer, row("p", 1)), kOk);
    }
    EXPECT_EQ(all_rows(writer).size(), 2u);
}

// Roles granted the tables of a database made before the table of each
// group's latest row, owning none: a writer opens it (the table cannot be
// made but by the owner), stores rows and reads the latest ones; once the
// owner's open made the table, a reader granted nothing on it reads them
// too, and both get the rows the owner gets.
TEST_F(OdbcExtensionTest, RolesThatOwnNoTableOpenADatabaseWithOrWithoutTheLatestRowTable) {
    ASSERT_EQ(open_with("source=" + source), kOk);
    auto c = connect(source);
    ASSERT_NE(c, nullptr);
    exec(*c, "DROP TABLE provider_datastore_newest;");
    exec(*c, "DROP FUNCTION provider_datastore_newest_keep() CASCADE;");
    for (const char* role : {"vesk_writer", "vesk_reader"})
        if (query_int(*c, std::string("SELECT count(*) FROM pg_roles WHERE rolname = '") + role +
                              "';") == 0)
            exec(*c, std::string("CREATE ROLE ") + role + " LOGIN;");
    exec(*c, "GRANT SELECT, INSERT ON ALL TABLES IN SCHEMA public TO vesk_writer;");
    exec(*c, "GRANT USAGE ON ALL SEQUENCES IN SCHEMA public TO vesk_writer;");
    exec(*c, "GRANT SELECT ON ALL TABLES IN SCHEMA public TO vesk_reader;");
    auto as = [&](const std::string& role) {
        std::string s = source;
        const std::string owner = "Uid=postgres;";
        const auto at = s.find(owner);
        EXPECT_NE(at, std::string::npos) << s;
        if (at != std::string::npos) s.replace(at, owner.size(), "Uid=" + role + ";");
        return s;
    };
    auto ids = [&](Instance& i) {
        std::vector<vd::Row> rows;
        EXPECT_EQ(latest(i, vd::OP_LATEST_ROWS_PROVIDER, rows), kOk);
        std::vector<std::pair<std::string, int64_t>> found;
        for (const vd::Row& r : rows) found.emplace_back(r.Hostname, r.rowid);
        return found;
    };
    Instance writer = make();
    ASSERT_TRUE(writer);
    ASSERT_EQ(writer->open("source=" + as("vesk_writer")), kOk);
    std::vector<vd::InsertRecord> records;
    for (int n = 0; n < 12; ++n) {
        records.push_back(row("p", n % 4));
        records.back().header.unique_timestamp = 1700000000000000 + n % 3;
    }
    ASSERT_EQ(bulk(writer, records), kOk);
    const auto before = ids(writer);
    EXPECT_EQ(before.size(), 4u);

    auto owner = open_instance();
    ASSERT_TRUE(owner);
    EXPECT_EQ(ids(owner), before);
    ASSERT_EQ(insert(owner, row("p", 9)), kOk);
    const auto after = ids(owner);
    EXPECT_EQ(after.size(), 5u);
    EXPECT_EQ(ids(writer), after);
    Instance reader = make();
    ASSERT_TRUE(reader);
    ASSERT_EQ(reader->open("source=" + as("vesk_reader") + "|read_only=true"), kOk);
    EXPECT_EQ(ids(reader), after);
}

TEST_F(OdbcExtensionTest, BulkInsertSplitsIntoStatementsAndTheServerRollsBackAllOfThem) {
    auto i = open_instance("|rows_per_statement=3");
    ASSERT_TRUE(i);
    // 10 rows: three full statements and one of a single row.
    std::vector<vd::InsertRecord> rows;
    for (int n = 0; n < 10; ++n) rows.push_back(row("bulk", n));
    ASSERT_EQ(bulk(i, rows), kOk);
    auto found = all_rows(i);
    ASSERT_EQ(found.size(), rows.size());
    for (size_t n = 0; n < rows.size(); ++n) {
        EXPECT_EQ(found[n].STDOUT, rows[n].std_out);
        EXPECT_EQ(found[n].Unique_timestamp, rows[n].header.unique_timestamp);
    }

    // The server refuses a row of the third statement: the two before it go too.
    auto c = connect(source);
    ASSERT_NE(c, nullptr);
    exec(*c,
         "CREATE OR REPLACE FUNCTION refuse_boom() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
         "IF NEW.Provider = 'boom' THEN RAISE EXCEPTION 'boom refused'; END IF; RETURN NEW; "
         "END $$;");
    exec(*c, "CREATE TRIGGER refuse_boom BEFORE INSERT ON " + vd::table_name +
                 " FOR EACH ROW EXECUTE FUNCTION refuse_boom();");
    rows[7].header.provider = "boom";
    testing::internal::CaptureStderr();
    EXPECT_EQ(bulk(i, rows), kFailed);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("boom refused"), std::string::npos) << log;
    EXPECT_NE(log.find("nothing written"), std::string::npos) << log;
    EXPECT_EQ(stored_rows(source).total, 10u);
    // Large rows: a statement holds fewer rows than asked when its values
    // would pass 16 MiB; every byte comes back.
    auto big = open_instance();
    std::vector<vd::InsertRecord> large;
    for (int n = 0; n < 4; ++n) {
        large.push_back(row("large", n));
        large.back().std_out = std::string(size_t{5} << 20, static_cast<char>('a' + n));
    }
    ASSERT_EQ(bulk(big, large), kOk);
    found.clear();
    ASSERT_EQ(
        select(big, found,
               "SELECT * FROM " + vd::table_view + " WHERE Provider = 'large' ORDER BY rowid;"),
        kOk);
    ASSERT_EQ(found.size(), large.size());
    for (size_t n = 0; n < large.size(); ++n) EXPECT_TRUE(found[n].STDOUT == large[n].std_out) << n;
}

// Two bulk inserts into the same 300 groups in opposite orders, one row per
// statement, at once: were the groups' entries in the table of each group's
// latest row all a writer held until its commit, the two would wait for
// each other and the server would roll one back. Both succeed, and the
// latest rows are the second writer's (its time stamps are greater), also
// where the database's transactions keep one snapshot by default: the one
// that waits would not see the other's entries, which it changes.
TEST_F(OdbcExtensionTest, BulkInsertsIntoTheSameGroupsAtOnceAreBothStored) {
    constexpr int kGroups = 300;
    for (const char* isolation : {"read committed", "repeatable read", "serializable"}) {
        SCOPED_TRACE(isolation);
        exec(*connection, std::string("ALTER DATABASE vesk_extension SET "
                                      "default_transaction_isolation = '") +
                              isolation + "';");
        auto a = open_instance("|rows_per_statement=1");
        auto b = open_instance("|rows_per_statement=1");
        ASSERT_TRUE(a && b);
        std::vector<vd::InsertRecord> up, down;
        for (int n = 0; n < kGroups; ++n) {
            up.push_back(row(isolation, n));
            down.push_back(row(isolation, kGroups - 1 - n));
            down.back().header.unique_timestamp += 1000000;
        }
        std::atomic<int> ready{0};
        int32_t status_a = -1, status_b = -1;
        auto writer = [&](Instance& i, const std::vector<vd::InsertRecord>& records,
                          int32_t& status) {
            ++ready;
            while (ready < 2) std::this_thread::yield();
            status = bulk(i, records);
        };
        std::thread first(writer, std::ref(a), std::cref(up), std::ref(status_a));
        std::thread second(writer, std::ref(b), std::cref(down), std::ref(status_b));
        first.join();
        second.join();
        EXPECT_EQ(status_a, kOk);
        EXPECT_EQ(status_b, kOk);
        std::vector<vd::Row> rows;
        vd::ReadParameters request{{isolation}, {}, {}, nullptr};
        ASSERT_EQ(a->control(vd::OP_LATEST_ROWS_PROVIDER, &request, &rows, nullptr), kOk);
        ASSERT_EQ(rows.size(), size_t{kGroups});
        for (const vd::Row& r : rows)
            EXPECT_GE(r.Unique_timestamp, INT64_C(1700000001000000)) << r.Hostname;
    }
}

TEST_F(OdbcExtensionTest, BulkInsertStoresEveryDoubleAsTheSingleInsertDoes) {
    auto i = open_instance();
    ASSERT_TRUE(i);
    const double durations[] = {std::nan(""), HUGE_VAL,
                                -HUGE_VAL,    -0.0,
                                5e-324,       std::numeric_limits<double>::max(),
                                0.1,          1.0 / 3.0,
                                -2.5e-300,    123456789.0123456789};
    std::vector<vd::InsertRecord> rows;
    for (const double d : durations) {
        rows.push_back(row("single", static_cast<int>(rows.size())));
        rows.back().header.duration = d;
        ASSERT_EQ(insert(i, rows.back()), kOk) << d;
    }
    for (auto& r : rows) r.header.provider = "bulk";
    ASSERT_EQ(bulk(i, rows), kOk);
    const auto found = all_rows(i);
    ASSERT_EQ(found.size(), 2 * rows.size());
    for (size_t n = 0; n < rows.size(); ++n) {
        const double single = found[n].Duration;
        const double bulk = found[n + rows.size()].Duration;
        const double want = durations[n];
        SCOPED_TRACE(want);
        if (std::isnan(want)) {
            EXPECT_TRUE(std::isnan(single) && std::isnan(bulk));
        } else {
            EXPECT_EQ(single, want);
            EXPECT_EQ(bulk, want);
            EXPECT_EQ(std::signbit(bulk), std::signbit(want));
        }
    }
}

TEST_F(OdbcExtensionTest, TextThePostgreSqlServerCannotHoldIsRefusedNamingRowAndField) {
    auto i = open_instance();
    ASSERT_TRUE(i);
    struct Case {
        const char* field;
        std::function<void(vd::InsertRecord&)> spoil;
        const char* problem;
    };
    const Case cases[] = {
        {"STDOUT", [](auto& r) { r.std_out = std::string("a\0b", 3); }, "NUL byte at offset 1"},
        {"STDERR", [](auto& r) { r.std_err = "ok \xff"; }, "not valid UTF-8 at offset 3"},
        {"OptionID", [](auto& r) { r.option_id = "\xc3"; }, "not valid UTF-8 at offset 0"},
        {"Username", [](auto& r) { r.header.username = "\xed\xa0\x80"; }, "not valid UTF-8"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.field);
        std::vector<vd::InsertRecord> rows{row("t", 0), row("t", 1), row("t", 2)};
        c.spoil(rows[2]);
        testing::internal::CaptureStderr();
        EXPECT_EQ(bulk(i, rows), kFailed);
        EXPECT_EQ(insert(i, rows[2]), kFailed);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("row 2: field " + std::string(c.field)), std::string::npos) << log;
        EXPECT_NE(log.find(c.problem), std::string::npos) << log;
        EXPECT_NE(log.find("base64"), std::string::npos) << log;
        EXPECT_EQ(stored_rows(source).total, 0u);
    }
}

TEST_F(OdbcExtensionTest, SnapshotTextThePostgreSqlServerCannotHoldIsRefusedNamingIt) {
    auto i = open_instance();
    ASSERT_TRUE(i);
    ASSERT_EQ(bulk(i, {row("p", 1), row("p", 2)}), kOk);
    const std::vector<vd::Row> rows = all_rows(i);
    ASSERT_EQ(rows.size(), 2u);
    struct Case {
        const char* field;
        std::function<void(std::string&, vesk::provider_config&)> spoil;
        const char* problem;
    };
    const Case cases[] = {
        {"baseline_id", [](auto& id, auto&) { id = "s\xff"; }, "not valid UTF-8 at offset 1"},
        {"fwd_name", [](auto&, auto& c) { c.fwd_name = std::string("a\0b", 3); },
         "NUL byte at offset 1"},
        {"provider_checksum", [](auto&, auto& c) { c.provider_checksum = "\xc3"; },
         "not valid UTF-8 at offset 0"},
        {"command_checksum", [](auto&, auto& c) { c.command_checksum = "ok \xed\xa0\x80"; },
         "not valid UTF-8 at offset 3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.field);
        std::string id = "s1";
        auto config = std::make_shared<vesk::provider_config>();
        config->name = "p";
        auto spoiled = std::make_shared<vesk::provider_config>(*config);
        c.spoil(id, *spoiled);
        // The spoiled entry is the second: the first must not be written either.
        const std::map<std::string, vd::ProviderInfoSet> snapshot{
            {id, {{rows[0].rowid, "p", config}, {rows[1].rowid, "p", spoiled}}}};
        const auto* in = &snapshot;
        testing::internal::CaptureStderr();
        EXPECT_EQ(i->control(vd::OP_UPDATE_SNAPSHOT, nullptr, &in, nullptr), kFailed);
        const std::string log = testing::internal::GetCapturedStderr();
        const bool of_entry = std::string(c.field) != "baseline_id";
        EXPECT_NE(log.find((of_entry ? "row " + std::to_string(rows[1].rowid) + ": " : "") +
                           "field " + c.field),
                  std::string::npos)
            << log;
        EXPECT_NE(log.find(c.problem), std::string::npos) << log;
        vd::SnapshotInfoSet ids;
        ASSERT_EQ(i->control(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids, nullptr), kOk);
        EXPECT_TRUE(ids.empty());
    }
}

TEST_F(OdbcExtensionTest, ANulIsRefusedOnOtherServersWhereverItStands) {
    // The SQLite ODBC driver takes bytes that are not UTF-8, and would cut a
    // value at its NUL.
    const std::string driver = "/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so";
    TempDir dir;
    Instance i = make();
    ASSERT_EQ(i->open("source=DRIVER=" + driver + ";Database=" + dir.file("vesk.db") + ";"), kOk);
    vd::InsertRecord late = row("p", 1);
    late.std_out = std::string("\xff\0x", 3);
    testing::internal::CaptureStderr();
    EXPECT_EQ(bulk(i, {row("p", 2), late}), kFailed);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("row 1: field STDOUT: the text contains a NUL byte at offset 1"),
              std::string::npos)
        << log;
    late.std_out = "\xff";
    EXPECT_EQ(bulk(i, {row("p", 2), late}), kOk);
    std::vector<vd::Row> rows;
    ASSERT_EQ(select(i, rows, "SELECT * FROM " + vd::table_name + " ORDER BY rowid;"), kOk);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1].STDOUT, "\xff");
}

TEST_F(OdbcExtensionTest, ACallersSelectLoadsNoCodeThroughTheSqliteDriver) {
    // The SQLite ODBC driver lets SQL load a shared library (and call any
    // function of it): the SQLite extension's authorizer denies that, and
    // so does this extension, before the driver sees the text.
    const std::string driver = "/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so";
    TempDir dir;
    Instance i = make();
    ASSERT_EQ(i->open("source=DRIVER=" + driver + ";Database=" + dir.file("vesk.db") + ";"), kOk);
    for (const std::string& text :
         {"SELECT load_extension('" + dir.file("x.so") + "') AS Provider",
          "SELECT 1 AS rowid WHERE LOAD_EXTENSION('" + dir.file("x.so") + "', 'main') IS NULL",
          "SELECT \"Load_Extension\"('" + dir.file("x.so") + "') AS Provider",
          std::string("SELECT fts3_tokenizer('simple') AS Provider")}) {
        std::vector<vd::Row> rows;
        testing::internal::CaptureStderr();
        EXPECT_EQ(select(i, rows, text), kFailed) << text;
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("refused statement: it names"), std::string::npos) << log;
        EXPECT_EQ(log.find("shared object"), std::string::npos) << log;
    }
}

TEST_F(OdbcExtensionTest, CallerStatementsCannotWriteAndReadOnlyHoldsAtTheServer) {
    auto writer = open_instance();
    ASSERT_TRUE(writer);
    ASSERT_EQ(insert(writer, row("p", 1)), kOk);
    auto reader = open_instance("|read_only=true");
    ASSERT_TRUE(reader);

    // A caller's query, or a filter (the caller's text too) that writes
    // through nextval, fails at the server on both.
    const std::string bump =
        "nextval(pg_get_serial_sequence('" + vd::table_name + "', 'rowid')) > 0";
    const std::string move_sequence = "SELECT setval(pg_get_serial_sequence('" + vd::table_name +
                                      "', 'rowid'), 1000) AS num_nodes;";
    const std::string remove_all =
        "WITH gone AS (DELETE FROM " + vd::table_name + " RETURNING *) SELECT * FROM gone;";
    for (Instance* i : {&writer, &reader}) {
        for (const bool as_filter : {false, true}) {
            std::vector<vd::Row> rows;
            testing::internal::CaptureStderr();
            EXPECT_EQ(as_filter ? select(*i, rows, "", bump) : select(*i, rows, move_sequence),
                      kFailed);
            const std::string log = testing::internal::GetCapturedStderr();
            EXPECT_NE(log.find("25006"), std::string::npos) << log;
            EXPECT_TRUE(rows.empty());
        }
        // A second statement could end the read-only transaction and write
        // in the next one: refused before anything is sent.
        for (const std::string& text :
             {"SELECT set_config('default_transaction_read_only', 'off', false) AS Provider; "
              "COMMIT; DELETE FROM " +
                  vd::table_name + " RETURNING *;",
              "SELECT 'a'';'; END; DELETE FROM " + vd::table_name + " RETURNING *",
              "SELECT $$'$$; COMMIT; DELETE FROM " + vd::table_name + "; SELECT '$$'"}) {
            std::vector<vd::Row> rows;
            testing::internal::CaptureStderr();
            EXPECT_EQ(select(*i, rows, text), kFailed) << text;
            const std::string log = testing::internal::GetCapturedStderr();
            EXPECT_NE(log.find("more than one statement"), std::string::npos) << log;
        }
        // A statement that is no query could end the transaction or change
        // the session for good (DEALLOCATE would drop the statements the
        // writes were prepared as): refused before anything is sent.
        for (const char* text : {"COMMIT", "DEALLOCATE ALL", "/* SELECT */ DISCARD ALL",
                                 "SET SESSION CHARACTERISTICS AS TRANSACTION READ WRITE"}) {
            std::vector<vd::Row> rows;
            testing::internal::CaptureStderr();
            EXPECT_EQ(select(*i, rows, text), kFailed) << text;
            const std::string log = testing::internal::GetCapturedStderr();
            EXPECT_NE(log.find("not a query"), std::string::npos) << log;
        }
        // A query that changes the session's default changes nothing past
        // its own select.
        std::vector<vd::Row> none;
        EXPECT_EQ(select(*i, none,
                         "SELECT set_config('default_transaction_read_only', 'off', false) AS "
                         "Provider;"),
                  kOk);
        testing::internal::CaptureStderr();
        EXPECT_EQ(select(*i, none, move_sequence), kFailed);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("25006"), std::string::npos);
        // A query that deletes through its WITH fails too.
        testing::internal::CaptureStderr();
        EXPECT_EQ(select(*i, none, remove_all), kFailed);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(stored_rows(source).total, 1u);
        // The session is read-only while a select runs (the reader's for good).
        std::vector<vd::Row> setting;
        ASSERT_EQ(select(*i, setting,
                         "SELECT current_setting('default_transaction_read_only') AS Provider;"),
                  kOk);
        ASSERT_EQ(setting.size(), 1u);
        EXPECT_EQ(setting[0].Provider, "on");
    }
    // The writer writes again after its selects, and after the kit's own
    // queries, which read on both.
    EXPECT_EQ(insert(writer, row("p", 3)), kOk);
    for (Instance* i : {&writer, &reader}) {
        std::vector<vd::Row> rows;
        ASSERT_EQ(select(*i, rows, ""), kOk);
        EXPECT_EQ(rows.size(), 2u);
        for (const uint16_t op : {vd::OP_LATEST_ROWS_PROVIDER, vd::OP_LATEST_COLLECT_ROWS}) {
            ASSERT_EQ(latest(*i, op, rows), kOk) << op;
            EXPECT_EQ(rows.size(), op == vd::OP_LATEST_ROWS_PROVIDER ? 2u : 1u) << op;
        }
    }
    EXPECT_EQ(insert(writer, row("p", 5)), kOk);
    // The session a caller's select leaves read-only is made writable for
    // every kind of write.
    const auto caller_select = [&] {
        std::vector<vd::Row> rows;
        EXPECT_EQ(select(writer, rows, "SELECT * FROM " + vd::table_name + ";"), kOk);
    };
    caller_select();
    EXPECT_EQ(bulk(writer, {row("p", 6)}), kOk);
    caller_select();
    const std::map<std::string, vd::ProviderInfoSet> snapshot{
        {"s1", {{all_rows(reader).at(0).rowid, "p", nullptr}}}};
    const auto* snapshot_in = &snapshot;
    EXPECT_EQ(writer->control(vd::OP_UPDATE_SNAPSHOT, nullptr, &snapshot_in, nullptr), kOk);
    caller_select();
    std::string id = "s1";
    EXPECT_EQ(writer->control(vd::OP_REMOVE_SNAPSHOT, nullptr, &id, nullptr), kOk);
    // The sequence did not move: each row follows the one before.
    const std::vector<vd::Row> rows = all_rows(reader);
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[1].rowid, rows[0].rowid + 1);
    EXPECT_EQ(rows[2].rowid, rows[1].rowid + 1);
    EXPECT_EQ(rows[3].rowid, rows[2].rowid + 1);
}

// The driver reads an answer through a cursor, appending its fetch to the
// caller's text: a comment at the end of that text must not swallow it.
TEST_F(OdbcExtensionTest, ACallersQueryEndingInALineCommentReturnsItsRows) {
    auto i = open_instance();
    ASSERT_TRUE(i);
    ASSERT_EQ(bulk(i, {row("p", 1), row("p", 2)}), kOk);
    for (const std::string& text :
         {"SELECT * FROM " + vd::table_name + " -- every row",
          "SELECT * FROM " + vd::table_name + " -- every row\n;",
          "-- every row\nSELECT * FROM " + vd::table_name + " /* all */"}) {
        std::vector<vd::Row> rows;
        EXPECT_EQ(select(i, rows, text), kOk) << text;
        EXPECT_EQ(rows.size(), 2u) << text;
    }
}

// Answers of many blocks, small rows then large ones, through the
// extension's own cursor and through the driver's (a connection string that
// sets UseDeclareFetch): every row, in order, through every read.
TEST_F(OdbcExtensionTest, AnswersOfManyBlocksComeBackWholeThroughEitherCursor) {
    auto writer = open_instance();
    ASSERT_TRUE(writer);
    std::vector<vd::InsertRecord> rows;
    for (int n = 0; n < 1500; ++n) {
        rows.push_back(row("p", n));
        if (n >= 1000) rows.back().std_out = std::string(64 * 1024 + n, 'a' + n % 26);
    }
    ASSERT_EQ(bulk(writer, rows), kOk);
    for (const std::string extra : {"", "UseDeclareFetch=1;Fetch=7;"}) {
        SCOPED_TRACE(extra);
        auto i = open_instance(extra);
        ASSERT_TRUE(i);
        const std::vector<vd::Row> found = all_rows(i);
        ASSERT_EQ(found.size(), rows.size());
        for (size_t n = 0; n < rows.size(); ++n)
            ASSERT_TRUE(found[n].STDOUT == rows[n].std_out &&
                        found[n].Hostname == rows[n].header.hostname)
                << n;
        std::vector<vd::Row> latest_rows;
        ASSERT_EQ(latest(i, vd::OP_LATEST_ROWS_PROVIDER, latest_rows), kOk);
        EXPECT_EQ(latest_rows.size(), rows.size());  // one row per host
    }
}

TEST_F(OdbcExtensionTest, ACommitTheServerRefusesIsReportedWithTheServersReason) {
    auto i = open_instance();
    ASSERT_TRUE(i);
    auto c = connect(source);
    ASSERT_TRUE(c);
    // A deferred check runs at the commit, after every statement succeeded.
    exec(*c,
         "CREATE FUNCTION refuse_h7() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN IF "
         "NEW.Hostname = 'h7' THEN RAISE EXCEPTION 'h7 refused at commit'; END IF; RETURN NULL; "
         "END $$;");
    exec(*c, "CREATE CONSTRAINT TRIGGER refuse_h7 AFTER INSERT ON " + vd::table_name +
                 " DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION refuse_h7();");
    testing::internal::CaptureStderr();
    EXPECT_EQ(bulk(i, {row("p", 1), row("p", 7)}), kFailed);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("h7 refused at commit"), std::string::npos) << log;
    EXPECT_EQ(log.find("no transaction is open"), std::string::npos) << log;
    EXPECT_EQ(stored_rows(source).total, 0u);
    EXPECT_EQ(bulk(i, {row("p", 1), row("p", 2)}), kOk);
    EXPECT_EQ(stored_rows(source).total, 2u);
}

TEST_F(OdbcExtensionTest, NamesEndingInABackslashStayPlainWhateverTheDatabaseSays) {
    // With backslash escapes in literals, 'x\' would run on into the next
    // name, and the rest of that name would be SQL.
    exec(*connection, "ALTER DATABASE vesk_extension SET standard_conforming_strings = off;");
    auto i = open_instance();
    ASSERT_TRUE(i);
    ASSERT_EQ(insert(i, row("p", 1)), kOk);
    ASSERT_EQ(insert(i, row("x\\", 2)), kOk);
    vd::SQLParameters all{"", "", vd::row_field_index};
    for (const uint16_t op :
         {vd::OP_LATEST_ROWS_PROVIDER, vd::OP_LATEST_COLLECT_ROWS, vd::OP_SELECT_PROVIDER}) {
        std::vector<vd::Row> rows;
        vd::ReadParameters request{
            {"x\\", ") OR 1=1 --"}, {}, {}, op == vd::OP_SELECT_PROVIDER ? &all : nullptr};
        ASSERT_EQ(i->control(op, &request, &rows, nullptr), kOk) << op;
        ASSERT_EQ(rows.size(), 1u) << op;
        EXPECT_EQ(rows[0].Provider, "x\\") << op;
    }
}

TEST_F(OdbcExtensionTest, LostConnectionFailsTheWriteThenTheNextCallReopens) {
    auto i = open_instance();
    ASSERT_TRUE(i);
    ASSERT_EQ(insert(i, row("p", 1)), kOk);
    terminate_backends();
    testing::internal::CaptureStderr();
    EXPECT_EQ(insert(i, row("p", 2)), kFailed);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("whether it was written is unknown"), std::string::npos) << log;
    EXPECT_NE(log.find("terminating connection"), std::string::npos) << log;
    ASSERT_EQ(bulk(i, {row("p", 3), row("p", 4)}), kOk);

    // A read meets the lost connection and is read again on a new one: a
    // caller's statement, and the kit's own queries, which run outside a
    // transaction.
    std::vector<vd::Row> rows;
    vd::SnapshotInfoSet ids;
    const std::function<int32_t()> reads[] = {
        [&] { return select(i, rows, "SELECT * FROM " + vd::table_name + ";"); },
        [&] { return latest(i, vd::OP_LATEST_ROWS_PROVIDER, rows); },
        [&] { return select(i, rows, ""); },
        [&] { return i->control(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids, nullptr); },
    };
    for (size_t k = 0; k < std::size(reads); ++k) {
        terminate_backends();
        rows.clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(reads[k](), kOk) << k;
        const std::string again = testing::internal::GetCapturedStderr();
        EXPECT_NE(again.find("reading again"), std::string::npos) << again;
        EXPECT_EQ(rows.size(), k < 3 ? 3u : 0u) << k;  // the last reads snapshot ids
    }
}

// A writer whose session a caller's select left read-only, and a reader,
// lose their connections between calls of every kind: the call that meets
// the lost connection may fail, naming it; the next one works; no write is
// refused by a session left read-only, and every acknowledged row is stored
// once.
TEST_F(OdbcExtensionTest, ReadsAndWritesInAnyOrderSurviveLostConnections) {
    auto w = open_instance();
    auto r = open_instance("|read_only=true");
    ASSERT_TRUE(w && r);
    std::mt19937 random(7);
    int next = 0;
    size_t acknowledged = 0;
    bool failed_before = false;
    int failures = 0;
    for (int call = 0; call < 120; ++call) {
        // Both datastores' server processes end, and are waited for.
        if (random() % 3 == 0)
            query_int(*connection,
                      "SELECT count(pg_terminate_backend(pid, 10000)) FROM pg_stat_activity "
                      "WHERE datname = 'vesk_extension' AND pid <> pg_backend_pid();");
        const int kind = static_cast<int>(random() % 5);
        std::vector<vd::Row> rows;
        testing::internal::CaptureStderr();
        int32_t status = kFailed;
        switch (kind) {
            case 0:
                status = insert(w, row("p", next++));
                if (status == kOk) ++acknowledged;
                break;
            case 1: {
                std::vector<vd::InsertRecord> three{row("p", next), row("p", next + 1),
                                                    row("p", next + 2)};
                next += 3;
                status = bulk(w, three);
                if (status == kOk) acknowledged += 3;
                break;
            }
            case 2:
                status = select(w, rows, "SELECT * FROM " + vd::table_name + ";");
                break;
            case 3:
                status = latest(w, vd::OP_LATEST_ROWS_PROVIDER, rows);
                break;
            default:
                status = select(r, rows, "SELECT * FROM " + vd::table_name + ";");
                break;
        }
        const std::string log = testing::internal::GetCapturedStderr();
        SCOPED_TRACE("call " + std::to_string(call) + " of kind " + std::to_string(kind) + ": " +
                     log);
        EXPECT_EQ(log.find("25006"), std::string::npos);
        if (status == kOk) {
            if (kind >= 2) {
                EXPECT_EQ(rows.size(), acknowledged);
            }
            failed_before = false;
            continue;
        }
        // Reads are read again on a new connection: only writes fail.
        EXPECT_LT(kind, 2);
        EXPECT_NE(log.find("connection to the server was lost"), std::string::npos);
        EXPECT_FALSE(failed_before) << "two calls in a row failed";
        failed_before = true;
        ++failures;
    }
    EXPECT_GT(failures, 0) << "no lost connection met a write";
    EXPECT_EQ(stored_rows(source).total, acknowledged);
}

TEST_F(OdbcExtensionTest, QueryTimeLimitStopsALongStatement) {
    auto i = open_instance("|query_timeout_s=1");
    ASSERT_TRUE(i);
    std::vector<vd::Row> rows;
    const auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStderr();
    EXPECT_EQ(select(i, rows, "SELECT pg_sleep(20) IS NULL AS Provider;"), kFailed);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_NE(log.find("query_timeout_s (1 s)"), std::string::npos) << log;
    // The connection goes on working.
    EXPECT_EQ(insert(i, row("p", 1)), kOk);
}

}  // namespace
}  // namespace vesk::test
