#pragma once
// Helpers of the SQLite extension's tests: the staged libsqlite.so loaded
// for real with dlopen, instances made through its "create" and released
// through its "destroy", sample rows, and a few raw SQLite looks at a file.

#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <sqlite3.h>

#include "vesk/datastore/interface.h"
#include "vesk/datastore/records.h"
#include "vesk/datastore/sqlite_extension.h"

namespace vesk::test {

inline std::string sqlite_plugin_path() {
    return std::string(VESK_STAGE_DIR) + "/datastore/lumok64/libsqlite.so";
}

// The plugin library, loaded once per process and kept.
class SqlitePlugin {
public:
    static SqlitePlugin& get() {
        static SqlitePlugin plugin;
        return plugin;
    }
    vesk::datastore::CreateExtensionFn create = nullptr;
    vesk::datastore::DestroyExtensionFn destroy = nullptr;

private:
    SqlitePlugin() {
        void* handle = ::dlopen(sqlite_plugin_path().c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) throw std::runtime_error(std::string("dlopen: ") + ::dlerror());
        create = reinterpret_cast<vesk::datastore::CreateExtensionFn>(::dlsym(handle, "create"));
        destroy = reinterpret_cast<vesk::datastore::DestroyExtensionFn>(::dlsym(handle, "destroy"));
        if (!create || !destroy) throw std::runtime_error("libsqlite.so lacks create/destroy");
    }
};

struct PluginDeleter {
    void operator()(vesk::datastore::interface* p) const { SqlitePlugin::get().destroy(p); }
};
using SqliteInstance = std::unique_ptr<vesk::datastore::interface, PluginDeleter>;

// A new instance, opened with `parameters`; `status` receives open's answer.
inline SqliteInstance open_sqlite(const std::string& parameters, int32_t* status = nullptr) {
    vesk::datastore::DataStoreExtension* raw = SqlitePlugin::get().create();
    if (raw == nullptr) throw std::runtime_error("create returned null");
    auto* sql = dynamic_cast<vesk::datastore::interface*>(raw);
    if (sql == nullptr) throw std::runtime_error("libsqlite.so instance is not an interface");
    SqliteInstance instance(sql);
    instance->instance_name = "test_sqlite";
    const int32_t rc = instance->open(parameters);
    if (status) *status = rc;
    return instance;
}

inline std::string params_for(const std::string& file, bool read_only = false,
                              const std::string& more = "") {
    return "source=" + file + "|read_only=" + (read_only ? "true" : "false") + more;
}

// One sample row; `n` makes it distinct.
inline vesk::datastore::InsertRecord sample_record(const std::string& provider,
                                                   const std::string& host, int64_t run,
                                                   int n = 0) {
    vesk::datastore::InsertRecord r;
    r.header.provider = provider;
    r.header.hostname = host;
    r.header.num_nodes = 2;
    r.header.node_names = {host, host + "-peer"};
    r.header.exit_status = n % 3;
    r.header.timestamp = 1500000000 + n;
    r.header.duration = 0.25 * n;
    r.header.encoding = vesk::provider::encoding::base64;
    r.header.version = 3;
    r.header.username = "tester";
    r.header.unique_timestamp = run;
    r.std_out = "out " + provider + " " + host + " " + std::to_string(n);
    r.std_err = "err " + std::to_string(n);
    r.option_id = "opt" + std::to_string(n % 2);
    return r;
}

inline int32_t insert_record(vesk::datastore::interface& ext,
                             const vesk::datastore::InsertRecord& record) {
    return ext.control(vesk::datastore::OP_INSERT, nullptr,
                       const_cast<vesk::datastore::InsertRecord*>(&record), nullptr);
}

inline int32_t bulk_insert(vesk::datastore::interface& ext,
                           const std::vector<vesk::datastore::InsertRecord>& records) {
    return ext.control(vesk::datastore::SQLITE_BULK_INSERT, &records, nullptr, nullptr);
}

// Opens `file` with plain SQLite, read-only, for checks from outside.
class RawDb {
public:
    explicit RawDb(const std::string& file) {
        if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK)
            throw std::runtime_error("raw open failed: " + file);
        sqlite3_busy_timeout(db_, 10000);
    }
    ~RawDb() { sqlite3_close(db_); }
    RawDb(const RawDb&) = delete;
    RawDb& operator=(const RawDb&) = delete;

    // The first column of every result row, as text.
    std::vector<std::string> column(const std::string& sql) const {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("raw prepare: ") + sqlite3_errmsg(db_));
        std::vector<std::string> out;
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
            out.emplace_back(text ? std::string(text, sqlite3_column_bytes(stmt, 0)) : "");
        }
        sqlite3_finalize(stmt);
        if (rc != SQLITE_DONE)
            throw std::runtime_error(std::string("raw step: ") + sqlite3_errmsg(db_));
        return out;
    }
    long long count(const std::string& table = "provider_datastore") const {
        return std::stoll(column("SELECT count(*) FROM " + table).at(0));
    }

private:
    sqlite3* db_ = nullptr;
};

// Names of the files in `dir`.
inline std::set<std::string> files_in(const std::string& dir) {
    std::set<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        out.insert(e.path().filename().string());
    return out;
}

}  // namespace vesk::test
