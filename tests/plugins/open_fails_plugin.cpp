// A test extension whose open always fails (status 1). Its parameter string
// may name a trace file, "trace=<file>", to which it appends "create" (when
// open arrives, since the file is only known then), "open <instance name>",
// "control <instance name> <op>" (which the controller must never cause) and
// "destroy <instance name>".
#include <string>

#include "plugins/plugin_trace.h"
#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"

namespace {

using vesk::datastore::DataStoreExtension;

class OpenFailsExtension final : public DataStoreExtension {
public:
    bool is_open() noexcept override { return false; }

    int32_t control(uint16_t op, const void*, void*, void*) noexcept override {
        try {
            vesk::test_plugin::append_line(
                trace_, "control " + instance_name + " " + vesk::test_plugin::number(op));
        } catch (...) {
        }
        return OPERATION_SUCCESSFULL;
    }

    int32_t open(const std::string& parameters) noexcept override {
        try {
            trace_ = vesk::test_plugin::Items(parameters).get("trace");
            vesk::test_plugin::append_line(trace_, "create");
            vesk::test_plugin::append_line(trace_, "open " + instance_name);
        } catch (...) {
        }
        return OPERATION_UNSUCCESSFULL;
    }

    int32_t close() noexcept override { return OPERATION_SUCCESSFULL; }

    ~OpenFailsExtension() override {
        try {
            vesk::test_plugin::append_line(trace_, "destroy " + instance_name);
        } catch (...) {
        }
    }

private:
    std::string trace_;
};

}  // namespace

extern "C" VESK_EXTENSION_ENTRY DataStoreExtension* create() noexcept {
    try {
        return new OpenFailsExtension();
    } catch (...) {
        return nullptr;
    }
}

extern "C" VESK_EXTENSION_ENTRY void destroy(DataStoreExtension* extension) noexcept {
    delete extension;
}
