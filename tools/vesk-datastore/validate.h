#pragma once
// Checks of the values the tool stores or places into queries: names,
// whole rows and durations. Each check answers with the problem in words,
// or "" when the value is fine. Stateless.

#include <cstddef>
#include <string>

#include "vesk/datastore/records.h"

namespace vesk::tool {

// Longest snapshot name the tool accepts, in bytes.
constexpr size_t kMaxSnapshotNameSize = 256;

// Longest provider timeout, in seconds (one day): a deadline stays far from
// the clock's range, and no health check waits longer.
constexpr double kMaxTimeoutSeconds = 86400;

// Why `value` cannot be a provider, host, snapshot or node name that comes
// back from a query as written: empty or blank, blanks around it, longer than
// `max` bytes (`limit` names the limit), a quote, backslash or control byte,
// or not UTF-8.
std::string name_problem(const std::string& value, size_t max, const std::string& limit);

// The first field of `record` that the datastore should not keep, with its
// problem in `problem`; "" when every field is fine.
std::string record_problem(const vesk::datastore::InsertRecord& record, std::string& problem);

// Why `seconds` is no usable timeout: not a number, not above 0, or beyond
// kMaxTimeoutSeconds.
std::string timeout_problem(double seconds);

}  // namespace vesk::tool
