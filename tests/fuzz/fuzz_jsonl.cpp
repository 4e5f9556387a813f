// Differential target for the JSON Lines reader of the tool: the fast path
// must never accept a line that the validating path refuses, nor read it
// differently, and parse_row_line as a whole must answer exactly as the
// validating path alone does.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "jsonl.h"
#include "jsonl_paths.h"

namespace {

using vesk::datastore::InsertRecord;
using vesk::tool::detail::JsonPath;

bool same(const InsertRecord& a, const InsertRecord& b) {
    const auto& x = a.header;
    const auto& y = b.header;
    // Durations compare bit for bit: -0.0 and 0.0 are different inputs.
    return x.provider == y.provider && x.hostname == y.hostname && x.num_nodes == y.num_nodes &&
           x.node_names == y.node_names && x.exit_status == y.exit_status &&
           x.timestamp == y.timestamp &&
           std::memcmp(&x.duration, &y.duration, sizeof(double)) == 0 && x.encoding == y.encoding &&
           x.version == y.version && x.username == y.username &&
           x.unique_timestamp == y.unique_timestamp && a.std_out == b.std_out &&
           a.std_err == b.std_err && a.option_id == b.option_id;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line = vesk::fuzz::text_of(data, size);
    const int64_t run = 1700000000123456;
    InsertRecord fast, checked, whole;
    std::string fast_error, checked_error, whole_error;
    const bool fast_ok =
        vesk::tool::detail::parse_row_line_by(JsonPath::fast_only, line, run, fast, fast_error);
    const bool checked_ok = vesk::tool::detail::parse_row_line_by(JsonPath::validating_only, line,
                                                                  run, checked, checked_error);
    const bool whole_ok = vesk::tool::parse_row_line(line, run, whole, whole_error);

    if (fast_ok) {
        VESK_FUZZ_CHECK(checked_ok);
        VESK_FUZZ_CHECK(same(fast, checked));
    }
    VESK_FUZZ_CHECK(whole_ok == checked_ok);
    if (whole_ok) VESK_FUZZ_CHECK(same(whole, checked));
    if (!checked_ok) VESK_FUZZ_CHECK(!checked_error.empty());
    return 0;
}
