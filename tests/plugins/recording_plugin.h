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
// control answers the codes it has a script for itself and hands every
// other code to interface::control, so that the real dispatch and SQL
// builders run and their statements reach the recorded select and
// select_from_baseline. The write operations keep interface's default
// bodies, which fail.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vesk/datastore/records.h"

namespace vesk::test {

// control(kRecorderStateCode, nullptr, RecorderState** out, nullptr) stores
// the instance's state in *out and answers 0.
constexpr uint16_t kRecorderStateCode = 1024;

// What control answers for one code instead of dispatching it.
struct ControlScript {
    int32_t status = 0;
    // Throws std::runtime_error out of control: a misbehaving extension,
    // to prove that the callers' catch-all handlers hold.
    bool throws = false;
    std::vector<vesk::datastore::Row> rows;      // appended to out for 512, 513, 514, 519
    vesk::datastore::SnapshotInfoSet snapshots;  // inserted into out for 516
};

// One call of control, with copies of what it carried.
struct ControlCall {
    uint16_t op = 0;
    const void *in = nullptr, *out = nullptr, *extra = nullptr;
    vesk::datastore::ReadParameters request;  // *in for 512..514, 517, 519 (sql nulled)
    vesk::datastore::SQLParameters sql;       // *in->sql, when given
    std::string text;                         // 520: the id in out
    std::map<std::string, vesk::datastore::ProviderInfoSet> snapshots;  // 518: the map in out
};

// One statement run by select or select_from_baseline.
struct Statement {
    std::string sql;
    std::map<std::string, int> fields;
};

struct RecorderState {
    bool ready = true;                                     // what is_open answers
    bool joins_succeed = true;                             // what select_from_baseline answers
    std::map<uint16_t, ControlScript> scripts;             // by operation code
    std::vector<vesk::datastore::Row> rows;                // appended by every select
    std::vector<vesk::datastore::Row_baseline> baselines;  // appended by select_from_baseline
    std::vector<ControlCall> controls;  // every control call but kRecorderStateCode
    std::vector<Statement> selects;     // every select, in order
    std::vector<Statement> joins;       // every select_from_baseline, in order
};

}  // namespace vesk::test
