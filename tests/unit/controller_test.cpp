// The controller against real plugin libraries from the test plugin folder:
// loading, opening, controlling, closing, the singleton and the failure paths;
// then the parameter pack, the parameter-string parser and the list helpers.
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vesk/datastore.h"

#include "test_support.h"

namespace vesk::datastore {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Pair;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using Texts = std::vector<std::string>;

constexpr int32_t kOk = 0;
constexpr int32_t kFailed = 1;

std::string plugin_path(const std::string& plugin) {
    return vesk::test::kPluginDir + "/lib" + plugin + ".so";
}

// True while the dynamic loader has the library mapped in this process.
bool is_loaded(const std::string& path) {
    void* handle = ::dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) ::dlclose(handle);
    return handle != nullptr;
}

class ControllerTest : public ::testing::Test {
protected:
    // The failure messages below are logged at level 4, to standard error.
    void SetUp() override {
        vesk::log::LOG_LEVEL = 4;
        vesk::log::LOG_OUTPUT = 0;
    }

    // A config of one of the test plugins, tracing into this test's folder.
    DataStoreConfig config(const std::string& name, const std::string& plugin = "scripted_plugin",
                           const std::string& extra = "") const {
        DataStoreConfig c;
        c.instance_name = name;
        c.extension_name = "lib" + plugin + ".so";
        c.extension_path = vesk::test::kPluginDir;
        c.source_parameters = "trace=" + trace_path() + (extra.empty() ? "" : "|" + extra);
        return c;
    }

    std::string trace_path() const { return dir_.file("trace.log"); }

    Texts trace() const {
        Texts lines;
        std::istringstream in(vesk::test::read_file(trace_path()));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    vesk::test::TempDir dir_;
};

TEST_F(ControllerTest, SingletonIsSharedWhileHeldAndReleasedAfterwards) {
    const std::string lib = plugin_path("scripted_plugin");
    {
        auto first = DataStoreController::createDataStoreController();
        auto second = DataStoreController::createDataStoreController();
        EXPECT_EQ(first, second);
        EXPECT_EQ(DataStoreController::ref_ptr.lock(), first);

        std::vector<DataStoreConfig> configs{config("s1")};
        DataStoreHandles handles;
        first->open(configs, handles);
        first.reset();
        // The second holder keeps everything alive.
        EXPECT_FALSE(handles.at(0).second.expired());
        EXPECT_TRUE(is_loaded(lib));
    }
    // The last holder let go: instance destroyed, then the library unloaded.
    EXPECT_TRUE(DataStoreController::ref_ptr.expired());
    EXPECT_THAT(trace(), ElementsAre("create", StartsWith("open s1 "), "destroy s1"));
    EXPECT_FALSE(is_loaded(lib));
}

TEST_F(ControllerTest, LoadMarksSuccessesInOrderOfNewLoads) {
    DataStoreController controller;
    const std::string scripted = plugin_path("scripted_plugin");
    std::vector<DataStoreConfig> loaded{config("keep")};
    EXPECT_TRUE(controller.load({}, loaded).empty());

    // The same library twice in one call is loaded once; the second config's
    // entry keeps its failure mark although its library is loaded.
    EXPECT_THAT(controller.load({config("a"), config("b")}, loaded),
                ElementsAre(Pair(scripted, kOk), Pair(scripted, kFailed)));
    // An already loaded library does not advance the success index, so the
    // next new load overwrites entry 0.
    const std::string other = plugin_path("null_create_plugin");
    EXPECT_THAT(controller.load({config("c"), config("d", "null_create_plugin")}, loaded),
                ElementsAre(Pair(other, kOk), Pair(other, kFailed)));

    // Every config whose library is loaded is appended, defaults filled in.
    controller.load({config("")}, loaded);
    Texts names;
    for (const auto& c : loaded) names.push_back(c.instance_name);
    EXPECT_THAT(names, ElementsAre("keep", "a", "b", "c", "d", "vesk_default"));
    EXPECT_TRUE(trace().empty());  // loading creates no instance
}

// Load and open (which loads what it needs) fail alike, and neither keeps a
// library it could not use.
TEST_F(ControllerTest, LoadFailuresThrowTheirTextAndUnloadTheLibrary) {
    DataStoreController controller;
    DataStoreConfig junk = config("j");
    junk.extension_path = dir_.path();
    junk.extension_name = "libjunk.so";
    const std::string junk_path = dir_.write("libjunk.so", "this is not an ELF file\n");
    const std::string missing = plugin_path("missing_plugin");
    const std::vector<std::pair<DataStoreConfig, std::string>> cases{
        {config("m", "missing_plugin"), "Invalid extension name/path " + missing},
        {junk, "unable to load datastore extension " + junk_path},
        {config("c", "no_create_plugin"),
         "Unable to find create handle for " + plugin_path("no_create_plugin")},
        {config("d", "no_destroy_plugin"),
         "Unable to find destroy handle for " + plugin_path("no_destroy_plugin")}};

    vesk::test::CerrCapture cerr;
    std::vector<DataStoreConfig> loaded;
    DataStoreHandles handles{{config("stale"), std::weak_ptr<DataStoreExtension>()}};
    for (const auto& [bad, message] : cases) {
        // A library loaded earlier in the same call stays loaded and listed.
        EXPECT_THAT(
            [&] {
                controller.load({config("s"), bad}, loaded);
            },
            ThrowsMessage<std::runtime_error>(message));
        std::vector<DataStoreConfig> configs{bad};
        EXPECT_THAT([&] { controller.open(configs, handles); },
                    ThrowsMessage<std::runtime_error>(message));
        EXPECT_TRUE(handles.empty()) << message;
        EXPECT_FALSE(is_loaded(bad.extension_path + "/" + bad.extension_name)) << message;
    }
    EXPECT_EQ(loaded.size(), cases.size());
    EXPECT_TRUE(is_loaded(plugin_path("scripted_plugin")));

    // The loader's own reason is quoted; it names the file.
    const std::string opendir = "opendir failed on " + missing + ": " + std::to_string(ENOENT) +
                                ": " + std::strerror(ENOENT);
    const auto dlopen_failed =
        AllOf(StartsWith("error opening extension library " + junk_path + ": '" + junk_path),
              EndsWith("'"));
    EXPECT_THAT(cerr.lines(), ElementsAre(opendir, opendir, dlopen_failed, dlopen_failed));
}

// Every status of open and control, then the close marks; the library stays
// loaded after its last instance is closed.
TEST_F(ControllerTest, OpenControlAndCloseReachTheirOwnInstance) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs;
    DataStoreHandles handles{{config("stale"), std::weak_ptr<DataStoreExtension>()}};
    EXPECT_TRUE(controller.open(configs, handles).empty());
    EXPECT_EQ(handles.size(), 1u);  // an empty open leaves the list alone

    configs = {config("a", "scripted_plugin", "op513=1|op600=512"), config(""), config("c")};
    EXPECT_THAT(controller.open(configs, handles),
                ElementsAre(Pair("a", kOk), Pair("vesk_default", kOk), Pair("c", kOk)));
    EXPECT_EQ(configs[1].instance_name, "vesk_default");  // completed in place
    EXPECT_TRUE(configs[1].source_types.test(data));
    ASSERT_EQ(handles.size(), 3u);  // the stale entry was cleared
    const auto a = handles[0].second;

    // Operations and statuses pass through to each handle's own instance.
    EXPECT_EQ(controller.control(a, 513, nullptr, nullptr, nullptr), kFailed);
    EXPECT_EQ(controller.control(a, 600, nullptr, nullptr, nullptr),
              DataStoreExtension::UNSUPPORTED_OPERATION);
    EXPECT_EQ(controller.control(handles[1].second, 513, nullptr, nullptr, nullptr), kOk);
    // Neither an empty handle nor a closed instance reaches an extension.
    EXPECT_EQ(controller.control({}, 512, nullptr, nullptr, nullptr), kFailed);

    // Misses are marked from the front of the list; no name closes everything.
    EXPECT_THAT(controller.close({"a", "x"}), ElementsAre(Pair("x", kFailed), Pair("x", kOk)));
    EXPECT_TRUE(a.expired());
    EXPECT_FALSE(handles[1].second.expired());
    EXPECT_EQ(controller.control(a, 512, nullptr, nullptr, nullptr), kFailed);
    EXPECT_THAT(controller.close({"x", "vesk_default", "y"}),
                ElementsAre(Pair("x", kFailed), Pair("y", kFailed), Pair("y", kOk)));
    EXPECT_TRUE(handles[1].second.expired());
    EXPECT_FALSE(handles[2].second.expired());
    EXPECT_TRUE(controller.close({}).empty());
    EXPECT_TRUE(handles[2].second.expired());

    // The instance name is set before open, which receives the parameters.
    EXPECT_THAT(
        trace(),
        ElementsAre("create", "open a trace=" + trace_path() + "|op513=1|op600=512", "create",
                    "open vesk_default trace=" + trace_path(), "create", StartsWith("open c "),
                    "control a 513", "control a 600", "control vesk_default 513", "destroy a",
                    "destroy vesk_default", "destroy c"));
    EXPECT_TRUE(is_loaded(plugin_path("scripted_plugin")));
}

// Every failure of open, then the controller's end: it destroys the instances
// still open before it unloads their libraries.
TEST_F(ControllerTest, OpenFailuresThrowTheirTextAndDestructionReleasesTheRest) {
    const std::string scripted = plugin_path("scripted_plugin");
    {
        DataStoreController controller;
        std::vector<DataStoreConfig> configs{config("a", "scripted_plugin", "op513=1")};
        DataStoreHandles handles;
        controller.open(configs, handles);
        const auto a = handles.at(0).second;

        // "b" is opened before "a" is refused; it stays open and listed.
        configs = {config("b"), config("a")};
        EXPECT_THAT([&] { controller.open(configs, handles); },
                    ThrowsMessage<std::runtime_error>("Extension name/path " + scripted +
                                                      ", instance a already open"));
        EXPECT_EQ(handles.size(), 1u);

        const std::vector<std::pair<DataStoreConfig, std::string>> cases{
            // Any status but 0 is a failure; the instance is destroyed unasked.
            {config("f", "scripted_plugin", "open=3"),
             "Extension name/path " + scripted + ", instance f open failed"},
            {config("n", "null_create_plugin"),
             "Extension name/path " + plugin_path("null_create_plugin") + " create handle failed"}};
        for (const auto& [bad, message] : cases) {
            configs = {bad};
            EXPECT_THAT([&] { controller.open(configs, handles); },
                        ThrowsMessage<std::runtime_error>(message));
            EXPECT_TRUE(handles.empty()) << message;
        }
        EXPECT_THAT(controller.close({"f", "n", "b"}),
                    ElementsAre(Pair("f", kFailed), Pair("n", kFailed), Pair("b", kOk)));
        EXPECT_EQ(controller.control(a, 513, nullptr, nullptr, nullptr), kFailed);
    }
    // No second "a" was created, "f" was destroyed without a control call, and
    // "a" went with the controller.
    EXPECT_THAT(trace(), ElementsAre("create", StartsWith("open a "), "create",
                                     StartsWith("open b "), "create", StartsWith("open f "),
                                     "destroy f", "destroy b", "control a 513", "destroy a"));
    EXPECT_FALSE(is_loaded(scripted));
    EXPECT_FALSE(is_loaded(plugin_path("null_create_plugin")));
}

// ---- the parameter pack and parameter strings ----

TEST(ParameterPackTest, LookupInsertsCopiesShareContentsAndListHelpers) {
    ParameterPack pack;
    EXPECT_EQ(pack["source"], "");
    pack["source"] = "a.db";
    ParameterPack copy = pack;
    copy["read_only"] = "true";
    EXPECT_EQ(pack["read_only"], "true");
    // A const lookup of a missing key inserts it too: it hands out the stored value.
    const ParameterPack& view = pack;
    view.const_lookup("fresh") = "x";
    EXPECT_EQ(pack["fresh"], "x");
    EXPECT_EQ(&view.const_lookup("source"), &pack["source"]);

    const Texts list{"a", "b", "a"};
    EXPECT_TRUE(in(list, std::string("b")));
    EXPECT_FALSE(in(list, std::string("A")));
    EXPECT_TRUE(in(list, Texts{}));
    EXPECT_TRUE(in(list, Texts{"a", "b", "b"}));
    EXPECT_FALSE(in(list, Texts{"a", "c"}));
    EXPECT_EQ(prune(list, {"b"}), (Texts{"a", "a"}));
    EXPECT_EQ(prune(list, {}), list);
    EXPECT_TRUE(prune(list, {"a", "b"}).empty());
}

TEST(ParseSqliteParamsTest, Cases) {
    // (parameters, result, source, read_only), starting from "unset" and true.
    const std::vector<std::tuple<std::string, bool, std::string, bool>> cases{
        {"source=a.db|read_only=true", true, "a.db", true},
        // Blanks around keys and values are stripped; "true" is case-sensitive.
        {" source = a.db | read_only = TRUE ", true, "a.db", false},
        // The last of a repeated key wins; unknown keys are ignored.
        {"source=a|source=b|mode=x|read_only=true|read_only=false", true, "b", false},
        {"", true, "unset", true},
        // A malformed item stops the parse; what came before it stays.
        {"source=a=b", false, "unset", true},
        {"source=a.db|read_only|read_only=false", false, "a.db", true},
        {"source=", false, "unset", true},  // the empty value is dropped: one piece
        // The default string keeps the quotes and the unexpanded "$HOME".
        {"read_only=false|source=\"" + DEFAULT_DATA_SOURCE + "\"", true,
         "\"" + DEFAULT_DATA_SOURCE + "\"", false}};
    for (const auto& [parameters, ok, source, read_only] : cases) {
        std::string parsed_source = "unset";
        bool parsed_read_only = true;
        const bool parsed = parse_sqlite_params(parameters, parsed_source, parsed_read_only);
        EXPECT_EQ(std::tie(parsed, parsed_source, parsed_read_only),
                  std::tie(ok, source, read_only))
            << parameters;
    }
}

}  // namespace
}  // namespace vesk::datastore
