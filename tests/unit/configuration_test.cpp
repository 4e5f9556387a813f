// Configuration files, default paths and fields, and the datastore list.
#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"
#include "vesk/datastore.h"

namespace {

using namespace vesk::datastore;
using vesk::test::CerrCapture;
using vesk::test::ScopedEnv;
using vesk::test::TempDir;
using Utility = DataStoreParseUtility;

struct DocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using Doc = std::unique_ptr<xmlDoc, DocFree>;

Doc read_doc(const std::string& path) {
    Doc doc(xmlReadFile(path.c_str(), nullptr, 0));
    if (!doc) throw std::runtime_error("test document not readable: " + path);
    return doc;
}

Doc parse_text(const std::string& text) {
    Doc doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), "inline.xml", nullptr, 0));
    if (!doc) throw std::runtime_error("test document not well-formed: " + text);
    return doc;
}

// Sets the error log's level for the life of the object.
class ScopedLogLevel {
public:
    explicit ScopedLogLevel(int level) : old_(vesk::log::LOG_LEVEL) {
        vesk::log::LOG_LEVEL = level;
    }
    ~ScopedLogLevel() { vesk::log::LOG_LEVEL = old_; }

private:
    int old_;
};

// Collects what is written to file descriptor 2 (where libxml2 prints).
class StderrFdCapture {
public:
    explicit StderrFdCapture(const std::string& path) : path_(path) {
        std::fflush(stderr);
        saved_ = ::dup(2);
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, 2);
        ::close(fd);
    }
    ~StderrFdCapture() { restore(); }
    std::string text() {
        restore();
        return vesk::test::read_file(path_);
    }

private:
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        ::dup2(saved_, 2);
        ::close(saved_);
        saved_ = -1;
    }
    std::string path_;
    int saved_ = -1;
};

std::string configuration(const std::string& attributes) {
    return "<?xml version=\"1.0\"?>\n<configuration " + attributes + "/>\n";
}

const std::string kGoodAttributes =
    "instance_name=\"one\" type=\"sqlite3\" source_types=\"data\" "
    "source_parameters=\"source=/tmp/one.db\"";

class ConfigurationTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved_install_ = Utility::get_default_install_path();
        saved_extension_ = Utility::get_default_extension_path();
        Utility::set_default_install_path(dir_.path());
        std::filesystem::create_directories(dir_.file("etc/datastore"));
    }
    void TearDown() override {
        Utility::default_install_path = saved_install_;
        Utility::default_extension_path = saved_extension_;
        Utility::db_vec.clear();
    }

    // Writes a group file whose body (inside the root element) is `body`.
    std::string group_file(const std::string& body) {
        return dir_.write("group.xml", "<?xml version=\"1.0\"?>\n<datastores>" + body +
                                           "</datastores>\n");
    }

    std::vector<DataStoreConfig> parse_group(const std::string& body,
                                             const DataStoreConfig& fallback = {}) {
        Doc doc = read_doc(group_file(body));
        return Utility::parse_db_configs(xmlDocGetRootElement(doc.get()), fallback);
    }

    TempDir dir_;
    std::string saved_install_;
    std::string saved_extension_;
};

// ---- the group-file walk ----

struct WalkFailure {
    const char* name;
    std::string bad_entry;  // DIR stands for a folder holding a good configuration
    std::string message;
};

class GroupWalkFailureTest : public ConfigurationTest,
                             public ::testing::WithParamInterface<WalkFailure> {};

TEST_P(GroupWalkFailureTest, LogsAtErrorLevelAndKeepsEarlierEntries) {
    std::filesystem::create_directories(dir_.file("good"));
    dir_.write("good/default_sqlite.xml", configuration(kGoodAttributes));
    std::string bad = GetParam().bad_entry;
    if (const auto pos = bad.find("DIR"); pos != std::string::npos)
        bad.replace(pos, 3, dir_.file("good"));
    const std::string body = "<group><entry config_path=\"" + dir_.file("good") +
                             "\">libgood.so</entry>" + bad +
                             "<entry>libnever.so</entry></group>";
    Doc doc = read_doc(group_file(body));

    std::vector<DataStoreConfig> out;
    {
        ScopedLogLevel level(3);
        CerrCapture cerr;
        EXPECT_FALSE(vesk::xml::parse_the_group_tags(xmlDocGetRootElement(doc.get()),
                                                     Utility::ParseConfig(), out));
        EXPECT_EQ(cerr.lines(), std::vector<std::string>{GetParam().message});
    }
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].extension_name, "libgood.so");
    EXPECT_EQ(out[0].instance_name, "one");

    // Level 3 exactly: a log level of 2 drops the message.
    ScopedLogLevel level(2);
    CerrCapture cerr;
    out.clear();
    EXPECT_FALSE(vesk::xml::parse_the_group_tags(xmlDocGetRootElement(doc.get()),
                                                 Utility::ParseConfig(), out));
    EXPECT_EQ(cerr.text(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Messages, GroupWalkFailureTest,
    ::testing::Values(
        WalkFailure{"EmptyEntry", "<entry></entry>", "empty entry tag not allowed"},
        WalkFailure{"EmptyEntryWithComment", "<entry><!-- nothing --></entry>",
                    "empty entry tag not allowed"},
        WalkFailure{"EmptyConfigPath", "<entry config_path=\"\">libx.so</entry>",
                    "Invalid path attribute"},
        WalkFailure{"EmptyConfigFile", "<entry config_path=\"DIR\" config_file=\"\">libx.so</entry>",
                    "Invalid file attribute"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ConfigurationTest, FailureAtFirstEntryYieldsTheFallback) {
    DataStoreConfig fallback;
    fallback.instance_name = "fallback";
    CerrCapture cerr;
    const auto configs = parse_group("<group><entry config_file=\"\">libx.so</entry></group>",
                                     fallback);
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0].instance_name, "fallback");
    EXPECT_EQ(cerr.lines(), std::vector<std::string>{"Invalid file attribute"});
}

TEST_F(ConfigurationTest, GroupWithEmptyPathAttributeIsRefused) {
    CerrCapture cerr;
    const auto configs = parse_group("<group path=\"\"><entry>libx.so</entry></group>");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_TRUE(configs[0].extension_name.empty());  // the (default) fallback
    EXPECT_EQ(cerr.lines(), std::vector<std::string>{"Invalid path attribute"});
}

TEST_F(ConfigurationTest, NoGroupYieldsOnlyTheFallbackAndOtherElementsAreSkipped) {
    DataStoreConfig fallback;
    fallback.instance_name = "fallback";
    fallback.type = odbc;
    auto configs = parse_group("<other><entry>libx.so</entry></other>", fallback);
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0].instance_name, "fallback");
    EXPECT_EQ(configs[0].type, odbc);

    // Only <entry> children of <group> count; text and comments between them too are skipped.
    dir_.write("etc/datastore/default_sqlite.xml", configuration(kGoodAttributes));
    configs = parse_group(
        "<group> <!-- c --> <note>libno.so</note> <entry>liba.so</entry> text </group>"
        "<entry>libno2.so</entry><group><entry>libb.so</entry></group>",
        fallback);
    ASSERT_EQ(configs.size(), 2u);
    EXPECT_EQ(configs[0].extension_name, "liba.so");
    EXPECT_EQ(configs[1].extension_name, "libb.so");
}

TEST_F(ConfigurationTest, EntryDefaultsAndPathsResolveAgainstTheInstallPath) {
    ScopedEnv home("HOME", dir_.path());
    dir_.write("etc/datastore/default_sqlite.xml", configuration(kGoodAttributes));
    std::filesystem::create_directories(dir_.file("etc/datastore/sub"));
    dir_.write("etc/datastore/sub/two.xml",
               configuration("instance_name=\" two \" type=\"odbc\" source_types=\"stream\" "
                             "source_parameters=\" dsn \" unknown=\"x\""));
    std::filesystem::create_directories(dir_.file("elsewhere"));
    dir_.write("elsewhere/three.xml",
               configuration("instance_name=\"three\" type=\"other\" "
                             "source_types=\"data|stream\" source_parameters=\"p\""));

    const auto configs = parse_group(
        "<group><entry> libsqlite.so </entry></group>"
        "<group path=\"libs//x\"><entry config_path=\"sub\" config_file=\" two.xml \">"
        "libodbc.so</entry></group>"
        "<group path=\"$HOME/plugins\"><entry config_path=\"$HOME/elsewhere\" "
        "config_file=\"three.xml\">libother.so</entry></group>");
    ASSERT_EQ(configs.size(), 3u);

    // No attributes: default_sqlite.xml under <install>/etc/datastore, library in the install path.
    EXPECT_EQ(configs[0].instance_name, "one");
    EXPECT_EQ(configs[0].extension_name, " libsqlite.so ");  // entry text as it stands
    EXPECT_EQ(configs[0].extension_path, dir_.path());
    EXPECT_EQ(configs[0].type, sqlite3);
    EXPECT_EQ(configs[0].source_types, std::bitset<2>("01"));

    // Relative paths: the library below the install path, the configuration below etc/datastore.
    EXPECT_EQ(configs[1].instance_name, "two");
    EXPECT_EQ(configs[1].extension_path, dir_.file("libs/x"));
    EXPECT_EQ(configs[1].type, odbc);
    EXPECT_EQ(configs[1].source_parameters, "dsn");
    EXPECT_EQ(configs[1].source_types, std::bitset<2>("10"));

    // "$HOME" paths are expanded, not joined to the install path.
    EXPECT_EQ(configs[2].instance_name, "three");
    EXPECT_EQ(configs[2].extension_path, dir_.file("plugins"));
    EXPECT_EQ(configs[2].type, other);
    EXPECT_EQ(configs[2].source_types, std::bitset<2>("11"));
}

TEST_F(ConfigurationTest, UnreadableConfigurationFileThrowsWithItsPathAndQuietly) {
    dir_.write("etc/datastore/broken.xml", "<configuration instance_name=\"x\"");
    const std::string missing = dir_.file("etc/datastore/missing.xml");
    const std::string broken = dir_.file("etc/datastore/broken.xml");
    for (const auto& [file, path] : {std::pair{"missing.xml", missing}, {"broken.xml", broken}}) {
        StderrFdCapture fd2(dir_.file("fd2.txt"));
        CerrCapture cerr;
        try {
            parse_group(std::string("<group><entry config_file=\"") + file +
                        "\">libx.so</entry></group>");
            ADD_FAILURE() << "no exception for " << file;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), "Error opening datastore configuration: " + path);
        }
        EXPECT_EQ(fd2.text(), "") << file;
        EXPECT_EQ(cerr.text(), "") << file;
    }
}

TEST_F(ConfigurationTest, ShippedFilesParse) {
    const std::string etc = vesk::test::kSourceDir + "/datastore/etc/";
    Doc doc = read_doc(etc + "default_sqlite.xml");
    DataStoreConfig config;
    ASSERT_TRUE(Utility::parse_xml(xmlDocGetRootElement(doc.get()), config));
    EXPECT_EQ(config.instance_name, "vesk_default");
    EXPECT_EQ(config.type, sqlite3);
    EXPECT_EQ(config.source_types, std::bitset<2>("01"));
    EXPECT_EQ(config.source_parameters,
              "read_only=false|source=\"$HOME/.vesk/2019.2.1/vesk.db\"");
    EXPECT_EQ(config.source_parameters, "read_only=false|source=\"" + DEFAULT_DATA_SOURCE + "\"");

    // The example group file, read against the staged install tree.
    Utility::set_default_install_path(vesk::test::kStageDir);
    Doc group = read_doc(vesk::test::kStageDir + "/etc/datastore/datastore_group.xml");
    const auto configs = Utility::parse_db_configs(xmlDocGetRootElement(group.get()), {});
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0].instance_name, "vesk_default");
    EXPECT_EQ(configs[0].extension_name, "libsqlite.so");
    EXPECT_EQ(configs[0].extension_path, vesk::test::kStageDir + "/datastore/lumok64");
}

// ---- the attributes of a configuration element ----

DataStoreConfig parse_attributes(const std::string& attributes) {
    Doc doc = parse_text(configuration(attributes));
    DataStoreConfig config;
    Utility::parse_xml(xmlDocGetRootElement(doc.get()), config);
    return config;
}

std::string failure_of(const std::string& attributes) {
    try {
        parse_attributes(attributes);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no exception)";
}

TEST(ParseXml, ReportsBadAttributesInKeyOrder) {
    const std::string params = "source_parameters=\"p\" ";
    // source_types comes before type: of two wrong attributes it is reported.
    EXPECT_EQ(failure_of(params + "type=\"mysql\" source_types=\"disk\""),
              "Invalid value for attribute source types disk");
    // source_parameters comes before both, and is reported under "type".
    EXPECT_EQ(failure_of("source_parameters=\" \" type=\"mysql\" source_types=\"disk\""),
              "Invalid value for attribute type ");
    EXPECT_EQ(failure_of(params + "type=\"mysql\" source_types=\"data\""),
              "Invalid value for attribute type mysql");
    EXPECT_EQ(failure_of(params + "type=\"SQLite3\" source_types=\"data\""),
              "Invalid value for attribute type SQLite3");
    // Absent attributes default to "", which no table knows.
    EXPECT_EQ(failure_of(params + "source_types=\"data\""), "Invalid value for attribute type ");
    EXPECT_EQ(failure_of(params + "type=\"sqlite3\""),
              "Invalid value for attribute source types ");
    EXPECT_EQ(failure_of(params + "type=\"sqlite3\" source_types=\"data|\""),
              "Invalid value for attribute source types ");
    EXPECT_EQ(failure_of(params + "type=\"sqlite3\" source_types=\"data| stream\""),
              "Invalid value for attribute source types  stream");
    EXPECT_EQ(failure_of("type=\"sqlite3\" source_types=\"data\""),
              "Invalid value for attribute type ");
}

TEST(ParseXml, ReadsStrippedValuesAndSourceTypeBits) {
    auto config = parse_attributes(
        "instance_name=\"  a b  \" type=\" odbc \" source_types=\" data|stream \" "
        "source_parameters=\" source=x|read_only=true \" colour=\"red\"");
    EXPECT_EQ(config.instance_name, "a b");
    EXPECT_EQ(config.type, odbc);
    EXPECT_EQ(config.source_parameters, "source=x|read_only=true");
    EXPECT_TRUE(config.source_types.test(data));
    EXPECT_TRUE(config.source_types.test(stream));

    config = parse_attributes(
        "type=\"other\" source_types=\"stream\" source_parameters=\"p\"");
    EXPECT_EQ(config.instance_name, "");
    EXPECT_EQ(config.source_types, std::bitset<2>("10"));
}

TEST(ParseXml, OtherRootLeavesTheRecordAndNullIsRefused) {
    Doc doc = parse_text("<settings instance_name=\"x\" type=\"bogus\"/>");
    DataStoreConfig config;
    config.instance_name = "kept";
    config.type = other;
    config.source_types.set(stream);
    EXPECT_TRUE(Utility::parse_xml(xmlDocGetRootElement(doc.get()), config));
    EXPECT_EQ(config.instance_name, "kept");
    EXPECT_EQ(config.type, other);
    EXPECT_EQ(config.source_types, std::bitset<2>("10"));
    EXPECT_FALSE(Utility::parse_xml(nullptr, config));
}

// ---- paths and defaults ----

TEST_F(ConfigurationTest, GeneratePathJoinsExpandsAndSqueezes) {
    ScopedEnv home("HOME", dir_.path());
    EXPECT_EQ(Utility::generate_path("$HOME/a", "f.xml", "/base"), dir_.path() + "/a/f.xml");
    EXPECT_EQ(Utility::generate_path("/abs//x/", "f", "/base"), "/abs/x/f");
    EXPECT_EQ(Utility::generate_path("rel/x", "f", "/base/"), "/base/rel/x/f");
    EXPECT_EQ(Utility::generate_path("", "f", "/base"), "/base/f");
    EXPECT_EQ(Utility::generate_path("", "", "/base//"), "/base/");

    // "." and relative results are taken against the working folder.
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(Utility::generate_path("./sub", "f", "/base"), here + "/./sub/f");
    EXPECT_EQ(Utility::generate_path("sub", "f", ""), here + "/sub/f");
    EXPECT_EQ(Utility::generate_path("", "", ""), here);
    std::filesystem::current_path(cwd);
}

TEST_F(ConfigurationTest, DefaultPathSettersExpandAndMakeAbsolute) {
    ScopedEnv home("HOME", dir_.path());
    Utility::set_default_install_path("$HOME/inst");
    EXPECT_EQ(Utility::get_default_install_path(), dir_.path() + "/inst");
    Utility::set_default_extension_path("/ext/");
    EXPECT_EQ(Utility::get_default_extension_path(), "/ext/");
}

TEST_F(ConfigurationTest, FillInVacantFieldsByType) {
    Utility::set_default_install_path("/inst");
    Utility::set_default_extension_path("/ext/");
    std::vector<DataStoreConfig> configs(4);
    configs[1].type = odbc;
    configs[2].type = other;
    configs[3].instance_name = "mine";
    configs[3].extension_name = "libmine.so";
    configs[3].extension_path = "/plugins";
    configs[3].source_parameters = "source=x";
    configs[3].source_types.set(stream);
    Utility::fillInVacantFields(configs);

    EXPECT_EQ(configs[0].instance_name, "vesk_default");
    EXPECT_EQ(configs[0].extension_name, "libsqlite.so");
    EXPECT_EQ(configs[0].extension_path, "/inst//ext/");
    EXPECT_EQ(configs[0].source_parameters,
              "read_only=false|source=\"$HOME/.vesk/2019.2.1/vesk.db\"");
    EXPECT_EQ(configs[0].source_types, std::bitset<2>("01"));

    EXPECT_EQ(configs[1].extension_name, "libodbc.so");
    EXPECT_EQ(configs[1].source_parameters, "odbc_default_dsn");

    EXPECT_EQ(configs[2].instance_name, "vesk_default");
    EXPECT_EQ(configs[2].extension_name, "");
    EXPECT_EQ(configs[2].extension_path, "/inst//ext/");
    EXPECT_EQ(configs[2].source_parameters, "");
    EXPECT_EQ(configs[2].source_types, std::bitset<2>("01"));

    EXPECT_EQ(configs[3].instance_name, "mine");
    EXPECT_EQ(configs[3].extension_name, "libmine.so");
    EXPECT_EQ(configs[3].extension_path, "/plugins");
    EXPECT_EQ(configs[3].source_parameters, "source=x");
    EXPECT_EQ(configs[3].source_types, std::bitset<2>("10"));
}

// ---- finding and selecting datastores ----

DataStoreConfig named(const std::string& name, DatabaseType type, const std::string& bits) {
    DataStoreConfig config;
    config.instance_name = name;
    config.type = type;
    config.source_types = std::bitset<2>(bits);
    return config;
}

std::vector<std::string> names_of(const DataStoreHandles& handles) {
    std::vector<std::string> names;
    for (const auto& handle : handles) names.push_back(handle.first.instance_name);
    return names;
}

std::vector<std::string> names_of(const std::vector<DataStoreConfig>& configs) {
    std::vector<std::string> names;
    for (const auto& config : configs) names.push_back(config.instance_name);
    return names;
}

TEST_F(ConfigurationTest, LocateDatastoresFollowsTheRequestedNames) {
    auto first_a = named("a", sqlite3, "01");
    first_a.source_parameters = "first";
    auto second_a = named("a", sqlite3, "01");
    second_a.source_parameters = "second";
    Utility::db_vec.emplace_back(first_a, std::weak_ptr<DataStoreExtension>());
    Utility::db_vec.emplace_back(named("b", odbc, "01"), std::weak_ptr<DataStoreExtension>());
    Utility::db_vec.emplace_back(second_a, std::weak_ptr<DataStoreExtension>());

    EXPECT_TRUE(Utility::locate_datastores({}).empty());
    EXPECT_TRUE(Utility::locate_datastores({"missing", "A"}).empty());
    const auto found = Utility::locate_datastores({"b", "x", "a", "b"});
    EXPECT_EQ(names_of(found), (std::vector<std::string>{"b", "a", "b"}));
    EXPECT_EQ(found[1].first.source_parameters, "first");  // the first match in db_vec
    EXPECT_EQ(names_of(Utility::get_datastore_vector()),
              (std::vector<std::string>{"a", "b", "a"}));
}

TEST(GetConfigurationsByType, SubsetOfSourceTypesAndTypeList) {
    CombinedRType from;
    from.configs = {named("data", sqlite3, "01"), named("stream", odbc, "10"),
                    named("both", other, "11"), named("none", sqlite3, "00")};
    for (const auto& config : from.configs)
        from.open_instances.emplace_back(named("open-" + config.instance_name, config.type,
                                               config.source_types.to_string()),
                                         std::weak_ptr<DataStoreExtension>());
    using Names = std::vector<std::string>;
    const auto select = [&](const std::string& bits, std::vector<DatabaseType> types) {
        return names_of(Utility::get_configurations_by_type(from, std::bitset<2>(bits), types,
                                                            false)
                            .configs);
    };

    EXPECT_EQ(select("00", {}), Names{});
    // Every requested bit must be set in the entry: {data, stream} is not an overlap test.
    EXPECT_EQ(select("11", {}), Names{"both"});
    EXPECT_EQ(select("01", {}), (Names{"data", "both"}));
    EXPECT_EQ(select("10", {sqlite3, odbc}), Names{"stream"});
    EXPECT_EQ(select("00", {sqlite3}), (Names{"data", "none"}));

    // The flag chooses the open instances; the selection lands in that field only.
    const auto open = Utility::get_configurations_by_type(from, std::bitset<2>("01"), {}, true);
    EXPECT_EQ(names_of(open.open_instances), (Names{"open-data", "open-both"}));
    EXPECT_TRUE(open.configs.empty());
    const auto closed = Utility::get_configurations_by_type(from, std::bitset<2>("01"), {}, false);
    EXPECT_TRUE(closed.open_instances.empty());
}

// ---- opening and closing through the controller ----

// The controller lives while a test holds it; every test starts and ends with
// an empty datastore list.
class DatastoreListTest : public ConfigurationTest {
protected:
    void SetUp() override {
        ConfigurationTest::SetUp();
        controller_ = DataStoreController::createDataStoreController();
    }
    void TearDown() override {
        Utility::clear_db_vector();
        controller_.reset();
        ConfigurationTest::TearDown();
    }

    // A configuration of the scripted test plugin that traces into `trace`.
    DataStoreConfig scripted(const std::string& name, const std::string& trace) {
        DataStoreConfig config;
        config.instance_name = name;
        config.extension_name = "libscripted_plugin.so";
        config.extension_path = vesk::test::kPluginDir;
        config.source_parameters = "trace=" + dir_.file(trace);
        return config;
    }

    std::vector<std::string> trace(const std::string& name) {
        std::vector<std::string> lines;
        std::istringstream in(vesk::test::read_file(dir_.file(name)));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    static std::string echo(const DataStoreHandle& handle, const std::string& text) {
        std::string answer;
        const int32_t status = DataStoreController::createDataStoreController()->control(
            handle.second, 1024, &text, &answer, nullptr);
        return status == DataStoreExtension::OPERATION_SUCCESSFULL ? answer : "(failed)";
    }

    std::shared_ptr<DataStoreController> controller_;
};

TEST_F(DatastoreListTest, GroupFileToOpenInstanceAndBack) {
    const std::string trace_file = dir_.file("trace.log");
    dir_.write("scripted.xml",
               configuration("instance_name=\"scripted\" type=\"other\" source_types=\"data\" "
                             "source_parameters=\"trace=" + trace_file + "|status=0\""));
    auto configs = parse_group("<group path=\"" + vesk::test::kPluginDir +
                               "\"><entry config_path=\"" + dir_.path() +
                               "\" config_file=\"scripted.xml\">libscripted_plugin.so</entry>"
                               "</group>");
    ASSERT_EQ(configs.size(), 1u);
    Utility::insert_db_instance(configs);

    const auto recorded = Utility::get_datastore_vector();
    ASSERT_EQ(names_of(recorded), std::vector<std::string>{"scripted"});
    EXPECT_EQ(recorded[0].first.extension_path, vesk::test::kPluginDir);
    EXPECT_EQ(echo(recorded[0], "ping"), "scripted:ping");

    Utility::clear_db_vector();
    EXPECT_TRUE(Utility::get_datastore_vector().empty());
    EXPECT_TRUE(recorded[0].second.expired());
    EXPECT_EQ(trace("trace.log"),
              (std::vector<std::string>{"create",
                                        "open scripted trace=" + trace_file + "|status=0",
                                        "control scripted 1024", "destroy scripted"}));
}

TEST_F(DatastoreListTest, FailuresLeaveTheListAndEarlierInstancesAlone) {
    std::vector<DataStoreConfig> first{scripted("a", "a.log")};
    Utility::insert_db_instance(first);
    ASSERT_EQ(Utility::db_vec.size(), 1u);

    // "b" opens, then the second "a" is refused: "b" is closed again, "a" stays.
    std::vector<DataStoreConfig> clash{scripted("b", "b.log"), scripted("a", "a2.log")};
    try {
        Utility::insert_db_instance(clash);
        ADD_FAILURE() << "a second instance named a was accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find(", instance a already open"), std::string::npos)
            << e.what();
    }
    EXPECT_EQ(trace("b.log"), (std::vector<std::string>{"create", "open b trace=" +
                                                             dir_.file("b.log"),
                                                         "destroy b"}));

    // A missing library names its path.
    auto missing = scripted("c", "c.log");
    missing.extension_name = "libnot_there.so";
    std::vector<DataStoreConfig> missing_list{missing};
    {
        CerrCapture cerr;  // the loader logs the failed stat
        try {
            Utility::insert_db_instance(missing_list);
            ADD_FAILURE() << "a missing library was accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(vesk::test::kPluginDir + "/libnot_there.so"),
                      std::string::npos)
                << e.what();
        }
    }

    // A broken configuration file fails before anything is opened.
    dir_.write("etc/datastore/default_sqlite.xml", "<configuration");
    EXPECT_THROW(parse_group("<group><entry>libscripted_plugin.so</entry></group>"),
                 std::runtime_error);

    const auto recorded = Utility::get_datastore_vector();
    ASSERT_EQ(names_of(recorded), std::vector<std::string>{"a"});
    EXPECT_EQ(echo(recorded[0], "still"), "a:still");
}

TEST_F(DatastoreListTest, ClearClosesOnlyTheLiveRecordedInstances) {
    // A recorded entry whose instance is gone, and a live, unrecorded instance
    // of the same name, opened directly through the controller.
    std::vector<DataStoreConfig> outsider{scripted("outsider", "o1.log")};
    DataStoreHandles handles;
    (void)controller_->open(outsider, handles);
    Utility::db_vec.push_back(handles.at(0));
    (void)controller_->close({"outsider"});
    ASSERT_TRUE(Utility::db_vec[0].second.expired());
    outsider = {scripted("outsider", "o2.log")};
    (void)controller_->open(outsider, handles);
    const std::weak_ptr<DataStoreExtension> live_outsider = handles.at(0).second;

    Utility::clear_db_vector();
    EXPECT_TRUE(Utility::db_vec.empty());
    EXPECT_FALSE(live_outsider.expired());

    // An empty list closes nothing either.
    Utility::clear_db_vector();
    EXPECT_FALSE(live_outsider.expired());

    std::vector<DataStoreConfig> mine{scripted("mine", "m.log"), scripted("mine2", "m2.log")};
    Utility::insert_db_instance(mine);
    ASSERT_EQ(names_of(Utility::db_vec), (std::vector<std::string>{"mine", "mine2"}));
    Utility::clear_db_vector();
    EXPECT_TRUE(Utility::db_vec.empty());
    EXPECT_EQ(trace("m.log").back(), "destroy mine");
    EXPECT_EQ(trace("m2.log").back(), "destroy mine2");
    EXPECT_FALSE(live_outsider.expired());
    (void)controller_->close({});
}

}  // namespace
