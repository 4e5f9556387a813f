#pragma once
// What the fault and concurrency tests of the ODBC extension share: a
// datastore opened through the library's configuration path (controller,
// staged libodbc.so), rows that carry their own key, and a look at what the
// server holds, through a separate raw connection.

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vesk/datastore/controller.h"
#include "vesk/datastore/extension.h"
#include "vesk/datastore/interface.h"
#include "vesk/datastore/operations.h"
#include "vesk/datastore/records.h"
#include "vesk/datastore/vocabulary.h"

#include "odbc_connection.h"
#include "test_support.h"

namespace vesk::test {

namespace vd = vesk::datastore;

// One ODBC datastore of its own controller, opened by configuration.
class OdbcDatastore {
public:
    // Opens instance `instance` with parameters "source=<source>"; is_open()
    // tells whether it worked.
    OdbcDatastore(const std::string& instance, const std::string& source)
        : controller_(vd::DataStoreController::createDataStoreController()) {
        vd::DataStoreConfig config;
        config.type = vd::odbc;
        config.instance_name = instance;
        config.extension_name = "libodbc.so";
        config.extension_path = kStageDir + "/datastore/lumok64/";
        config.source_parameters = "source=" + source;
        config.source_types.set(vd::data);
        std::vector<vd::DataStoreConfig> configs{config};
        vd::DataStoreHandles handles;
        try {
            controller_->open(configs, handles);
        } catch (const std::exception& e) {
            error_ = e.what();
            return;
        }
        if (handles.size() == 1) handle_ = handles.front().second;
    }
    ~OdbcDatastore() {
        if (controller_) controller_->close({});
    }
    OdbcDatastore(const OdbcDatastore&) = delete;
    OdbcDatastore& operator=(const OdbcDatastore&) = delete;

    bool is_open() const { return !handle_.expired(); }
    // Why the open failed, when it threw.
    const std::string& error() const { return error_; }

    bool insert(const vd::InsertRecord& record) {
        return call(vd::OP_INSERT, nullptr, const_cast<vd::InsertRecord*>(&record));
    }
    bool bulk_insert(const std::vector<vd::InsertRecord>& records) {
        return call(vd::OP_BULK_INSERT, &records, nullptr);
    }
    bool call(uint16_t op, const void* in, void* out) {
        return controller_->control(handle_, op, in, out, nullptr) ==
               vd::DataStoreExtension::OPERATION_SUCCESSFULL;
    }

private:
    std::shared_ptr<vd::DataStoreController> controller_;
    std::weak_ptr<vd::DataStoreExtension> handle_;
    std::string error_;
};

// The row whose key is `key`: the key is its Hostname, and its STDOUT is
// derived from the key, so that a stored row can be checked byte for byte.
inline vd::InsertRecord keyed_record(const std::string& key, int64_t sequence) {
    vd::InsertRecord r;
    r.header.provider = "fault";
    r.header.hostname = key;
    r.header.num_nodes = 1;
    r.header.node_names = {key};
    r.header.timestamp = 1700000000 + sequence;
    r.header.duration = 0.25;
    r.header.version = 1;
    r.header.username = "tester";
    r.header.unique_timestamp = INT64_C(1700000000000000) + sequence;
    r.option_id = "faults";
    for (int i = 0; i < 8; ++i) r.std_out += key + ";";
    return r;
}

// "w<writer>-<sequence>", with fixed widths so that keys sort by both.
inline std::string row_key(int writer, int64_t sequence) {
    char key[48];
    std::snprintf(key, sizeof key, "w%02d-%07lld", writer, static_cast<long long>(sequence));
    return key;
}

// How many times each key is stored, and how many stored rows do not carry
// the STDOUT of their key; `error` set when the server cannot be read.
struct StoredRows {
    std::map<std::string, int> count_by_key;
    size_t total = 0;
    size_t wrong_content = 0;
    std::string error;
};

inline StoredRows stored_rows(const std::string& connection_string) {
    StoredRows out;
    vd::sql::Error error;
    auto c = vd::odbc_backend::OdbcConnection::connect(connection_string, {}, error);
    if (!c) {
        out.error = "cannot connect: " + error.message;
        return out;
    }
    auto s = c->prepare("SELECT Hostname, STDOUT, Unique_timestamp FROM " + vd::table_name + ";");
    if (!s) {
        out.error = c->last_error().message;
        return out;
    }
    vd::sql::StepResult r;
    std::string key, std_out;
    while ((r = s->step()) == vd::sql::StepResult::row) {
        if (!s->column_text(0, key) || !s->column_text(1, std_out)) {
            out.error = c->last_error().message;
            return out;
        }
        ++out.total;
        ++out.count_by_key[key];
        const auto expected =
            keyed_record(key, s->column_int64(2) - INT64_C(1700000000000000)).std_out;
        if (std_out != expected) ++out.wrong_content;
    }
    if (r != vd::sql::StepResult::done) out.error = c->last_error().message;
    return out;
}

}  // namespace vesk::test
