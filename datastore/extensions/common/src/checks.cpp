#include "vesk/datastore/sql/checks.h"

#include <algorithm>
#include <cctype>

#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

namespace vesk::datastore::sql::checks {

std::string parse_parameters(const std::string& text, const KnownKeys& known,
                             std::map<std::string, std::string>& values) {
    for (const auto& item : vesk::str::split(text, '|', true)) {
        if (vesk::str::stripws(item).empty()) continue;
        const auto pieces = vesk::str::split(item, '=', true);
        if (pieces.size() != 2) return "item \"" + item + "\" is not key=value";
        const std::string key = vesk::str::stripws(pieces[0]);
        const std::string value = vesk::str::stripws(pieces[1]);
        const auto kind = known.find(key);
        if (kind == known.end()) return "unknown key \"" + key + "\"";
        if (!values.emplace(key, value).second) return "key \"" + key + "\" given twice";
        switch (kind->second) {
            case ValueKind::text:
                break;
            case ValueKind::boolean:
                if (value != "true" && value != "false")
                    return "key \"" + key + "\": \"" + value + "\" is neither true nor false";
                break;
            case ValueKind::milliseconds:
            case ValueKind::bytes:
                if (value.empty() || value.size() > 12 ||
                    value.find_first_not_of("0123456789") != std::string::npos)
                    return "key \"" + key + "\": \"" + value + "\" is not a number of " +
                           (kind->second == ValueKind::bytes ? "bytes" : "milliseconds");
                break;
        }
    }
    return "";
}

std::string name_problem(const std::string& name) {
    // Checked on every row written: no copies. Blanks are what
    // vesk::str::stripws strips.
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    if (name.empty()) return "is empty";
    if (std::all_of(name.begin(), name.end(), blank)) return "is blank";
    if (blank(name.front()) || blank(name.back())) return "has blanks around it";
    if (name.find('\'') != std::string::npos) return "has a quote";
    if (name.find('\0') != std::string::npos) return "has a NUL byte";
    return "";
}

std::string row_problem(const vesk::provider::header& header, const std::string& option_id,
                        const std::string& std_out, const std::string& std_err,
                        size_t& node_bytes) {
    auto too_long = [](const char* what, size_t size, int limit, const char* name) {
        return std::string(what) + " of " + std::to_string(size) + " bytes exceeds " + name + " (" +
               std::to_string(limit) + ")";
    };
    if (header.provider.size() > static_cast<size_t>(max_provider_size))
        return too_long("provider name", header.provider.size(), max_provider_size,
                        "max_provider_size");
    if (header.hostname.size() > static_cast<size_t>(max_hostname_size))
        return too_long("host name", header.hostname.size(), max_hostname_size,
                        "max_hostname_size");
    if (const std::string why = name_problem(header.provider); !why.empty())
        return "provider name \"" + header.provider + "\" " + why;
    if (const std::string why = name_problem(header.hostname); !why.empty())
        return "host name \"" + header.hostname + "\" " + why;
    if (option_id.size() > static_cast<size_t>(max_option_id_size))
        return too_long("option id", option_id.size(), max_option_id_size, "max_option_id_size");
    if (header.username.size() > static_cast<size_t>(max_username_size))
        return too_long("user name", header.username.size(), max_username_size,
                        "max_username_size");
    if (header.num_nodes > max_num_nodes ||
        header.node_names.size() > static_cast<size_t>(max_num_nodes))
        return "node count " +
               std::to_string(std::max<size_t>(static_cast<size_t>(std::max(header.num_nodes, 0)),
                                               header.node_names.size())) +
               " exceeds max_num_nodes (" + std::to_string(max_num_nodes) + ")";
    size_t bytes = 0;
    for (const auto& name : header.node_names) {
        // The list is stored joined by ", " and split at "," when read:
        // a name that would not come back as written is refused.
        if (name.empty() || name.find(',') != std::string::npos ||
            std::isspace(static_cast<unsigned char>(name.front())) ||
            std::isspace(static_cast<unsigned char>(name.back())))
            return "node name \"" + name + "\" is empty, has a comma or surrounding blanks";
        bytes += name.size() + 2;
    }
    if (bytes >= 2) bytes -= 2;
    if (bytes > static_cast<size_t>(max_node_names_size))
        return too_long("node list", bytes, max_node_names_size, "max_node_names_size");
    if (std_out.size() > static_cast<size_t>(max_std_stream_size))
        return too_long("STDOUT", std_out.size(), max_std_stream_size, "max_std_stream_size");
    if (std_err.size() > static_cast<size_t>(max_std_stream_size))
        return too_long("STDERR", std_err.size(), max_std_stream_size, "max_std_stream_size");
    node_bytes = bytes;
    return "";
}

size_t record_bytes(const Row& row) {
    size_t bytes = sizeof(Row) + row.Provider.size() + row.Hostname.size() + row.STDOUT.size() +
                   row.STDERR.size() + row.OptionID.size() + row.Username.size();
    for (const auto& name : row.node_names) bytes += sizeof(std::string) + name.size();
    return bytes;
}

size_t record_bytes(const Row_baseline& row) {
    return sizeof(Row_baseline) + row.baseline_id.size() + row.fwd_name.size() +
           row.provider_checksum.size() + row.command_checksum.size();
}

}  // namespace vesk::datastore::sql::checks
