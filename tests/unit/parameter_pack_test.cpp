// ParameterPack, the parameter-string parser and the list helpers.
#include "vesk/datastore/parameter_pack.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/vocabulary.h"

namespace {

using ::testing::ElementsAre;
using vesk::datastore::ParameterPack;

TEST(ParameterPackTest, LookupInsertsAndCopiesShareContents) {
    ParameterPack pack;
    EXPECT_EQ(pack["source"], "");
    pack["source"] = "a.db";
    EXPECT_EQ(pack["source"], "a.db");

    ParameterPack copy = pack;
    copy["read_only"] = "true";
    EXPECT_EQ(pack["read_only"], "true");

    // A const lookup of a missing key inserts it too: the reference it hands
    // out is the stored value.
    const ParameterPack& view = pack;
    view.const_lookup("fresh") = "x";
    EXPECT_EQ(pack["fresh"], "x");
    EXPECT_EQ(&view.const_lookup("source"), &pack["source"]);

    ParameterPack other;
    EXPECT_EQ(other["source"], "");
}

struct Parsed {
    bool ok;
    std::string source;
    bool read_only;
};

// Parses `parameters` starting from the given outputs.
Parsed parse(const std::string& parameters, std::string source = "unset", bool read_only = true) {
    const bool ok = parse_sqlite_params(parameters, source, read_only);
    return {ok, source, read_only};
}

TEST(ParseSqliteParamsTest, ReadsSourceAndReadOnly) {
    Parsed p = parse("source=a.db|read_only=true", "", false);
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.source, "a.db");
    EXPECT_TRUE(p.read_only);

    // Blanks around keys and values are stripped; "true" is case-sensitive.
    p = parse(" source = a.db | read_only = TRUE ");
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.source, "a.db");
    EXPECT_FALSE(p.read_only);

    // The last of a repeated key wins; unknown keys are ignored.
    p = parse("source=a|source=b|mode=x|read_only=true|read_only=false");
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.source, "b");
    EXPECT_FALSE(p.read_only);
}

TEST(ParseSqliteParamsTest, EmptyStringAndEmptyItemsChangeNothing) {
    Parsed p = parse("");
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.source, "unset");
    EXPECT_TRUE(p.read_only);

    p = parse("|source=a.db||");
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.source, "a.db");
}

TEST(ParseSqliteParamsTest, MalformedItemStopsButKeepsEarlierOutputs) {
    Parsed p = parse("source=a=b");
    EXPECT_FALSE(p.ok);
    EXPECT_EQ(p.source, "unset");

    p = parse("source=a.db|read_only|read_only=false");
    EXPECT_FALSE(p.ok);
    EXPECT_EQ(p.source, "a.db");
    EXPECT_TRUE(p.read_only);  // the item after the bad one is never read

    EXPECT_FALSE(parse("source=").ok);  // the empty value is dropped: one piece
}

TEST(ParseSqliteParamsTest, ReadsTheDefaultParameterString) {
    std::vector<vesk::datastore::DataStoreConfig> configs(1);
    vesk::datastore::DataStoreParseUtility::fillInVacantFields(configs);
    Parsed p = parse(configs[0].source_parameters);
    EXPECT_TRUE(p.ok);
    EXPECT_FALSE(p.read_only);
    // The default source keeps its quotes and its unexpanded "$HOME".
    EXPECT_EQ(p.source, "\"" + vesk::datastore::DEFAULT_DATA_SOURCE + "\"");
}

TEST(ListHelpersTest, InAndPrune) {
    const std::vector<std::string> list{"a", "b", "a"};
    EXPECT_TRUE(in(list, std::string("b")));
    EXPECT_FALSE(in(list, std::string("A")));
    EXPECT_FALSE(in({}, std::string("")));

    EXPECT_TRUE(in(list, std::vector<std::string>{}));
    EXPECT_TRUE(in(std::vector<std::string>{}, std::vector<std::string>{}));
    EXPECT_TRUE(in(list, std::vector<std::string>{"a", "b", "b"}));
    EXPECT_FALSE(in(list, std::vector<std::string>{"a", "c"}));

    EXPECT_THAT(prune(list, {"b"}), ElementsAre("a", "a"));
    EXPECT_THAT(prune(list, {}), ElementsAre("a", "b", "a"));
    EXPECT_TRUE(prune(list, {"a", "b"}).empty());
}

}  // namespace
