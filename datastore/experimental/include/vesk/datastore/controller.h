#pragma once
// DataStoreController loads extension libraries, opens one instance per
// datastore configuration, forwards operations to instances and closes them.
//
// One controller exists per process while somebody holds it
// (createDataStoreController). It owns every instance; callers get weak
// handles that expire when an instance is closed or the controller dies.
// Libraries stay loaded until the controller dies. Not thread-safe: load,
// open and close must not run concurrently with each other or with control.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"
#include "vesk/datastore/records.h"

namespace vesk::datastore {

class VESK_DATASTORE_EXPORT DataStoreController {
public:
    DataStoreController();
    ~DataStoreController();
    DataStoreController(const DataStoreController&) = delete;
    DataStoreController& operator=(const DataStoreController&) = delete;

    // The live controller, or a new one when nobody holds one any more.
    static std::shared_ptr<DataStoreController> createDataStoreController();

    // Loads the extension library of every config (completed with defaults).
    // Appends every config whose library is loaded to `loaded`. Returns one
    // (library path, status) per config; success marks fill the list from its
    // front in the order of new loads. Throws std::runtime_error on failure.
    StatusList load(std::vector<DataStoreConfig> configs, std::vector<DataStoreConfig>& loaded);

    // Completes `configs` with defaults, loads what is missing and opens one
    // instance per config; `handles` is cleared and receives a handle per
    // opened instance. Returns (instance name, status) pairs. Throws
    // std::runtime_error at the first config that cannot be opened.
    StatusList open(std::vector<DataStoreConfig>& configs, DataStoreHandles& handles);

    // Runs `op` on the instance; OPERATION_UNSUCCESSFULL if it is gone.
    int32_t control(std::weak_ptr<DataStoreExtension> instance, uint16_t op, const void* in,
                    void* out, void* extra);

    // Closes the named instances (all of them for an empty list). Returns one
    // (name, status) per name; failure marks fill the list from its front in
    // the order of misses.
    StatusList close(std::vector<std::string> names);

    // The live controller, as handed out by createDataStoreController.
    static std::weak_ptr<DataStoreController> ref_ptr;

    class Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace vesk::datastore
