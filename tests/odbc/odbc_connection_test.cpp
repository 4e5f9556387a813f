// The statement seam over ODBC against the real PostgreSQL test server.
#include "odbc_connection.h"

#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "pg_test_server.h"
#include "test_support.h"

namespace vesk::test {
namespace {

using datastore::sql::ColumnType;
using datastore::sql::StepResult;

// UTF-8 encoding of code point `cp`.
std::string utf8(uint32_t cp) {
    if (cp < 0x80) return std::string(1, static_cast<char>(cp));
    const int n = cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
    std::string s(static_cast<size_t>(n), '\0');
    for (int k = n - 1; k > 0; --k, cp >>= 6)
        s[static_cast<size_t>(k)] = static_cast<char>(0x80 | (cp & 0x3F));
    s[0] = static_cast<char>((0xF00 >> n) | cp);  // n one-bits, then a zero
    return s;
}

// Every byte value that valid UTF-8 can hold (1 to 255 except C0, C1, F5 to
// FF), each as lead or continuation byte.
std::string every_utf8_byte() {
    std::string s;
    for (uint32_t cp = 1; cp < 0x800; ++cp) s += utf8(cp);  // ASCII, C2..DF, 80..BF
    for (uint32_t lead = 0xE0; lead <= 0xEF; ++lead)        // ED: below the surrogates
        s += utf8(lead == 0xE0 ? 0x800 : ((lead - 0xE0) << 12) | 0x100);
    for (uint32_t cp : {0x10000u, 0x40000u, 0x80000u, 0xC0000u, 0x100000u}) s += utf8(cp);
    return s;
}

// Valid UTF-8 of exactly `size` bytes, mixing one- to four-byte characters so
// that chunk boundaries fall inside characters.
std::string mixed_text(std::size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    const uint32_t samples[] = {'a', 0x7E, 0xE9, 0x3B1, 0x20AC, 0xFFFD, 0x1F600, 0x10FFFF};
    std::string s;
    while (s.size() < size) {
        std::string c = utf8(samples[rng() % 8]);
        if (s.size() + c.size() > size) c = std::string(size - s.size(), 'z');
        s += c;
    }
    return s;
}

class OdbcConnectionTest : public PgTest {
protected:
    void prepare() override {
        exec(*connection,
             "CREATE TEMPORARY TABLE t(i BIGINT, d DOUBLE PRECISION, s TEXT, n INTEGER);");
    }

    // Inserts one row with bound values; false when any step fails.
    bool insert_text(const std::string& text) {
        auto s = connection->prepare("INSERT INTO t(s) VALUES(?);");
        return s && s->bind_text(1, text) && s->step() == StepResult::done;
    }
};

TEST_F(OdbcConnectionTest, RoundTripsEveryTypeNullAndLargeTexts) {
    const std::string all_bytes = every_utf8_byte();
    std::set<unsigned char> seen(all_bytes.begin(), all_bytes.end());
    ASSERT_EQ(seen.size(), 255u - 2u - 11u);  // 1..255 without C0, C1, F5..FF

    struct Case {
        int64_t i;
        double d;
        std::string s;
    };
    std::vector<Case> cases = {
        {0, 0.0, ""},
        {1700000000123456, 0.1, all_bytes},
        {std::numeric_limits<int64_t>::max(), 1.7976931348623157e308, "plain"},
        {std::numeric_limits<int64_t>::min(), -2.2250738585072014e-308, "quote ' and \" ? ;"},
        {-1, 3.141592653589793, std::string(100000, 'x')},
    };
    // Around the bound buffer's size (a character across its end too), the
    // chunking thresholds, and 16 MiB.
    cases.push_back({1026, 0.25, std::string(1023, 'a') + "\xE2\x82\xAC"});
    unsigned seed = 1;
    for (std::size_t size : {1023, 1024, 1025, 64 * 1024, 64 * 1024 + 1, 256 * 1024, 256 * 1024 + 1,
                             1024 * 1024 + 3, 16 * 1024 * 1024})
        cases.push_back({static_cast<int64_t>(size), 0.5, mixed_text(size, seed++)});
    auto insert = connection->prepare("INSERT INTO t(i, d, s, n) VALUES(?, ?, ?, ?);");
    ASSERT_NE(insert, nullptr) << connection->last_error().message;
    for (const Case& c : cases) {
        ASSERT_TRUE(insert->bind_int64(1, c.i));
        ASSERT_TRUE(insert->bind_double(2, c.d));
        ASSERT_TRUE(insert->bind_text(3, c.s)) << connection->last_error().message;
        ASSERT_TRUE(insert->bind_null(4));
        ASSERT_EQ(insert->step(), StepResult::done) << connection->last_error().message;
        ASSERT_TRUE(insert->reset());
    }
    // NULL into every column type, including BIGINT and DOUBLE PRECISION.
    for (int k = 1; k <= 4; ++k) ASSERT_TRUE(insert->bind_null(k));
    ASSERT_EQ(insert->step(), StepResult::done) << connection->last_error().message;

    auto read = connection->prepare("SELECT i, d, s, n, octet_length(s) FROM t ORDER BY ctid;");
    ASSERT_NE(read, nullptr);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.s.size());
        ASSERT_EQ(read->step(), StepResult::row) << connection->last_error().message;
        EXPECT_EQ(read->column_type(0), ColumnType::integer);
        EXPECT_EQ(read->column_int64(0), c.i);
        EXPECT_EQ(read->column_type(1), ColumnType::real);
        EXPECT_EQ(read->column_double(1), c.d);
        EXPECT_EQ(read->column_type(2), ColumnType::text);
        std::string text;
        ASSERT_TRUE(read->column_text(2, text));
        EXPECT_TRUE(text == c.s) << "came back as " << text.size() << " bytes";
        EXPECT_EQ(read->column_type(3), ColumnType::null);
        EXPECT_EQ(read->column_int64(4), static_cast<int64_t>(c.s.size()));  // as stored
    }
    ASSERT_EQ(read->step(), StepResult::row);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(read->column_type(k), ColumnType::null) << k;
    EXPECT_EQ(read->step(), StepResult::done);

    // Run again, the same statement reads the same first rows.
    ASSERT_TRUE(read->reset());
    for (std::size_t n = 0; n < 3; ++n) {
        ASSERT_EQ(read->step(), StepResult::row) << connection->last_error().message;
        std::string text;
        ASSERT_TRUE(read->column_text(2, text));
        EXPECT_TRUE(text == cases[n].s) << n;
    }

    ASSERT_EQ(read->column_count(), 5);
    const char* names[] = {"i", "d", "s", "n", "octet_length"};
    for (int k = 0; k < 5; ++k) EXPECT_EQ(read->column_name(k), names[k]);
}

// Many rows come from one fetch into the bound buffers: values of every
// kind, NULLs and texts too long for their buffer in rows on both sides of
// the fetches' boundaries, read in any order or not at all, and a read
// stopped midway that starts again.
TEST_F(OdbcConnectionTest, RowsOfManyFetchesReadWholeInAnyOrder) {
    exec(*connection,
         "INSERT INTO t(i, d, s, n) SELECT k, k / 4.0, CASE WHEN k % 5 = 0 THEN NULL WHEN k % 7 = "
         "0 THEN repeat(chr(945) || 'x', 700 + k) ELSE 'r' || k END, CASE WHEN k % 3 = 0 THEN "
         "NULL ELSE -k END FROM generate_series(1, 300) AS k;");
    auto expected_text = [](int k) -> std::optional<std::string> {
        if (k % 5 == 0) return std::nullopt;
        if (k % 7 != 0) return "r" + std::to_string(k);
        std::string s;
        for (int n = 0; n < 700 + k; ++n) s += "\xCE\xB1x";
        return s;
    };
    auto read = connection->prepare("SELECT i, d, s, n FROM t ORDER BY i;");
    ASSERT_NE(read, nullptr);
    for (int round = 0; round < 2; ++round) {
        const int last = round == 0 ? 130 : 300;  // the first read stops midway
        for (int k = 1; k <= last; ++k) {
            SCOPED_TRACE(k);
            ASSERT_EQ(read->step(), StepResult::row) << connection->last_error().message;
            const auto text = expected_text(k);
            std::string got;
            if (k % 4 == 1) {  // the text first, then the rest
                ASSERT_TRUE(read->column_text(2, got));
                EXPECT_TRUE(got == text.value_or("")) << got.size() << " bytes";
            }
            EXPECT_EQ(read->column_int64(0), k);
            EXPECT_EQ(read->column_double(1), k / 4.0);
            if (k % 11 == 0) continue;  // the text and n left unread
            EXPECT_EQ(read->column_type(2), text ? ColumnType::text : ColumnType::null);
            ASSERT_TRUE(read->column_text(2, got));
            EXPECT_TRUE(got == text.value_or("")) << got.size() << " bytes";
            if (k % 3 == 0) {
                EXPECT_EQ(read->column_type(3), ColumnType::null);
            } else {
                EXPECT_EQ(read->column_int64(3), -k);
            }
        }
        if (round == 1) {
            EXPECT_EQ(read->step(), StepResult::done);
        }
        ASSERT_TRUE(read->reset());
    }
}

TEST_F(OdbcConnectionTest, RefusesNulAndInvalidUtf8BeforeSending) {
    const std::string refused[] = {std::string("before\0after", 12), "\xED\xA0\x80",
                                   std::string(300000, 'a') + '\xff'};
    for (const std::string& text : refused) {
        auto s = connection->prepare("INSERT INTO t(s) VALUES(?);");
        ASSERT_NE(s, nullptr);
        EXPECT_FALSE(s->bind_text(1, text)) << text.size();
        const std::string& message = connection->last_error().message;
        EXPECT_TRUE(message.find("NUL") != std::string::npos ||
                    message.find("UTF-8") != std::string::npos)
            << message;
        // Never bound, so never sent.
        EXPECT_EQ(s->step(), StepResult::error);
    }
    EXPECT_EQ(query_int(*connection, "SELECT count(*) FROM t;"), 0);
}

TEST_F(OdbcConnectionTest, DiagnosticsCarrySqlstateAndEveryRecord) {
    // A read-only session refuses writes (temporary tables stay writable).
    exec(*connection, "SET SESSION CHARACTERISTICS AS TRANSACTION READ ONLY;");
    struct Case {
        std::string sql;
        std::string sqlstate;
        std::string in_message;
    } cases[] = {
        {"SELECT * FROM no_such_table;", "42P01", "no_such_table"},
        {"SELEKT 1;", "42601", "SELEKT"},
        {"SELECT 1 / 0;", "22012", "division by zero"},
        {"INSERT INTO t(n) VALUES(99999999999);", "22003", "out of range"},
        {"CREATE TABLE vesk_read_only_probe(x INTEGER);", "25006", "read-only"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sql);
        auto s = connection->prepare(c.sql);
        ASSERT_TRUE(s == nullptr || s->step() == StepResult::error);
        const auto& error = connection->last_error();
        EXPECT_EQ(error.sqlstate, c.sqlstate) << error.message;
        EXPECT_NE(error.message.find(c.in_message), std::string::npos) << error.message;
        EXPECT_NE(error.message.find("[" + c.sqlstate + "]"), std::string::npos) << error.message;
        EXPECT_FALSE(connection->last_diagnostics().empty());
        EXPECT_TRUE(connection->is_alive());
    }
    // The session goes on after errors.
    EXPECT_EQ(query_int(*connection, "SELECT 7;"), 7);
}

// NUMERIC values come back as the server wrote them, whatever the scale of
// the first rows the driver fetched; a number is made of them only when one is
// asked for. A value that is not what was asked (a fraction or out of range
// for an integer, out of range for a double) reads as 0, its column is named
// in the error, and the statement's next step fails: it is never truncated or
// saturated. Doubles asked for as integers keep to the same rule.
// Makes the process's LC_NUMERIC one whose decimal point is a comma, compiled
// into `dir` by localedef (glibc finds it through LOCPATH); false when the
// system cannot.
bool comma_decimal_point(const TempDir& dir) {
    const std::string command =
        "localedef -i de_DE -f UTF-8 " + dir.file("de_DE.UTF-8") + " >/dev/null 2>&1";
    if (std::system(command.c_str()) == -1) return false;
    setenv("LOCPATH", dir.path().c_str(), 1);
    return std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr &&
           std::string(std::localeconv()->decimal_point) == ",";
}

TEST_F(OdbcConnectionTest, NumbersReadTheSameWhateverTheHostProgramsLocale) {
    // A host program may set LC_NUMERIC from its environment.
    TempDir dir;
    if (!comma_decimal_point(dir)) {
        std::setlocale(LC_NUMERIC, "C");
        if (running_in_ci()) FAIL() << "no de_DE locale (scripts/bootstrap installs locales)";
        GTEST_SKIP() << "no de_DE locale: install the locales package";
    }
    auto s = connection->prepare(
        "SELECT 0.5::float8, '3.75'::text, 0.1::numeric, ' +2.5e1 s'::text, 'x'::text, "
        "-12345678901234567890.5::numeric;");
    ASSERT_NE(s, nullptr) << connection->last_error().message;
    ASSERT_EQ(s->step(), StepResult::row) << connection->last_error().message;
    std::string text;
    ASSERT_TRUE(s->column_text(0, text));
    EXPECT_EQ(text, "0.5");
    EXPECT_EQ(s->column_double(1), 3.75);
    EXPECT_EQ(s->column_double(2), 0.1);
    ASSERT_TRUE(s->column_text(5, text));
    EXPECT_EQ(text, "-12345678901234567890.5");
    EXPECT_EQ(s->column_double(3), 25.0);
    EXPECT_EQ(s->column_double(4), 0.0);
    std::setlocale(LC_NUMERIC, "C");
    EXPECT_EQ(s->step(), StepResult::done) << connection->last_error().message;
}

TEST_F(OdbcConnectionTest, NumericValuesAreExactAndBadConversionsFail) {
    constexpr int64_t max = std::numeric_limits<int64_t>::max();
    constexpr int64_t min = std::numeric_limits<int64_t>::min();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::string huge = "1" + std::string(2000, '0');  // beyond the bound buffer too
    struct Case {
        std::string expression;
        std::optional<std::string> text;  // not checked when absent
        std::optional<int64_t> integer;   // absent: refused
        std::optional<double> real;       // absent: refused
    } cases[] = {
        {"0.1::numeric", "0.1", std::nullopt, 0.1},
        {"12345678901234567890.5", "12345678901234567890.5", std::nullopt, 12345678901234567890.5},
        {"99999999999999999999::numeric", "99999999999999999999", std::nullopt, 1e20},
        {"-7.00::numeric(10, 2)", "-7.00", -7, -7.0},
        {"sum(x) FROM (VALUES (" + std::to_string(max - 1) + "::bigint), (1)) v(x)",
         std::to_string(max), max, 9223372036854775807.0},
        {"sum(x) FROM (VALUES (" + std::to_string(min + 1) + "::bigint), (-1)) v(x)",
         std::to_string(min), min, -9223372036854775808.0},
        {"9223372036854775808::numeric", "9223372036854775808", std::nullopt,
         9223372036854775808.0},
        {"'NaN'::numeric", "NaN", std::nullopt, nan},
        {huge + "::numeric", huge, std::nullopt, std::nullopt},
        {"NULL::numeric", "", 0, 0.0},
        {"'NaN'::float8", std::nullopt, std::nullopt, nan},
        {"'-Infinity'::float8", std::nullopt, std::nullopt, -HUGE_VAL},
        {"2.5::float8", std::nullopt, std::nullopt, 2.5},
        {"9223372036854775807::float8", std::nullopt, std::nullopt, 9223372036854775808.0},
        {"-9223372036854775808::float8", std::nullopt, min, -9223372036854775808.0},
        {"1e15::float8", std::nullopt, 1000000000000000, 1e15},
    };
    // Reads the value with `read` from a statement of its own; true when the
    // statement then ends, false when its next step fails (the read was refused).
    const auto read_one = [&](const Case& c, const auto& read) {
        auto s = connection->prepare("SELECT " + c.expression + ";");
        if (s == nullptr || s->step() != StepResult::row) {
            ADD_FAILURE() << connection->last_error().message;
            return false;
        }
        read(*s);
        const std::string name = s->column_name(0);
        const StepResult next = s->step();
        EXPECT_NE(next, StepResult::row);
        const std::string& message = connection->last_error().message;
        if (next == StepResult::error) {
            EXPECT_NE(message.find("column \"" + name + "\""), std::string::npos) << message;
        }
        return next == StepResult::done;
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expression.substr(0, 60));
        if (c.text) {
            std::string text;
            EXPECT_TRUE(read_one(c, [&](auto& s) { ASSERT_TRUE(s.column_text(0, text)); }));
            EXPECT_TRUE(text == *c.text) << text.substr(0, 60);
        }
        int64_t integer = 1;
        EXPECT_EQ(read_one(c, [&](auto& s) { integer = s.column_int64(0); }),
                  c.integer.has_value());
        EXPECT_EQ(integer, c.integer.value_or(0));
        double real = 1;
        EXPECT_EQ(read_one(c, [&](auto& s) { real = s.column_double(0); }), c.real.has_value());
        if (c.real && std::isnan(*c.real)) {
            EXPECT_TRUE(std::isnan(real)) << real;
        } else {
            EXPECT_EQ(real, c.real.value_or(0));
        }
    }

    // The driver takes the scale of an unconstrained NUMERIC column from the
    // first block of rows it fetches; a fraction in a later block stays one.
    auto s = connection->prepare(
        "SELECT x::numeric FROM generate_series(1, 1000) g(x) UNION ALL SELECT 0.5;");
    ASSERT_NE(s, nullptr) << connection->last_error().message;
    for (int64_t k = 1; k <= 1000; ++k) {
        ASSERT_EQ(s->step(), StepResult::row) << connection->last_error().message;
        ASSERT_EQ(s->column_int64(0), k);
        ASSERT_EQ(s->column_type(0), ColumnType::integer);
    }
    ASSERT_EQ(s->step(), StepResult::row) << connection->last_error().message;
    EXPECT_EQ(s->column_type(0), ColumnType::real);
    EXPECT_EQ(s->column_double(0), 0.5);
    std::string text;
    ASSERT_TRUE(s->column_text(0, text));
    EXPECT_EQ(text, "0.5");
    EXPECT_EQ(s->step(), StepResult::done) << connection->last_error().message;
}

// A long server message is kept whole, or as much of it as a diagnostic
// record can hold, with its state.
TEST_F(OdbcConnectionTest, LongDiagnosticMessagesAreKept) {
    exec(*connection,
         "CREATE FUNCTION pg_temp.refuse(n integer) RETURNS integer LANGUAGE plpgsql AS "
         "$$ BEGIN RAISE EXCEPTION '%', repeat('x', n); END $$;");
    // Around the first buffer's 1024 bytes the driver's own words around the
    // message fall on either side of it; psqlODBC keeps 4095 bytes of a
    // message, so the longer ones come back cut.
    struct Case {
        int size;
        std::size_t whole;  // at least this much of the message comes back
    } cases[] = {{1, 1},        {1000, 1000},  {1010, 1010},  {1023, 1023},
                 {1024, 1024},  {2000, 2000},  {4000, 4000},  {32700, 4000},
                 {32767, 4000}, {40000, 4000}, {100000, 4000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        auto s = connection->prepare("SELECT pg_temp.refuse(" + std::to_string(c.size) + ");");
        ASSERT_TRUE(s == nullptr || s->step() == StepResult::error);
        const auto& records = connection->last_diagnostics();
        ASSERT_FALSE(records.empty()) << connection->last_error().message.substr(0, 200);
        EXPECT_EQ(records.front().sqlstate, "P0001");
        EXPECT_NE(records.front().message.find(std::string(c.whole, 'x')), std::string::npos)
            << records.front().message.size();
    }
}

TEST_F(OdbcConnectionTest, TransactionsAndReusedStatements) {
    ASSERT_TRUE(connection->begin());
    ASSERT_TRUE(insert_text("rolled back"));
    ASSERT_TRUE(connection->rollback());
    EXPECT_EQ(query_int(*connection, "SELECT count(*) FROM t;"), 0);

    ASSERT_TRUE(connection->begin());
    EXPECT_FALSE(connection->begin());  // no nesting
    ASSERT_TRUE(insert_text("first"));
    auto bad = connection->prepare("INSERT INTO t(n) VALUES(99999999999);");
    ASSERT_NE(bad, nullptr);
    EXPECT_EQ(bad->step(), StepResult::error);
    ASSERT_TRUE(insert_text("second"));
    ASSERT_TRUE(connection->commit()) << connection->last_error().message;
    EXPECT_EQ(query_int(*connection, "SELECT count(*) FROM t;"), 2);
    EXPECT_FALSE(connection->commit());  // nothing open

    auto del = connection->prepare("DELETE FROM t WHERE s = ?;");
    ASSERT_NE(del, nullptr);
    ASSERT_TRUE(del->bind_text(1, "absent"));
    EXPECT_EQ(del->step(), StepResult::done) << connection->last_error().message;
    EXPECT_EQ(del->step(), StepResult::done);

    auto count = connection->prepare("SELECT count(*) FROM t WHERE s >= ?;");
    ASSERT_TRUE(count->bind_text(1, "first"));
    for (int round = 0; round < 2; ++round) {  // a reset keeps the binding
        ASSERT_EQ(count->step(), StepResult::row);
        EXPECT_EQ(count->column_int64(0), 2);
        ASSERT_TRUE(count->reset());
    }
    ASSERT_TRUE(count->bind_text(1, "second"));
    ASSERT_EQ(count->step(), StepResult::row);
    EXPECT_EQ(count->column_int64(0), 1);

    auto unbound = connection->prepare("SELECT ?;");
    EXPECT_EQ(unbound->step(), StepResult::error);
    EXPECT_NE(connection->last_error().message.find("not bound"), std::string::npos);
    EXPECT_FALSE(unbound->bind_int64(2, 1));
}

TEST_F(OdbcConnectionTest, TerminatedBackendIsNoticedAndANewConnectionWorks) {
    auto killer = connect(conn_string);
    ASSERT_NE(killer, nullptr);
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        const int64_t pid = query_int(*connection, "SELECT pg_backend_pid();");
        ASSERT_EQ(
            query_int(*killer, "SELECT pg_terminate_backend(" + std::to_string(pid) + ")::int;"),
            1);
        auto s = connection->prepare("SELECT 1;");
        ASSERT_TRUE(s == nullptr || s->step() == StepResult::error);
        const std::string state = connection->last_error().sqlstate;
        EXPECT_TRUE(state == "57P01" || state == "08S01") << connection->last_error().message;
        EXPECT_FALSE(connection->is_alive());

        s.reset();
        connection = connect(conn_string);
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(connection->is_alive());
        EXPECT_EQ(query_int(*connection, "SELECT 5;"), 5);
    }
}

// The same seam through the SQLite ODBC driver, on a real SQLite file: a text
// read in chunks comes back whole (the conformance suite runs the rest).
TEST(SqliteThroughOdbc, LargeTextRoundTripsAndErrorsAreReported) {
    const std::string driver = "/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so";
    if (access(driver.c_str(), R_OK) != 0) {
        if (running_in_ci()) FAIL() << driver << " is missing (scripts/bootstrap installs it)";
        GTEST_SKIP() << driver << " is missing (scripts/bootstrap installs libsqliteodbc)";
    }
    TempDir dir;
    datastore::sql::Error error;
    auto c = datastore::odbc_backend::OdbcConnection::connect(
        "DRIVER=" + driver + ";Database=" + dir.file("vesk.db") + ";", {}, error);
    ASSERT_NE(c, nullptr) << error.message;
    exec(*c, "CREATE TABLE t(s TEXT);");
    const std::string text = every_utf8_byte() + mixed_text(300000, 7);
    auto insert = c->prepare("INSERT INTO t VALUES(?);");
    ASSERT_NE(insert, nullptr) << c->last_error().message;
    ASSERT_TRUE(insert->bind_text(1, text));
    ASSERT_EQ(insert->step(), StepResult::done) << c->last_error().message;

    auto read = c->prepare("SELECT s FROM t;");
    ASSERT_NE(read, nullptr);
    ASSERT_EQ(read->step(), StepResult::row) << c->last_error().message;
    std::string back;
    ASSERT_TRUE(read->column_text(0, back));
    EXPECT_TRUE(back == text) << back.size() << " bytes back of " << text.size();
    EXPECT_EQ(read->step(), StepResult::done);

    auto bad = c->prepare("SELECT * FROM no_such_table;");
    EXPECT_TRUE(bad == nullptr || bad->step() == StepResult::error);
    EXPECT_NE(c->last_error().message.find("no_such_table"), std::string::npos)
        << c->last_error().message;
}

TEST_F(OdbcConnectionTest, ConnectFailureNamesTheDiagnostics) {
    datastore::sql::Error error;
    auto c = datastore::odbc_backend::OdbcConnection::connect(
        with_database(conn_string, "no_such_database"), {}, error);
    EXPECT_EQ(c, nullptr);
    EXPECT_NE(error.message.find("no_such_database"), std::string::npos) << error.message;
    EXPECT_FALSE(error.sqlstate.empty());

    c = datastore::odbc_backend::OdbcConnection::connect("DSN=vesk_no_such_dsn;", {}, error);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(error.sqlstate, "IM002") << error.message;
}

}  // namespace
}  // namespace vesk::test
