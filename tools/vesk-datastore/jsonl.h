#pragma once
// Rows as JSON Lines for `import` and `export`: one object per row, keyed by
// the provider table's column names.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vesk/datastore/records.h"

namespace vesk::tool {

// What one line of JSON Lines holds: a row, or the membership of a row in a
// snapshot (a line with a "Snapshot" key, as `export --snapshots` writes).
struct JsonLine {
    bool member = false;
    vesk::datastore::InsertRecord record;  // of a member: its key fields only
    std::string snapshot;                  // of a member: the snapshot's name
};

// Reads lines one at a time with one validating parser; keeps its buffers
// between lines, so a reader serves a whole file. Not shared by threads.
class JsonLineReader {
public:
    JsonLineReader();
    ~JsonLineReader();
    JsonLineReader(const JsonLineReader&) = delete;
    JsonLineReader& operator=(const JsonLineReader&) = delete;

    // Parses `line` (without its line break) into `out`. Row keys: Provider
    // and Hostname (required), num_nodes, node_names (array, or text joined
    // by ","), Exit_status, Timestamp, Duration, Encoding (number or
    // "none"/"base64"/"raw"), STDOUT, STDERR, OptionID, version, Username,
    // Unique_timestamp; rowid is accepted and ignored. Missing
    // Unique_timestamp or Timestamp take `default_run` (microseconds) and
    // its seconds. A member line holds Snapshot, Provider, Hostname,
    // OptionID and Unique_timestamp only. False, with "FIELD: problem" or
    // "invalid JSON ..." in `error`, for anything else, a key given twice
    // included.
    bool parse(std::string_view line, int64_t default_run, JsonLine& out, std::string& error);

private:
    struct State;
    std::unique_ptr<State> state_;
};

// One row line through a reader of its own (members are refused).
bool parse_row_line(const std::string& line, int64_t default_run,
                    vesk::datastore::InsertRecord& record, std::string& error);

// One row as one line of JSON, without the line break.
std::string row_to_line(const vesk::datastore::Row& row);

// A member written after a row's columns: a text, or a flag when `text` is
// null.
struct JsonExtra {
    const char* name;  // plain ASCII
    const std::string* text;
    bool flag;
};

// One row and its `extra` members laid out as nlohmann-json's dump(2) lays
// out an object nested `depth` levels deep (its first line not indented).
std::string row_to_pretty_json(const vesk::datastore::Row& row, const std::vector<JsonExtra>& extra,
                               int depth);

}  // namespace vesk::tool
