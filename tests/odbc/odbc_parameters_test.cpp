// The parameter string of the ODBC extension and the text checks: no server.
#include "odbc_parameters.h"

#include <algorithm>
#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "text_check.h"

namespace vesk::datastore::odbc_backend {
namespace {

TEST(OdbcParameters, AcceptsDsnsConnectionStringsAndOptions) {
    const std::string conn =
        "DRIVER=/usr/lib/x86_64-linux-gnu/odbc/psqlodbcw.so;Server=127.0.0.1;Port=5432;"
        "Database=vesk;Uid=vesk;";
    struct Case {
        std::string text;
        std::string source;
        bool is_dsn;
        bool read_only;
        int login, query, rows;
        std::string connect;
    } cases[] = {
        {"odbc_default_dsn", "odbc_default_dsn", true, false, 15, 0, 0, "DSN=odbc_default_dsn;"},
        {"  vesk_pg  ", "vesk_pg", true, false, 15, 0, 0, "DSN=vesk_pg;"},
        {"source=vesk_pg", "vesk_pg", true, false, 15, 0, 0, "DSN=vesk_pg;"},
        {"source=" + conn, conn, false, false, 15, 0, 0, conn},
        {"source=" + conn + "|read_only=true", conn, false, true, 15, 0, 0, conn},
        {"read_only=false|source=x|login_timeout_s=0|query_timeout_s=86400|rows_per_statement=1",
         "x", true, false, 0, 86400, 1, "DSN=x;"},
        {"source = x | rows_per_statement = 10000 ", "x", true, false, 15, 0, 10000, "DSN=x;"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        OdbcParameters p;
        std::string error;
        ASSERT_TRUE(parse_odbc_parameters(c.text, p, error)) << error;
        EXPECT_EQ(p.source, c.source);
        EXPECT_EQ(p.source_is_dsn, c.is_dsn);
        EXPECT_EQ(p.read_only, c.read_only);
        EXPECT_EQ(p.login_timeout_s, c.login);
        EXPECT_EQ(p.query_timeout_s, c.query);
        EXPECT_EQ(p.rows_per_statement, c.rows);
        EXPECT_EQ(p.connection_string(), c.connect);
    }
}

TEST(OdbcParameters, RefusesMalformedStringsNamingTheCulprit) {
    struct Case {
        std::string text;
        std::string named;  // must appear in the message
    } cases[] = {
        {"", "empty"},
        {"   ", "empty"},
        {"two words", "two words"},
        {"source=x|bogus=1", "\"bogus\""},
        {"source=x|Source=y", "\"Source\""},
        {"source=x|source=y", "given twice"},
        {"source=x|read_only=yes", "\"read_only\" has value \"yes\""},
        {"source=x|read_only=", "\"read_only\""},
        {"source=x|read_only=TRUE", "\"read_only\""},
        {"source=x|login_timeout_s=-1", "\"login_timeout_s\""},
        {"source=x|query_timeout_s=86401", "\"query_timeout_s\""},
        {"source=x|query_timeout_s=1e3", "\"query_timeout_s\""},
        {"source=x|rows_per_statement=0", "\"rows_per_statement\""},
        {"source=x|rows_per_statement=10001", "\"rows_per_statement\""},
        {"source=x|rows_per_statement=99999999999", "\"rows_per_statement\""},
        {"source=", "\"source\""},
        {"source=a b", "\"source\""},
        {"read_only=true", "\"source\" is missing"},
        {"source=x|", "is not key=value"},
        {"source=x|dsn", "\"dsn\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        OdbcParameters p;
        std::string error;
        EXPECT_FALSE(parse_odbc_parameters(c.text, p, error));
        EXPECT_NE(error.find(c.named), std::string::npos) << error;
    }
}

TEST(TextCheck, ACallersSelectIsOneStatementOrRefused) {
    // The text without its trailing blanks and semicolons (a line break
    // after a line comment).
    auto body_of = [](std::string body) {
        while (body.back() == ';' || std::isspace(static_cast<unsigned char>(body.back())))
            body.pop_back();
        if (body.find("--") != std::string::npos) body += '\n';
        return body;
    };
    struct Case {
        const char* text;
        bool plain;    // accepted where backslashes are plain outside E'...'
        bool escaped;  // accepted where every '...' reads backslash escapes
    };
    const Case cases[] = {
        {"SELECT 1", true, true},
        {"SELECT 1; \n;;", true, true},
        {"SELECT * FROM t WHERE a = 'x;y'", true, true},
        {"SELECT 'it''s; ok'", true, true},
        {"SELECT \"a;b\" FROM t", true, true},
        {"SELECT 'a\"; b' AS \"c'd\"", true, true},
        {"SELECT $1 -- no semicolon", true, true},
        // What could hide a ";" is harmless inside quotes.
        {"SELECT * FROM t WHERE p IN ('x$y', '[1]') AND h IN ('a;b')", true, true},
        {"SELECT '--;', '/*;*/', '`;`', \"a$b\" FROM t", true, true},
        // Backslashes in plain texts.
        {"SELECT 'a\\b' AS x, 'c;d' AS y", true, false},
        {"SELECT 'a\\'; DELETE FROM t; SELECT '\\'", false, false},
        // Refused: a ";" that ends a statement, or one after what might hide it.
        {"SELECT 1; DELETE FROM t", false, false},
        {"SELECT 1; COMMIT;", false, false},
        {"SELECT 'it''s'; DELETE FROM t", false, false},
        {"SELECT '\"'; DELETE FROM t; SELECT '\"'", false, false},
        {"SELECT \"'\"; DELETE FROM t; SELECT \"'\"", false, false},
        {"SELECT $$'$$; DELETE FROM t; SELECT '$$'", false, false},
        {"SELECT $q$'$q$; DELETE FROM t; SELECT '$q$'", false, false},
        {"SELECT E'\\'; DELETE FROM t; --'", false, false},
        {"SELECT e'\\''; DELETE FROM t; SELECT '", false, false},
        {"SELECT 1 /* ; */", false, false},
        {"SELECT 1 /* ' */; DELETE FROM t; SELECT '", false, false},
        {"SELECT 1 -- '\n; DELETE FROM t; SELECT '", false, false},
        {"SELECT [x']; DELETE FROM t; SELECT ['y]", false, false},
        {"SELECT `a;b`", false, false},
    };
    for (const Case& c : cases) {
        for (const bool plain_backslash : {true, false}) {
            SCOPED_TRACE(std::string(c.text) + (plain_backslash ? " (plain)" : " (escaped)"));
            const bool accepted = plain_backslash ? c.plain : c.escaped;
            const auto body = single_statement(c.text, plain_backslash);
            EXPECT_EQ(body.has_value(), accepted);
            if (accepted && body) {
                EXPECT_EQ(*body, body_of(c.text));
            }
        }
    }
    // A line comment ends at a line break, whatever followed it.
    EXPECT_EQ(single_statement("SELECT 1 -- note\n;", true), "SELECT 1 -- note\n");
    EXPECT_EQ(single_statement("SELECT '--' AS a", true), "SELECT '--' AS a\n");
}

TEST(TextCheck, ACallersStatementIsAQueryOrRefused) {
    for (const char* text :
         {"SELECT 1", "select 1", "  (SELECT 1) UNION (SELECT 2)", "WITH a AS (SELECT 1) TABLE a",
          "VALUES (1)", "TABLE vesk_1", "-- note\nSELECT 1", "/* a /* nested */ b */ SELECT 1",
          "\n\t/**/((Select(1)))", "SELECT*FROM t"})
        EXPECT_TRUE(is_query(text)) << text;
    for (const char* text :
         {"", "   ", "-- SELECT 1", "/* SELECT 1", "/* a /* b */ SELECT */ DEALLOCATE ALL",
          "DEALLOCATE ALL", "COMMIT", "SET SESSION CHARACTERISTICS AS TRANSACTION READ WRITE",
          "DELETE FROM t RETURNING *", "SELECTED", "select_1", "SELECT\xc3\xa9 1", "DO 'BEGIN END'",
          "LOAD 'x'", "COPY t TO STDOUT", "EXPLAIN ANALYZE DELETE FROM t", "\"SELECT\""})
        EXPECT_FALSE(is_query(text)) << text;
}

TEST(TextCheck, FindsTheFunctionsThatLoadCodeInAnyCase) {
    EXPECT_EQ(names_code_loader("SELECT Load_Extension('x')"), "load_extension");
    EXPECT_EQ(names_code_loader("SELECT \"FTS3_TOKENIZER\"('simple')"), "fts3_tokenizer");
    EXPECT_FALSE(names_code_loader("SELECT load_ext, extension FROM t").has_value());
}

TEST(TextCheck, AcceptsValidUtf8AndFindsTheFirstFault) {
    for (const char* v :
         {"", "plain", "caf\xc3\xa9", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80",
          "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
        EXPECT_FALSE(text_problem(v).has_value()) << v;

    struct Case {
        std::string text;
        std::string problem;
    } cases[] = {
        {std::string("ab\0c", 4), "NUL byte at offset 2"},
        {"\x80", "UTF-8 at offset 0"},
        {"ok\xc0\xaf", "UTF-8 at offset 2"},        // overlong "/"
        {"\xc1\xbf", "UTF-8 at offset 0"},          // overlong
        {"\xe0\x9f\xbf", "UTF-8 at offset 0"},      // overlong three-byte
        {"\xed\xa0\x80", "UTF-8 at offset 0"},      // surrogate
        {"\xf0\x8f\xbf\xbf", "UTF-8 at offset 0"},  // overlong four-byte
        {"\xf4\x90\x80\x80", "UTF-8 at offset 0"},  // above U+10FFFF
        {"\xf5\x80\x80\x80", "UTF-8 at offset 0"},
        {"abc\xe2\x82", "UTF-8 at offset 3"},  // cut short
        {"\xc3\x28", "UTF-8 at offset 0"},     // bad continuation
        {"\xc3\xa9\xff", "UTF-8 at offset 2"},
    };
    for (const Case& c : cases) {
        const auto problem = text_problem(c.text);
        ASSERT_TRUE(problem.has_value()) << c.problem;
        EXPECT_NE(problem->find(c.problem), std::string::npos) << *problem;
    }

    // Long ASCII runs are scanned a word at a time: a fault at any offset,
    // before, inside or after a word, is found at that offset.
    for (size_t at = 0; at < 27; ++at) {
        for (const auto& [bad, problem] :
             {std::pair<std::string, std::string>{std::string(1, '\0'), "NUL byte"},
              {"\xff", "not valid UTF-8"},
              {"\xe2\x82", "not valid UTF-8"}}) {
            std::string text(27, 'a');
            text.replace(at, bad.size(), bad);
            const auto found = text_problem(text);
            ASSERT_TRUE(found.has_value()) << at;
            EXPECT_EQ(*found, (problem == "NUL byte" ? "contains a NUL byte" : "is " + problem) +
                                  " at offset " + std::to_string(at))
                << at;
        }
        std::string fine(27, 'a');
        fine.replace(at, 2, "\xc3\xa9");
        EXPECT_FALSE(text_problem(fine.substr(0, std::max<size_t>(at + 2, 27))).has_value()) << at;
    }
}

}  // namespace
}  // namespace vesk::datastore::odbc_backend
