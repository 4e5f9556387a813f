// The JSON Lines reader and writer of the tool: no crash and no sanitizer
// report on any input; whatever the reader accepts is JSON by an
// independent reader (nlohmann); a reader that served earlier lines reads a
// line as a new one does; a row it accepts, written back as a line by
// export's writer and read again, gives the same record; and the writer
// gives nlohmann-json's bytes for any text, UTF-8 or not.
#include <cstring>
#include <tuple>

#include <nlohmann/json.hpp>

#include "vesk/datastore/records.h"

#include "fuzz_support.h"
#include "jsonl.h"
#include "output.h"

namespace {

using vesk::datastore::InsertRecord;
using vesk::tool::JsonLine;
using vesk::tool::JsonLineReader;

// Every field but the duration.
auto fields(const InsertRecord& r) {
    const auto& h = r.header;
    return std::tie(h.provider, h.hostname, h.num_nodes, h.node_names, h.exit_status, h.timestamp,
                    h.encoding, h.version, h.username, h.unique_timestamp, r.std_out, r.std_err,
                    r.option_id);
}

bool same(const InsertRecord& a, const InsertRecord& b) {
    // Durations compare bit for bit: -0.0 and 0.0 are different values.
    return fields(a) == fields(b) &&
           std::memcmp(&a.header.duration, &b.header.duration, sizeof(double)) == 0;
}

bool same(const JsonLine& a, const JsonLine& b) {
    return a.member == b.member && a.snapshot == b.snapshot && same(a.record, b.record);
}

// The row as the datastore gives it back to export.
vesk::datastore::Row row_of(const InsertRecord& r) {
    vesk::datastore::Row row;
    const auto& h = r.header;
    row.Provider = h.provider;
    row.Hostname = h.hostname;
    row.num_nodes = h.num_nodes;
    row.node_names = h.node_names;
    row.Exit_status = h.exit_status;
    row.Timestamp = h.timestamp;
    row.Duration = h.duration;
    row.Encoding = int32_t(h.encoding);
    row.STDOUT = r.std_out;
    row.STDERR = r.std_err;
    row.OptionID = r.option_id;
    row.version = h.version;
    row.Username = h.username;
    row.Unique_timestamp = h.unique_timestamp;
    return row;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line = vesk::fuzz::text_of(data, size);
    const int64_t run = 1700000000123456;

    vesk::datastore::Row raw;
    raw.STDOUT = line;
    raw.node_names = {line.substr(0, size / 2), line.substr(size / 2)};
    raw.Duration = size > 0 ? double(data[0]) / 7 : -0.0;
    VESK_FUZZ_CHECK(vesk::tool::row_to_line(raw) ==
                    vesk::tool::row_to_json(raw).dump(-1, ' ', false,
                                                      vesk::tool::Json::error_handler_t::replace));
    vesk::tool::Json pretty = vesk::tool::row_to_json(raw);
    pretty["datastore"] = line;
    VESK_FUZZ_CHECK(vesk::tool::row_to_pretty_json(raw, {{"datastore", &line, false}}, 0) ==
                    pretty.dump(2, ' ', false, vesk::tool::Json::error_handler_t::replace));

    static JsonLineReader reused;  // keeps the buffers of every earlier input
    JsonLineReader fresh;
    JsonLine first, again;
    std::string error, fresh_error;
    const bool ok = reused.parse(line, run, first, error);
    VESK_FUZZ_CHECK(fresh.parse(line, run, again, fresh_error) == ok);
    VESK_FUZZ_CHECK(error == fresh_error);
    if (!ok) {
        VESK_FUZZ_CHECK(!error.empty());
        return 0;
    }
    VESK_FUZZ_CHECK(same(first, again));
    VESK_FUZZ_CHECK(nlohmann::json::accept(line));
    if (first.member) return 0;

    const std::string written = vesk::tool::row_to_line(row_of(first.record));
    JsonLine back;
    VESK_FUZZ_CHECK(reused.parse(written, 0, back, error));
    VESK_FUZZ_CHECK(!back.member && same(first.record, back.record));
    return 0;
}
