// The generic string, file-system and XML helpers, and the error log.
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <pwd.h>
#include <stdlib.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include "vesk/datastore.h"

#include "test_support.h"

namespace {

using Pieces = std::vector<std::string>;

TEST(StringTest, SplitStripwsAndSqueeze) {
    EXPECT_EQ(vesk::str::split("|a||b|", '|', true), (Pieces{"a", "b"}));
    EXPECT_EQ(vesk::str::split("", '|', true), Pieces{});
    EXPECT_EQ(vesk::str::split("|a||b|", '|', false), (Pieces{"", "a", "", "b", ""}));
    EXPECT_EQ(vesk::str::split("", '|', false), Pieces{""});
    EXPECT_EQ(vesk::str::split("a|", '|', false), (Pieces{"a", ""}));
    EXPECT_EQ(vesk::str::stripws(" \t a  b \r\n"), "a  b");
    EXPECT_EQ(vesk::str::stripws(" \t\n "), "");
    EXPECT_EQ(vesk::str::squeeze("//a///b/c//", '/'), "/a/b/c/");
    EXPECT_EQ(vesk::str::squeeze("aa..//", '/'), "aa../");
}

// What the shell would do with a configured path, without a shell: every
// form that is not expanded, commands above all, leaves the whole text as written.
TEST(StringTest, WordexpExpandsVariablesButNeverRunsCommands) {
    vesk::test::ScopedEnv home("HOME", "/h");
    vesk::test::ScopedEnv dir("VESK_TEST_DIR", "/d d");
    vesk::test::ScopedEnv gone("VESK_TEST_UNSET_VARIABLE", "");
    ::unsetenv("VESK_TEST_UNSET_VARIABLE");
    std::string root_home;
    if (const struct passwd* root = ::getpwnam("root")) root_home = root->pw_dir;
    vesk::test::TempDir temp;
    const std::string marker = temp.file("marker");
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", ""},
        {"$HOME/.vesk/db", "/h/.vesk/db"},
        {"${HOME}/x", "/h/x"},
        {"$VESK_TEST_DIR-$HOME", "/d d-/h"},
        {"/a/$VESK_TEST_UNSET_VARIABLE/b", "/a//b"},
        {"${VESK_TEST_UNSET_VARIABLE}x", "x"},
        {"~", "/h"},
        {"~/x", "/h/x"},
        {"~root/db", root_home.empty() ? "~root/db" : root_home + "/db"},
        {"\"$HOME/a b\"", "/h/a b"},  // quotes removed, no word splitting
        {"'$HOME' \\$HOME \"$HOME\"", "$HOME $HOME /h"}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(vesk::str::wordexp(text), expected) << text;
    for (const std::string& text : std::vector<std::string>{
             "$(touch " + marker + ")", "`touch " + marker + "`", std::string("a|b"), "a/~/b",
             "~vesk-no-such-user/db", "a  b *.db [x]?", "$", "cost$/x", "source=${NOPE?}/x.db",
             "${OM?}/a", "$(())", "$HOME/$((1+2))", "${HOME:-/x}", "${#HOME}", "${HOME", "$1/$$/$?",
             "\"$HOME", "'a"})
        EXPECT_EQ(vesk::str::wordexp(text), text);
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST(PathTest, DirnameAbspathAndSelfpath) {
    EXPECT_EQ(vesk::str::dirname("/a/b/c.so"), "/a/b");
    EXPECT_EQ(vesk::str::dirname("c.so"), ".");
    EXPECT_EQ(vesk::str::dirname("/c.so"), "/");
    EXPECT_EQ(vesk::str::dirname("a/b/"), "a/b");
    const std::string cwd = std::filesystem::current_path().string();
    EXPECT_EQ(vesk::fs::abspath("/x/../y"), "/x/../y");
    EXPECT_EQ(vesk::fs::abspath("x/../y"), cwd + "/x/../y");  // not normalised
    EXPECT_EQ(vesk::fs::abspath(""), cwd);

    // selfpath names the object of its caller.
    // Called from inside the datastore library, which runs from the stage
    // folder's lib/lumok64: its install path is two levels up, not the program's.
    const std::string install = vesk::datastore::DataStoreParseUtility::default_install_path;
    EXPECT_EQ(install.substr(install.size() - 7), "/../../");
    EXPECT_EQ(std::filesystem::canonical(install),
              std::filesystem::canonical(vesk::test::kStageDir));
}

TEST(XmlTest, GetAttrTellsAbsentFromEmptyAndNamesCompareWhole) {
    const std::string text = "<root full=\"x &amp; y\" empty=\"\"/>";
    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> doc(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), "t.xml", nullptr, 0), xmlFreeDoc);
    xmlNode* root = xmlDocGetRootElement(doc.get());
    ASSERT_NE(root, nullptr);

    std::string value = "keep";
    EXPECT_TRUE(vesk::xml::get_attr(root, "full", value));
    EXPECT_EQ(value, "x & y");
    EXPECT_TRUE(vesk::xml::get_attr(root, "empty", value));
    EXPECT_EQ(value, "");
    value = "keep";
    EXPECT_FALSE(vesk::xml::get_attr(root, "absent", value));
    EXPECT_FALSE(vesk::xml::get_attr(nullptr, "full", value));
    EXPECT_EQ(value, "keep");
    EXPECT_EQ(vesk::xml::get_str(root, "absent", "fallback"), "fallback");
    EXPECT_EQ(vesk::xml::get_str(root, "empty", "fallback"), "");

    EXPECT_TRUE(vesk::xml::char_cmp_str(root->name, "root"));
    for (const char* other : {"roo", "rootx", "Root"})
        EXPECT_FALSE(vesk::xml::char_cmp_str(root->name, other)) << other;
    EXPECT_FALSE(vesk::xml::char_cmp_str(nullptr, ""));
    EXPECT_EQ(vesk::xml::char_to_str(nullptr), "");
}

// ---- the error log ----

// What one record of `level` holding `text` writes to standard error.
std::string emitted(int level, const std::string& text) {
    vesk::test::CerrCapture cerr;
    vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream() << text;
    return cerr.text();
}

TEST(LogTest, LevelFilterAndTextExactlyAsGiven) {
    vesk::log::LOG_OUTPUT = 0;
    vesk::log::LOG_LEVEL = 6;
    EXPECT_EQ(emitted(7, "debug"), "");
    EXPECT_EQ(emitted(6, "info"), "info\n");
    vesk::log::LOG_LEVEL = 7;
    EXPECT_EQ(emitted(7, "debug"), "debug\n");
    // No file, function, line or level is added, and "%" is no format.
    EXPECT_EQ(emitted(3, ""), "\n");
    EXPECT_EQ(emitted(3, "100% %s %n done"), "100% %s %n done\n");

    // The system-log path takes the text as an argument too.
    vesk::log::LOG_OUTPUT = 1;
    EXPECT_EQ(emitted(7, "to syslog"), "");  // nothing reaches standard error
    // "%n" used as a format would write through a bogus pointer or trip the
    // fortified check; as an argument it is harmless.
    EXPECT_EXIT(
        {
            emitted(7, "%s%n%s%n%x %%");
            emitted(7, "");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
