// A test extension whose answers are scripted and whose calls are recorded.
//
// Parameter string (handed to open): "key=value" items joined by "|"; the
// last of a repeated key counts, unknown keys are ignored.
//   trace=<file>   append one line per call received to <file>: "create",
//                  "open <instance name> <whole parameter string>",
//                  "control <instance name> <op>", "destroy <instance name>".
//                  The file is only known once open arrives, so "create" is
//                  written then, just before "open".
//   open=<n>       status that open returns (default 0)
//   op<code>=<n>   status that control returns for op <code> (default 0)
//
// No std::map or std::to_string here: they give the module STB_GNU_UNIQUE
// symbols, and such a library is never unloaded, which would hide whether the
// controller unloads it.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"
#include "vesk/str.h"

namespace {

using vesk::datastore::DataStoreExtension;

// The value of the last item of `parameters` named `key`; "" when there is none.
std::string item(const std::string& parameters, const std::string& key) {
    std::string value;
    for (const auto& piece : vesk::str::split(parameters, '|', true)) {
        if (piece.compare(0, key.size() + 1, key + "=") == 0) value = piece.substr(key.size() + 1);
    }
    return value;
}

// The status that item `key` gives: 0 (success) when there is none.
int32_t status_of(const std::string& parameters, const std::string& key) {
    return static_cast<int32_t>(std::strtol(item(parameters, key).c_str(), nullptr, 10));
}

class ScriptedExtension final : public DataStoreExtension {
public:
    // The controller never asks a plain extension whether it is open, nor closes it.
    bool is_open() noexcept override { return true; }
    int32_t close() noexcept override { return OPERATION_SUCCESSFULL; }

    int32_t control(uint16_t op, const void*, void*, void*) noexcept override {
        try {
            char code[8];
            std::snprintf(code, sizeof code, "%u", static_cast<unsigned>(op));
            trace("control " + instance_name + " " + code);
            return status_of(parameters_, std::string("op") + code);
        } catch (...) {
            return OPERATION_UNSUCCESSFULL;
        }
    }

    int32_t open(const std::string& parameters) noexcept override {
        try {
            parameters_ = parameters;
            trace("create");
            trace("open " + instance_name + " " + parameters);
            return status_of(parameters, "open");
        } catch (...) {
            return OPERATION_UNSUCCESSFULL;
        }
    }

    ~ScriptedExtension() override {
        try {
            trace("destroy " + instance_name);
        } catch (...) {
        }
    }

private:
    // Appends `line` and a newline to the trace file, when there is one.
    void trace(const std::string& line) const {
        const std::string path = item(parameters_, "trace");
        if (std::FILE* f = path.empty() ? nullptr : std::fopen(path.c_str(), "a")) {
            std::fprintf(f, "%s\n", line.c_str());
            std::fclose(f);
        }
    }

    std::string parameters_;
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
