#pragma once
// The query front end: functions that send one operation to the recorded
// datastores (DataStoreParseUtility::db_vec) and collect the answer. The
// data queries walk every "data" datastore in order and stop at the first
// successful, non-empty answer; execute_ioctl visits named datastores and
// stops at the first success. Failures are logged at level 7 and never
// thrown. Every function returns false at once when no caller holds the
// controller (DataStoreController::createDataStoreController()). Use from one
// thread at a time.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"
#include "vesk/datastore/records.h"

namespace vesk::datastore {

// Called once per visited datastore with its status, the operation code, its
// handle, and the caller's `out` and `extra`.
using ioctl_callback = void (*)(int status, uint16_t op, std::weak_ptr<DataStoreExtension> instance,
                                const void* out, const void* extra);

// Sends `op` to the datastores named in `names`, in that order, until one
// answers OPERATION_SUCCESSFULL (then true). `callback` may be null.
VESK_DATASTORE_EXPORT bool execute_ioctl(std::vector<std::string> names, uint16_t op,
                                         const void* in, void* out, void* extra,
                                         ioctl_callback callback);

// Generic query of table `table` (operation 514) with the field map `where`.
VESK_DATASTORE_EXPORT bool select_data(std::string table, std::vector<Row>& rows,
                                       const std::map<std::string, int>& where, bool flag);

// Rows of `providers`, optionally restricted by the SQL condition `filter`.
VESK_DATASTORE_EXPORT bool select_provider_data(std::vector<std::string> providers,
                                                std::vector<Row>& rows, std::string filter,
                                                bool flag);

// The latest row per provider, option and host of `providers` on `hosts`
// (all hosts when empty).
VESK_DATASTORE_EXPORT bool get_latest_rows_provider_hosts_data(
    const std::vector<std::string>& providers, std::vector<Row>& rows,
    const std::vector<std::string>& hosts, bool flag);

// The same on one host.
VESK_DATASTORE_EXPORT bool get_latest_rows_provider_data(const std::vector<std::string>& providers,
                                                         std::vector<Row>& rows, std::string host,
                                                         bool flag);

// Host data: the rows of the "uname" provider, columns mapped through `where`.
VESK_DATASTORE_EXPORT bool get_hosts_data(std::vector<Row>& rows,
                                          const std::map<std::string, int>& where, bool flag);

// The rows of snapshot `baseline_id` and its membership records, per
// provider, for `providers` on `hosts` (operation 517), from the first "data"
// datastore that answers.
VESK_DATASTORE_EXPORT bool get_snapshot_provider_data(
    const std::string& baseline_id, std::map<std::string, std::vector<Row>>& rows_by_provider,
    std::map<std::string, std::vector<Row_baseline>>& baselines_by_provider,
    const std::vector<std::string>& providers, const std::vector<std::string>& hosts, bool flag);

}  // namespace vesk::datastore
