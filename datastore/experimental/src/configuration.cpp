// Configuration: exported defaults, the parse utility's process-wide state,
// configuration files, the datastore list and SQL files.
//
// The objects of this unit are built at load time in the order in which
// they are defined here, after the header's tables; later ones read earlier
// ones (default_extension_path copies DEFAULT_EXTENSION_PATH, the create
// statements use the table names).
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include "tessdb/tessdb.h"
#include "vesk/datastore/controller.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/fs.h"
#include "vesk/str.h"

#include "group_walk.h"

namespace vesk::datastore {
namespace {
const std::map<std::string, vesk::ScaleType> scale_type_map = {{"constant", vesk::constant},
                                                               {"linear", vesk::linear},
                                                               {"squared", vesk::squared},
                                                               {"logarithmic", vesk::logarithmic}};
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
const std::string DEFAULT_DATA_SOURCE =
    std::string("2019.2.1").insert(0, "$HOME/.vesk/") + "/vesk.db";
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
const std::map<std::string, DBFields> db_fields_map = {
    {"instance_name", instance_name_field},
    {"source_parameters", source_parameters_field},
    {"type", type_field},
    {"source_types", source_types_field}};
const std::string default_config_file = "default_sqlite.xml";
}  // namespace

// ---- Paths and defaults ----

std::string DataStoreParseUtility::generate_path(std::string path, std::string file,
                                                 std::string base) {
    std::string result = path.empty() ? base : path;
    if (!base.empty() &&
        (result.empty() || (result[0] != '$' && result[0] != '.' && result[0] != '/')))
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

namespace {

// Silences libxml2's own error printing for the life of the object, so that a
// broken configuration file is reported once, by our exception, and the
// host's handler is back in place afterwards.
class QuietXmlErrors {
public:
    QuietXmlErrors() : old_handler_(xmlStructuredError), old_context_(xmlStructuredErrorContext) {
        xmlSetStructuredErrorFunc(nullptr, &QuietXmlErrors::drop);
    }
    ~QuietXmlErrors() { xmlSetStructuredErrorFunc(old_context_, old_handler_); }
    QuietXmlErrors(const QuietXmlErrors&) = delete;
    QuietXmlErrors& operator=(const QuietXmlErrors&) = delete;

private:
    static void drop(void*, xmlErrorPtr) {}
    xmlStructuredErrorFunc old_handler_;
    void* old_context_;
};

struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

// Parsed configuration documents stay alive for the life of the process and
// are released when the library is unloaded.
std::vector<std::unique_ptr<xmlDoc, XmlDocFree>>& kept_documents() {
    static std::vector<std::unique_ptr<xmlDoc, XmlDocFree>> documents;
    return documents;
}

// Reads the XML file `name`, or throws with the fixed text and the path.
xmlDoc* read_configuration_file(const std::string& name) {
    auto& documents = kept_documents();
    documents.reserve(documents.size() + 1);  // so that keeping the document cannot throw
    xmlDoc* doc = nullptr;
    {
        QuietXmlErrors quiet;
        doc = xmlReadFile(name.c_str(), nullptr, 0);
    }
    if (doc == nullptr) throw std::runtime_error("Error opening datastore configuration: " + name);
    documents.emplace_back(doc);
    return doc;
}

}  // namespace

bool DataStoreParseUtility::ParseConfig::operator()(std::string group_path, std::string config_path,
                                                    std::string config_file, std::string entry_text,
                                                    std::vector<DataStoreConfig>& out) {
    DataStoreConfig config;
    config.extension_path = generate_path(group_path, "", default_install_path);
    config.extension_name = entry_text;

    std::string file = vesk::str::stripws(config_file);
    if (file.empty()) file = default_config_file;
    const std::string path = vesk::str::stripws(config_path);
    const std::string name = generate_path(path, file, default_install_path + "/etc/datastore");
    if (!name.empty()) parse_xml(xmlDocGetRootElement(read_configuration_file(name)), config);

    out.push_back(config);
    return true;
}

bool DataStoreParseUtility::parse_xml(xmlNode* node, DataStoreConfig& config) {
    if (node == nullptr) return false;
    if (!vesk::xml::char_cmp_str(node->name, "configuration")) return true;
    // Attributes are checked in the map's key order, so of two bad attributes
    // the first in that order is the one reported.
    for (const auto& [key, field] : db_fields_map) {
        const std::string value = vesk::str::stripws(vesk::xml::get_str(node, key, ""));
        switch (field) {
            case instance_name_field:
                config.instance_name = value;
                break;
            case source_parameters_field:
                // The historical message names "type" for this attribute too.
                if (value.empty())
                    throw std::runtime_error("Invalid value for attribute type " + value);
                config.source_parameters = value;
                break;
            case type_field: {
                const auto found = database_type_map.find(value);
                if (found == database_type_map.end())
                    throw std::runtime_error("Invalid value for attribute type " + value);
                config.type = found->second;
                break;
            }
            case source_types_field:
                config.source_types.reset();
                // Empty pieces are kept, so an absent or empty attribute and a
                // stray "|" are reported as bad values.
                for (const auto& piece : vesk::str::split(value, '|', false)) {
                    const auto found = source_type_map.find(piece);
                    if (found == source_type_map.end())
                        throw std::runtime_error("Invalid value for attribute source types " +
                                                 piece);
                    config.source_types.set(found->second);
                }
                break;
        }
    }
    return true;
}

std::vector<DataStoreConfig> DataStoreParseUtility::parse_db_configs(
    xmlNode* root, const DataStoreConfig& fallback) {
    std::vector<DataStoreConfig> configs;
    if (root != nullptr) vesk::xml::parse_the_group_tags(root, ParseConfig(), configs);
    if (configs.empty()) configs.push_back(fallback);
    return configs;
}

// ---- the datastore list ----

void DataStoreParseUtility::insert_db_instance(std::vector<DataStoreConfig>& configs) {
    if (configs.empty()) return;
    auto controller = DataStoreController::createDataStoreController();
    std::vector<DataStoreConfig> loaded;
    // Failures throw; the status list adds nothing the exception does not say.
    (void)controller->load(configs, loaded);
    DataStoreHandles handles;
    try {
        (void)controller->open(configs, handles);
    } catch (...) {
        // All or nothing: instances this call opened before the failing
        // config are closed again, so db_vec and the controller still agree.
        std::vector<std::string> opened;
        for (const auto& handle : handles) opened.push_back(handle.first.instance_name);
        if (!opened.empty()) (void)controller->close(opened);
        throw;
    }
    db_vec.reserve(db_vec.size() + handles.size());
    for (const auto& handle : handles) db_vec.push_back(handle);
}

void DataStoreParseUtility::initializeDatastoreExtensions(std::vector<DataStoreConfig>& configs) {
    insert_db_instance(configs);
}

DataStoreHandles DataStoreParseUtility::locate_datastores(std::vector<std::string> names) {
    DataStoreHandles found;
    for (const auto& name : names) {
        const auto match = std::find_if(db_vec.begin(), db_vec.end(), [&](const auto& handle) {
            return handle.first.instance_name == name;
        });
        if (match != db_vec.end()) found.push_back(*match);
    }
    return found;
}

DataStoreHandles DataStoreParseUtility::get_datastore_vector() { return db_vec; }

void DataStoreParseUtility::clear_db_vector() {
    // Only entries whose instance is still alive are closed: an expired entry
    // names an instance that is gone, and its name may since have been given
    // to an instance this list never recorded. An empty name list would close
    // every instance of the controller, so it is never sent.
    std::vector<std::string> names;
    for (const auto& handle : db_vec)
        if (!handle.second.expired()) names.push_back(handle.first.instance_name);
    if (!names.empty()) {
        auto controller = DataStoreController::createDataStoreController();
        (void)controller->close(names);
    }
    db_vec.clear();
}

CombinedRType DataStoreParseUtility::get_configurations_by_type(const CombinedRType& from,
                                                                std::bitset<2> source_types,
                                                                std::vector<DatabaseType> types,
                                                                bool use_open_instances) {
    CombinedRType result;
    if (source_types.none() && types.empty()) return result;
    if (types.empty()) types = {sqlite3, odbc, other};
    const auto selected = [&](const DataStoreConfig& config) {
        const bool sources_ok = source_types.none() || (source_types & ~config.source_types).none();
        return sources_ok && std::find(types.begin(), types.end(), config.type) != types.end();
    };
    if (use_open_instances) {
        for (const auto& handle : from.open_instances)
            if (selected(handle.first)) result.open_instances.push_back(handle);
    } else {
        for (const auto& config : from.configs)
            if (selected(config)) result.configs.push_back(config);
    }
    return result;
}

// ---- SQL files and test configurations ----

void DataStoreParseUtility::create_from_sqlfile(const std::string& sql_file,
                                                const std::string& database_file) {
    tessdb1::Connection* raw = nullptr;
    if (tessdb1::newConnection(database_file.c_str(), 0, &raw) != 0)
        throw std::runtime_error("Unable to open datastore file " + database_file);
    const std::unique_ptr<tessdb1::Connection> connection(raw);

    std::ifstream in(sql_file);
    if (!in.is_open()) throw std::runtime_error("Unable to open sql file for reading " + sql_file);
    // One complete statement per line, run as it stands; blank lines are skipped.
    for (std::string line; std::getline(in, line, '\n');) {
        if (vesk::str::stripws(line).empty()) continue;
        if (connection->issueCommand(line.c_str()) != 0)
            throw std::runtime_error("SQL command error: " + line);
    }
}

void DataStoreParseUtility::load_utest_sql_file(std::string sql_file, std::string database_file,
                                                bool create, std::string instance_name,
                                                bool read_only) {
    // Checked first, so that a missing variable fails before the file is touched.
    const char* extension_dir = std::getenv("VESK_DSE_PATH");
    if (extension_dir == nullptr)
        throw std::logic_error("VESK_DSE_PATH is not set: no folder for " +
                               DEFAULT_DATASTORE_SQLITE_EXTENSION_NAME);
    if (create) create_from_sqlfile(sql_file, database_file);

    DataStoreConfig config;
    config.type = sqlite3;
    config.instance_name = std::move(instance_name);
    config.source_parameters =
        "source=" + database_file + (read_only ? "|read_only=true" : "|read_only=false");
    config.extension_name = DEFAULT_DATASTORE_SQLITE_EXTENSION_NAME;
    config.extension_path = extension_dir;
    config.source_types.set(data);
    std::vector<DataStoreConfig> configs{config};
    insert_db_instance(configs);
}

void DataStoreParseUtility::load_utest_config(DataStoreConfig config, bool fill) {
    std::vector<DataStoreConfig> configs{std::move(config)};
    if (fill) fillInVacantFields(configs);
    insert_db_instance(configs);
}

}  // namespace vesk::datastore

// The group-file walk, built (and exported) for the configuration parser.
template VESK_DATASTORE_EXPORT bool vesk::xml::parse_the_group_tags(
    xmlNode*, vesk::datastore::DataStoreParseUtility::ParseConfig,
    std::vector<vesk::datastore::DataStoreConfig>&);
