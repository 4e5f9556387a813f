// Unit tests of the tool's own helpers: text codecs, the unified diff, the
// JSON Lines parser and the provider runner (real child processes).
#include <chrono>
#include <signal.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "codec.h"
#include "collect.h"
#include "jsonl.h"
#include "textdiff.h"

namespace vesk::tool {
namespace {

TEST(Codec, Utf8Validation) {
    EXPECT_TRUE(is_valid_utf8(""));
    EXPECT_TRUE(is_valid_utf8("plain ascii\n"));
    EXPECT_TRUE(is_valid_utf8("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_FALSE(is_valid_utf8("caf\xe9"));           // Latin-1
    EXPECT_FALSE(is_valid_utf8("\xc0\xaf"));          // overlong "/"
    EXPECT_FALSE(is_valid_utf8("\xed\xa0\x80"));      // surrogate
    EXPECT_FALSE(is_valid_utf8("\xf4\x90\x80\x80"));  // beyond U+10FFFF
    EXPECT_FALSE(is_valid_utf8("\xe2\x82"));          // cut short
    EXPECT_TRUE(is_valid_utf8(std::string("a\0b", 3)));
}

TEST(Codec, Base64RoundTripAndRejects) {
    EXPECT_EQ(base64_encode(""), "");
    EXPECT_EQ(base64_encode("f"), "Zg==");
    EXPECT_EQ(base64_encode("fo"), "Zm8=");
    EXPECT_EQ(base64_encode("foo"), "Zm9v");
    std::string all;
    for (int i = 0; i < 256; ++i) all += char(i);
    for (size_t n = 0; n < all.size(); n += 37) {
        std::string decoded;
        ASSERT_TRUE(base64_decode(base64_encode(all.substr(0, n)), decoded));
        EXPECT_EQ(decoded, all.substr(0, n));
    }
    std::string out;
    EXPECT_TRUE(base64_decode("Zm9v\nYmFy", out));
    EXPECT_EQ(out, "foobar");
    EXPECT_FALSE(base64_decode("Zm9", out));   // bad length
    EXPECT_FALSE(base64_decode("Zm=v", out));  // data after padding
    EXPECT_FALSE(base64_decode("Zm9*", out));  // not in the alphabet
    EXPECT_EQ(decode_output("Zm9v", 1), "foo");
    EXPECT_EQ(decode_output("Zm9v", 0), "Zm9v");
    EXPECT_EQ(decode_output("not base64!", 1), "not base64!");
}

TEST(TextDiff, HunksAndContext) {
    EXPECT_EQ(unified_diff("a\nb\n", "a\nb\n", "x", "y"), "");
    EXPECT_EQ(unified_diff("a\nb\nc\n", "a\nB\nc\n", "old", "new"),
              "--- old\n+++ new\n@@ -1,3 +1,3 @@\n a\n-b\n+B\n c\n");
    // Insertion into an empty text, and removal of everything.
    EXPECT_EQ(unified_diff("", "x\n", "o", "n"), "--- o\n+++ n\n@@ -0,0 +1 @@\n+x\n");
    EXPECT_EQ(unified_diff("x\ny\n", "", "o", "n"), "--- o\n+++ n\n@@ -1,2 +0,0 @@\n-x\n-y\n");
    // Two changes far apart make two hunks with three lines of context.
    std::string before, after;
    for (int i = 1; i <= 20; ++i) {
        before += std::to_string(i) + "\n";
        after += (i == 2 ? "two" : i == 18 ? "eighteen" : std::to_string(i)) + "\n";
    }
    const auto lines = split_lines(unified_diff(before, after, "o", "n"));
    ASSERT_EQ(lines.size(), 2u + 2 + 6 + 7);  // headers, hunk heads, two hunks
    EXPECT_EQ(lines[2], "@@ -1,5 +1,5 @@");
    EXPECT_EQ(lines[9], "@@ -15,6 +15,6 @@");
    // A missing final line break is a difference of its own.
    EXPECT_NE(unified_diff("a\n", "a", "o", "n").find("No newline"), std::string::npos);
}

TEST(TextDiff, LargeInputsStayBounded) {
    std::string before, after;
    for (int i = 0; i < 5000; ++i) {
        before += "b" + std::to_string(i) + "\n";
        after += "a" + std::to_string(i) + "\n";
    }
    const auto start = std::chrono::steady_clock::now();
    const std::string diff = unified_diff(before, after, "o", "n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_NE(diff.find("@@ -1,5000 +1,5000 @@"), std::string::npos);
}

TEST(JsonLines, ParsesKeysAndDefaults) {
    vesk::datastore::InsertRecord r;
    std::string error;
    ASSERT_TRUE(parse_row_line(
        R"({"rowid": 9, "Provider": "p", "Hostname": "h", "node_names": "a, b,c",
            "Exit_status": -1, "Duration": 1.5, "Encoding": "base64", "STDOUT": "Zm9v",
            "OptionID": "o", "version": 3, "Username": "u", "Unique_timestamp": 5000001})",
        77, r, error))
        << error;
    EXPECT_EQ(r.header.provider, "p");
    EXPECT_EQ(r.header.node_names, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(r.header.num_nodes, 3);  // from the node names when absent
    EXPECT_EQ(r.header.exit_status, -1);
    EXPECT_EQ(r.header.encoding, vesk::provider::base64);
    EXPECT_EQ(r.header.unique_timestamp, 5000001);
    EXPECT_EQ(r.header.timestamp, 5);  // the run's seconds when absent
    EXPECT_EQ(r.std_out, "Zm9v");
    EXPECT_EQ(r.option_id, "o");

    ASSERT_TRUE(parse_row_line(R"({"Provider": "p", "Hostname": "h"})", 3000000, r, error));
    EXPECT_EQ(r.header.unique_timestamp, 3000000);
    EXPECT_EQ(r.header.timestamp, 3);
}

TEST(JsonLines, EscapesAndBothParsingPaths) {
    vesk::datastore::InsertRecord r;
    std::string error;
    // Plain lines take a fast path, others the general one: same results.
    const std::string expected = "a\"b\\c/\t\xc3\xa9\xf0\x9f\x98\x80\n";
    for (
        const char* line : {
            R"({"Provider":"p","Hostname":"h","STDOUT":"a\"b\\c\/\t\u00e9\ud83d\ude00\n"})",
            R"( { "Provider" : "p" , "Hostname" : "h" , "STDOUT" : "a\"b\\c/\t\u00E9\uD83D\uDE00\n" } )",
            R"({"Provider":"p","Hostname":"h","Encoding":"none","STDOUT":"a\"b\\c/\t\u00e9\ud83d\ude00\n"})",
        }) {
        ASSERT_TRUE(parse_row_line(line, 0, r, error)) << line << ": " << error;
        EXPECT_EQ(r.std_out, expected) << line;
        EXPECT_EQ(r.header.provider, "p");
    }
    ASSERT_TRUE(parse_row_line(R"({"Provider":"p","Hostname":"h","Duration":-1.5e-3,"rowid":null})",
                               0, r, error));
    EXPECT_DOUBLE_EQ(r.header.duration, -0.0015);
    // Broken escapes and bytes that are not UTF-8 are refused on both paths.
    EXPECT_FALSE(
        parse_row_line(R"({"Provider":"p","Hostname":"h","STDOUT":"\ud800"})", 0, r, error));
    EXPECT_FALSE(parse_row_line("{\"Provider\":\"p\xe9\",\"Hostname\":\"h\"}", 0, r, error));
    EXPECT_FALSE(parse_row_line(R"({"Provider":"p","Hostname":"h","Timestamp":01})", 0, r, error));
}

TEST(JsonLines, RejectsWithReason) {
    vesk::datastore::InsertRecord r;
    std::string error;
    const std::pair<const char*, const char*> cases[] = {
        {R"({"Provider": "p"})", "\"Hostname\" is missing or empty"},
        {R"({"Provider": "p", "Hostname": "h", "num_nodes": 1.5})", "\"num_nodes\" must be"},
        {R"({"Provider": "p", "Hostname": "h", "Exit_status": 4294967296})",
         "\"Exit_status\" must be"},
        {R"({"Provider": "p", "Hostname": "h", "Encoding": 7})", "\"Encoding\" must be"},
        {R"({"Provider": "p", "Hostname": "h", "node_names": [1]})", "\"node_names\" must be"},
        {R"({"Provider": "p", "Hostname": "h", "extra": 1})", "unknown key \"extra\""},
        {R"("text")", "expected a JSON object"},
        {R"({"Provider": "p",)", "syntax error"},
    };
    for (const auto& [line, message] : cases) {
        EXPECT_FALSE(parse_row_line(line, 0, r, error)) << line;
        EXPECT_NE(error.find(message), std::string::npos) << line << " -> " << error;
    }
    EXPECT_FALSE(parse_row_line(
        R"({"Provider": ")" + std::string(65, 'x') + R"(", "Hostname": "h"})", 0, r, error));
}

ProviderCommand shell(const std::string& name, const std::string& command, double timeout = 10) {
    return ProviderCommand{name, {"/bin/sh", "-c", command}, "", timeout};
}

TEST(Runner, OutcomesOfEveryKind) {
    const auto results =
        run_providers({shell("out", "printf 'a\\nb'; printf e >&2"), shell("code", "exit 7"),
                       shell("signal", "kill -TERM $$"),
                       ProviderCommand{"missing", {"/no/such/cmd"}, "", 10}, shell("stdin", "cat")},
                      4, 1 << 20, nullptr);
    ASSERT_EQ(results.size(), 5u);
    EXPECT_EQ(results[0].std_out, "a\nb");
    EXPECT_EQ(results[0].std_err, "e");
    EXPECT_EQ(results[1].exit_status, 7);
    EXPECT_EQ(results[2].exit_status, 128 + SIGTERM);
    EXPECT_EQ(results[3].exit_status, kNotStartedStatus);
    EXPECT_NE(results[3].std_err.find("/no/such/cmd"), std::string::npos);
    EXPECT_EQ(results[4].std_out, "");  // standard input is /dev/null, not ours
    EXPECT_EQ(results[4].exit_status, 0);
}

TEST(Runner, TimeoutKillsTheWholeGroupAndOthersGoOn) {
    const auto start = std::chrono::steady_clock::now();
    size_t reports = 0;
    const auto results = run_providers(
        {shell("hang", "echo started; sleep 100 & wait", 0.3), shell("quick", "echo ok")}, 8,
        1 << 20, [&](size_t, size_t, const std::vector<std::string>&) { ++reports; });
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(results[0].timed_out);
    EXPECT_EQ(results[0].exit_status, kTimeoutStatus);
    EXPECT_EQ(results[0].std_out, "started\n");
    EXPECT_EQ(results[1].std_out, "ok\n");
    EXPECT_GE(reports, 2u);
}

TEST(Runner, OutputIsCutAtTheLimitAndJobsAreLimited) {
    const auto start = std::chrono::steady_clock::now();
    const auto results = run_providers({shell("big", "head -c 100000 /dev/zero"),
                                        shell("s1", "sleep 0.3"), shell("s2", "sleep 0.3")},
                                       1, 1000, nullptr);
    EXPECT_EQ(results[0].std_out.size(), 1000u);
    EXPECT_EQ(results[0].exit_status, 0);
    // One at a time: the two sleeps follow each other.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
}

TEST(ProviderFile, NamesAreChecked) {
    EXPECT_TRUE(valid_provider_name("disk-usage_v2.1"));
    EXPECT_FALSE(valid_provider_name(""));
    EXPECT_FALSE(valid_provider_name("a b"));
    EXPECT_FALSE(valid_provider_name("a'b"));
    EXPECT_FALSE(valid_provider_name(std::string(65, 'a')));
}

}  // namespace
}  // namespace vesk::tool
