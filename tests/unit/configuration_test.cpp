// Records and name tables; configuration files, default paths and fields, the
// datastore list, SQL files and the schema they make.
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sqlite3.h>

#include "vesk/datastore.h"

#include "test_support.h"

namespace {

using namespace vesk::datastore;
using vesk::test::ScopedEnv;
using Utility = DataStoreParseUtility;
using Names = std::vector<std::string>;

// The attributes of a configuration element.
std::string attributes(const std::string& name, const std::string& type,
                       const std::string& parameters, const std::string& types = "data") {
    return "instance_name=\"" + name + "\" type=\"" + type + "\" source_types=\"" + types +
           "\" source_parameters=\"" + parameters + "\"";
}
const std::string kGoodAttributes = attributes("one", "sqlite3", "source=/tmp/one.db");

DataStoreConfig named(const std::string& name, DatabaseType type, const std::string& bits) {
    DataStoreConfig config;
    config.instance_name = name;
    config.type = type;
    config.source_types = std::bitset<2>(bits);
    return config;
}

// The instance names of a list of configs or of handles.
std::string name_of(const DataStoreConfig& config) { return config.instance_name; }
std::string name_of(const DataStoreHandle& handle) { return handle.first.instance_name; }
template <typename List>
Names names_of(const List& list) {
    Names names;
    for (const auto& element : list) names.push_back(name_of(element));
    return names;
}

// Every field of each config, as "name;type;library;folder;parameters;types".
Names described(const std::vector<DataStoreConfig>& configs) {
    Names out;
    for (const auto& c : configs)
        out.push_back(c.instance_name + ";" + std::to_string(c.type) + ";" + c.extension_name +
                      ";" + c.extension_path + ";" + c.source_parameters + ";" +
                      c.source_types.to_string());
    return out;
}

// Every test runs against a fresh install folder and leaves the process-wide
// defaults and the datastore list as it found them. The controller lives while
// a test holds it.
class ConfigurationTest : public ::testing::Test {
protected:
    void SetUp() override {
        vesk::log::LOG_OUTPUT = 0;
        Utility::set_default_install_path(dir_.path());
        std::filesystem::create_directories(dir_.file("etc/datastore"));
    }
    void TearDown() override {
        Utility::default_install_path = saved_install_;
        Utility::default_extension_path = saved_extension_;
        vesk::log::LOG_LEVEL = saved_level_;
        Utility::clear_db_vector();
        controller_.reset();
    }

    // The root element of the XML text `xml`, kept until the next call.
    xmlNode* root_of(const std::string& xml) {
        doc_.reset(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "t.xml", nullptr, 0));
        return xmlDocGetRootElement(doc_.get());
    }

    // Writes a configuration file with `attributes` below <install>/etc/datastore.
    std::string write_config(const std::string& name, const std::string& attributes) {
        return dir_.write("etc/datastore/" + name, "<configuration " + attributes + "/>\n");
    }

    std::vector<DataStoreConfig> parse_group(const std::string& body,
                                             const DataStoreConfig& fallback = {}) {
        return Utility::parse_db_configs(root_of("<datastores>" + body + "</datastores>"),
                                         fallback);
    }

    // What parse_xml makes of `attributes` on an element named `root`
    // (described), or the message it throws.
    std::string parse_attributes(const std::string& attributes,
                                 const std::string& root = "configuration") {
        DataStoreConfig config = named("kept", other, "00");
        try {
            EXPECT_TRUE(Utility::parse_xml(root_of("<" + root + " " + attributes + "/>"), config));
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return described({config})[0];
    }

    // A configuration of the scripted test plugin; all its instances trace into one file.
    DataStoreConfig scripted(const std::string& name) {
        DataStoreConfig config = named(name, other, "01");
        config.extension_name = "libscripted_plugin.so";
        config.extension_path = vesk::test::kPluginDir;
        config.source_parameters = "trace=" + trace_file_;
        return config;
    }

    // The status of a control call through `handle` (1 when its instance is gone).
    int32_t control(const DataStoreHandle& handle) {
        return controller_->control(handle.second, 7, nullptr, nullptr, nullptr);
    }

    vesk::test::TempDir dir_;
    const std::string trace_file_ = dir_.file("trace.log");
    std::shared_ptr<DataStoreController> controller_ =
        DataStoreController::createDataStoreController();
    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> doc_{nullptr, xmlFreeDoc};
    const std::string saved_install_ = Utility::get_default_install_path();
    const std::string saved_extension_ = Utility::get_default_extension_path();
    const int saved_level_ = vesk::log::LOG_LEVEL;
};

// ---- records and name tables ----

TEST(RecordsTest, SetOrdering) {
    // Provider sets order and deduplicate by rowid alone.
    ProviderInfoSet providers{{5, "a", nullptr}, {2, "b", nullptr}};
    EXPECT_FALSE(providers.insert({5, "c", nullptr}).second);
    ASSERT_EQ(providers.size(), 2u);
    EXPECT_EQ(providers.begin()->rowid, 2);
    EXPECT_EQ(providers.rbegin()->name, "a");

    // Snapshot sets by baseline_id alone, byte-wise: upper case first.
    SnapshotInfoSet snapshots{{"b", 1}, {"a", 2}};
    EXPECT_FALSE(snapshots.insert({"b", 3}).second);
    EXPECT_EQ(snapshots.rbegin()->latest_unique_timestamp, 1);
    snapshots.insert({"Z", 0});
    EXPECT_EQ(snapshots.begin()->baseline_id, "Z");
}

TEST(VocabularyTest, NameTablesAndDefaults) {
    EXPECT_EQ(nodelist_method_map.count("NONE"), 0u);  // read in lower case only
    std::set<int> priorities;                          // no priority 0
    for (const auto& entry : syslog_level_map) priorities.insert(entry.second);
    EXPECT_EQ(priorities, (std::set<int>{1, 2, 3, 4, 5, 6, 7}));

    // Severity bands meet without a gap or an overlap.
    const std::vector<std::pair<int, std::string>> scores{
        {0, "informational"}, {24, "informational"}, {25, "warning"}, {74, "warning"},
        {75, "critical"},     {100, "critical"},     {101, ""}};
    for (const auto& [score, expected] : scores) {
        std::string found;
        for (const auto& [name, band] : severity_band_map) {
            if (score >= std::get<0>(band) && score <= std::get<1>(band)) found += name;
        }
        EXPECT_EQ(found, expected) << score;
    }
}

// ---- the group-file walk ----

TEST_F(ConfigurationTest, GroupWalkLogsItsRefusalsAtErrorLevelAndKeepsEarlierEntries) {
    write_config("default_sqlite.xml", kGoodAttributes);
    const std::string good = "<group><entry>libgood.so</entry>";
    const std::vector<std::pair<std::string, std::string>> cases{
        {good + "<entry></entry>", "empty entry tag not allowed"},
        {good + "<entry><!-- nothing --></entry>", "empty entry tag not allowed"},
        {good + "<entry config_path=\"\">libx.so</entry>", "Invalid path attribute"},
        {good + "<entry config_path=\"etc\" config_file=\"\">libx.so</entry>",
         "Invalid file attribute"},
        {good + "</group><group path=\"\"><entry>libx.so</entry>", "Invalid path attribute"}};
    for (const auto& [body, message] : cases) {
        // Logged at level 3 exactly: a log level of 2 drops the message.
        for (const int level : {3, 2}) {
            vesk::log::LOG_LEVEL = level;
            vesk::test::CerrCapture cerr;
            std::vector<DataStoreConfig> out;
            EXPECT_FALSE(vesk::xml::parse_the_group_tags(
                root_of("<g>" + body + "<entry>libnever.so</entry></group></g>"),
                Utility::ParseConfig(), out));
            EXPECT_EQ(cerr.lines(), level == 3 ? Names{message} : Names{}) << body;
            ASSERT_EQ(out.size(), 1u) << body;
            EXPECT_EQ(out[0].extension_name, "libgood.so");
        }
    }
}

TEST_F(ConfigurationTest, EntriesOfGroupsResolveAgainstTheInstallPath) {
    vesk::log::LOG_LEVEL = 2;
    const DataStoreConfig fallback = named("fallback", odbc, "00");
    for (const std::string body : {"<other><entry>libx.so</entry></other>",
                                   "<group><entry config_file=\"\">libx.so</entry></group>"})
        EXPECT_EQ(names_of(parse_group(body, fallback)), Names{"fallback"}) << body;

    // Shell operators (inputs that crashed the C library's wordexp) stay literal
    // in group paths and in the source a datastore is opened at.
    ScopedEnv home("HOME", dir_.path());
    ::unsetenv("NOPE");
    ::unsetenv("OM");
    const std::string nope = "source=" + dir_.path() + "/${NOPE?}/x.db";
    const std::string arith = "source=" + dir_.path() + "/$(())";
    write_config("default_sqlite.xml", attributes("one", "sqlite3", nope));
    write_config("arith.xml", attributes("arith", "sqlite3", arith));
    std::filesystem::create_directories(dir_.file("etc/datastore/sub"));
    write_config("sub/two.xml",
                 "instance_name=\" two \" type=\"odbc\" source_types=\"stream\" "
                 "source_parameters=\" dsn \" unknown=\"x\"");
    // Text, comments, other elements and entries outside a group are skipped.
    const auto configs = parse_group(
        "<group> <!-- c --> <note>libno.so</note> <entry> libsqlite.so </entry> text </group>"
        "<entry>libno2.so</entry><group path=\"libs//x\"><entry config_path=\"sub\" "
        "config_file=\" two.xml \">libodbc.so</entry></group><group path=\"${OM?}/a\">"
        "<entry config_file=\"arith.xml\">libsqlite.so</entry></group>");
    // No attributes: default_sqlite.xml under <install>/etc/datastore, library in
    // the install path, the entry text as it stands. Relative paths: the library
    // below the install path, the configuration below etc/datastore; a group
    // path that is not expanded is taken against the working folder.
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(described(configs),
              (Names{"one;0; libsqlite.so ;" + dir_.path() + ";" + nope + ";01",
                     "two;1;libodbc.so;" + dir_.file("libs/x") + ";dsn;10",
                     "arith;0;libsqlite.so;" + here + "/${OM?}/a;" + arith + ";01"}));

    // Opened by the real SQLite extension: the files have the literal names.
    for (auto config : {configs[0], configs[2]}) {
        config.extension_name = "libsqlite.so";
        config.extension_path = vesk::test::kStageDir + "/datastore/lumok64";
        Utility::load_utest_config(config, true);
    }
    EXPECT_TRUE(std::filesystem::is_regular_file(dir_.file("${NOPE?}/x.db")));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir_.file("$(())")));
}

// Every refusal of a configuration file named by a group entry: the walk
// throws the fixed text alone, and exactly one level-3 line that says why and
// names the file reaches standard error (libxml2 prints nothing itself). A
// document that passes is walked.
TEST_F(ConfigurationTest, UnreadableOrUnsafeConfigurationFilesAreRefusedWithOneLine) {
    const std::string good = "<configuration " + kGoodAttributes + "/>";
    std::string big = "<configuration " + kGoodAttributes + ">";
    big += std::string(Utility::max_config_file_size, ' ') + "</configuration>";
    std::string at_limit = good;
    at_limit.resize(Utility::max_config_file_size, ' ');
    std::filesystem::create_directories(dir_.file("etc/datastore/folder"));
    ASSERT_EQ(::mkfifo(dir_.file("etc/datastore/fifo").c_str(), 0600), 0);
    struct Case {
        std::string name;
        std::string text;    // not written when empty
        std::string reason;  // "" when the file is accepted
    };
    const std::vector<Case> cases{
        {"big.xml", big,
         "larger than the limit of 1048576 bytes (" + std::to_string(big.size()) + " bytes)"},
        {"gzip.xml", std::string("\x1f\x8b\x08\x00", 4) + good, "compressed file (gzip)"},
        {"xz.xml", std::string("\xfd\x37zXZ\0", 6) + good, "compressed file (xz)"},
        {"entity.xml",
         "<!DOCTYPE configuration [<!ENTITY a \"aaaa\">]><configuration type=\"sqlite3\" "
         "source_types=\"data\" source_parameters=\"p\" instance_name=\"&a;&a;\"/>",
         "the document type declares entities"},
        {"pentity.xml", "<!DOCTYPE configuration [<!ENTITY % p \"\">]>" + good,
         "the document type declares entities"},
        {"system.xml", "<!DOCTYPE configuration SYSTEM \"c.dtd\">" + good,
         "the document type names an external DTD subset"},
        {"public.xml", "<!DOCTYPE configuration PUBLIC \"-//x//y\" \"c.dtd\">" + good,
         "the document type names an external DTD subset"},
        {"empty.xml", " ", "Start tag expected, '<' not found (line 1, column 2)"},
        {"mismatch.xml", "<configuration>\n  <a></b>\n</configuration>",
         "Opening and ending tag mismatch: a line 2 and b (line 2, column 10)"},
        {"folder", "", "not a regular file"},
        {"fifo", "", "not a regular file"},
        {"missing.xml", "", "cannot read: No such file or directory"},
        {"dtd.xml", "<!DOCTYPE configuration [<!ELEMENT configuration EMPTY>]>" + good, ""},
        {"limit.xml", at_limit, ""}};
    vesk::log::LOG_LEVEL = 3;
    for (const auto& c : cases) {
        const std::string file = dir_.file("etc/datastore/" + c.name);
        if (!c.text.empty()) dir_.write("etc/datastore/" + c.name, c.text);
        const auto walk = [&] {
            return parse_group("<group><entry config_file=\"" + c.name +
                               "\">libx.so</entry></group>");
        };
        ::testing::internal::CaptureStderr();
        if (c.reason.empty())
            EXPECT_EQ(names_of(walk()), Names{"one"}) << c.name;
        else
            EXPECT_THAT(walk, ::testing::ThrowsMessage<std::runtime_error>(
                                  "Error opening datastore configuration"))
                << c.name;
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  c.reason.empty() ? "" : c.reason + " in datastore configuration " + file + "\n");
    }
}

// ---- the attributes of a configuration element ----

TEST_F(ConfigurationTest, ParseXmlStripsValuesAndReportsBadAttributesInKeyOrder) {
    const std::string bad = "Invalid value for attribute ", params = "source_parameters=\"p\" ";
    const std::vector<std::pair<std::string, std::string>> cases{
        // source_types comes before type: of two wrong attributes it is reported.
        {params + "type=\"mysql\" source_types=\"disk\"", bad + "source types disk"},
        // source_parameters comes before both, and is reported under "type".
        {"source_parameters=\" \" type=\"mysql\" source_types=\"disk\"", bad + "type "},
        {params + "type=\"mysql\" source_types=\"data\"", bad + "type mysql"},
        {params + "type=\"SQLite3\" source_types=\"data\"", bad + "type SQLite3"},
        // Absent attributes default to "", which no table knows; empty pieces count.
        {params + "type=\"sqlite3\"", bad + "source types "},
        {params + "type=\"sqlite3\" source_types=\"data|\"", bad + "source types "},
        {params + "type=\"sqlite3\" source_types=\"data| stream\"", bad + "source types  stream"},
        // Values are stripped, unknown attributes ignored, an absent name emptied.
        {"instance_name=\"  a b  \" type=\" odbc \" source_types=\" data|stream \" "
         "source_parameters=\" source=x|read_only=true \" colour=\"red\"",
         "a b;1;;;source=x|read_only=true;11"},
        {"type=\"other\" source_types=\"stream\" source_parameters=\"p\"", ";2;;;p;10"}};
    for (const auto& [attributes, expected] : cases)
        EXPECT_EQ(parse_attributes(attributes), expected) << attributes;

    // Other roots are left alone.
    EXPECT_EQ(parse_attributes("instance_name=\"x\" type=\"bogus\"", "settings"), "kept;2;;;;00");
    DataStoreConfig config;
    EXPECT_FALSE(Utility::parse_xml(nullptr, config));
}

// ---- paths and defaults ----

TEST_F(ConfigurationTest, PathsJoinExpandAndSqueeze) {
    ScopedEnv home("HOME", dir_.path());
    EXPECT_EQ(Utility::generate_path("$HOME/a", "f.xml", "/base"), dir_.path() + "/a/f.xml");
    EXPECT_EQ(Utility::generate_path("/abs//x/", "f", "/base"), "/abs/x/f");
    Utility::set_default_install_path("$HOME/inst");
    EXPECT_EQ(Utility::get_default_install_path(), dir_.path() + "/inst");

    // "." and relative results are taken against the working folder.
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(Utility::generate_path("./sub", "f", "/base"), here + "/./sub/f");
    EXPECT_EQ(Utility::generate_path("sub", "f", ""), here + "/sub/f");
    EXPECT_EQ(Utility::generate_path("", "", ""), here);
}

TEST_F(ConfigurationTest, FillInVacantFieldsByType) {
    Utility::set_default_install_path("/inst");
    Utility::set_default_extension_path("/ext/");
    std::vector<DataStoreConfig> configs{named("", DatabaseType::sqlite3, "00"),
                                         named("", odbc, "00"), named("", other, "00"),
                                         named("mine", other, "10")};
    configs[3].extension_name = "libmine.so";
    configs[3].extension_path = "/plugins";
    configs[3].source_parameters = "source=x";
    Utility::fillInVacantFields(configs);
    EXPECT_EQ(described(configs),
              (Names{"vesk_default;0;libsqlite.so;/inst//ext/;"
                     "read_only=false|source=\"$HOME/.vesk/2019.2.1/vesk.db\";01",
                     "vesk_default;1;libodbc.so;/inst//ext/;odbc_default_dsn;01",
                     "vesk_default;2;;/inst//ext/;;01", "mine;2;libmine.so;/plugins;source=x;10"}));
}

// ---- finding and selecting datastores ----

TEST_F(ConfigurationTest, LocateDatastoresFollowsTheRequestedNames) {
    auto first_a = named("a", DatabaseType::sqlite3, "01");
    first_a.source_parameters = "first";
    for (const auto& config :
         {first_a, named("b", odbc, "01"), named("a", DatabaseType::sqlite3, "01")})
        Utility::db_vec.emplace_back(config, std::weak_ptr<DataStoreExtension>());

    EXPECT_TRUE(Utility::locate_datastores({}).empty());
    EXPECT_TRUE(Utility::locate_datastores({"missing", "A"}).empty());
    const auto found = Utility::locate_datastores({"b", "x", "a", "b"});
    EXPECT_EQ(names_of(found), (Names{"b", "a", "b"}));
    EXPECT_EQ(found[1].first.source_parameters, "first");  // the first match in db_vec
}

TEST(GetConfigurationsByType, SubsetOfSourceTypesAndTypeList) {
    CombinedRType from;
    from.configs = {named("data", DatabaseType::sqlite3, "01"), named("stream", odbc, "10"),
                    named("both", other, "11"), named("none", DatabaseType::sqlite3, "00")};
    for (const auto& c : from.configs)
        from.open_instances.emplace_back(
            named("open-" + c.instance_name, c.type, c.source_types.to_string()),
            std::weak_ptr<DataStoreExtension>());
    // The names in both fields of the result: the open instances are "open-...".
    const auto select = [&](const std::string& bits, std::vector<DatabaseType> types,
                            bool open = false) {
        const auto found =
            Utility::get_configurations_by_type(from, std::bitset<2>(bits), types, open);
        Names names = names_of(found.configs);
        for (const auto& name : names_of(found.open_instances)) names.push_back(name);
        return names;
    };
    EXPECT_EQ(select("00", {}), Names{});
    // Every requested bit must be set in the entry: {data, stream} is not an overlap test.
    EXPECT_EQ(select("11", {}), Names{"both"});
    EXPECT_EQ(select("01", {}), (Names{"data", "both"}));
    EXPECT_EQ(select("10", {DatabaseType::sqlite3, odbc}), Names{"stream"});
    EXPECT_EQ(select("00", {DatabaseType::sqlite3}), (Names{"data", "none"}));
    // The flag chooses the open instances; the selection lands in that field only.
    EXPECT_EQ(select("01", {}, true), (Names{"open-data", "open-both"}));
}

// ---- opening and closing through the controller ----

TEST_F(ConfigurationTest, GroupFileToOpenInstanceAndBackClosingOnlyLiveEntries) {
    write_config("scripted.xml",
                 attributes("scripted", "other", "trace=" + trace_file_ + "|op7=0"));
    auto configs = parse_group("<group path=\"" + vesk::test::kPluginDir +
                               "\"><entry config_file=\"scripted.xml\">libscripted_plugin.so"
                               "</entry></group>");
    Utility::insert_db_instance(configs);

    // All or nothing: "b" opens, then the second "scripted" is refused, so "b"
    // is closed again and the list is as it was.
    std::vector<DataStoreConfig> clash{scripted("b"), scripted("scripted")};
    EXPECT_THROW(Utility::insert_db_instance(clash), std::runtime_error);
    const auto recorded = Utility::get_datastore_vector();
    ASSERT_EQ(names_of(recorded), Names{"scripted"});
    EXPECT_EQ(control(recorded[0]), 0);

    Utility::clear_db_vector();
    EXPECT_TRUE(Utility::get_datastore_vector().empty());
    EXPECT_TRUE(recorded[0].second.expired());

    // Clearing closes only live recorded instances: neither the stale entry nor,
    // next, an empty list closes a live, unrecorded instance of the same name.
    Utility::db_vec.push_back(recorded[0]);
    std::vector<DataStoreConfig> outsider{scripted("scripted")};
    DataStoreHandles handles;
    (void)controller_->open(outsider, handles);
    Utility::clear_db_vector();
    EXPECT_TRUE(Utility::db_vec.empty());
    Utility::clear_db_vector();
    EXPECT_EQ(control(handles.at(0)), 0);
    EXPECT_EQ(vesk::test::read_file(trace_file_),
              "create\nopen scripted trace=" + trace_file_ + "|op7=0\ncreate\nopen b trace=" +
                  trace_file_ + "\ndestroy b\ncontrol scripted 7\ndestroy scripted\ncreate\n" +
                  "open scripted trace=" + trace_file_ + "\ncontrol scripted 7\n");
}

// ---- SQL files ----

// The first column of every row that `sql` yields on `database`, as text.
Names query(const std::string& database, const std::string& sql) {
    ::sqlite3* db = nullptr;
    Names rows;
    const auto collect = [](void* out, int, char** values, char**) {
        static_cast<Names*>(out)->push_back(values[0] ? values[0] : "NULL");
        return 0;
    };
    if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK)
        sqlite3_exec(db, sql.c_str(), collect, &rows, nullptr);
    sqlite3_close(db);
    return rows;
}

// The message that running `sql_file` into `database` throws ("" if none).
std::string message_of(const std::string& sql_file, const std::string& database) {
    try {
        Utility::create_from_sqlfile(sql_file, database);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

TEST_F(ConfigurationTest, SqlFileRunsOneStatementPerLineAndNamesMissingFiles) {
    const std::string db = dir_.file("fill.db");
    const std::string sql = dir_.write(
        "fill.sql",
        "CREATE TABLE t(a INTEGER, b TEXT);\n\n   \t\n"
        "INSERT INTO t VALUES(1, 'one');\n"
        "INSERT INTO t VALUES(2, 'two'); INSERT INTO t VALUES(3, 'no newline at the end');");
    EXPECT_EQ(message_of(sql, db), "");
    EXPECT_EQ(query(db, "SELECT b FROM t ORDER BY a"),
              (Names{"one", "two", "no newline at the end"}));
    // Running it again appends to the same file: the table exists by then.
    EXPECT_EQ(message_of(sql, db), "SQL command error: CREATE TABLE t(a INTEGER, b TEXT);");

    // A statement over two lines fails at its first; what ran before stays.
    const std::string split = dir_.file("split.db");
    EXPECT_EQ(message_of(dir_.write("split.sql",
                                    "CREATE TABLE before(a INTEGER);\n"
                                    "CREATE TABLE t(a INTEGER,\n  b TEXT);\n"
                                    "CREATE TABLE after(a INTEGER);\n"),
                         split),
              "SQL command error: CREATE TABLE t(a INTEGER,");
    EXPECT_EQ(query(split, "SELECT name FROM sqlite_master"), Names{"before"});

    EXPECT_EQ(message_of(dir_.write("empty.sql", ""), dir_.file("empty.db")), "");
    EXPECT_EQ(query(dir_.file("empty.db"), "SELECT count(*) FROM sqlite_master"), Names{"0"});

    const std::string missing_sql = dir_.file("missing.sql");
    EXPECT_EQ(message_of(missing_sql, dir_.file("a.db")),
              "Unable to open sql file for reading " + missing_sql);
    // The database is opened first, so its failure wins over a missing SQL file.
    const std::string unopenable = dir_.file("no/such/folder/a.db");
    EXPECT_EQ(message_of(missing_sql, unopenable), "Unable to open datastore file " + unopenable);
}

// The scripted test plugin stands in for libsqlite.so in a folder of its own,
// which VESK_DSE_PATH names. The SQL file holds the three create statements
// twice, then a row.
TEST_F(ConfigurationTest, LoadUtestSqlFileBuildsTheSchemaAndRecordsTheDatastore) {
    const std::string dse = dir_.file("dse");
    std::filesystem::create_directories(dse);
    std::filesystem::create_symlink(vesk::test::kPluginDir + "/libscripted_plugin.so",
                                    dse + "/libsqlite.so");
    std::string statements;
    for (int round = 0; round < 2; ++round)
        for (const auto* create : {&default_create_table_query, &default_create_baseline_query,
                                   &default_create_view_query})
            statements += *create + "\n";
    statements += "INSERT INTO " + table_name + " (Provider, version) VALUES ('uname', 42);\n";
    const std::string sql = dir_.write("schema.sql", statements);
    const std::string db = dir_.file("test.db");
    {
        // Without the variable it fails before the database is touched.
        ScopedEnv unset("VESK_DSE_PATH", "");
        ::unsetenv("VESK_DSE_PATH");
        EXPECT_THROW(Utility::load_utest_sql_file(sql, db, true, "x", false), std::logic_error);
        EXPECT_FALSE(std::filesystem::exists(db));
    }
    ScopedEnv env("VESK_DSE_PATH", dse);
    Utility::load_utest_sql_file(sql, db, true, "ro", true);
    Utility::load_utest_sql_file(sql, db, false, "rw", false);  // the file is not run again

    // Both are open, through the stand-in found in VESK_DSE_PATH.
    const auto recorded = Utility::get_datastore_vector();
    EXPECT_FALSE(recorded.at(0).second.expired() || recorded.at(1).second.expired());
    EXPECT_EQ(names_of(recorded), (Names{"ro", "rw"}));
    EXPECT_EQ(recorded[0].first.source_parameters, "source=" + db + "|read_only=true");
    EXPECT_EQ(recorded[1].first.source_parameters, "source=" + db + "|read_only=false");

    // The columns sit where the field maps expect them.
    const auto columns = [&](const std::string& table) {
        return query(db, "SELECT name FROM pragma_table_info('" + table + "')");
    };
    const auto table = columns(table_name), baseline = columns(table_baseline);
    ASSERT_EQ(table.size(), row_field_index.size());
    ASSERT_EQ(baseline.size(), baseline_field_index.size());
    for (const auto& [name, position] : row_field_index) EXPECT_EQ(table[position], name);
    for (const auto& [name, at] : baseline_field_index) EXPECT_EQ(baseline[at], name);
    // The view writes "Version", but SQL matches names without regard to
    // case: it exposes the table's columns, in the table's order.
    EXPECT_EQ(columns(table_view), table);
    EXPECT_EQ(query(db, "SELECT Version || '/' || Provider FROM vesk_1"), Names{"42/uname"});
}

}  // namespace
