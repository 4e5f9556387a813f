#pragma once
// The contract between the datastore library and its extension plugins.
//
// An extension is a shared library exporting the C entry points "create"
// (a new, unopened instance, or null) and "destroy" (releases an instance
// that the same library created). The controller owns every instance through
// a shared_ptr whose deleter is "destroy"; callers only hold weak pointers.
// Call order an extension may rely on: create, then open once; after a failed
// open only destroy; after a successful open any number of control calls,
// then destroy. No exception may cross the plugin boundary: failures are
// reported as status values or a null instance.

#include <cstdint>
#include <string>

#include "vesk/datastore/export.h"

namespace vesk::datastore {

class VESK_DATASTORE_EXPORT DataStoreExtension {
public:
    virtual ~DataStoreExtension();

    // True when the instance is ready for work.
    virtual bool is_open() = 0;
    // Runs operation `op`; the meaning of the three pointers depends on `op`.
    // Answers OPERATION_SUCCESSFULL, OPERATION_UNSUCCESSFULL, or
    // UNSUPPORTED_OPERATION for a code the extension does not implement.
    virtual int32_t control(uint16_t op, const void* in, void* out, void* extra) = 0;
    // Connects the instance to its data source; `parameters` is a parameter
    // string ("key=value" items joined by "|"). Called once, by the controller.
    virtual int32_t open(const std::string& parameters) = 0;
    // Releases what open took; never called by the library itself.
    virtual int32_t close() = 0;

    static const int32_t OPERATION_SUCCESSFULL;    // 0
    static const int32_t OPERATION_UNSUCCESSFULL;  // 1
    static const int32_t UNSUPPORTED_OPERATION;    // 512

    // Set by the controller right after "create", before open.
    std::string instance_name;
};

// Types of the two entry points every extension library exports.
using CreateExtensionFn = DataStoreExtension* (*)();
using DestroyExtensionFn = void (*)(DataStoreExtension*);

}  // namespace vesk::datastore
