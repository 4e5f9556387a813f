// The generic string, file-system and XML helpers.
#include <link.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_support.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/fs.h"
#include "vesk/str.h"
#include "vesk/xml.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string cwd() {
    char buffer[PATH_MAX];
    return ::getcwd(buffer, sizeof buffer) != nullptr ? buffer : "";
}

TEST(SplitTest, FlagTrueDropsEmptyPieces) {
    EXPECT_THAT(vesk::str::split("|a||b|", '|', true), ElementsAre("a", "b"));
    EXPECT_THAT(vesk::str::split("", '|', true), IsEmpty());
    EXPECT_THAT(vesk::str::split("k=v=w", '=', true), ElementsAre("k", "v", "w"));
}

TEST(SplitTest, FlagFalseKeepsEmptyPieces) {
    EXPECT_THAT(vesk::str::split("|a||b|", '|', false), ElementsAre("", "a", "", "b", ""));
    EXPECT_THAT(vesk::str::split("", '|', false), ElementsAre(""));
    EXPECT_THAT(vesk::str::split("a|", '|', false), ElementsAre("a", ""));
    EXPECT_THAT(vesk::str::split("data", '|', false), ElementsAre("data"));
}

TEST(StringTest, StripwsAndSqueeze) {
    EXPECT_EQ(vesk::str::stripws(" \t a  b \r\n"), "a  b");
    EXPECT_EQ(vesk::str::stripws(" \t\n "), "");
    EXPECT_EQ(vesk::str::stripws(""), "");
    EXPECT_EQ(vesk::str::stripws("x"), "x");

    EXPECT_EQ(vesk::str::squeeze("//a///b/c//", '/'), "/a/b/c/");
    EXPECT_EQ(vesk::str::squeeze("/a/b", '/'), "/a/b");
    EXPECT_EQ(vesk::str::squeeze("aa..//", '/'), "aa../");
    EXPECT_EQ(vesk::str::squeeze("", '/'), "");
}

TEST(WordexpTest, ExpandsVariablesAndTilde) {
    vesk::test::ScopedEnv home("HOME", "/tmp/vesk-home");
    vesk::test::ScopedEnv unset("VESK_TEST_UNSET_VARIABLE", "");
    ::unsetenv("VESK_TEST_UNSET_VARIABLE");

    EXPECT_EQ(vesk::str::wordexp("$HOME/.vesk/db"), "/tmp/vesk-home/.vesk/db");
    EXPECT_EQ(vesk::str::wordexp("${HOME}/x"), "/tmp/vesk-home/x");
    EXPECT_EQ(vesk::str::wordexp("~/x"), "/tmp/vesk-home/x");
    EXPECT_EQ(vesk::str::wordexp("/a/$VESK_TEST_UNSET_VARIABLE/b"), "/a//b");
    EXPECT_EQ(vesk::str::wordexp("/plain/path"), "/plain/path");
    EXPECT_EQ(vesk::str::wordexp(""), "");
    // Quotes are removed as a shell would.
    EXPECT_EQ(vesk::str::wordexp("\"$HOME/a b\""), "/tmp/vesk-home/a b");
}

TEST(WordexpTest, NeverRunsCommands) {
    vesk::test::TempDir dir;
    const std::string marker = dir.file("marker");
    const std::vector<std::string> texts{"$(touch " + marker + ")", "`touch " + marker + "`",
                                         "/a/$(echo hi)", "`echo hi`"};
    for (const auto& text : texts) {
        EXPECT_EQ(vesk::str::wordexp(text), text);
    }
    EXPECT_FALSE(std::filesystem::exists(marker));
    // A character the shell would treat as syntax leaves the text unchanged.
    EXPECT_EQ(vesk::str::wordexp("a|b"), "a|b");
}

TEST(PathTest, DirnameAndAbspath) {
    EXPECT_EQ(vesk::str::dirname("/a/b/c.so"), "/a/b");
    EXPECT_EQ(vesk::str::dirname("c.so"), ".");
    EXPECT_EQ(vesk::str::dirname("/c.so"), "/");
    EXPECT_EQ(vesk::str::dirname("a/b/"), "a/b");

    EXPECT_EQ(vesk::fs::abspath("/x/../y"), "/x/../y");
    EXPECT_EQ(vesk::fs::abspath("x/../y"), cwd() + "/x/../y");  // not normalised
    EXPECT_EQ(vesk::fs::abspath(""), cwd());
}

// The path of the loaded object whose file name contains `name`.
std::string loaded_object_named(const std::string& name) {
    struct Search {
        std::string name;
        std::string found;
    } search{name, ""};
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            auto* s = static_cast<Search*>(data);
            const std::string path = info->dlpi_name != nullptr ? info->dlpi_name : "";
            if (path.find(s->name) == std::string::npos) return 0;
            s->found = path;
            return 1;
        },
        &search);
    return search.found;
}

TEST(PathTest, SelfpathNamesTheObjectOfItsCaller) {
    // Called from the test program itself: the program.
    EXPECT_EQ(std::filesystem::canonical(vesk::fs::selfpath()),
              std::filesystem::canonical("/proc/self/exe"));

    // Called from inside libvesk_datastore (its install path): the library,
    // not the program.
    const std::string library = loaded_object_named("libvesk_datastore.so");
    ASSERT_FALSE(library.empty());
    EXPECT_EQ(vesk::datastore::DataStoreParseUtility::default_install_path,
              vesk::fs::abspath(vesk::str::dirname(library)) + "/../../");
}

struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

class XmlTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string text =
            "<root full=\"x &amp; y\" empty=\"\"><child>text</child><bare/></root>";
        doc_.reset(xmlReadMemory(text.data(), static_cast<int>(text.size()), "test.xml", nullptr, 0));
        ASSERT_NE(doc_, nullptr);
        root_ = xmlDocGetRootElement(doc_.get());
        ASSERT_NE(root_, nullptr);
    }

    // The text content of the first child element named `name`.
    std::string content_of(const std::string& name) {
        for (xmlNode* n = root_->children; n != nullptr; n = n->next) {
            if (n->type != XML_ELEMENT_NODE || !vesk::xml::char_cmp_str(n->name, name)) continue;
            xmlChar* content = xmlNodeGetContent(n);
            std::string value = vesk::xml::char_to_str(content);
            xmlFree(content);
            return value;
        }
        return "<missing>";
    }

    std::unique_ptr<xmlDoc, XmlDocFree> doc_;
    xmlNode* root_ = nullptr;
};

TEST_F(XmlTest, GetAttrTellsAbsentFromEmpty) {
    std::string value = "keep";
    EXPECT_TRUE(vesk::xml::get_attr(root_, "full", value));
    EXPECT_EQ(value, "x & y");

    value = "keep";
    EXPECT_TRUE(vesk::xml::get_attr(root_, "empty", value));
    EXPECT_EQ(value, "");

    value = "keep";
    EXPECT_FALSE(vesk::xml::get_attr(root_, "absent", value));
    EXPECT_EQ(value, "keep");
    EXPECT_FALSE(vesk::xml::get_attr(nullptr, "full", value));
    EXPECT_EQ(value, "keep");

    EXPECT_EQ(vesk::xml::get_str(root_, "absent", "fallback"), "fallback");
    EXPECT_EQ(vesk::xml::get_str(root_, "empty", "fallback"), "");
    EXPECT_EQ(vesk::xml::get_str(root_, "full", "fallback"), "x & y");
}

TEST_F(XmlTest, NamesAndTexts) {
    EXPECT_TRUE(vesk::xml::char_cmp_str(root_->name, "root"));
    EXPECT_FALSE(vesk::xml::char_cmp_str(root_->name, "roo"));
    EXPECT_FALSE(vesk::xml::char_cmp_str(root_->name, "rootx"));
    EXPECT_FALSE(vesk::xml::char_cmp_str(root_->name, "Root"));
    EXPECT_FALSE(vesk::xml::char_cmp_str(nullptr, ""));

    EXPECT_EQ(vesk::xml::char_to_str(nullptr), "");
    EXPECT_EQ(content_of("child"), "text");
    EXPECT_EQ(content_of("bare"), "");
}

}  // namespace
