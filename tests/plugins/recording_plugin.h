#pragma once
// The shared state of the recording test extension (librecording_plugin.so),
// an extension derived from vesk::datastore::interface.
//
// Each instance owns one RecorderState. A test reaches it through the real
// controller with the extension code kRecorderStateCode:
//     RecorderState* state = nullptr;
//     controller->control(handle, kRecorderStateCode, nullptr, &state, nullptr);
// and then scripts answers and reads recorded calls through the pointer,
// which stays valid until the instance is destroyed. Use from one thread.
//
// The extension runs the real interface code: control delegates every code
// it has no script for to interface::control, and the SQL builders run
// interface's own bodies, whose statements reach the recorded select and
// select_from_baseline.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vesk/datastore/records.h"

namespace vesk::test {

// control(kRecorderStateCode, nullptr, RecorderState** out, nullptr) stores
// the instance's state in *out and answers 0.
constexpr uint16_t kRecorderStateCode = 1024;

// How one overridable operation answers.
struct Answer {
    enum Mode {
        Default,  // select/select_from_baseline: append the scripted rows, true;
                  // the write and list operations: interface's own body
        Result,   // append/insert the scripted data (if any) and return `result`
        Throw,    // throw std::runtime_error(what)
    };
    Mode mode = Default;
    bool result = true;
    std::string what = "scripted failure";
};

// What control answers for one code instead of dispatching it.
struct ControlScript {
    int32_t status = 0;
    // Throws std::runtime_error out of control: a misbehaving extension,
    // to prove that the callers' catch-all handlers hold.
    bool throws = false;
    std::vector<vesk::datastore::Row> rows;  // appended to out for 512, 513, 514, 519
    vesk::datastore::SnapshotInfoSet snapshots;  // inserted into out for 516
};

// One call of control, with the request it carried.
struct ControlCall {
    uint16_t op = 0;
    bool has_in = false;
    vesk::datastore::ReadParameters request;  // copy of *in for 512..514, 517, 519 (sql nulled)
    bool has_sql = false;
    vesk::datastore::SQLParameters sql;       // copy of *in->sql
    const void* out = nullptr;
    const void* extra = nullptr;
    std::string text;                                                  // 520: the id in out
    std::map<std::string, vesk::datastore::ProviderInfoSet> snapshots;  // 518: the map in out
};

// One call of an operation below control.
struct OperationCall {
    std::string name;  // "select", "select_from_baseline", "select_provider", "insert", ...
    std::string sql;   // select, select_from_baseline
    std::map<std::string, int> fields;
    std::vector<std::string> first;   // providers (builders) or node names (insert)
    std::vector<std::string> second;  // hosts (builders)
    std::string text;                 // filter, baseline id, option id
    vesk::datastore::InsertRecord record;                              // insert
    std::map<std::string, vesk::datastore::ProviderInfoSet> snapshots;  // update_snapshot
};

struct RecorderState {
    bool ready = true;                               // what is_open answers
    std::map<uint16_t, ControlScript> scripts;       // by operation code
    std::map<std::string, Answer> answers;           // by operation name
    std::vector<vesk::datastore::Row> rows;          // appended by every select
    std::vector<vesk::datastore::Row_baseline> baselines;  // appended by select_from_baseline
    vesk::datastore::SnapshotInfoSet snapshot_ids;   // query_baseline_ids in Result mode
    std::vector<ControlCall> controls;               // every control call but kRecorderStateCode
    std::vector<OperationCall> calls;                // every operation call, in order

    // The recorded calls of operation `name`, in order.
    std::vector<OperationCall> calls_of(const std::string& name) const {
        std::vector<OperationCall> out;
        for (const auto& call : calls)
            if (call.name == name) out.push_back(call);
        return out;
    }
};

}  // namespace vesk::test
