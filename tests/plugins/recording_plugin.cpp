// A test extension derived from interface that records the requests and
// SQL it receives and answers as scripted (see recording_plugin.h).
#include "plugins/recording_plugin.h"

#include <stdexcept>

#include "vesk/datastore/export.h"
#include "vesk/datastore/interface.h"

namespace {

namespace ds = vesk::datastore;
using vesk::test::RecorderState;

// The operations whose `in` is a ReadParameters.
bool reads_request(uint16_t op) { return (op >= 512 && op <= 514) || op == 517 || op == 519; }

class RecordingExtension final : public ds::interface {
public:
    bool is_open() override { return state_.ready; }
    int32_t open(const std::string& /*parameters*/) override { return OPERATION_SUCCESSFULL; }
    int32_t close() override { return OPERATION_SUCCESSFULL; }

    int32_t control(uint16_t op, const void* in, void* out, void* extra) override {
        if (op == vesk::test::kRecorderStateCode) {
            *static_cast<RecorderState**>(out) = &state_;
            return OPERATION_SUCCESSFULL;
        }
        record_control(op, in, out, extra);
        const auto found = state_.scripts.find(op);
        if (found == state_.scripts.end()) return interface::control(op, in, out, extra);
        const auto& script = found->second;
        if (script.throws) throw std::runtime_error("scripted exception from control");
        if (out != nullptr && op == 516) {
            static_cast<ds::SnapshotInfoSet*>(out)->insert(script.snapshots.begin(),
                                                           script.snapshots.end());
        } else if (out != nullptr && reads_request(op) && op != 517) {
            auto& rows = *static_cast<std::vector<ds::Row>*>(out);
            rows.insert(rows.end(), script.rows.begin(), script.rows.end());
        }
        return script.status;
    }

    bool select(std::string sql, std::vector<ds::Row>& rows,
                const std::map<std::string, int>& fields) override {
        state_.selects.push_back({sql, fields});
        rows.insert(rows.end(), state_.rows.begin(), state_.rows.end());
        return true;
    }

    bool select_from_baseline(std::string sql, std::vector<ds::Row_baseline>& rows,
                              const std::map<std::string, int>& fields) override {
        state_.joins.push_back({sql, fields});
        rows.insert(rows.end(), state_.baselines.begin(), state_.baselines.end());
        return state_.joins_succeed;
    }

private:
    void record_control(uint16_t op, const void* in, void* out, void* extra) {
        vesk::test::ControlCall call{op, in, out, extra, {}, {}, {}, {}};
        if (reads_request(op) && in != nullptr) {
            const auto& request = *static_cast<const ds::ReadParameters*>(in);
            call.request = {request.first, request.second, request.third, nullptr};
            if (request.sql != nullptr) call.sql = *request.sql;
        }
        if (op == 520 && out != nullptr) call.text = *static_cast<const std::string*>(out);
        using Snapshots = std::map<std::string, ds::ProviderInfoSet>;
        if (op == 518 && out != nullptr && *static_cast<const Snapshots* const*>(out) != nullptr)
            call.snapshots = **static_cast<const Snapshots* const*>(out);
        state_.controls.push_back(call);
    }

    RecorderState state_;
};

}  // namespace

extern "C" VESK_EXTENSION_ENTRY ds::DataStoreExtension* create() noexcept {
    try {
        return new RecordingExtension();
    } catch (...) {
        return nullptr;
    }
}

extern "C" VESK_EXTENSION_ENTRY void destroy(ds::DataStoreExtension* extension) noexcept {
    delete extension;
}
