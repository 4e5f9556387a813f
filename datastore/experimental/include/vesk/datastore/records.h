#pragma once
// Plain value records exchanged by every part of the datastore library and
// its extensions. Fields are public and keep their documented order: several
// records are filled by position, and Row mirrors the provider table's
// column order. No record owns a raw pointer except where noted.

#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "vesk/datastore/export.h"

namespace vesk {

// How the scale of a value grows.
enum ScaleType { constant = 0, linear = 1, squared = 2, logarithmic = 3 };

// How a node list is ordered between runs.
enum nodelist_method_t { NONE = 0, ROTATE_RIGHT = 1, ROTATE_LEFT = 2, ROUND_ROBIN = 3, RANDOM = 4 };

namespace postprocessor {
// Severity carried by a band of 0 to 100 scores.
enum Severity { informational = 0, warning = 4, critical = 8 };
}  // namespace postprocessor

namespace provider {

// Encoding of a row's captured output texts.
enum encoding { none = 0, base64 = 1, raw = 2 };

// Everything of a provider row but the texts and the row ids.
struct header {
    std::string provider;
    std::string hostname;
    int32_t num_nodes = 0;
    std::vector<std::string> node_names;
    int32_t exit_status = 0;
    int64_t timestamp = 0;  // start time, seconds since the epoch
    double duration = 0;    // seconds
    vesk::provider::encoding encoding = vesk::provider::encoding::none;
    int32_t version = 0;
    std::string username;
    int64_t unique_timestamp = 0;  // one collection run, microseconds since the epoch
};

}  // namespace provider

// What a snapshot records of a provider.
struct provider_config {
    std::string name;
    std::string fwd_name;
    std::string provider_checksum;
    std::string command_checksum;
};

namespace datastore {

// Kind of database behind a datastore ("sqlite3", "odbc", "other").
enum DatabaseType { sqlite3 = 0, odbc = 1, other = 2 };

// Bit positions of a datastore's source-type set ("data", "stream").
enum Source_Type { data = 0, stream = 1 };

// Attributes of a datastore configuration entry.
enum DBFields {
    instance_name_field = 0,
    source_parameters_field = 3,
    type_field = 4,
    source_types_field = 5
};

class DataStoreExtension;

// One stored result of one data provider on one host; the fields follow the
// columns of the provider table.
struct VESK_DATASTORE_EXPORT Row {
    int32_t rowid = 0;
    std::string Provider;
    std::string Hostname;
    int32_t num_nodes = 0;
    std::vector<std::string> node_names;
    int32_t Exit_status = 0;
    int64_t Timestamp = 0;
    double Duration = 0;
    int32_t Encoding = 0;
    std::string STDOUT;
    std::string STDERR;
    std::string OptionID;
    int32_t version = 0;
    std::string Username;
    int64_t Unique_timestamp = 0;

    Row() = default;
    Row(const Row&) = default;
    Row(Row&&) noexcept = default;
    Row& operator=(const Row&) = default;
    Row& operator=(Row&&) noexcept = default;
    ~Row() = default;
};

// One row of the baseline table: which provider row belongs to which snapshot.
struct Row_baseline {
    int32_t rowid = 0;
    std::string baseline_id;
    int32_t datastore_rowid = 0;
    std::string fwd_name;
    std::string provider_checksum;
    std::string command_checksum;
};

// One configured datastore instance, as parsed and completed with defaults.
struct DataStoreConfig {
    DatabaseType type = sqlite3;
    std::string instance_name;
    std::string extension_name;     // file name of the extension library
    std::string extension_path;     // folder of the extension library
    std::string source_parameters;  // handed to the extension's open
    std::bitset<2> source_types;    // bits at Source_Type positions

    DataStoreConfig() = default;
    DataStoreConfig(const DataStoreConfig&) = default;
    DataStoreConfig(DataStoreConfig&&) = default;
    DataStoreConfig& operator=(const DataStoreConfig&) = default;
    DataStoreConfig& operator=(DataStoreConfig&&) = default;
};

// Identity of one provider row kept in a snapshot.
struct ProviderInfo {
    int32_t rowid = 0;
    std::string name;
    std::shared_ptr<vesk::provider_config> config;  // null unless known
};

// One snapshot (baseline); the second value is the greatest
// Unique_timestamp among the snapshot's rows.
struct SnapshotInfo {
    std::string baseline_id;
    int64_t latest_unique_timestamp = 0;
};

// Orders ProviderInfo by rowid, ascending.
struct setCompareProviderRowId {
    bool operator()(const ProviderInfo& a, const ProviderInfo& b) const {
        return a.rowid < b.rowid;
    }
};

// Orders SnapshotInfo by baseline_id (byte-wise string comparison).
struct setCompareBaselineId {
    bool operator()(const SnapshotInfo& a, const SnapshotInfo& b) const {
        return a.baseline_id < b.baseline_id;
    }
};

// Handle to an open instance: its configuration and a non-owning pointer.
using DataStoreHandle = std::pair<const DataStoreConfig, const std::weak_ptr<DataStoreExtension>>;
using DataStoreHandles = std::vector<DataStoreHandle>;
using ProviderInfoSet = std::set<ProviderInfo, setCompareProviderRowId>;
using SnapshotInfoSet = std::set<SnapshotInfo, setCompareBaselineId>;
using StatusList = std::vector<std::pair<std::string, int32_t>>;

// Result of selecting datastores by type.
struct CombinedRType {
    DataStoreHandles open_instances;
    std::vector<DataStoreConfig> configs;
};

// Parameters of a generic SQL query: a table name or filter text, an SQL
// statement, and the field map (column name to Row field position).
struct SQLParameters {
    std::string table;
    std::string query;
    std::map<std::string, int> field_map;
};

// Parameters of a read request. The meaning of the three lists depends on
// the operation code (for the latest-row queries: providers, hosts; for a
// snapshot query: baseline ids, providers, hosts).
struct ReadParameters {
    std::vector<std::string> first;
    std::vector<std::string> second;
    std::vector<std::string> third;
    SQLParameters* sql = nullptr;
};

// What the controller keeps per loaded extension library.
struct DSExtensionData {
    void* handle = nullptr;
    DataStoreExtension* (*create)() = nullptr;
    void (*destroy)(DataStoreExtension*) = nullptr;
};

// What the controller keeps per open instance; `extension` owns it, with the
// library's "destroy" as deleter.
struct DataStoreDescription {
    std::shared_ptr<DataStoreExtension> extension;
    DataStoreConfig config;
};

// The record that operation 515 (insert) carries in `out`; dispatched as
// insert(header, option_id, std_out, std_err).
struct InsertRecord {
    std::string std_out;
    std::string std_err;
    vesk::provider::header header;
    std::string option_id;
};

}  // namespace datastore
}  // namespace vesk
