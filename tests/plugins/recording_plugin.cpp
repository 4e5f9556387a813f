// A test extension derived from interface that records the SQL and
// arguments it receives and answers as scripted (see recording_plugin.h).
#include "plugins/recording_plugin.h"

#include <stdexcept>

#include "vesk/datastore/export.h"
#include "vesk/datastore/interface.h"

namespace {

using vesk::datastore::DataStoreExtension;
using vesk::datastore::InsertRecord;
using vesk::datastore::ProviderInfoSet;
using vesk::datastore::ReadParameters;
using vesk::datastore::Row;
using vesk::datastore::Row_baseline;
using vesk::datastore::SnapshotInfoSet;
using vesk::test::Answer;
using vesk::test::ControlCall;
using vesk::test::ControlScript;
using vesk::test::OperationCall;
using vesk::test::RecorderState;

bool reads_request(uint16_t op) {
    return op == 512 || op == 513 || op == 514 || op == 517 || op == 519;
}

OperationCall named(const char* name) {
    OperationCall call;
    call.name = name;
    return call;
}

bool fills_rows(uint16_t op) { return op == 512 || op == 513 || op == 514 || op == 519; }

class RecordingExtension final : public vesk::datastore::interface {
public:
    bool is_open() override { return state_.ready; }

    int32_t open(const std::string& /*parameters*/) override { return OPERATION_SUCCESSFULL; }

    int32_t close() override { return OPERATION_SUCCESSFULL; }

    int32_t control(uint16_t op, const void* in, void* out, void* extra) override {
        if (op == vesk::test::kRecorderStateCode) {
            if (out == nullptr) return OPERATION_UNSUCCESSFULL;
            *static_cast<RecorderState**>(out) = &state_;
            return OPERATION_SUCCESSFULL;
        }
        record_control(op, in, out, extra);

        const auto script = state_.scripts.find(op);
        if (script == state_.scripts.end()) return interface::control(op, in, out, extra);
        return run_script(script->second, op, out);
    }

    bool insert(const vesk::provider::header& header, const std::string& option_id,
                const std::string& std_out, const std::string& std_err) override {
        OperationCall call = named("insert");
        call.record = InsertRecord{std_out, std_err, header, option_id};
        call.text = option_id;
        state_.calls.push_back(call);
        if (mode("insert") == Answer::Default)
            return interface::insert(header, option_id, std_out, std_err);
        return answer("insert");
    }

    bool select_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                         std::string filter) override {
        OperationCall call = named("select_provider");
        call.first = providers;
        call.text = filter;
        state_.calls.push_back(call);
        return interface::select_provider(providers, rows, filter);
    }

    bool select(std::string sql, std::vector<Row>& rows,
                const std::map<std::string, int>& fields) override {
        OperationCall call = named("select");
        call.sql = sql;
        call.fields = fields;
        state_.calls.push_back(call);
        const bool result = answer("select");
        rows.insert(rows.end(), state_.rows.begin(), state_.rows.end());
        return result;
    }

    bool update_snapshot(const std::map<std::string, ProviderInfoSet>& snapshots) override {
        OperationCall call = named("update_snapshot");
        call.snapshots = snapshots;
        state_.calls.push_back(call);
        if (mode("update_snapshot") == Answer::Default) return interface::update_snapshot(snapshots);
        return answer("update_snapshot");
    }

    bool remove_snapshot(const std::string& baseline_id) override {
        OperationCall call = named("remove_snapshot");
        call.text = baseline_id;
        state_.calls.push_back(call);
        if (mode("remove_snapshot") == Answer::Default) return interface::remove_snapshot(baseline_id);
        return answer("remove_snapshot");
    }

    bool get_latest_rows_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                                  std::vector<std::string> hosts) override {
        OperationCall call = named("get_latest_rows_provider");
        call.first = providers;
        call.second = hosts;
        state_.calls.push_back(call);
        return interface::get_latest_rows_provider(providers, rows, hosts);
    }

    bool get_latest_collect_rows(std::vector<std::string> providers, std::vector<Row>& rows,
                                 std::vector<std::string> hosts) override {
        OperationCall call = named("get_latest_collect_rows");
        call.first = providers;
        call.second = hosts;
        state_.calls.push_back(call);
        return interface::get_latest_collect_rows(providers, rows, hosts);
    }

    bool query_baseline_ids(SnapshotInfoSet& ids) override {
        state_.calls.push_back(named("query_baseline_ids"));
        if (mode("query_baseline_ids") == Answer::Default) return interface::query_baseline_ids(ids);
        const bool result = answer("query_baseline_ids");
        ids.insert(state_.snapshot_ids.begin(), state_.snapshot_ids.end());
        return result;
    }

    bool select_from_baseline(std::string sql, std::vector<Row_baseline>& rows,
                              const std::map<std::string, int>& fields) override {
        OperationCall call = named("select_from_baseline");
        call.sql = sql;
        call.fields = fields;
        state_.calls.push_back(call);
        const bool result = answer("select_from_baseline");
        rows.insert(rows.end(), state_.baselines.begin(), state_.baselines.end());
        return result;
    }

    bool get_snapshot_provider(std::string baseline_id,
                               std::map<std::string, std::vector<Row>>& rows_by_provider,
                               std::map<std::string, std::vector<Row_baseline>>& baselines,
                               std::vector<std::string> providers,
                               std::vector<std::string> hosts) override {
        OperationCall call = named("get_snapshot_provider");
        call.text = baseline_id;
        call.first = providers;
        call.second = hosts;
        state_.calls.push_back(call);
        return interface::get_snapshot_provider(baseline_id, rows_by_provider, baselines,
                                                providers, hosts);
    }

private:
    Answer::Mode mode(const std::string& name) const {
        const auto it = state_.answers.find(name);
        return it == state_.answers.end() ? Answer::Default : it->second.mode;
    }

    // Throws or returns the scripted result of `name` (true by default).
    bool answer(const std::string& name) const {
        const auto it = state_.answers.find(name);
        if (it == state_.answers.end()) return true;
        if (it->second.mode == Answer::Throw) throw std::runtime_error(it->second.what);
        return it->second.mode == Answer::Default || it->second.result;
    }

    void record_control(uint16_t op, const void* in, void* out, void* extra) {
        ControlCall call;
        call.op = op;
        call.out = out;
        call.extra = extra;
        if (reads_request(op) && in != nullptr) {
            const auto& request = *static_cast<const ReadParameters*>(in);
            call.has_in = true;
            call.request = ReadParameters{request.first, request.second, request.third, nullptr};
            if (request.sql != nullptr) {
                call.has_sql = true;
                call.sql = *request.sql;
            }
        }
        if (op == 520 && out != nullptr) call.text = *static_cast<const std::string*>(out);
        if (op == 518 && out != nullptr) {
            const auto* snapshots =
                *static_cast<const std::map<std::string, ProviderInfoSet>* const*>(out);
            if (snapshots != nullptr) call.snapshots = *snapshots;
        }
        state_.controls.push_back(call);
    }

    int32_t run_script(const ControlScript& script, uint16_t op, void* out) {
        if (script.throws) throw std::runtime_error("scripted exception from control");
        if (out != nullptr && fills_rows(op)) {
            auto& rows = *static_cast<std::vector<Row>*>(out);
            rows.insert(rows.end(), script.rows.begin(), script.rows.end());
        }
        if (out != nullptr && op == 516)
            static_cast<SnapshotInfoSet*>(out)->insert(script.snapshots.begin(),
                                                       script.snapshots.end());
        return script.status;
    }

    RecorderState state_;
};

}  // namespace

extern "C" VESK_EXTENSION_ENTRY DataStoreExtension* create() noexcept {
    try {
        return new RecordingExtension();
    } catch (...) {
        return nullptr;
    }
}

extern "C" VESK_EXTENSION_ENTRY void destroy(DataStoreExtension* extension) noexcept {
    delete extension;
}
