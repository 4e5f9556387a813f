#pragma once
// DataStoreParseUtility: the process-wide datastore list and the snapshot
// state, with the operations that fill and use them. A class of static
// members only.
//
// Configuration: group files list extension libraries and, per entry, a
// datastore configuration file; parse_db_configs reads them into
// DataStoreConfig records, insert_db_instance opens them through the
// controller and records each opened (config, weak instance) pair in db_vec.
// Snapshots: the members below record, list and remove named snapshots of
// the latest collection run. Recording fills snapshot_dict, which every later
// commit sends again in full; see there for what it keeps and how to drop it.
//
// The controller owns the opened instances and lives only while somebody
// holds it: keep the result of DataStoreController::createDataStoreController()
// for as long as the datastores of db_vec are in use, or they close as soon
// as insert_db_instance returns.
//
// All state is process-wide and unguarded: use from one thread at a time.

#include <bitset>
#include <map>
#include <set>
#include <string>
#include <sys/time.h>
#include <vector>

#include "vesk/datastore/export.h"
#include "vesk/datastore/records.h"

struct _xmlNode;
typedef struct _xmlNode xmlNode;

namespace vesk::datastore {

class VESK_DATASTORE_EXPORT DataStoreParseUtility {
public:
    DataStoreParseUtility() = delete;

    // ---- Configuration files ----

    // Builds one record from one group-file entry and appends it to `out`.
    struct VESK_DATASTORE_EXPORT ParseConfig {
        bool operator()(std::string group_path, std::string config_path, std::string config_file,
                        std::string entry_text, std::vector<DataStoreConfig>& out);
    };

    // Reads a whole group file below `root`; `fallback` alone when it has no
    // entry. Throws std::runtime_error for an unreadable configuration file
    // (see read_config_document) or a bad attribute.
    static std::vector<DataStoreConfig> parse_db_configs(xmlNode* root,
                                                         const DataStoreConfig& fallback);
    // Reads the attributes of a "configuration" element into `config`. A bad
    // attribute is logged (level 3) with its file before the throw.
    static bool parse_xml(xmlNode* node, DataStoreConfig& config);
    // Reads the configuration document `file` (group file or datastore
    // configuration file) and returns its root element; the document is kept
    // for the life of the process (see release_config_documents). Refused
    // before any walk: a file that is not regular, larger than
    // max_config_file_size or compressed, a document whose DTD declares
    // entities or names an external subset, and malformed XML. A refusal is
    // logged at level 3 (reason, libxml2's line and column, file) and throws
    // std::runtime_error("Error opening datastore configuration"). The group
    // walk reads every datastore configuration file through it.
    static xmlNode* read_config_document(const std::string& file);
    // Frees every document read_config_document kept. Records already read
    // stay valid (they hold copies); nodes returned earlier do not.
    static void release_config_documents();
    // Configuration files are small: larger ones are refused unread.
    static constexpr long max_config_file_size = 1L << 20;
    // Joins `path` (or `base` when `path` is empty) and `file`: a path not
    // beginning with "$", "." or "/" is taken relative to `base`; the result
    // is expanded, made absolute and freed of repeated slashes.
    static std::string generate_path(std::string path, std::string file, std::string base);

    // ---- Datastore list, defaults and discovery ----

    static std::string get_default_install_path();
    static std::string get_default_extension_path();
    // Both setters store the expanded, absolute form of `value`.
    static void set_default_install_path(std::string value);
    static void set_default_extension_path(std::string value);
    // Gives every empty field of every config its default.
    static void fillInVacantFields(std::vector<DataStoreConfig>& configs);
    // Loads and opens `configs` through the controller and appends the opened
    // pairs to db_vec. Throws what the controller throws.
    static void insert_db_instance(std::vector<DataStoreConfig>& configs);
    // Same as insert_db_instance.
    static void initializeDatastoreExtensions(std::vector<DataStoreConfig>& configs);
    // The recorded instances named in `names`, in the order of `names`.
    static DataStoreHandles locate_datastores(std::vector<std::string> names);
    // The whole list of recorded instances.
    static DataStoreHandles get_datastore_vector();
    // Closes the recorded instances through the controller and empties db_vec.
    static void clear_db_vector();
    // The entries of `from` (its open instances when `use_open_instances`,
    // else its configs) whose source types include `source_types` and whose
    // type is in `types` (all types when empty).
    static CombinedRType get_configurations_by_type(const CombinedRType& from,
                                                    std::bitset<2> source_types,
                                                    std::vector<DatabaseType> types,
                                                    bool use_open_instances);

    // ---- SQL files and test configurations ----

    // Runs `sql_file`, one statement per line (blank lines skipped), against
    // the SQLite file `database_file`. Throws std::runtime_error.
    static void create_from_sqlfile(const std::string& sql_file, const std::string& database_file);
    // Optionally fills `database_file` from `sql_file`, then opens it as the
    // sqlite3 datastore `instance_name` from the folder $VESK_DSE_PATH.
    static void load_utest_sql_file(std::string sql_file, std::string database_file, bool create,
                                    std::string instance_name, bool read_only);
    // Opens `config` as a datastore; `fill` completes empty fields first.
    static void load_utest_config(DataStoreConfig config, bool fill);

    // ---- Snapshot state ----

    static void set_unique_timestamp(timeval value);
    // The seconds of the stored time stamp, narrowed to 32 bits.
    static int32_t get_unique_timestamp();
    static bool set_with_baseline_bool(bool value);
    static bool get_with_baseline_bool();
    static bool set_baseline_str(std::string value);
    static std::string get_baseline_str();
    static bool set_snapshot_remove_str(std::string value);
    static std::string get_snapshot_remove_str();
    // Appends `ids` to baseline_str_vec (duplicates kept).
    static void set_baseline_vec(const std::vector<std::string>& ids);
    static std::vector<std::string> get_baseline_str_vec();
    static void clear_baseline_str_vector();
    static SnapshotInfoSet get_snapshot_info_set();
    // Adds the snapshots of `infos` not known yet; known ones are kept as stored.
    static bool update_snapshot_info(SnapshotInfoSet infos);

    // ---- Snapshot operations (first "data" datastore policies) ----

    // Asks the "data" datastores which snapshots exist and adds them to
    // snapshot_info_set. False on the first failure or when none answered.
    static bool query_available_baselines();
    // Fetches the latest collection run and records it as snapshot
    // baseline_str (update_snapshot_dictionary, commit_snapshot_updates).
    static bool mark_latest_snapshot_data(std::map<std::string, ProviderInfo>& providers,
                                          std::vector<Row>& rows);
    // Adds the rows to snapshot_dict[instance][snapshot], keyed by provider.
    static void update_snapshot_dictionary(std::string snapshot, std::string instance,
                                           std::vector<Row>& rows,
                                           std::map<std::string, ProviderInfo>& providers);
    // Hands snapshot_dict's entry of the first "data" datastore to it.
    static bool commit_snapshot_updates();
    // Removes the snapshot snapshot_remove_str from the first "data" datastore;
    // on success the id also leaves that datastore's entry of snapshot_dict.
    static bool remove_snapshot();
    // Drops `snapshot` from every datastore's entry of snapshot_dict, so that
    // later commits stop sending it; the datastores are not asked. True if it was there.
    static bool forget_snapshot(const std::string& snapshot);
    // Empties snapshot_dict; what was committed stays in the datastores.
    static void clear_snapshot_dictionary();

    // ---- Process-wide state ----

    static std::string default_install_path;    // the library's folder + "/../../"
    static std::string default_extension_path;  // "/datastore/lumok64/"
    static DataStoreHandles db_vec;
    static SnapshotInfoSet snapshot_info_set;
    // Instance -> snapshot -> recorded provider rows; each commit sends the whole entry
    // again. Recording never drops anything (a failed commit can be repeated); only a
    // successful remove_snapshot, forget_snapshot and clear_snapshot_dictionary do.
    static std::map<std::string, std::map<std::string, ProviderInfoSet>> snapshot_dict;
    static std::string baseline_str;
    static std::string snapshot_remove_str;
    static std::vector<std::string> baseline_str_vec;
    static bool with_baseline_bool;
    static timeval unique_timestamp;
};

}  // namespace vesk::datastore
