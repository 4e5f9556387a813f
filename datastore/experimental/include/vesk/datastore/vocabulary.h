#pragma once
// Shared vocabulary of the datastore library: name tables, limits and default
// names. The tables below have internal linkage, so every unit that includes
// this header owns a private, immutable copy built when its library is
// loaded. The exported limits and defaults at the end exist once, in
// libvesk_datastore; they are immutable except for the two default paths of
// DataStoreParseUtility.

#include <array>
#include <map>
#include <string>
#include <tuple>

#include "vesk/datastore/export.h"
#include "vesk/datastore/records.h"

namespace vesk::datastore {

// Output encodings by name.
static const std::map<std::string, vesk::provider::encoding> encoding_map = {
    {"none", vesk::provider::none},
    {"base64", vesk::provider::base64},
    {"raw", vesk::provider::raw}};

// Columns of a stored row and their positions in Row.
static const std::map<std::string, int> row_field_index = {
    {"rowid", 0},      {"Provider", 1},    {"Hostname", 2},         {"num_nodes", 3},
    {"node_names", 4}, {"Exit_status", 5}, {"Timestamp", 6},        {"Duration", 7},
    {"Encoding", 8},   {"STDOUT", 9},      {"STDERR", 10},          {"OptionID", 11},
    {"version", 12},   {"Username", 13},   {"Unique_timestamp", 14}};

// Columns of the baseline table and their positions in Row_baseline.
static const std::map<std::string, int> baseline_field_index = {
    {"rowid", 0},    {"baseline_id", 1},       {"datastore_rowid", 2},
    {"fwd_name", 3}, {"provider_checksum", 4}, {"command_checksum", 5}};

}  // namespace vesk::datastore

// The standard streams are set up here, after the three maps above and
// before the tables below.
#include <iostream>

namespace vesk::datastore {

// Severity words to syslog priorities (no word maps to priority 0).
static const std::map<std::string, int> syslog_level_map = {
    {"debug", 7}, {"info", 6},     {"notice", 5}, {"warning", 4},
    {"error", 3}, {"critical", 2}, {"alert", 1}};

// Closed ranges of a 0 to 100 score and the severity each range carries.
static const std::map<std::string, std::tuple<int, int, vesk::postprocessor::Severity>>
    severity_band_map = {{"informational", {0, 24, vesk::postprocessor::informational}},
                         {"warning", {25, 74, vesk::postprocessor::warning}},
                         {"critical", {75, 100, vesk::postprocessor::critical}}};

// Node role names.
static const std::string node_role_boot = "boot";
static const std::string node_role_compute = "compute";
static const std::string node_role_enhanced = "enhanced";
static const std::string node_role_external = "external";
static const std::string node_role_head = "head";
static const std::string node_role_job_schedule = "job_schedule";
static const std::string node_role_login = "login";
static const std::string node_role_network_address = "network_address";
static const std::string node_role_storage = "storage";

// Provider option names (the mixture of "-" and "_" is part of the names).
static const std::string option_blocking = "blocking";
static const std::string option_non_blocking = "non-blocking";
static const std::string option_dependency_type = "dependency_type";
static const std::string option_passing_constraint = "passing_constraint";
static const std::string option_provider_error_code = "provider-error-code";

// Printing form of nodelist_method_t, indexed by its value.
static const std::array<std::string, 5> nodelist_method_names = {
    "NONE", "ROTATE_RIGHT", "ROTATE_LEFT", "ROUND_ROBIN", "RANDOM"};

// Reading form of nodelist_method_t: exact, lower-case keys.
static const std::map<std::string, vesk::nodelist_method_t> nodelist_method_map = {
    {"none", vesk::NONE},
    {"rotate_right", vesk::ROTATE_RIGHT},
    {"rotate_left", vesk::ROTATE_LEFT},
    {"round_robin", vesk::ROUND_ROBIN},
    {"random", vesk::RANDOM}};

// Exported limits, in bytes unless said otherwise.
extern VESK_DATASTORE_EXPORT const int default_backend;    // sqlite3
extern VESK_DATASTORE_EXPORT const int max_provider_size;  // 64
extern VESK_DATASTORE_EXPORT const int max_hostname_size;  // 256
extern VESK_DATASTORE_EXPORT const int max_num_nodes;      // 2^18 nodes
extern VESK_DATASTORE_EXPORT const int
    max_node_names_size;  // max_num_nodes * (max_hostname_size + 2)
extern VESK_DATASTORE_EXPORT const int max_std_stream_size;  // 2^30
extern VESK_DATASTORE_EXPORT const int max_option_id_size;   // 64
extern VESK_DATASTORE_EXPORT const int max_username_size;    // 64

// Exported default names.
extern VESK_DATASTORE_EXPORT const std::string table_name;        // "provider_datastore"
extern VESK_DATASTORE_EXPORT const std::string table_view;        // "vesk_1"
extern VESK_DATASTORE_EXPORT const std::string table_baseline;    // "baseline_datastore"
extern VESK_DATASTORE_EXPORT const std::string odbc_default_dsn;  // "odbc_default_dsn"
// "$HOME/.vesk/2019.2.1/vesk.db", with "$HOME" left for the consumer to expand.
extern VESK_DATASTORE_EXPORT const std::string DEFAULT_DATA_SOURCE;
extern VESK_DATASTORE_EXPORT const std::string DEFAULT_DATASTORE_NAME;  // "vesk_default"
extern VESK_DATASTORE_EXPORT const std::string
    DEFAULT_DATASTORE_SQLITE_EXTENSION_NAME;  // "libsqlite.so"
extern VESK_DATASTORE_EXPORT const std::string
    DEFAULT_DATASTORE_ODBC_EXTENSION_NAME;                              // "libodbc.so"
extern VESK_DATASTORE_EXPORT const std::string DEFAULT_EXTENSION_PATH;  // "/datastore/lumok64/"

// Statements that create the provider table, the baseline table and the
// view over the provider table; extensions run them when they open a database.
extern VESK_DATASTORE_EXPORT const std::string default_create_table_query;
extern VESK_DATASTORE_EXPORT const std::string default_create_baseline_query;
extern VESK_DATASTORE_EXPORT const std::string default_create_view_query;

}  // namespace vesk::datastore
