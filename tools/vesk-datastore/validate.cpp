#include "validate.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <vector>

#include "vesk/datastore/vocabulary.h"

#include "codec.h"

namespace vesk::tool {

namespace {

using vesk::datastore::max_hostname_size;
using vesk::datastore::max_num_nodes;
using vesk::datastore::max_option_id_size;
using vesk::datastore::max_provider_size;
using vesk::datastore::max_std_stream_size;
using vesk::datastore::max_username_size;

bool blank(unsigned char c) { return std::isspace(c) != 0; }

std::string byte_text(unsigned char c) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", c);
    return text;
}

std::string too_long(size_t size, size_t max, const std::string& limit) {
    return "is " + std::to_string(size) + " bytes, longer than " + limit + " (" +
           std::to_string(max) + ")";
}

// Free text (option id, user name): no control byte, UTF-8, at most `max`.
std::string text_problem(const std::string& value, size_t max, const std::string& limit) {
    if (value.size() > max) return too_long(value.size(), max, limit);
    for (unsigned char c : value)
        if (c < 0x20 || c == 0x7f) return "contains the control byte " + byte_text(c);
    if (!is_valid_utf8(value)) return "is not valid UTF-8";
    return "";
}

}  // namespace

std::string name_problem(const std::string& value, size_t max, const std::string& limit) {
    if (value.empty()) return "is empty";
    bool all_blank = true;
    for (unsigned char c : value) all_blank = all_blank && blank(c);
    if (all_blank) return "is blank";
    if (value.size() > max) return too_long(value.size(), max, limit);
    for (unsigned char c : value) {
        if (c == '\'' || c == '"') return "contains a quote";
        if (c == '\\') return "contains a backslash";
        if (c < 0x20 || c == 0x7f) return "contains the control byte " + byte_text(c);
    }
    // Queries strip the blanks around a name: "  uname " would answer for "uname".
    if (blank(static_cast<unsigned char>(value.front())) ||
        blank(static_cast<unsigned char>(value.back())))
        return "has blanks around it";
    if (!is_valid_utf8(value)) return "is not valid UTF-8";
    return "";
}

std::string record_problem(const vesk::datastore::InsertRecord& record, std::string& problem) {
    const auto& h = record.header;
    if (!(problem = name_problem(h.provider, size_t(max_provider_size), "max_provider_size"))
             .empty())
        return "Provider";
    if (!(problem = name_problem(h.hostname, size_t(max_hostname_size), "max_hostname_size"))
             .empty())
        return "Hostname";
    if (h.num_nodes < 0) {
        problem = "is negative";
        return "num_nodes";
    }
    if (h.num_nodes > max_num_nodes || h.node_names.size() > size_t(max_num_nodes)) {
        problem = "exceeds max_num_nodes (" + std::to_string(max_num_nodes) + ")";
        return "num_nodes";
    }
    if (size_t(h.num_nodes) != h.node_names.size()) {
        problem = std::to_string(h.num_nodes) + " disagrees with the " +
                  std::to_string(h.node_names.size()) + " names of node_names";
        return "num_nodes";
    }
    for (const auto& node : h.node_names) {
        problem = name_problem(node, size_t(max_hostname_size), "max_hostname_size");
        // The list is stored joined by commas.
        if (problem.empty() && node.find(',') != std::string::npos) problem = "contains a comma";
        if (!problem.empty()) {
            problem = "\"" + node + "\" " + problem;
            return "node_names";
        }
    }
    if (h.timestamp < 0) {
        problem = "is negative";
        return "Timestamp";
    }
    if (!std::isfinite(h.duration) || h.duration < 0) {
        problem = "must be a finite number of seconds, 0 or more";
        return "Duration";
    }
    if (h.unique_timestamp < 0) {
        problem = "is negative";
        return "Unique_timestamp";
    }
    for (const auto* text : {&record.std_out, &record.std_err}) {
        const char* field = text == &record.std_out ? "STDOUT" : "STDERR";
        if (text->size() > size_t(max_std_stream_size)) {
            problem = too_long(text->size(), size_t(max_std_stream_size), "max_std_stream_size");
            return field;
        }
        std::string bytes;
        if (h.encoding == vesk::provider::base64 && !base64_decode(*text, bytes)) {
            problem = "is not base64, but Encoding says base64 (1)";
            return field;
        }
    }
    if (h.encoding == vesk::provider::raw) {
        // JSON text carries no raw bytes: such output travels in base64.
        problem = "2 (raw) cannot be carried in JSON text; give the texts in base64 (1)";
        return "Encoding";
    }
    if (h.encoding != vesk::provider::none && h.encoding != vesk::provider::base64) {
        problem = "must be 0 (none) or 1 (base64)";
        return "Encoding";
    }
    if (!(problem =
              text_problem(record.option_id, size_t(max_option_id_size), "max_option_id_size"))
             .empty())
        return "OptionID";
    if (record.option_id.find('\'') != std::string::npos) {
        problem = "contains a quote";
        return "OptionID";
    }
    if (!(problem = text_problem(h.username, size_t(max_username_size), "max_username_size"))
             .empty())
        return "Username";
    problem.clear();
    return "";
}

std::string timeout_problem(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0 || seconds > kMaxTimeoutSeconds) {
        char max[32];
        std::snprintf(max, sizeof max, "%g", kMaxTimeoutSeconds);
        return "must be a number of seconds above 0 and at most " + std::string(max);
    }
    return "";
}

}  // namespace vesk::tool
