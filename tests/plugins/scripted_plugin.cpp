// A test extension whose answers are scripted and whose calls are recorded.
//
// Parameter string (the configuration's source_parameters, handed to open):
// "key=value" items joined by "|"; unknown keys are ignored.
//   trace=<file>   append one line per call received to <file>:
//                    create
//                    open <instance name> <whole parameter string>
//                    control <instance name> <op>
//                    close <instance name>
//                    destroy <instance name>
//                  The trace file is only known once open arrives, so the
//                  "create" line is written then, just before the "open" line.
//   open=<n>       status that open returns (default 0)
//   status=<n>     status that control returns for every op (default 0)
//   op<code>=<n>   status that control returns for op <code>, e.g. op513=1;
//                  takes precedence over status
// Operation 1024 echoes: `in` is a const std::string*, `out` (when not null)
// a std::string* that receives "<instance name>:" followed by *in.
// Example: "trace=/tmp/t/trace.log|status=0|op515=512".
#include <cstdlib>
#include <string>

#include "plugins/plugin_trace.h"
#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"

namespace {

using vesk::datastore::DataStoreExtension;

constexpr uint16_t kEchoOp = 1024;

int32_t to_status(const std::string& text, int32_t fallback) {
    if (text.empty()) return fallback;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    return *end == '\0' ? static_cast<int32_t>(value) : fallback;
}

class ScriptedExtension final : public DataStoreExtension {
public:
    bool is_open() noexcept override { return opened_; }

    int32_t control(uint16_t op, const void* in, void* out, void* /*extra*/) noexcept override {
        try {
            vesk::test_plugin::append_line(
                trace_, "control " + instance_name + " " + vesk::test_plugin::number(op));
            const int32_t status =
                to_status(items_.get("op" + vesk::test_plugin::number(op)), default_status_);
            if (op == kEchoOp && in != nullptr && out != nullptr)
                *static_cast<std::string*>(out) =
                    instance_name + ":" + *static_cast<const std::string*>(in);
            return status;
        } catch (...) {
            return OPERATION_UNSUCCESSFULL;
        }
    }

    int32_t open(const std::string& parameters) noexcept override {
        try {
            items_ = vesk::test_plugin::Items(parameters);
            trace_ = items_.get("trace");
            default_status_ = to_status(items_.get("status"), OPERATION_SUCCESSFULL);
            vesk::test_plugin::append_line(trace_, "create");
            vesk::test_plugin::append_line(trace_, "open " + instance_name + " " + parameters);
            const int32_t status = to_status(items_.get("open"), OPERATION_SUCCESSFULL);
            opened_ = status == OPERATION_SUCCESSFULL;
            return status;
        } catch (...) {
            return OPERATION_UNSUCCESSFULL;
        }
    }

    int32_t close() noexcept override {
        try {
            vesk::test_plugin::append_line(trace_, "close " + instance_name);
        } catch (...) {
        }
        opened_ = false;
        return OPERATION_SUCCESSFULL;
    }

    ~ScriptedExtension() override {
        try {
            vesk::test_plugin::append_line(trace_, "destroy " + instance_name);
        } catch (...) {
        }
    }

private:
    vesk::test_plugin::Items items_;
    std::string trace_;
    int32_t default_status_ = OPERATION_SUCCESSFULL;
    bool opened_ = false;
};

}  // namespace

extern "C" VESK_EXTENSION_ENTRY DataStoreExtension* create() noexcept {
    try {
        return new ScriptedExtension();
    } catch (...) {
        return nullptr;
    }
}

extern "C" VESK_EXTENSION_ENTRY void destroy(DataStoreExtension* extension) noexcept {
    delete extension;
}
