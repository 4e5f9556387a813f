#pragma once
// How commands print: aligned tables for people (colour only on a
// terminal), JSON and CSV for scripts. Stable column names and keys.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "vesk/datastore/records.h"

namespace vesk::tool {

// JSON values keep their keys in insertion order, so columns print in order.
using Json = nlohmann::ordered_json;

enum class Format { table, json, csv };

// Rows of text cells under named columns.
struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
};

// Colour codes, empty unless colour is on.
struct Style {
    bool on = false;
    std::string bold() const { return on ? "\033[1m" : ""; }
    std::string red() const { return on ? "\033[31m" : ""; }
    std::string green() const { return on ? "\033[32m" : ""; }
    std::string cyan() const { return on ? "\033[36m" : ""; }
    std::string reset() const { return on ? "\033[0m" : ""; }
};

// Standard output through a buffer of the tool's own that writes to file
// descriptor 1 and remembers the first failed write, so that a full disk
// or /dev/full is reported instead of a cut file. A closed pipe still ends
// the process quietly (SIGPIPE).
void install_checked_stdout();
// Throws ToolError (exit 2, "write error: <reason>") when a write to
// standard output failed so far; flushes first when `flush`.
void check_stdout(bool flush = false);

// Colour for standard output: on a terminal, unless NO_COLOR is set.
Style stdout_style();

// Columns padded to their widest cell, header first (in bold with colour).
// Cells named in `red_when_nonzero` are red when they are not "0".
void print_table(std::ostream& out, const Table& table, const Style& style,
                 const std::string& red_when_nonzero = "");
// RFC 4180 CSV with a header line.
void print_csv(std::ostream& out, const Table& table);
// The same without the header line.
void print_csv_rows(std::ostream& out, const Table& table);

// A table printed as a stream: every row is shown to add() first, then the
// header and the rows are printed one at a time, padded like print_table.
class TableWidths {
public:
    explicit TableWidths(const Table& header);
    void add(const std::vector<std::string>& cells);
    void print_header(std::ostream& out, const Style& style) const;
    // Cells of the column named `red_when_nonzero` are red when not "0".
    void print_row(std::ostream& out, const std::vector<std::string>& cells, const Style& style,
                   const std::string& red_when_nonzero = "") const;

private:
    void emit(std::ostream& out, const std::vector<std::string>& cells, bool header,
              const Style& style, const std::string& red_when_nonzero) const;
    std::vector<std::string> columns_;
    std::vector<size_t> width_;
};
// One JSON document followed by a line break (invalid UTF-8 replaced).
void print_json(std::ostream& out, const Json& value);
// A command's result on standard output: `json`, or `table` as CSV, or
// `heading` and then `table` for people (see print_table).
void print_result(Format format, const Json& json, const Table& table,
                  const std::string& heading = "", const std::string& red_when_nonzero = "");

// `text` safe to show on a terminal: control bytes (but line breaks and
// tabs when `keep_lines`), C1 controls and bytes that are not UTF-8 become
// "\xNN", so that captured output cannot steer the terminal.
std::string terminal_safe(const std::string& text, bool keep_lines);
// Columns `text` takes on a terminal (wide characters count two).
size_t display_width(const std::string& text);

// "YYYY-MM-DD HH:MM:SS" in local time, for seconds since the epoch.
std::string format_time(int64_t seconds);
// The same for a run's Unique_timestamp (microseconds since the epoch).
std::string format_run(int64_t unique_timestamp);
// "1.234" seconds, three decimals.
std::string format_seconds(double seconds);

// A stored row as a JSON object keyed by the provider table's columns;
// node_names is an array. The texts stay as stored (see Encoding).
Json row_to_json(const vesk::datastore::Row& row);

}  // namespace vesk::tool
