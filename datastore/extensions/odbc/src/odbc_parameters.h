#pragma once
// The parameter string of the ODBC extension.
//
// Either a bare data source name ("odbc_default_dsn": no "=" anywhere), or
// items joined by "|", each split at its first "=" (a connection string holds
// "=" itself). Keys: source (a DSN, or a whole ODBC connection string when it
// contains "="), read_only (true|false), login_timeout_s, query_timeout_s
// (seconds, 0 for none) and rows_per_statement (rows per bulk INSERT).
// Unknown keys, repeated keys and malformed values are refused by name.

#include <string>

namespace vesk::datastore::odbc_backend {

struct OdbcParameters {
    std::string source;         // a DSN name or a connection string
    bool source_is_dsn = true;  // false when `source` contains "="
    bool read_only = false;
    int login_timeout_s = 15;    // 0: the driver's own default
    int query_timeout_s = 0;     // 0: no limit
    int rows_per_statement = 0;  // 1 to max_rows_per_statement; 0: not given

    // The string for SQLDriverConnect: "DSN=<name>;" or the source itself.
    std::string connection_string() const;
};

// The rows of one bulk INSERT. PostgreSQL takes one array per column, 14
// parameters whatever the rows; other servers take multi-row INSERT ...
// VALUES, whose rows times the 14 columns must stay below the driver's
// parameter limit (about 7,500 for psqlODBC with server-side prepare): up to
// max_values_rows of them, whatever is asked for. Each statement holds at
// most 16 MiB of values besides.
constexpr int max_rows_per_statement = 10000;
constexpr int max_values_rows = 500;
// Without rows_per_statement: the rows per statement of each kind. Each
// array statement has the server update the table of each group's latest
// row once, so larger ones cost less.
constexpr int default_array_rows = 5000;
constexpr int default_values_rows = 500;
constexpr int max_timeout_s = 86400;

// Parses `text` into `out`. False with `error` naming the item or key at
// fault; `out` is then unspecified.
bool parse_odbc_parameters(const std::string& text, OdbcParameters& out, std::string& error);

}  // namespace vesk::datastore::odbc_backend
