#include "odbc_parameters.h"

#include <set>
#include <string_view>

namespace vesk::datastore::odbc_backend {

namespace {

std::string_view trim(std::string_view s) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!s.empty() && blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && blank(s.back())) s.remove_suffix(1);
    return s;
}

// A whole decimal number in [low, high]; no sign, no blanks inside.
bool parse_int(std::string_view text, int low, int high, int& out) {
    if (text.empty() || text.size() > 9) return false;
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value < low || value > high) return false;
    out = value;
    return true;
}

bool fail(std::string& error, std::string text) {
    error = std::move(text);
    return false;
}

}  // namespace

std::string OdbcParameters::connection_string() const {
    return source_is_dsn ? "DSN=" + source + ";" : source;
}

bool parse_odbc_parameters(const std::string& text, OdbcParameters& out, std::string& error) {
    out = OdbcParameters{};
    const std::string_view whole = trim(text);
    if (whole.empty()) return fail(error, "empty parameter string: name a data source");

    if (whole.find('=') == std::string_view::npos) {
        if (whole.find_first_of("|; \t") != std::string_view::npos)
            return fail(error, "malformed data source name \"" + std::string(whole) + "\"");
        out.source = std::string(whole);
        out.source_is_dsn = true;
        return true;
    }

    std::set<std::string> seen;
    std::string_view rest = whole;
    while (true) {
        const std::size_t bar = rest.find('|');
        const std::string_view item = trim(rest.substr(0, bar));
        const std::size_t eq = item.find('=');
        if (eq == std::string_view::npos)
            return fail(error, "parameter item \"" + std::string(item) +
                                   "\" is not key=value (items are joined by \"|\")");
        const std::string key(trim(item.substr(0, eq)));
        const std::string_view value = trim(item.substr(eq + 1));
        if (!seen.insert(key).second) return fail(error, "parameter \"" + key + "\" given twice");

        const auto bad_value = [&](const char* expected) {
            return fail(error, "parameter \"" + key + "\" has value \"" + std::string(value) +
                                   "\", expected " + expected);
        };
        if (key == "source") {
            if (value.empty()) return bad_value("a DSN name or an ODBC connection string");
            out.source = std::string(value);
            out.source_is_dsn = value.find('=') == std::string_view::npos;
            if (out.source_is_dsn && value.find_first_of("; \t") != std::string_view::npos)
                return bad_value("a DSN name or an ODBC connection string");
        } else if (key == "read_only") {
            if (value == "true")
                out.read_only = true;
            else if (value == "false")
                out.read_only = false;
            else
                return bad_value("true or false");
        } else if (key == "login_timeout_s") {
            if (!parse_int(value, 0, max_timeout_s, out.login_timeout_s))
                return bad_value("whole seconds from 0 to 86400");
        } else if (key == "query_timeout_s") {
            if (!parse_int(value, 0, max_timeout_s, out.query_timeout_s))
                return bad_value("whole seconds from 0 to 86400");
        } else if (key == "rows_per_statement") {
            if (!parse_int(value, 1, max_rows_per_statement, out.rows_per_statement))
                return bad_value("a number of rows from 1 to 10000");
        } else {
            return fail(error, "unknown parameter \"" + key +
                                   "\" (known: source, read_only, login_timeout_s, "
                                   "query_timeout_s, rows_per_statement)");
        }
        if (bar == std::string_view::npos) break;
        rest = rest.substr(bar + 1);
    }
    if (out.source.empty()) return fail(error, "parameter \"source\" is missing");
    return true;
}

}  // namespace vesk::datastore::odbc_backend
