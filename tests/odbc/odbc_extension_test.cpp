// The staged libodbc.so: loads beside the system's unixODBC libodbc.so,
// exports its entry points, and opens a datastore on the test server.
#include <cstdio>
#include <dlfcn.h>
#include <filesystem>
#include <link.h>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "vesk/datastore.h"

#include "pg_test_server.h"
#include "test_support.h"

namespace vesk::test {
namespace {

namespace vd = vesk::datastore;
namespace fs = std::filesystem;

const std::string kExtension = kStageDir + "/datastore/lumok64/libodbc.so";

struct Library {
    explicit Library(const std::string& path)
        : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
    ~Library() {
        if (handle) dlclose(handle);
    }
    void* handle;
};

// The output of `command`, or "" when it cannot run.
std::string run(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

TEST(OdbcExtensionLibrary, LoadsAndResolvesTheSystemDriverManager) {
    Library lib(kExtension);
    ASSERT_NE(lib.handle, nullptr) << dlerror();
    EXPECT_NE(dlsym(lib.handle, "create"), nullptr);
    EXPECT_NE(dlsym(lib.handle, "destroy"), nullptr);

    // SQLDriverConnect, seen from the extension, lives in the system's
    // driver manager, not in the extension.
    void* connect = dlsym(lib.handle, "SQLDriverConnect");
    ASSERT_NE(connect, nullptr) << dlerror();
    Dl_info info{};
    ASSERT_NE(dladdr(connect, &info), 0);
    const fs::path provider = fs::canonical(info.dli_fname);
    EXPECT_NE(provider, fs::canonical(kExtension));
    EXPECT_EQ(provider.filename().string().rfind("libodbc.so.2", 0), 0u) << provider;
    EXPECT_NE(provider.string().find("/usr/lib/") == 0 || provider.string().find("/lib/") == 0,
              false)
        << provider;

    // The same as the loader sees it from outside.
    const std::string ldd = run("ldd '" + kExtension + "'");
    ASSERT_FALSE(ldd.empty());
    EXPECT_EQ(ldd.find("not found"), std::string::npos) << ldd;
    const auto at = ldd.find("libodbc.so.2 => ");
    ASSERT_NE(at, std::string::npos) << ldd;
    const std::string line = ldd.substr(at, ldd.find('\n', at) - at);
    EXPECT_EQ(line.find(kStageDir), std::string::npos) << line;
    EXPECT_NE(line.find("/lib/"), std::string::npos) << line;
}

class OdbcExtensionTest : public PgTest {
protected:
    void SetUp() override {
        PgTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        lib = std::make_unique<Library>(kExtension);
        ASSERT_NE(lib->handle, nullptr) << dlerror();
        create = reinterpret_cast<vd::CreateExtensionFn>(dlsym(lib->handle, "create"));
        destroy = reinterpret_cast<vd::DestroyExtensionFn>(dlsym(lib->handle, "destroy"));
        ASSERT_TRUE(create && destroy);
        if (query_int(*connection,
                      "SELECT count(*) FROM pg_database WHERE datname = 'vesk_extension';") == 0)
            exec(*connection, "CREATE DATABASE vesk_extension;");
        source = with_database(conn_string, "vesk_extension");
    }

    // Opens an instance with `parameters`; the status of open.
    int32_t open_with(const std::string& parameters, bool keep = false) {
        vd::DataStoreExtension* instance = create();
        EXPECT_NE(instance, nullptr);
        if (!instance) return -1;
        instance->instance_name = "odbc_test";
        const int32_t status = instance->open(parameters);
        if (status == vd::DataStoreExtension::OPERATION_SUCCESSFULL) {
            EXPECT_TRUE(instance->is_open());
            vd::SnapshotInfoSet ids;
            EXPECT_EQ(instance->control(vd::OP_QUERY_BASELINE_IDS, nullptr, &ids, nullptr),
                      vd::DataStoreExtension::OPERATION_SUCCESSFULL);
        }
        EXPECT_EQ(instance->close(), vd::DataStoreExtension::OPERATION_SUCCESSFULL);
        EXPECT_FALSE(instance->is_open());
        if (!keep) destroy(instance);
        return status;
    }

    std::unique_ptr<Library> lib;
    vd::CreateExtensionFn create = nullptr;
    vd::DestroyExtensionFn destroy = nullptr;
    std::string source;
};

TEST_F(OdbcExtensionTest, OpensCreatesTheSchemaAndRefusesBadParameters) {
    EXPECT_EQ(open_with("source=" + source), 0);
    {
        auto c = connect(source);
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(query_int(*c, "SELECT count(*) FROM vesk_1;"), 0);
        EXPECT_EQ(query_int(*c,
                            "SELECT count(*) FROM pg_indexes WHERE indexname IN "
                            "('provider_datastore_latest', 'provider_datastore_run', "
                            "'baseline_datastore_id');"),
                  3);
    }
    EXPECT_EQ(open_with("source=" + source + "|read_only=true|login_timeout_s=5"), 0);
    // The private ODBCSYSINI defines the DSN vesk_pg_test (database postgres).
    EXPECT_EQ(open_with("vesk_pg_test"), 0);

    const std::string refused[] = {
        "",
        "source=" + source + "|unknown_key=1",
        "source=" + source + "|read_only=maybe",
        "source=" + source + "|rows_per_statement=0",
        "vesk_no_such_dsn",
        "source=" + with_database(conn_string, "vesk_no_such_database"),
    };
    for (const std::string& p : refused) EXPECT_EQ(open_with(p), 1) << p;
}

}  // namespace
}  // namespace vesk::test
