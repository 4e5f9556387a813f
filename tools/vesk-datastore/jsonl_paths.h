#pragma once
// The two JSON Lines parsers behind parse_row_line, one at a time: the fast
// path (a flat object of known keys, no value tree) and the validating path
// (any JSON, precise messages). parse_row_line tries the first and falls back
// to the second; the differential fuzzer checks that the fast path never
// accepts a line the validating path refuses, nor reads it differently.

#include <cstdint>
#include <string>

#include "vesk/datastore/records.h"

namespace vesk::tool::detail {

enum class JsonPath { automatic, fast_only, validating_only };

// parse_row_line through `path`; with fast_only, false for every line the
// fast path does not take.
bool parse_row_line_by(JsonPath path, const std::string& line, int64_t default_run,
                       vesk::datastore::InsertRecord& record, std::string& error);

}  // namespace vesk::tool::detail
