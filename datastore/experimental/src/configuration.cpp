// Configuration: exported defaults, the parse utility's process-wide state,
// configuration files, the datastore list and SQL files.
//
// The objects of this unit are built at load time in the order in which
// they are defined here, after the header's tables; later ones read earlier
// ones (default_extension_path copies DEFAULT_EXTENSION_PATH, the create
// statements use the table names).
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>

#include <libxml/globals.h>
#include <libxml/hash.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include "tessdb/tessdb.h"
#include "vesk/datastore/controller.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/fs.h"
#include "vesk/log.h"
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

// The first error libxml2 reports while the object lives, instead of its
// own printing, so that a broken configuration file is reported once, by our
// log line and exception; the host's handler is back in place afterwards.
class XmlErrorCatcher {
public:
    XmlErrorCatcher() : old_handler_(xmlStructuredError), old_context_(xmlStructuredErrorContext) {
        xmlSetStructuredErrorFunc(this, &XmlErrorCatcher::keep);
    }
    ~XmlErrorCatcher() { xmlSetStructuredErrorFunc(old_context_, old_handler_); }
    XmlErrorCatcher(const XmlErrorCatcher&) = delete;
    XmlErrorCatcher& operator=(const XmlErrorCatcher&) = delete;

    // libxml2's message with its line and column, or `fallback` when it said nothing.
    std::string reason(const std::string& fallback) const {
        if (!seen_) return fallback;
        std::string text = vesk::str::stripws(message_);
        if (text.empty()) text = fallback;
        if (line_ > 0)
            text += " (line " + std::to_string(line_) + ", column " + std::to_string(column_) + ")";
        return text;
    }

private:
    static void keep(void* self, xmlErrorPtr error) {
        auto* catcher = static_cast<XmlErrorCatcher*>(self);
        if (catcher->seen_ || error == nullptr || error->level < XML_ERR_ERROR) return;
        try {
            catcher->message_ = error->message != nullptr ? error->message : "";
        } catch (...) {
            return;  // called from C: nothing may unwind through libxml2
        }
        catcher->line_ = error->line;
        catcher->column_ = error->int2;
        catcher->seen_ = true;
    }
    xmlStructuredErrorFunc old_handler_;
    void* old_context_;
    bool seen_ = false;
    std::string message_;
    int line_ = 0;
    int column_ = 0;
};

struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

// Parsed configuration documents stay alive for the life of the process (or
// until release_config_documents) and are released when the library is unloaded.
std::vector<std::unique_ptr<xmlDoc, XmlDocFree>>& kept_documents() {
    static std::vector<std::unique_ptr<xmlDoc, XmlDocFree>> documents;
    return documents;
}

const char* const kOpenError = "Error opening datastore configuration";

// The file a node was read from, for messages.
std::string document_name(const xmlNode* node) {
    if (node->doc != nullptr && node->doc->URL != nullptr)
        return reinterpret_cast<const char*>(node->doc->URL);
    return "(a document in memory)";
}

// Logs why the configuration file `name` is refused (level 3, the syslog
// error priority) and throws the fixed message.
[[noreturn]] void refuse(const std::string& name, const std::string& reason) {
    vesk::log::ErrorLog(__FILE__, __func__, __LINE__, 3).stream()
        << reason << " in datastore configuration " << name;
    throw std::runtime_error(kOpenError);
}

// Why the file `name` must not be handed to libxml2, or "" when it may:
// libxml2 reads any file, decompresses gzip and xz on its own, and a small
// compressed file can expand to gigabytes.
std::string precheck(const std::string& name) {
    struct stat info {};
    if (::stat(name.c_str(), &info) != 0)
        return std::string("cannot read: ") + std::strerror(errno);
    if (!S_ISREG(info.st_mode)) return "not a regular file";
    if (info.st_size > DataStoreParseUtility::max_config_file_size)
        return "larger than the limit of " +
               std::to_string(DataStoreParseUtility::max_config_file_size) + " bytes (" +
               std::to_string(info.st_size) + " bytes)";
    std::ifstream in(name, std::ios::binary);
    if (!in) return std::string("cannot read: ") + std::strerror(errno);
    unsigned char head[6] = {};
    in.read(reinterpret_cast<char*>(head), sizeof head);
    const auto got = in.gcount();
    if (got >= 2 && head[0] == 0x1f && head[1] == 0x8b) return "compressed file (gzip)";
    static const unsigned char xz[6] = {0xfd, '7', 'z', 'X', 'Z', 0x00};
    if (got == 6 && std::equal(head, head + 6, xz)) return "compressed file (xz)";
    if (got >= 2 && head[0] == 0x5d && head[1] == 0x00) return "compressed file (lzma)";
    return "";
}

// Why the parsed document must not be walked, or "" when it may. Entities
// are refused outright, so no entity text is ever expanded by the walk.
std::string check_document(const xmlDoc* doc) {
    if (doc->compression > 0) return "compressed file";
    for (const xmlDtd* dtd : {doc->intSubset, doc->extSubset}) {
        if (dtd == nullptr) continue;
        if (dtd->ExternalID != nullptr || dtd->SystemID != nullptr)
            return "the document type names an external DTD subset";
        const auto count = [](void* table) {
            return table == nullptr ? 0 : xmlHashSize(static_cast<xmlHashTablePtr>(table));
        };
        if (count(dtd->entities) > 0 || count(dtd->pentities) > 0)
            return "the document type declares entities";
    }
    if (xmlDocGetRootElement(doc) == nullptr) return "no root element";
    return "";
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
    if (!name.empty()) parse_xml(read_config_document(name), config);

    out.push_back(config);
    return true;
}

xmlNode* DataStoreParseUtility::read_config_document(const std::string& name) {
    if (const std::string reason = precheck(name); !reason.empty()) refuse(name, reason);
    auto& documents = kept_documents();
    documents.reserve(documents.size() + 1);  // so that keeping the document cannot throw
    std::unique_ptr<xmlDoc, XmlDocFree> doc;
    std::string reason;
    {
        XmlErrorCatcher errors;
        doc.reset(xmlReadFile(name.c_str(), nullptr, 0));
        if (!doc) reason = errors.reason("cannot be parsed");
    }
    if (!doc) refuse(name, reason);
    if (reason = check_document(doc.get()); !reason.empty()) refuse(name, reason);
    documents.push_back(std::move(doc));
    return xmlDocGetRootElement(documents.back().get());
}

void DataStoreParseUtility::release_config_documents() { kept_documents().clear(); }

bool DataStoreParseUtility::parse_xml(xmlNode* node, DataStoreConfig& config) {
    if (node == nullptr) return false;
    if (!vesk::xml::char_cmp_str(node->name, "configuration")) return true;
    // Attributes are checked in the map's key order, so of two bad attributes
    // the first in that order is the one reported.
    for (const auto& item : db_fields_map) {
        const std::string& key = item.first;  // (a structured binding cannot be captured)
        std::string raw;
        const bool present = vesk::xml::get_attr(node, key, raw);
        const std::string value = vesk::str::stripws(raw);
        // Logged (level 3) just before a throw: the fixed message names
        // neither the file nor, for source_parameters, the attribute.
        const auto refused = [&](const std::string& message, const std::string& cause = "") {
            vesk::log::ErrorLog(__FILE__, __func__, __LINE__, 3).stream()
                << (!present        ? "missing attribute " + key
                    : cause.empty() ? message
                                    : cause)
                << " in " << document_name(node);
            return std::runtime_error(message);
        };
        switch (item.second) {
            case instance_name_field:
                config.instance_name = value;
                break;
            case source_parameters_field:
                // The historical message names "type" for this attribute too.
                if (value.empty())
                    throw refused("Invalid value for attribute type " + value,
                                  "empty attribute " + key);
                config.source_parameters = value;
                break;
            case type_field: {
                const auto found = database_type_map.find(value);
                if (found == database_type_map.end())
                    throw refused("Invalid value for attribute type " + value);
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
                        throw refused("Invalid value for attribute source types " + piece);
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
