// Unit tests of the tool's own helpers: text codecs, the unified diff, the
// JSON Lines parser and the provider runner (real child processes). What the
// end-to-end tests already show through the binary is not repeated here.
#include <algorithm>
#include <chrono>
#include <clocale>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "codec.h"
#include "collect.h"
#include "errors.h"
#include "filter.h"
#include "jsonl.h"
#include "output.h"
#include "textdiff.h"
#include "validate.h"

namespace vesk::tool {
namespace {

TEST(Filter, TimesAgesAndRunIds) {
    const int64_t s = 1000000, now = 1795466127 * s;  // microseconds
    const struct {
        const char* text;
        int64_t expect;
        bool run;
    } cases[] = {
        {"90s", now - 90 * s, false},
        {"15m", now - 900 * s, false},
        {"2h", now - 7200 * s, false},
        {"7d", now - 7 * 86400 * s, false},
        {"2w", now - 14 * 86400 * s, false},
        {"2026-11-23Z", 1795392000 * s, false},
        {"2026-11-23T10:00Z", 1795428000 * s, false},
        {"2026-11-23T10:00:30Z", 1795428030 * s, false},
        {"1795466127549187", 1795466127549187, true},
        {"0", 0, true},
    };
    int64_t when = -1;
    bool run = false;
    for (const auto& c : cases) {
        run = !c.run;  // so that a form that leaves `run` as it was is caught
        EXPECT_EQ(parse_when(c.text, now, when, run), "") << c.text;
        EXPECT_EQ(when, c.expect) << c.text;
        EXPECT_EQ(run, c.run) << c.text;
    }
    for (const char* bad :
         {"", "2h30m", "h", "-2h", "yesterday", "2026-13-01", "2026-11-23T25:00", "2026-11-23T10",
          "2026-11-23 10:00 UTC", "99999999999999999999", "999999999999w"})
        EXPECT_NE(parse_when(bad, now, when, run), "") << bad;
}

TEST(Filter, ConditionsQuoteEveryValue) {
    RowFilter filter;
    EXPECT_EQ(row_conditions(filter), "");
    EXPECT_EQ(outcome_conditions(filter), "");
    filter.hosts = {"node01", "o'brien", "node0[0-4]*"};
    filter.since = 5;
    filter.since_run = true;
    filter.until = 9;
    filter.failed = true;
    filter.has_exit = true;
    filter.exit_status = 3;
    EXPECT_EQ(row_conditions(filter),
              "(Hostname IN ('node01','o''brien') OR Hostname GLOB 'node0[0-4]*') AND "
              "Unique_timestamp > 5 AND Unique_timestamp < 9");
    EXPECT_EQ(outcome_conditions(filter), "Exit_status <> 0 AND Exit_status = 3");
    filter = RowFilter{};
    filter.hosts = {"*"};
    filter.since = 5;
    filter.until = 9;
    filter.until_run = true;
    filter.run = 7;
    EXPECT_EQ(row_conditions(filter),
              "(Hostname GLOB '*') AND Unique_timestamp >= 5 AND Unique_timestamp <= 9 AND "
              "Unique_timestamp = 7");
}

TEST(Filter, HostPatternsForServersUseLikeWithItsWildcardsEscaped) {
    RowFilter filter;
    filter.hosts = {"n1", "node?_*", "a%b!c*", "it's*"};
    EXPECT_EQ(row_conditions(filter, false),
              "(Hostname IN ('n1') OR Hostname LIKE 'node_!_%' ESCAPE '!' OR Hostname LIKE "
              "'a!%b!!c%' ESCAPE '!' OR Hostname LIKE 'it''s%' ESCAPE '!')");
    filter.hosts = {"node[12]"};
    EXPECT_THROW(row_conditions(filter, false), ToolError);
    EXPECT_EQ(row_conditions(filter, true), "(Hostname GLOB 'node[12]')");
}

TEST(Codec, Utf8AndBase64EdgeCases) {
    const char good[] = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80";
    EXPECT_TRUE(is_valid_utf8(std::string_view(good, sizeof good)));  // with its final NUL
    // Latin-1, overlong "/", surrogate, beyond U+10FFFF, cut short.
    for (const char* bad : {"caf\xe9", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"})
        EXPECT_FALSE(is_valid_utf8(bad)) << bad;

    EXPECT_EQ(base64_encode("f"), "Zg==");
    EXPECT_EQ(base64_encode("\xfb\xff"), "+/8=");
    std::string all, out;
    for (int i = 0; i < 256; ++i) all += char(i);
    for (size_t n = 0; n < all.size(); n += 37) {
        ASSERT_TRUE(base64_decode(base64_encode(all.substr(0, n)), out));
        EXPECT_EQ(out, all.substr(0, n));
    }
    EXPECT_TRUE(base64_decode("Zm9v\nYmFy", out) && out == "foobar");  // line breaks skipped
    for (const char* bad : {"Zm9", "Zm=v", "Zm9*"})  // length, data after "=", alphabet
        EXPECT_FALSE(base64_decode(bad, out)) << bad;
    EXPECT_EQ(decode_output("not base64!", 1), "not base64!");
}

TEST(TextDiff, HunksContextAndLargeInputs) {
    EXPECT_EQ(unified_diff("", "x\n", "o", "n"), "--- o\n+++ n\n@@ -0,0 +1 @@\n+x\n");
    EXPECT_NE(unified_diff("a\n", "a", "o", "n").find("No newline"), std::string::npos);

    // Lines "l1".."lN", with "x<i>" for the lines that `changed` picks.
    auto text = [](int n, bool (*changed)(int)) {
        std::string t;
        for (int i = 1; i <= n; ++i) t += (changed(i) ? "x" : "l") + std::to_string(i) + "\n";
        return t;
    };
    auto none = [](int) { return false; };
    // Two changes far apart make two hunks with three lines of context.
    auto lines = split_lines(
        unified_diff(text(20, none), text(20, [](int i) { return i == 2 || i == 18; }), "o", "n"));
    ASSERT_EQ(lines.size(), 2u + 2 + 6 + 7);
    EXPECT_EQ(lines[2], "@@ -1,5 +1,5 @@");
    EXPECT_EQ(lines[9], "@@ -15,6 +15,6 @@");
    // Too large for the exact diff: after the common first line, one replaced
    // block, although every second line is the same on both sides.
    lines = split_lines(
        unified_diff(text(5000, none), text(5000, [](int i) { return i % 2 == 0; }), "o", "n"));
    ASSERT_EQ(lines.size(), 4u + 2 * 4999);
    EXPECT_EQ(lines[5], "-l3");
    EXPECT_EQ(lines[4 + 4999], "+x2");
}

TEST(JsonLines, ReadsEveryFormOfARow) {
    // Node names as an array or as text; escapes, a surrogate pair, a key
    // spelled with an escape, blanks between tokens.
    const std::string rest = R"("Duration":-1.5e-3,"STDOUT":"\"\\\/\u00e9\ud83d\uDE00"})";
    for (const std::string names : {R"(["a","b"])", R"("a, b")", R"( [ "a" , "b" ] )"}) {
        const std::string line =
            R"({ "Provider":"p", "Hostn\u0061me" : "h","node_names":)" + names + "," + rest;
        vesk::datastore::InsertRecord r;
        std::string error;
        ASSERT_TRUE(parse_row_line(line, 3000001, r, error)) << line << ": " << error;
        EXPECT_EQ(r.header.hostname, "h");
        EXPECT_EQ(r.std_out, "\"\\/\xc3\xa9\xf0\x9f\x98\x80") << line;
        EXPECT_EQ(r.header.node_names, (std::vector<std::string>{"a", "b"})) << line;
        EXPECT_EQ(r.header.num_nodes, 2);  // from the node names when absent
        EXPECT_DOUBLE_EQ(r.header.duration, -0.0015);
        EXPECT_EQ(r.header.timestamp, 3);  // the default run's seconds
        EXPECT_EQ(r.header.unique_timestamp, 3000001);
    }
    vesk::datastore::InsertRecord r;
    std::string error;
    ASSERT_TRUE(parse_row_line(
        R"({"rowid":null,"Provider":"p","Hostname":"h","Encoding":"base64","Timestamp":7,)"
        R"("Unique_timestamp":9223372036854775807,"Exit_status":-2147483648,"Duration":3})",
        0, r, error))
        << error;
    EXPECT_EQ(r.header.encoding, vesk::provider::encoding(1));
    EXPECT_EQ(r.header.timestamp, 7);
    EXPECT_EQ(r.header.unique_timestamp, INT64_MAX);
    EXPECT_EQ(r.header.exit_status, INT32_MIN);
    EXPECT_EQ(r.header.duration, 3.0);
}

TEST(JsonLines, RejectsWithReason) {
    const std::string head = R"({"Provider":"p","Hostname":"h",)";
    std::vector<std::pair<std::string, const char*>> cases = {
        {head + R"("num_nodes":1.5})", "num_nodes: must be an integer"},
        {head + R"("Exit_status":4294967296})", "Exit_status: must be an integer"},
        {head + R"("Timestamp":9223372036854775808})", "Timestamp: must be an integer"},
        {head + R"("Encoding":7})", "Encoding: must be 0, 1, 2"},
        {head + R"("Encoding":"hex"})", "Encoding: must be 0, 1, 2"},
        {head + R"("Encoding":[]})", "Encoding: must be 0, 1, 2"},
        {head + R"("node_names":[1]})", "node_names: must be an array of strings"},
        {head + R"("node_names":{}})", "node_names: must be an array of strings"},
        {head + R"("STDOUT":null})", "STDOUT: must be a string"},
        {head + R"("Duration":"1"})", "Duration: must be a number"},
        {head + R"("Duration":1e400})", "Duration: must be a finite number, not 1e400"},
        {head + R"("Snapshot":"s"})", "OptionID: must be a string"},  // a member line
        {head + R"("Provid\u0065r":"q"})", "Provider: the key appears twice"},
        {R"({"Provider":"p","Hostname":""})", "Hostname: is missing or empty"},
        {head + R"("Timestamp":01})", "invalid JSON at column 44: malformed number 01"},
        {head + R"("Duration":2.})", "invalid JSON at column 43: malformed number 2."},
        {head + R"("STDOUT":"x"} {})", "invalid JSON at column 46: text after the object"},
        {"\"text\"", "expected a JSON object"},
        {std::string(R"({"Provider":"p"})") + '\0', "NUL byte at column 17"},
        {"not json", "invalid JSON"},
        {"", "invalid JSON"},
    };
    // Lone surrogates, not UTF-8, a raw control byte, an unknown escape, and
    // broken syntax after a valid start.
    for (const char* tail :
         {R"("STDOUT":"\ud800"})", R"("STDOUT":"\udc00x"})", "\"STDOUT\":\"\xe9\"}",
          "\"STDOUT\":\"a\tb\"}", R"("STDOUT":"\q"})", R"("Duration":-})", R"("STDOUT":"x",})",
          R"("STDOUT" "x"})", R"("STDOUT":"x"}})", R"("STDOUT":"x")"})
        cases.emplace_back(head + tail, "invalid JSON");
    for (const auto& [line, message] : cases) {
        vesk::datastore::InsertRecord r;
        std::string error;
        EXPECT_FALSE(parse_row_line(line, 0, r, error)) << line;
        EXPECT_EQ(error.rfind(message, 0), 0u) << line << " -> " << error;
    }
}

TEST(JsonLines, SnapshotMembers) {
    const std::string key = R"("Provider":"p","Hostname":"h","OptionID":"","Unique_timestamp":5)";
    const std::pair<std::string, const char*> cases[] = {
        {R"({"Snapshot":"s",)" + key + "}", ""},
        {R"({)" + key + R"(,"Snapshot":"s"})", ""},  // any order
        {R"({"Snapshot":"s","Provider":"p","Hostname":"h","OptionID":""})",
         "Unique_timestamp: must be an integer, 0 or more"},
        {R"({"Snapshot":"s","Provider":"p","Hostname":"h","OptionID":"","Unique_timestamp":-1})",
         "Unique_timestamp: must be an integer, 0 or more"},
        {R"({"Snapshot":"a\"b",)" + key + "}", "Snapshot: contains a quote"},
        {R"({"Snapshot":"s",)" + key + R"(,"STDOUT":""})", "a snapshot line holds"},
        {R"({"Snapshot":1,)" + key + "}", "Snapshot: must be a string"},
    };
    vesk::tool::JsonLineReader reader;  // one reader for every line
    for (const auto& [line, message] : cases) {
        vesk::tool::JsonLine out;
        std::string error;
        const bool ok = reader.parse(line, 0, out, error);
        EXPECT_EQ(ok, *message == '\0') << line << " -> " << error;
        if (!ok) {
            EXPECT_EQ(error.rfind(message, 0), 0u) << line << " -> " << error;
            continue;
        }
        EXPECT_TRUE(out.member);
        EXPECT_EQ(out.snapshot, "s");
        EXPECT_EQ(out.record.header.provider, "p");
        EXPECT_EQ(out.record.header.unique_timestamp, 5);
    }
}

TEST(JsonLines, OneReaderForLinesOfAnyLength) {
    // A long line grows the buffer; the shorter lines after it must not see
    // its leftover bytes; a line that ends inside a string is refused.
    vesk::tool::JsonLineReader reader;
    const std::string head = R"({"Provider":"p","Hostname":"h","STDOUT":")";
    for (const size_t size : {size_t(10), size_t(16) << 20, size_t(0), size_t(63), size_t(64)}) {
        const std::string out(size, 'x');
        vesk::tool::JsonLine line;
        std::string error;
        ASSERT_TRUE(reader.parse(head + out + "\"}", 1, line, error)) << size << ": " << error;
        EXPECT_EQ(line.record.std_out, out);
        EXPECT_FALSE(reader.parse(head + out, 1, line, error)) << size;
        EXPECT_EQ(error.rfind("invalid JSON", 0), 0u) << error;
    }
}

TEST(JsonLines, WritesWhatNlohmannWrites) {
    // export's bytes must not change: the writer against nlohmann-json's dump.
    // (Text that is not UTF-8: the fuzz_jsonl seed writer_bad_utf8.)
    const std::string texts[] = {"", "plain", std::string("q\"b\\s/\b\f\n\r\t\x01\x1f\x7f\0z", 15),
                                 "caf\xc3\xa9 \xf0\x9f\x98\x80"};
    const double durations[] = {0.0, -0.0, 0.1, 1e15, 1e16, 1e-7, 123456.789, -2.5, 1e308};
    size_t i = 0;
    for (const auto& text : texts) {
        for (const double duration : durations) {
            vesk::datastore::Row row;
            row.rowid = int32_t(i);
            row.Unique_timestamp = INT64_MIN + int64_t(i++);
            row.STDOUT = text;
            row.Hostname = text;
            row.node_names = {text, "n"};
            row.Duration = duration;
            EXPECT_EQ(row_to_line(row),
                      row_to_json(row).dump(-1, ' ', false, Json::error_handler_t::replace))
                << text << " " << duration;
            // `rows --format json`: pretty, with members after the columns,
            // one level inside an array.
            Json j = row_to_json(row);
            j["datastore"] = text;
            j["stale"] = i % 2 == 0;
            j["stdout_text"] = text + "\x80";
            std::string expected = j.dump(2, ' ', false, Json::error_handler_t::replace);
            for (size_t at = expected.find('\n'); at != std::string::npos;
                 at = expected.find('\n', at + 3))
                expected.replace(at, 1, "\n  ");
            const std::string out = text + "\x80";
            EXPECT_EQ(row_to_pretty_json(row,
                                         {{"datastore", &text, false},
                                          {"stale", nullptr, i % 2 == 0},
                                          {"stdout_text", &out, false}},
                                         1),
                      expected)
                << text << " " << duration;
        }
    }
    vesk::datastore::Row empty;
    EXPECT_NE(row_to_line(empty).find(R"("node_names":[],)"), std::string::npos);
    EXPECT_EQ(row_to_pretty_json(empty, {}, 0), row_to_json(empty).dump(2));
}

ProviderCommand shell(const std::string& name, const std::string& command, double timeout = 10) {
    return ProviderCommand{name, {"/bin/sh", "-c", command}, "", timeout};
}

// True once process `pid` is gone, or a zombie that nobody has reaped yet.
bool is_dead(const std::string& pid) {
    std::string stat;
    for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (!std::getline(std::ifstream("/proc/" + pid + "/stat"), stat) ||
            stat.substr(stat.rfind(')') + 2, 1) == "Z")
            return true;
    return false;
}

TEST(Validate, NamesThatWouldNotComeBackAsWritten) {
    const struct {
        std::string name;
        std::string problem;  // "" when fine
    } cases[] = {
        // (Quotes, a backslash and NUL: tool.Names, through import.)
        {"uname", ""},
        {"caf\xc3\xa9-1", ""},
        {"", "is empty"},
        {" \t ", "is blank"},
        {" uname", "has blanks around it"},
        {"uname ", "has blanks around it"},
        {"a\x7f", "contains the control byte 0x7f"},
        {"caf\xe9", "is not valid UTF-8"},
        {std::string(9, 'n'), "is 9 bytes, longer than lim (8)"},
    };
    for (const auto& c : cases) EXPECT_EQ(name_problem(c.name, 8, "lim"), c.problem) << c.name;
}

TEST(Output, TerminalSafeTextAndDisplayWidth) {
    EXPECT_EQ(terminal_safe("a\x1b]0;t\x07z\n\tq", true), "a\\x1b]0;t\\x07z\n\tq");
    EXPECT_EQ(terminal_safe("a\nb\tc", false), "a\\x0ab\\x09c");
    EXPECT_EQ(terminal_safe("caf\xc3\xa9 \xc2\x9b"
                            "1m \xff",
                            true),
              "caf\xc3\xa9 \\xc2\\x9b"
              "1m \\xff");  // C1 CSI and a stray byte
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(display_width("caf\xc3\xa9"), 4u);  // wide characters: tool.Output
}

TEST(Runner, TimeoutKillsTheGroupWhileOthersRunWithinTheLimits) {
    size_t most_running = 0;
    const auto results =
        run_providers({shell("hang", "sleep 100 & echo $!; wait", 0.3),
                       shell("big", "head -c 100000 /dev/zero"), shell("stdin", "cat")},
                      2, 1000, [&](size_t, size_t, const std::vector<std::string>& running) {
                          most_running = std::max(most_running, running.size());
                      });
    EXPECT_TRUE(results[0].timed_out);
    EXPECT_EQ(results[0].exit_status, kTimeoutStatus);
    const std::string child = results[0].std_out.substr(0, results[0].std_out.find('\n'));
    ASSERT_FALSE(child.empty());
    EXPECT_TRUE(is_dead(child)) << "the provider's own child " << child << " survived";
    EXPECT_EQ(results[1].std_out.size(), 1000u);  // cut at the limit
    EXPECT_EQ(results[2].std_out, "");            // standard input is /dev/null, not ours
    EXPECT_EQ(most_running, 2u);
}

}  // namespace
}  // namespace vesk::tool
