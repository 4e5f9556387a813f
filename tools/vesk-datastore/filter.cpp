#include "filter.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "errors.h"

namespace vesk::tool {

std::string sql_literal(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') out += '\'';
        out += c;
    }
    return out + "'";
}

bool is_glob(const std::string& name) { return name.find_first_of("*?[") != std::string::npos; }

std::string parse_age(const std::string& text, int64_t& micros) {
    if (text.size() < 2 || !std::isdigit(static_cast<unsigned char>(text[0])))
        return "is no age (like 90s, 15m, 2h, 7d, 2w)";
    char* end = nullptr;
    errno = 0;
    const long long count = std::strtoll(text.c_str(), &end, 10);
    int64_t unit = 0;
    if (end != nullptr && end[0] != '\0' && end[1] == '\0') {
        switch (*end) {
            case 's':
                unit = 1;
                break;
            case 'm':
                unit = 60;
                break;
            case 'h':
                unit = 3600;
                break;
            case 'd':
                unit = 86400;
                break;
            case 'w':
                unit = 7 * 86400;
                break;
            default:
                break;
        }
    }
    if (unit == 0) return "is no age (like 90s, 15m, 2h, 7d, 2w)";
    // Ten thousand years is far more than any store holds and far from overflow.
    if (errno == ERANGE || count > 10000LL * 366 * 86400 / unit) return "is too long an age";
    micros = int64_t(count) * unit * 1000000;
    return "";
}

std::string parse_when(const std::string& text, int64_t now, int64_t& when, bool& is_run) {
    is_run = false;
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
        if (text.size() > 18) return "is too large a run id";
        when = std::strtoll(text.c_str(), nullptr, 10);
        is_run = true;
        return "";
    }
    int64_t age = 0;
    if (!text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) && text.size() <= 12 &&
        text.find('-') == std::string::npos && parse_age(text, age).empty()) {
        when = now - age;
        return "";
    }
    std::tm tm{};
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    int used = 0;
    const char* s = text.c_str();
    if (std::sscanf(s, "%4d-%2d-%2d%n", &year, &month, &day, &used) != 3 || used != 10)
        return "is no time (like 2026-11-23, 2026-11-23T10:00, 2h or 7d)";
    const char* rest = s + used;
    if (*rest == 'T' || *rest == ' ') {
        int more = 0;
        if (std::sscanf(rest + 1, "%2d:%2d%n", &hour, &minute, &more) != 2 || more != 5)
            return "is no time (like 2026-11-23, 2026-11-23T10:00, 2h or 7d)";
        rest += 1 + more;
        if (*rest == ':') {
            if (std::sscanf(rest + 1, "%2d%n", &second, &more) != 1 || more != 2)
                return "is no time (like 2026-11-23, 2026-11-23T10:00:00)";
            rest += 1 + more;
        }
    }
    const bool utc = *rest == 'Z';
    if (utc) ++rest;
    if (*rest != '\0') return "is no time (like 2026-11-23, 2026-11-23T10:00, 2h or 7d)";
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
        return "is no valid date and time";
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    const std::time_t t = utc ? ::timegm(&tm) : std::mktime(&tm);
    if (t == std::time_t(-1)) return "is no valid date and time";
    when = int64_t(t) * 1000000;
    return "";
}

namespace {

void add(std::string& to, const std::string& condition) {
    to += (to.empty() ? "" : " AND ") + condition;
}

}  // namespace

namespace {

// `pattern` (* and ?) as a LIKE condition on Hostname, with "!" escaping
// LIKE's own wildcards.
std::string like_condition(const std::string& pattern) {
    if (pattern.find('[') != std::string::npos)
        throw ToolError(kExitError, "host pattern \"" + pattern +
                                        "\": character classes ([...]) work on SQLite "
                                        "datastores only; use * and ? on a database server");
    std::string like;
    for (char c : pattern) {
        if (c == '*')
            like += '%';
        else if (c == '?')
            like += '_';
        else {
            if (c == '%' || c == '_' || c == '!') like += '!';
            like += c;
        }
    }
    return "Hostname LIKE " + sql_literal(like) + " ESCAPE '!'";
}

}  // namespace

std::string row_conditions(const RowFilter& filter, bool glob) {
    std::string where;
    if (!filter.hosts.empty()) {
        std::string names;
        std::string globs;
        for (const auto& host : filter.hosts) {
            if (is_glob(host))
                globs += (globs.empty() ? "" : " OR ") +
                         (glob ? "Hostname GLOB " + sql_literal(host) : like_condition(host));
            else
                names += (names.empty() ? "" : ",") + sql_literal(host);
        }
        std::string any;
        if (!names.empty()) any = "Hostname IN (" + names + ")";
        if (!globs.empty()) any += (any.empty() ? "" : " OR ") + globs;
        add(where, "(" + any + ")");
    }
    if (filter.since != 0)
        add(where, "Unique_timestamp " + std::string(filter.since_run ? ">" : ">=") + " " +
                       std::to_string(filter.since));
    if (filter.until != 0)
        add(where, "Unique_timestamp " + std::string(filter.until_run ? "<=" : "<") + " " +
                       std::to_string(filter.until));
    if (filter.run != 0) add(where, "Unique_timestamp = " + std::to_string(filter.run));
    return where;
}

std::string outcome_conditions(const RowFilter& filter) {
    std::string where;
    if (filter.failed) add(where, "Exit_status <> 0");
    if (filter.has_exit) add(where, "Exit_status = " + std::to_string(filter.exit_status));
    return where;
}

}  // namespace vesk::tool
