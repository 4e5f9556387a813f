// The controller against real plugin libraries from the test plugin folder:
// loading, opening, controlling, closing, the singleton and the failure paths.
#include "vesk/datastore/controller.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_support.h"
#include "vesk/log.h"

namespace vesk::datastore {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::StartsWith;

constexpr int32_t kOk = 0;
constexpr int32_t kFailed = 1;
constexpr uint16_t kEchoOp = 1024;  // scripted_plugin: out = "<instance>:" + in

std::string plugin_path(const std::string& plugin) {
    return vesk::test::kPluginDir + "/lib" + plugin + ".so";
}

// True while the dynamic loader has the library mapped in this process.
bool is_loaded(const std::string& path) {
    void* handle = ::dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) return false;
    ::dlclose(handle);
    return true;
}

// The message of the std::runtime_error that `call` throws ("" if none).
template <typename Call>
std::string error_of(Call&& call) {
    try {
        call();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

class ControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved_level_ = vesk::log::LOG_LEVEL;
        saved_output_ = vesk::log::LOG_OUTPUT;
        vesk::log::LOG_LEVEL = 4;
        vesk::log::LOG_OUTPUT = 0;
    }
    void TearDown() override {
        vesk::log::LOG_LEVEL = saved_level_;
        vesk::log::LOG_OUTPUT = saved_output_;
    }

    // A config of one of the test plugins, tracing into this test's folder.
    DataStoreConfig config(const std::string& name, const std::string& plugin = "scripted_plugin",
                           const std::string& extra = "") const {
        DataStoreConfig c;
        c.type = sqlite3;
        c.instance_name = name;
        c.extension_name = "lib" + plugin + ".so";
        c.extension_path = vesk::test::kPluginDir;
        c.source_parameters = "trace=" + trace_path() + (extra.empty() ? "" : "|" + extra);
        c.source_types.set(data);
        return c;
    }

    std::string trace_path() const { return dir_.file("trace.log"); }

    std::vector<std::string> trace() const {
        std::vector<std::string> lines;
        std::istringstream in(vesk::test::read_file(trace_path()));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    long trace_count(const std::string& prefix) const {
        const auto lines = trace();
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
    }

    vesk::test::TempDir dir_;

private:
    int saved_level_ = 4;
    int saved_output_ = 0;
};

TEST_F(ControllerTest, SingletonIsSharedWhileHeldAndFreshAfterwards) {
    const std::string lib = plugin_path("scripted_plugin");
    {
        auto first = DataStoreController::createDataStoreController();
        auto second = DataStoreController::createDataStoreController();
        ASSERT_TRUE(first);
        EXPECT_EQ(first, second);
        EXPECT_EQ(DataStoreController::ref_ptr.lock(), first);

        std::vector<DataStoreConfig> configs{config("s1")};
        DataStoreHandles handles;
        first->open(configs, handles);
        ASSERT_EQ(handles.size(), 1u);
        EXPECT_TRUE(is_loaded(lib));
        first.reset();
        // The second holder keeps everything alive.
        EXPECT_FALSE(handles[0].second.expired());
    }
    // The last holder let go: instance destroyed, then the library unloaded.
    EXPECT_TRUE(DataStoreController::ref_ptr.expired());
    EXPECT_THAT(trace(), ElementsAre("create", StartsWith("open s1 "), "destroy s1"));
    EXPECT_FALSE(is_loaded(lib));

    auto fresh = DataStoreController::createDataStoreController();
    EXPECT_THAT(fresh->close({"s1"}), ElementsAre(Pair("s1", kFailed)));
}

TEST_F(ControllerTest, LoadOfNothingLeavesOutputAlone) {
    DataStoreController controller;
    std::vector<DataStoreConfig> loaded{config("keep")};
    EXPECT_TRUE(controller.load({}, loaded).empty());
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded[0].instance_name, "keep");
}

TEST_F(ControllerTest, LoadMarksSuccessesInOrderOfNewLoads) {
    DataStoreController controller;
    const std::string scripted = plugin_path("scripted_plugin");
    const std::string fails = plugin_path("open_fails_plugin");
    std::vector<DataStoreConfig> loaded;

    // The same library twice in one call is loaded once; the second config's
    // entry keeps its failure mark although its library is loaded.
    EXPECT_THAT(controller.load({config("a"), config("b")}, loaded),
                ElementsAre(Pair(scripted, kOk), Pair(scripted, kFailed)));

    // An already loaded library does not advance the success index, so the
    // next new load overwrites entry 0.
    EXPECT_THAT(controller.load({config("c"), config("d", "open_fails_plugin")}, loaded),
                ElementsAre(Pair(fails, kOk), Pair(fails, kFailed)));

    // Every config whose library is loaded is appended, defaults filled in.
    DataStoreConfig unnamed = config("");
    controller.load({unnamed}, loaded);
    std::vector<std::string> names;
    for (const auto& c : loaded) names.push_back(c.instance_name);
    EXPECT_THAT(names, ElementsAre("a", "b", "c", "d", "vesk_default"));
    // Loading creates no instance.
    EXPECT_TRUE(trace().empty());
}

TEST_F(ControllerTest, MissingLibraryIsLoggedAndThrownWithItsPath) {
    DataStoreController controller;
    const std::string path = plugin_path("missing_plugin");
    vesk::test::CerrCapture cerr;
    std::vector<DataStoreConfig> loaded;
    EXPECT_EQ(error_of([&] { controller.load({config("m", "missing_plugin")}, loaded); }),
              "Invalid extension name/path " + path);
    EXPECT_THAT(cerr.lines(), ElementsAre("opendir failed on " + path + ": " +
                                          std::to_string(ENOENT) + ": " + std::strerror(ENOENT)));
    EXPECT_TRUE(loaded.empty());
}

TEST_F(ControllerTest, FileThatIsNotASharedObjectIsRefused) {
    DataStoreController controller;
    const std::string path = dir_.write("libjunk.so", "this is not an ELF file\n");
    DataStoreConfig junk = config("j");
    junk.extension_path = dir_.path();
    junk.extension_name = "libjunk.so";

    vesk::test::CerrCapture cerr;
    std::vector<DataStoreConfig> loaded;
    EXPECT_EQ(error_of([&] { controller.load({junk}, loaded); }),
              "unable to load datastore extension " + path);
    const auto lines = cerr.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], StartsWith("error opening extension library " + path + ": '"));
    EXPECT_EQ(lines[0].back(), '\'');
    // The loader's own reason is quoted (it names the file).
    EXPECT_THAT(lines[0], HasSubstr(": '" + path));
}

TEST_F(ControllerTest, LibraryWithoutAnEntryPointIsUnloadedAndNotRemembered) {
    DataStoreController controller;
    const std::string no_create = plugin_path("no_create_plugin");
    const std::string no_destroy = plugin_path("no_destroy_plugin");
    const std::string scripted = plugin_path("scripted_plugin");
    std::vector<DataStoreConfig> loaded;

    EXPECT_EQ(error_of([&] { controller.load({config("c", "no_create_plugin")}, loaded); }),
              "Unable to find create handle for " + no_create);
    EXPECT_FALSE(is_loaded(no_create));

    // A library loaded earlier in the same call stays loaded and listed.
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(error_of([&] {
                      controller.load({config("s"), config("d", "no_destroy_plugin")}, loaded);
                  }),
                  "Unable to find destroy handle for " + no_destroy)
            << "attempt " << attempt;
        EXPECT_FALSE(is_loaded(no_destroy));
    }
    ASSERT_EQ(loaded.size(), 2u);
    EXPECT_EQ(loaded[0].instance_name, "s");
    EXPECT_TRUE(is_loaded(scripted));
    EXPECT_THAT(controller.load({config("s")}, loaded), ElementsAre(Pair(scripted, kFailed)));
}

TEST_F(ControllerTest, OpensOneInstancePerConfigFromOneLibrary) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("a"), config("b", "scripted_plugin", "status=0")};
    DataStoreHandles handles{{config("stale"), std::weak_ptr<DataStoreExtension>()}};

    EXPECT_THAT(controller.open(configs, handles),
                ElementsAre(Pair("a", kOk), Pair("b", kOk)));
    ASSERT_EQ(handles.size(), 2u);  // the stale entry was cleared
    EXPECT_EQ(handles[0].first.instance_name, "a");
    EXPECT_EQ(handles[1].first.instance_name, "b");

    // The instance name is set before open, which receives the parameters.
    EXPECT_THAT(trace(), ElementsAre("create", "open a trace=" + trace_path(), "create",
                                     "open b trace=" + trace_path() + "|status=0"));

    const std::string text = "hi";
    std::string answer_a, answer_b;
    EXPECT_EQ(controller.control(handles[0].second, kEchoOp, &text, &answer_a, nullptr), kOk);
    EXPECT_EQ(controller.control(handles[1].second, kEchoOp, &text, &answer_b, nullptr), kOk);
    EXPECT_EQ(answer_a, "a:hi");
    EXPECT_EQ(answer_b, "b:hi");
}

TEST_F(ControllerTest, OpenCompletesConfigsInPlace) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("")};
    configs[0].source_types.reset();
    DataStoreHandles handles;
    EXPECT_THAT(controller.open(configs, handles), ElementsAre(Pair("vesk_default", kOk)));
    EXPECT_EQ(configs[0].instance_name, "vesk_default");
    EXPECT_TRUE(configs[0].source_types.test(data));
    ASSERT_EQ(handles.size(), 1u);
    EXPECT_EQ(handles[0].first.instance_name, "vesk_default");
}

TEST_F(ControllerTest, OpenOfNothingDoesNothing) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs;
    DataStoreHandles handles{{config("kept"), std::weak_ptr<DataStoreExtension>()}};
    EXPECT_TRUE(controller.open(configs, handles).empty());
    ASSERT_EQ(handles.size(), 1u);
    EXPECT_EQ(handles[0].first.instance_name, "kept");
}

TEST_F(ControllerTest, AlreadyOpenNameThrowsAndLeavesTheFirstInstanceUsable) {
    DataStoreController controller;
    std::vector<DataStoreConfig> first{config("a", "scripted_plugin", "op513=1")};
    DataStoreHandles handles;
    controller.open(first, handles);
    const auto a = handles.at(0).second;

    // "b" is opened before "a" is refused; it stays open and listed.
    std::vector<DataStoreConfig> again{config("b"), config("a")};
    DataStoreHandles more;
    EXPECT_EQ(error_of([&] { controller.open(again, more); }),
              "Extension name/path " + plugin_path("scripted_plugin") + ", instance a already open");
    ASSERT_EQ(more.size(), 1u);
    EXPECT_EQ(more[0].first.instance_name, "b");
    EXPECT_FALSE(more[0].second.expired());

    EXPECT_FALSE(a.expired());
    EXPECT_EQ(controller.control(a, 513, nullptr, nullptr, nullptr), kFailed);
    EXPECT_EQ(trace_count("create"), 2);  // "a" and "b", no second "a"
    EXPECT_EQ(trace_count("destroy"), 0);
    EXPECT_EQ(trace().back(), "control a 513");
}

TEST_F(ControllerTest, FailedOpenDestroysTheInstanceWithoutControllingIt) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("f", "open_fails_plugin")};
    DataStoreHandles handles;
    EXPECT_EQ(error_of([&] { controller.open(configs, handles); }),
              "Extension name/path " + plugin_path("open_fails_plugin") + ", instance f open failed");
    EXPECT_TRUE(handles.empty());
    EXPECT_THAT(trace(), ElementsAre("create", "open f", "destroy f"));
    EXPECT_THAT(controller.close({"f"}), ElementsAre(Pair("f", kFailed)));

    // Any status but 0 is a failure.
    std::vector<DataStoreConfig> scripted{config("g", "scripted_plugin", "open=3")};
    EXPECT_THAT(error_of([&] { controller.open(scripted, handles); }), HasSubstr("instance g open failed"));
    EXPECT_EQ(trace().back(), "destroy g");
    EXPECT_EQ(trace_count("control"), 0);
}

TEST_F(ControllerTest, NullCreateIsReported) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("n", "null_create_plugin")};
    DataStoreHandles handles;
    EXPECT_EQ(error_of([&] { controller.open(configs, handles); }),
              "Extension name/path " + plugin_path("null_create_plugin") + " create handle failed");
    EXPECT_TRUE(handles.empty());
    EXPECT_THAT(controller.close({"n"}), ElementsAre(Pair("n", kFailed)));
}

TEST_F(ControllerTest, LoadFailureDuringOpenKeepsEarlierInstances) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("a")};
    DataStoreHandles handles;
    controller.open(configs, handles);

    vesk::test::CerrCapture cerr;
    std::vector<DataStoreConfig> bad{config("m", "missing_plugin")};
    DataStoreHandles none;
    EXPECT_EQ(error_of([&] { controller.open(bad, none); }),
              "Invalid extension name/path " + plugin_path("missing_plugin"));

    DataStoreConfig junk = config("j");
    junk.extension_path = dir_.path();
    junk.extension_name = "libjunk.so";
    const std::string junk_path = dir_.write("libjunk.so", "#!/bin/sh\n");
    std::vector<DataStoreConfig> not_elf{junk};
    EXPECT_EQ(error_of([&] { controller.open(not_elf, none); }),
              "unable to load datastore extension " + junk_path);

    const std::string text = "still";
    std::string answer;
    EXPECT_EQ(controller.control(handles.at(0).second, kEchoOp, &text, &answer, nullptr), kOk);
    EXPECT_EQ(answer, "a:still");
}

TEST_F(ControllerTest, ControlPassesOperationAndStatusThrough) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("a", "scripted_plugin", "status=0|op513=1|op600=512")};
    DataStoreHandles handles;
    controller.open(configs, handles);
    const auto a = handles.at(0).second;

    EXPECT_EQ(controller.control(a, 512, nullptr, nullptr, nullptr), kOk);
    EXPECT_EQ(controller.control(a, 513, nullptr, nullptr, nullptr), kFailed);
    EXPECT_EQ(controller.control(a, 600, nullptr, nullptr, nullptr),
              DataStoreExtension::UNSUPPORTED_OPERATION);
    EXPECT_EQ(trace_count("control a "), 3);
    EXPECT_EQ(trace().back(), "control a 600");

    // Neither an empty handle nor a closed instance reaches an extension.
    EXPECT_EQ(controller.control(std::weak_ptr<DataStoreExtension>(), 512, nullptr, nullptr, nullptr),
              kFailed);
    controller.close({"a"});
    EXPECT_TRUE(a.expired());
    EXPECT_EQ(controller.control(a, 512, nullptr, nullptr, nullptr), kFailed);
    EXPECT_EQ(trace().back(), "destroy a");
    EXPECT_EQ(trace_count("control"), 3);
}

TEST_F(ControllerTest, CloseMarksMissesFromTheFront) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("a"), config("b")};
    DataStoreHandles handles;
    controller.open(configs, handles);

    EXPECT_THAT(controller.close({"a", "x"}), ElementsAre(Pair("x", kFailed), Pair("x", kOk)));
    EXPECT_TRUE(handles[0].second.expired());
    EXPECT_FALSE(handles[1].second.expired());

    EXPECT_THAT(controller.close({"x", "b", "y"}),
                ElementsAre(Pair("x", kFailed), Pair("y", kFailed), Pair("y", kOk)));
    EXPECT_TRUE(handles[1].second.expired());
    EXPECT_THAT(trace(), ElementsAre("create", StartsWith("open a "), "create",
                                     StartsWith("open b "), "destroy a", "destroy b"));
}

TEST_F(ControllerTest, CloseOfNothingClosesEverythingButKeepsLibraries) {
    DataStoreController controller;
    std::vector<DataStoreConfig> configs{config("a"), config("b")};
    DataStoreHandles handles;
    controller.open(configs, handles);

    EXPECT_TRUE(controller.close({}).empty());
    EXPECT_TRUE(handles[0].second.expired());
    EXPECT_TRUE(handles[1].second.expired());
    EXPECT_EQ(trace_count("destroy"), 2);
    EXPECT_TRUE(is_loaded(plugin_path("scripted_plugin")));

    // The names are free again and the library is reused.
    DataStoreHandles reopened;
    EXPECT_THAT(controller.open(configs, reopened), ElementsAre(Pair("a", kOk), Pair("b", kOk)));
}

TEST_F(ControllerTest, DestructionReleasesInstancesThenLibraries) {
    const std::vector<std::string> plugins{"scripted_plugin", "open_fails_plugin",
                                           "null_create_plugin", "no_destroy_plugin",
                                           "no_create_plugin"};
    DataStoreHandles handles;
    {
        DataStoreController controller;
        std::vector<DataStoreConfig> good{config("a"), config("b")};
        controller.open(good, handles);
        // Every failure path on the way.
        for (const auto& plugin : {"open_fails_plugin", "null_create_plugin", "no_destroy_plugin",
                                   "no_create_plugin"}) {
            std::vector<DataStoreConfig> bad{config(std::string("x-") + plugin, plugin)};
            DataStoreHandles none;
            EXPECT_FALSE(error_of([&] { controller.open(bad, none); }).empty()) << plugin;
        }
        std::vector<DataStoreConfig> dup{config("a")};
        DataStoreHandles none;
        EXPECT_FALSE(error_of([&] { controller.open(dup, none); }).empty());
        EXPECT_TRUE(is_loaded(plugin_path("scripted_plugin")));
    }
    EXPECT_TRUE(handles[0].second.expired());
    EXPECT_TRUE(handles[1].second.expired());
    // Every instance created was destroyed, and no library stays mapped.
    EXPECT_EQ(trace_count("create"), 3);
    EXPECT_EQ(trace_count("destroy"), 3);
    for (const auto& plugin : plugins) EXPECT_FALSE(is_loaded(plugin_path(plugin))) << plugin;
}

}  // namespace
}  // namespace vesk::datastore
