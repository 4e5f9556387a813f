#pragma once
// Rows as JSON Lines for `import` and `export`: one object per row, keyed by
// the provider table's column names.

#include <cstdint>
#include <string>

#include "vesk/datastore/records.h"

namespace vesk::tool {

// Parses one line into `record`. Keys: Provider and Hostname (required),
// num_nodes, node_names (array, or text joined by ","), Exit_status,
// Timestamp, Duration, Encoding (number or "none"/"base64"/"raw"), STDOUT,
// STDERR, OptionID, version, Username, Unique_timestamp; rowid is accepted
// and ignored (the datastore numbers rows itself). Missing Unique_timestamp
// or Timestamp take `default_run` (microseconds) and its seconds. False,
// with the reason in `error`, for anything else.
bool parse_row_line(const std::string& line, int64_t default_run,
                    vesk::datastore::InsertRecord& record, std::string& error);

// One row as one line of JSON, without the line break.
std::string row_to_line(const vesk::datastore::Row& row);

}  // namespace vesk::tool
