// Configuration: exported defaults, the parse utility's process-wide state,
// configuration files, the datastore list and SQL files.
//
// The objects of this unit are built at load time in the order in which
// they are defined here, after the header's tables; later ones read earlier
// ones (default_extension_path copies DEFAULT_EXTENSION_PATH, the create
// statements use the table names).
#include "vesk/datastore/parse_utility.h"

#include "vesk/datastore/vocabulary.h"
#include "vesk/fs.h"
#include "vesk/str.h"

namespace vesk::datastore {
namespace {
const std::map<std::string, vesk::ScaleType> scale_type_map = {
    {"constant", vesk::constant}, {"linear", vesk::linear},
    {"squared", vesk::squared}, {"logarithmic", vesk::logarithmic}};
}  // namespace

const int default_backend = sqlite3;
const int max_provider_size = 64;
const int max_hostname_size = 256;
const int max_num_nodes = 1 << 18;
const int max_node_names_size = max_num_nodes * (max_hostname_size + 2);
const int max_std_stream_size = 1 << 30;
const int max_option_id_size = 64;
const int max_username_size = 64;

const std::string table_name = "provider_datastore";
const std::string table_view = "vesk_1";
const std::string table_baseline = "baseline_datastore";
const std::string odbc_default_dsn = "odbc_default_dsn";
const std::string DEFAULT_DATA_SOURCE = std::string("2019.2.1").insert(0, "$HOME/.vesk/") + "/vesk.db";
const std::string DEFAULT_DATASTORE_NAME = "vesk_default";
const std::string DEFAULT_DATASTORE_SQLITE_EXTENSION_NAME = "libsqlite.so";
const std::string DEFAULT_DATASTORE_ODBC_EXTENSION_NAME = "libodbc.so";
const std::string DEFAULT_EXTENSION_PATH = "/datastore/lumok64/";

std::string DataStoreParseUtility::default_install_path =
    vesk::fs::abspath(vesk::str::dirname(vesk::fs::selfpath())) + "/../../";
std::string DataStoreParseUtility::default_extension_path = DEFAULT_EXTENSION_PATH;

const std::string default_create_table_query =
    "CREATE TABLE IF NOT EXISTS " + table_name +
    "(rowid INTEGER PRIMARY KEY, Provider TEXT, Hostname TEXT, num_nodes INTEGER, node_names "
    "TEXT, Exit_status INTEGER, Timestamp INTEGER, Duration REAL, Encoding INTEGER, STDOUT TEXT, "
    "STDERR TEXT, OptionID TEXT, version INTEGER, Username TEXT, Unique_timestamp INTEGER);";
const std::string default_create_baseline_query =
    "CREATE TABLE IF NOT EXISTS " + table_baseline +
    "(rowid INTEGER PRIMARY KEY, baseline_id TEXT, datastore_rowid INTEGER, fwd_name TEXT, "
    "provider_checksum TEXT, command_checksum TEXT);";
const std::string default_create_view_query =
    "CREATE VIEW IF NOT EXISTS " + table_view +
    " AS SELECT rowid,Provider,Hostname,num_nodes,node_names,Exit_status,Timestamp, "
    "Duration,Encoding,STDOUT,STDERR, OptionID,Version,Username,Unique_timestamp from " +
    table_name + ";";

DataStoreHandles DataStoreParseUtility::db_vec;
SnapshotInfoSet DataStoreParseUtility::snapshot_info_set;
std::map<std::string, std::map<std::string, ProviderInfoSet>> DataStoreParseUtility::snapshot_dict;
std::string DataStoreParseUtility::baseline_str;
std::string DataStoreParseUtility::snapshot_remove_str;
std::vector<std::string> DataStoreParseUtility::baseline_str_vec;
bool DataStoreParseUtility::with_baseline_bool = false;
timeval DataStoreParseUtility::unique_timestamp = {0, 0};

namespace {
const std::map<std::string, DatabaseType> database_type_map = {
    {"sqlite3", sqlite3}, {"odbc", odbc}, {"other", other}};
const std::map<std::string, Source_Type> source_type_map = {{"data", data}, {"stream", stream}};
const std::map<std::string, DBFields> db_fields_map = {{"instance_name", instance_name_field},
                                                       {"source_parameters", source_parameters_field},
                                                       {"type", type_field},
                                                       {"source_types", source_types_field}};
const std::string default_config_file = "default_sqlite.xml";
}  // namespace

// ---- Paths and defaults ----

std::string DataStoreParseUtility::generate_path(std::string path, std::string file,
                                                 std::string base) {
    std::string result = path.empty() ? base : path;
    if (!base.empty() && (result.empty() || (result[0] != '$' && result[0] != '.' && result[0] != '/')))
        result = base + "/" + result;
    if (!file.empty()) result += "/" + file;
    result = vesk::str::wordexp(result);
    result = vesk::fs::abspath(result);
    return vesk::str::squeeze(result, '/');
}

std::string DataStoreParseUtility::get_default_install_path() { return default_install_path; }

std::string DataStoreParseUtility::get_default_extension_path() { return default_extension_path; }

void DataStoreParseUtility::set_default_install_path(std::string value) {
    default_install_path = vesk::fs::abspath(vesk::str::wordexp(value));
}

void DataStoreParseUtility::set_default_extension_path(std::string value) {
    default_extension_path = vesk::fs::abspath(vesk::str::wordexp(value));
}

void DataStoreParseUtility::fillInVacantFields(std::vector<DataStoreConfig>& configs) {
    const std::string library_dir = default_install_path + "/" + default_extension_path;
    for (auto& config : configs) {
        if (config.instance_name.empty()) config.instance_name = DEFAULT_DATASTORE_NAME;
        if (config.extension_name.empty()) {
            if (config.type == sqlite3)
                config.extension_name = DEFAULT_DATASTORE_SQLITE_EXTENSION_NAME;
            else if (config.type == odbc)
                config.extension_name = DEFAULT_DATASTORE_ODBC_EXTENSION_NAME;
        }
        if (config.extension_path.empty()) config.extension_path = library_dir;
        if (config.source_parameters.empty()) {
            if (config.type == sqlite3)
                config.source_parameters =
                    "read_only=false|source=" + std::string("\"") + DEFAULT_DATA_SOURCE + "\"";
            else if (config.type == odbc)
                config.source_parameters = odbc_default_dsn;
        }
        if (config.source_types.none()) config.source_types.set(data);
    }
}

// ---- the configuration functions follow ----

}  // namespace vesk::datastore
