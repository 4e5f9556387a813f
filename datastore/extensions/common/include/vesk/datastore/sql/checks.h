#pragma once
// Checks of an extension's input that do not depend on the backend: the
// parameter string of open, the names that queries must find again, and the
// sizes and node list of a row. Each answers with an empty string when the
// input is fine, else with the reason.

#include <map>
#include <string>
#include <vector>

#include "vesk/datastore/records.h"

namespace vesk::datastore::sql::checks {

// The keys an extension defines, each with the grammar of its value.
enum class ValueKind { text, boolean, milliseconds, bytes };
using KnownKeys = std::map<std::string, ValueKind>;

// Splits "key=value|key=value" into `values` (blanks around keys and values
// dropped, empty items skipped). Refuses an item without exactly one "=", an
// unknown key, a key given twice and a value that does not fit its kind:
// booleans are "true" or "false", numbers are decimal digits only (at most
// 12 of them).
std::string parse_parameters(const std::string& text, const KnownKeys& known,
                             std::map<std::string, std::string>& values);

// Why a provider, host or snapshot name cannot be used in a query as
// written: empty, blanks only, blanks around it, a quote or a NUL byte (the
// query builders strip blanks and quote names without escaping them).
std::string name_problem(const std::string& name);

// Why `header` with these fields cannot be stored: a name as above, a field
// beyond its size limit, or a node name that would not come back from the
// joined node list. `node_bytes` receives the size of the joined list.
std::string row_problem(const vesk::provider::header& header, const std::string& option_id,
                        const std::string& std_out, const std::string& std_err, size_t& node_bytes);

// The memory one record of an answer takes: the record and its texts.
size_t record_bytes(const Row& row);
size_t record_bytes(const Row_baseline& row);

}  // namespace vesk::datastore::sql::checks
