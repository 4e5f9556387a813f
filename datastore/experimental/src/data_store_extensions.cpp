// The query front end and the snapshot operations: each sends one operation
// code to the recorded datastores through the controller and decides, by its
// own policy, which answer ends the walk. Failures are logged at level 7;
// nothing here throws an exception of a datastore on to the caller.
//
// Every function reaches the controller through a weak reference to what
// createDataStoreController hands out: while nobody else holds the
// controller it has already gone, and the function gives up at once.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vesk/datastore/controller.h"
#include "vesk/datastore/interface.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/log.h"

namespace vesk::datastore {
namespace {

const char* const kSource = "datastore/experimental/src/data_store_extensions";
constexpr int kLevel = 7;

// Line numbers under which the "pulling data" records of these functions
// have always been filed; kept so that log tooling keyed on them still works.
constexpr unsigned kExecuteIoctlLine = 1200;
constexpr unsigned kQueryBaselinesLine = 545;
constexpr unsigned kRemoveSnapshotLine = 692;

// Field map sent with every provider query; callers cannot pass their own.
const std::map<std::string, int> provider_where_map = row_field_index;

std::shared_ptr<DataStoreController> live_controller() {
    std::weak_ptr<DataStoreController> weak = DataStoreController::createDataStoreController();
    return weak.lock();
}

bool serves_data(const DataStoreHandle& entry) { return entry.first.source_types.test(data); }

// The message of a datastore that threw while it was asked.
void log_pulling_failed(const char* function, unsigned line, const std::string& instance) {
    vesk::log::ErrorLog(kSource, function, line, kLevel).stream()
        << "Pulling data failed for " << '"' << " from the datastore source " << '"' << instance
        << '"';
}

// How one operation names itself in its messages.
struct Wording {
    const char* function;
    const char* unsupported;  // each text ends in the quote opening the instance name
    const char* failed;
};

// Logs the answer `status` of a datastore that did not succeed: a refusal
// (512) as `unsupported`, anything else as `failed`, with the error code
// when it is not the plain failure 1.
void log_refusal(const Wording& wording, const std::string& instance, int32_t status) {
    vesk::log::ErrorLog log(kSource, wording.function, __LINE__, kLevel);
    if (status == DataStoreExtension::UNSUPPORTED_OPERATION) {
        log.stream() << wording.unsupported << instance << '"';
        return;
    }
    log.stream() << wording.failed << instance << '"';
    if (status != DataStoreExtension::OPERATION_UNSUCCESSFULL)
        log.stream() << " with error code " << status;
}

// What a walk over the "data" datastores does after one datastore's answer.
enum class Step { Next, Succeed, Fail };

// Walks the "data" datastores in order: `ask(controller, entry)` sends the
// operation to one of them and says whether the walk goes on. A datastore
// that throws is logged and counts as `on_throw`. Returns `exhausted` when
// every datastore said Next, and false without a live controller.
template <typename Ask>
bool walk_data_stores(const Wording& wording, unsigned throw_line, Step on_throw, bool exhausted,
                      Ask&& ask) {
    auto controller = live_controller();
    if (!controller) return false;

    for (const auto& entry : DataStoreParseUtility::get_datastore_vector()) {
        if (!serves_data(entry)) continue;
        Step step = on_throw;
        try {
            step = ask(*controller, entry);
        } catch (...) {
            log_pulling_failed(wording.function, throw_line, entry.first.instance_name);
        }
        if (step != Step::Next) return step == Step::Succeed;
    }
    return exhausted;
}

// Sends one data query to the "data" datastores in order and stops at the
// first that answers success with rows; failures are logged and the walk
// goes on.
bool query_data_stores(const Wording& wording, uint16_t op, const ReadParameters& request,
                       std::vector<Row>& rows) {
    return walk_data_stores(wording, __LINE__, Step::Next, false,
                            [&](DataStoreController& controller, const DataStoreHandle& entry) {
                                const int32_t status =
                                    controller.control(entry.second, op, &request, &rows, nullptr);
                                // An empty answer is not a success.
                                if (status == DataStoreExtension::OPERATION_SUCCESSFULL)
                                    return rows.empty() ? Step::Next : Step::Succeed;
                                log_refusal(wording, entry.first.instance_name, status);
                                return Step::Next;
                            });
}

}  // namespace

// ---- Operation fan-out ----

bool execute_ioctl(std::vector<std::string> names, uint16_t op, const void* in, void* out,
                   void* extra, ioctl_callback callback) {
    auto controller = live_controller();
    if (!controller) return false;

    const DataStoreHandles located = DataStoreParseUtility::locate_datastores(names);
    for (const auto& entry : located) {
        const std::string& instance = entry.first.instance_name;
        try {
            const int32_t status = controller->control(entry.second, op, in, out, extra);
            if (status == DataStoreExtension::OPERATION_SUCCESSFULL) {
                if (callback != nullptr) callback(status, op, entry.second, out, extra);
                return true;
            }
            {
                vesk::log::ErrorLog log(kSource, "execute_ioctl", __LINE__, kLevel);
                log.stream() << "Operation code " << op;
                if (status == DataStoreExtension::UNSUPPORTED_OPERATION)
                    log.stream() << " unsupported for " << instance;
                else if (status == DataStoreExtension::OPERATION_UNSUCCESSFULL)
                    log.stream() << " failed for " << instance;
                else  // no blank before "error code": the established line format
                    log.stream() << " failed for " << instance << "error code " << status;
            }
            if (callback != nullptr) callback(status, op, entry.second, out, extra);
        } catch (...) {
            // The doubled blank after "for" is part of the established text.
            vesk::log::ErrorLog(kSource, "execute_ioctl", kExecuteIoctlLine, kLevel).stream()
                << "Pulling data failed for "
                << " from the database source " << '"' << instance << '"';
        }
    }
    return false;
}

// ---- Data queries ----
// The trailing flag of these functions is accepted for compatibility with
// existing callers and not read.

bool select_data(std::string table, std::vector<Row>& rows, const std::map<std::string, int>& where,
                 bool /*flag*/) {
    if (table.empty()) {
        rows.clear();
        return false;
    }
    SQLParameters sql{table, "", where};
    ReadParameters request;
    request.sql = &sql;
    static const Wording wording{"select_data", "Generic querying of data not supported for \"",
                                 "Generic querying of data failed for \""};
    return query_data_stores(wording, OP_SELECT_PROVIDER, request, rows);
}

bool select_provider_data(std::vector<std::string> providers, std::vector<Row>& rows,
                          std::string filter, bool /*flag*/) {
    if (providers.empty()) {
        rows.clear();
        return false;
    }
    SQLParameters sql{filter, "", provider_where_map};
    ReadParameters request;
    request.first = providers;
    request.sql = &sql;
    static const Wording wording{"select_provider_data",
                                 "Querying of provider data not supported for \"",
                                 "Querying of provider data failed for \""};
    return query_data_stores(wording, OP_SELECT_PROVIDER, request, rows);
}

bool get_latest_rows_provider_hosts_data(const std::vector<std::string>& providers,
                                         std::vector<Row>& rows,
                                         const std::vector<std::string>& hosts, bool /*flag*/) {
    if (providers.empty()) {
        rows.clear();
        return false;
    }
    ReadParameters request;
    request.first = providers;
    request.second = hosts;
    // "unsupported for", unlike the other queries' "not supported for".
    static const Wording wording{"get_latest_rows_provider_hosts_data",
                                 "Querying of latest timestamp unsupported for \"",
                                 "Querying of latest timestamp failed for \""};
    return query_data_stores(wording, OP_LATEST_ROWS_PROVIDER, request, rows);
}

bool get_latest_rows_provider_data(const std::vector<std::string>& providers,
                                   std::vector<Row>& rows, std::string host, bool flag) {
    const std::vector<std::string> hosts{host};
    return get_latest_rows_provider_hosts_data(providers, rows, hosts, flag);
}

bool get_hosts_data(std::vector<Row>& rows, const std::map<std::string, int>& where,
                    bool /*flag*/) {
    // Host data are the stored rows of the "uname" provider.
    SQLParameters sql{"uname", "", where};
    ReadParameters request;
    request.first = {"uname"};
    request.sql = &sql;
    static const Wording wording{"get_hosts_data", "Host(s) data querying not supported for \"",
                                 "Host(s) data querying failed for \""};
    return query_data_stores(wording, OP_SELECT_HOSTS, request, rows);
}

bool get_snapshot_provider_data(
    const std::string& baseline_id, std::map<std::string, std::vector<Row>>& rows_by_provider,
    std::map<std::string, std::vector<Row_baseline>>& baselines_by_provider,
    const std::vector<std::string>& providers, const std::vector<std::string>& hosts,
    bool /*flag*/) {
    ReadParameters request;
    request.first = {baseline_id};
    request.second = providers;
    request.third = hosts;
    void* maps[2] = {&baselines_by_provider, &rows_by_provider};

    // A snapshot lives in one datastore: the first that answers success
    // (even with no rows for these providers) ends the walk.
    static const Wording wording{"get_snapshot_provider_data",
                                 "Querying of snapshot data not supported for \"",
                                 "Querying of snapshot data failed for \""};
    return walk_data_stores(wording, __LINE__, Step::Next, false,
                            [&](DataStoreController& controller, const DataStoreHandle& entry) {
                                const int32_t status = controller.control(
                                    entry.second, OP_SNAPSHOT_PROVIDER, &request, maps, nullptr);
                                if (status == DataStoreExtension::OPERATION_SUCCESSFULL)
                                    return Step::Succeed;
                                log_refusal(wording, entry.first.instance_name, status);
                                return Step::Next;
                            });
}

// ---- Snapshot state ----

void DataStoreParseUtility::set_unique_timestamp(timeval value) { unique_timestamp = value; }

int32_t DataStoreParseUtility::get_unique_timestamp() {
    return static_cast<int32_t>(unique_timestamp.tv_sec);
}

bool DataStoreParseUtility::set_with_baseline_bool(bool value) {
    with_baseline_bool = value;
    return true;
}

bool DataStoreParseUtility::get_with_baseline_bool() { return with_baseline_bool; }

bool DataStoreParseUtility::set_baseline_str(std::string value) {
    baseline_str = std::move(value);
    return true;
}

std::string DataStoreParseUtility::get_baseline_str() { return baseline_str; }

bool DataStoreParseUtility::set_snapshot_remove_str(std::string value) {
    snapshot_remove_str = std::move(value);
    return true;
}

std::string DataStoreParseUtility::get_snapshot_remove_str() { return snapshot_remove_str; }

void DataStoreParseUtility::set_baseline_vec(const std::vector<std::string>& ids) {
    baseline_str_vec.insert(baseline_str_vec.end(), ids.begin(), ids.end());
}

std::vector<std::string> DataStoreParseUtility::get_baseline_str_vec() { return baseline_str_vec; }

void DataStoreParseUtility::clear_baseline_str_vector() { baseline_str_vec.clear(); }

SnapshotInfoSet DataStoreParseUtility::get_snapshot_info_set() { return snapshot_info_set; }

bool DataStoreParseUtility::update_snapshot_info(SnapshotInfoSet infos) {
    // set::insert keeps the stored entry of a known id.
    snapshot_info_set.insert(infos.begin(), infos.end());
    return true;
}

// ---- Snapshot operations ----

bool DataStoreParseUtility::query_available_baselines() {
    // Unlike the data queries, the first datastore that refuses or fails
    // ends the whole operation.
    static const Wording wording{"query_available_baselines",
                                 "Querying available snapshots not supported for \"",
                                 "Querying available snapshots failed for \""};
    return walk_data_stores(wording, kQueryBaselinesLine, Step::Fail, false,
                            [](DataStoreController& controller, const DataStoreHandle& entry) {
                                SnapshotInfoSet found;
                                const int32_t status = controller.control(
                                    entry.second, OP_QUERY_BASELINE_IDS, nullptr, &found, nullptr);
                                if (status == DataStoreExtension::OPERATION_SUCCESSFULL) {
                                    if (found.empty()) return Step::Next;
                                    return update_snapshot_info(found) ? Step::Succeed : Step::Fail;
                                }
                                // A plain failure is worded as "not supported" too.
                                log_refusal(wording, entry.first.instance_name,
                                            status == DataStoreExtension::OPERATION_UNSUCCESSFULL
                                                ? DataStoreExtension::UNSUPPORTED_OPERATION
                                                : status);
                                return Step::Fail;
                            });
}

namespace {

// Recording the latest run and committing it both report as snapshot updates.
const Wording kMarkLatestWording{"mark_latest_snapshot_data",
                                 "Snapshot updates not supported for \"",
                                 "Snapshot updates failed for \""};
const Wording kCommitWording{"commit_snapshot_updates", kMarkLatestWording.unsupported,
                             kMarkLatestWording.failed};

}  // namespace

bool DataStoreParseUtility::mark_latest_snapshot_data(
    std::map<std::string, ProviderInfo>& providers, std::vector<Row>& rows) {
    // The request names the providers to record (the keys of `providers`).
    // An empty map sends an empty list; what that means is the extension's
    // call: the SQL base refuses it, so nothing is recorded and the result
    // is false.
    ReadParameters request;
    for (const auto& provider : providers) request.first.push_back(provider.first);

    // The first failure ends the walk, an empty answer does not; no "data"
    // datastore at all is not a failure.
    return walk_data_stores(
        kMarkLatestWording, __LINE__, Step::Fail, true,
        [&](DataStoreController& controller, const DataStoreHandle& entry) {
            const std::string& instance = entry.first.instance_name;
            const int32_t status =
                controller.control(entry.second, OP_LATEST_COLLECT_ROWS, &request, &rows, nullptr);
            if (status != DataStoreExtension::OPERATION_SUCCESSFULL) {
                log_refusal(kMarkLatestWording, instance, status);
                return Step::Fail;
            }
            if (rows.empty()) return Step::Next;
            update_snapshot_dictionary(get_baseline_str(), instance, rows, providers);
            return commit_snapshot_updates() ? Step::Succeed : Step::Fail;
        });
}

void DataStoreParseUtility::update_snapshot_dictionary(
    std::string snapshot, std::string instance, std::vector<Row>& rows,
    std::map<std::string, ProviderInfo>& providers) {
    if (snapshot.empty()) return;
    // The set exists from here on, even when no row follows.
    ProviderInfoSet& target = snapshot_dict[instance][snapshot];
    for (const Row& row : rows) {
        ProviderInfo& known = providers[row.Provider];
        known.rowid = row.rowid;  // the entry names the row being recorded
        target.insert(ProviderInfo{known.rowid, known.name, known.config});
    }
}

bool DataStoreParseUtility::commit_snapshot_updates() {
    // Only the first "data" datastore is asked, whatever it answers; with
    // none there is nothing to record.
    return walk_data_stores(kCommitWording, __LINE__, Step::Fail, true,
                            [](DataStoreController& controller, const DataStoreHandle& entry) {
                                const std::string& instance = entry.first.instance_name;
                                const std::map<std::string, ProviderInfoSet>* snapshots =
                                    &snapshot_dict[instance];
                                // The map travels in the output slot, with no input.
                                const int32_t status = controller.control(
                                    entry.second, OP_UPDATE_SNAPSHOT, nullptr, &snapshots, nullptr);
                                if (status == DataStoreExtension::OPERATION_SUCCESSFULL)
                                    return Step::Succeed;
                                log_refusal(kCommitWording, instance, status);
                                return Step::Fail;
                            });
}

namespace {

// Drops `snapshot` from the dictionary entry of `instance`, and the entry
// itself once it is empty. True if the snapshot was there.
bool forget_from(const std::string& instance, const std::string& snapshot) {
    auto& dict = DataStoreParseUtility::snapshot_dict;
    const auto found = dict.find(instance);
    if (found == dict.end()) return false;
    const bool erased = found->second.erase(snapshot) > 0;
    if (found->second.empty()) dict.erase(found);
    return erased;
}

}  // namespace

bool DataStoreParseUtility::remove_snapshot() {
    // Only the first "data" datastore is asked, whatever it answers; with
    // none there is nothing to remove.
    static const Wording wording{"remove_snapshot", "Snapshot removal not supported for \"",
                                 "Snapshot removal failed for \""};
    const std::string removed = snapshot_remove_str;
    std::string baseline_id = removed;  // the extension's copy: it may write to its output
    return walk_data_stores(wording, kRemoveSnapshotLine, Step::Fail, true,
                            [&](DataStoreController& controller, const DataStoreHandle& entry) {
                                // The id travels in the output slot, with no input.
                                const int32_t status =
                                    controller.control(entry.second, OP_REMOVE_SNAPSHOT, nullptr,
                                                       &baseline_id, nullptr);
                                if (status == DataStoreExtension::OPERATION_SUCCESSFULL) {
                                    // Otherwise the next commit would record it again.
                                    forget_from(entry.first.instance_name, removed);
                                    return Step::Succeed;
                                }
                                log_refusal(wording, entry.first.instance_name, status);
                                return Step::Fail;
                            });
}

bool DataStoreParseUtility::forget_snapshot(const std::string& snapshot) {
    bool erased = false;
    for (auto next = snapshot_dict.begin(); next != snapshot_dict.end();) {
        const std::string instance = (next++)->first;  // forget_from may erase this entry
        erased = forget_from(instance, snapshot) || erased;
    }
    return erased;
}

void DataStoreParseUtility::clear_snapshot_dictionary() { snapshot_dict.clear(); }

}  // namespace vesk::datastore
