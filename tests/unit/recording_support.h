#pragma once
// Test helpers around the recording extension: opens recorder instances
// through the real controller (real dlopen of librecording_plugin.so),
// records them in DataStoreParseUtility::db_vec, raises the log level so
// that the level-7 messages of the front end reach the captured standard
// error, and clears the process-wide datastore list and snapshot state.

#include <bitset>
#include <memory>

#include <gmock/gmock.h>

#include "vesk/datastore.h"

#include "plugins/recording_plugin.h"
#include "test_support.h"

namespace vesk::test {

namespace ds = vesk::datastore;
using P = ds::DataStoreParseUtility;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

constexpr unsigned long kStreamOnly = 0b10;  // serves streams, not data

// A control script answering `status` (appending `rows`), or throwing.
inline ControlScript answer(int32_t status, std::vector<ds::Row> rows = {}) {
    return ControlScript{status, false, std::move(rows), {}};
}
inline ControlScript throws() { return ControlScript{0, true, {}, {}}; }

class RecorderTest : public ::testing::Test {
protected:
    void SetUp() override {
        vesk::log::LOG_LEVEL = 7;
        vesk::log::LOG_OUTPUT = 0;
        P::db_vec.clear();
        P::snapshot_dict.clear();
        P::snapshot_info_set.clear();
        P::baseline_str.clear();
        P::snapshot_remove_str.clear();
    }

    void TearDown() override {
        if (controller_) controller_->close({});
        vesk::log::LOG_LEVEL = saved_level_;
        vesk::log::LOG_OUTPUT = saved_output_;
    }

    // Opens a recorder instance `name` serving `types` ("data" by default),
    // appends it to db_vec and returns its state.
    RecorderState* add(const std::string& name, unsigned long types = 0b01) {
        ds::DataStoreConfig config;
        config.type = ds::other;
        config.instance_name = name;
        config.extension_name = "librecording_plugin.so";
        config.extension_path = kPluginDir;
        config.source_parameters = "recorder";
        config.source_types = std::bitset<2>(types);
        std::vector<ds::DataStoreConfig> configs{config};
        ds::DataStoreHandles handles;
        controller_->open(configs, handles);
        P::db_vec.push_back(handles.at(0));  // throws when the recorder did not open
        handles_[name] = handles[0].second;
        RecorderState* state = nullptr;
        control(name, kRecorderStateCode, nullptr, &state);
        if (state == nullptr) throw std::runtime_error("recorder " + name + " gave no state");
        return state;
    }

    ds::DataStoreExtension* handle(const std::string& name) const {
        return handles_.at(name).lock().get();
    }

    int32_t control(const std::string& name, uint16_t op, const void* in, void* out) {
        return controller_->control(handles_.at(name), op, in, out, nullptr);
    }

    // Held here, and nowhere else: resetting it closes every recorder.
    std::shared_ptr<ds::DataStoreController> controller_ =
        ds::DataStoreController::createDataStoreController();

private:
    std::map<std::string, std::weak_ptr<ds::DataStoreExtension>> handles_;
    int saved_level_ = vesk::log::LOG_LEVEL;
    int saved_output_ = vesk::log::LOG_OUTPUT;
};

// A row that names its provider, host and rowid.
inline ds::Row make_row(int32_t rowid, const std::string& provider,
                        const std::string& host = "node1") {
    ds::Row row;
    row.rowid = rowid;
    row.Provider = provider;
    row.Hostname = host;
    return row;
}

}  // namespace vesk::test
