#include "jsonl.h"

#include <nlohmann/json.hpp>

#include "output.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

namespace vesk::tool {

namespace {

using nlohmann::json;

// The value as a 64-bit integer, or false for any other JSON type.
bool get_integer(const json& value, int64_t& out) {
    if (value.is_number_integer()) {
        out = value.get<int64_t>();
        return true;
    }
    if (value.is_number_unsigned() && value.get<uint64_t>() <= uint64_t(INT64_MAX)) {
        out = int64_t(value.get<uint64_t>());
        return true;
    }
    return false;
}

bool get_int32(const json& value, int32_t& out) {
    int64_t wide = 0;
    if (!get_integer(value, wide) || wide < INT32_MIN || wide > INT32_MAX) return false;
    out = int32_t(wide);
    return true;
}

}  // namespace

bool parse_row_line(const std::string& line, int64_t default_run,
                    vesk::datastore::InsertRecord& record, std::string& error) {
    json object = json::parse(line, nullptr, false);
    if (object.is_discarded()) {
        // Parse again to learn where and why: the error path only.
        try {
            const json again = json::parse(line);
            (void)again;
        } catch (const json::parse_error& e) {
            error = e.what();
            const std::string prefix = "[json.exception.parse_error.101] ";
            if (error.rfind(prefix, 0) == 0) error = error.substr(prefix.size());
            // The text is one line: "at line 1, column 5" says only the column.
            const std::string where = "parse error at line 1, ";
            if (error.rfind(where, 0) == 0) error = "invalid JSON at " + error.substr(where.size());
            return false;
        }
        error = "not valid JSON";
        return false;
    }
    if (!object.is_object()) {
        error = "expected a JSON object";
        return false;
    }

    record = vesk::datastore::InsertRecord{};
    auto& h = record.header;
    bool have_run = false;
    bool have_start = false;
    bool have_nodes = false;
    for (auto& [key, value] : object.items()) {
        auto wrong = [&](const char* expected) {
            error = "\"" + key + "\" must be " + expected;
            return false;
        };
        if (key == "rowid") {
            int64_t ignored = 0;
            if (!value.is_null() && !get_integer(value, ignored)) return wrong("an integer");
        } else if (key == "Provider") {
            if (!value.is_string()) return wrong("a string");
            h.provider = std::move(value.get_ref<std::string&>());
        } else if (key == "Hostname") {
            if (!value.is_string()) return wrong("a string");
            h.hostname = std::move(value.get_ref<std::string&>());
        } else if (key == "num_nodes") {
            if (!get_int32(value, h.num_nodes)) return wrong("an integer");
            have_nodes = true;
        } else if (key == "node_names") {
            if (value.is_string()) {
                for (const auto& piece : vesk::str::split(value.get<std::string>(), ',', true)) {
                    const std::string name = vesk::str::stripws(piece);
                    if (!name.empty()) h.node_names.push_back(name);
                }
            } else if (value.is_array()) {
                for (auto& item : value) {
                    if (!item.is_string()) return wrong("an array of strings");
                    h.node_names.push_back(std::move(item.get_ref<std::string&>()));
                }
            } else {
                return wrong("an array of strings");
            }
        } else if (key == "Exit_status") {
            if (!get_int32(value, h.exit_status)) return wrong("an integer");
        } else if (key == "Timestamp") {
            if (!get_integer(value, h.timestamp)) return wrong("an integer");
            have_start = true;
        } else if (key == "Duration") {
            if (!value.is_number()) return wrong("a number");
            h.duration = value.get<double>();
        } else if (key == "Encoding") {
            int32_t encoding = -1;
            if (value.is_string()) {
                const auto found = vesk::datastore::encoding_map.find(value.get<std::string>());
                if (found != vesk::datastore::encoding_map.end()) encoding = found->second;
            } else {
                (void)get_int32(value, encoding);
            }
            if (encoding < 0 || encoding > 2) return wrong("0, 1, 2, \"none\", \"base64\" or \"raw\"");
            h.encoding = vesk::provider::encoding(encoding);
        } else if (key == "STDOUT") {
            if (!value.is_string()) return wrong("a string");
            record.std_out = std::move(value.get_ref<std::string&>());
        } else if (key == "STDERR") {
            if (!value.is_string()) return wrong("a string");
            record.std_err = std::move(value.get_ref<std::string&>());
        } else if (key == "OptionID") {
            if (!value.is_string()) return wrong("a string");
            record.option_id = std::move(value.get_ref<std::string&>());
        } else if (key == "version") {
            if (!get_int32(value, h.version)) return wrong("an integer");
        } else if (key == "Username") {
            if (!value.is_string()) return wrong("a string");
            h.username = std::move(value.get_ref<std::string&>());
        } else if (key == "Unique_timestamp") {
            if (!get_integer(value, h.unique_timestamp)) return wrong("an integer");
            have_run = true;
        } else {
            error = "unknown key \"" + key + "\"";
            return false;
        }
    }
    if (h.provider.empty()) {
        error = "\"Provider\" is missing or empty";
        return false;
    }
    if (h.hostname.empty()) {
        error = "\"Hostname\" is missing or empty";
        return false;
    }
    if (h.provider.size() > size_t(vesk::datastore::max_provider_size)) {
        error = "\"Provider\" is longer than " +
                std::to_string(vesk::datastore::max_provider_size) + " bytes";
        return false;
    }
    if (h.hostname.size() > size_t(vesk::datastore::max_hostname_size)) {
        error = "\"Hostname\" is longer than " +
                std::to_string(vesk::datastore::max_hostname_size) + " bytes";
        return false;
    }
    if (!have_run) h.unique_timestamp = default_run;
    if (!have_start) h.timestamp = h.unique_timestamp / 1000000;
    if (!have_nodes) h.num_nodes = int32_t(h.node_names.size());
    return true;
}

std::string row_to_line(const vesk::datastore::Row& row) {
    return row_to_json(row).dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vesk::tool
