// Parameter strings as an extension receives them: parse_sqlite_params, then
// the source as the SQLite extension prepares it (blanks and one pair of
// double quotes removed, then wordexp); the key check every SQL extension
// runs at open (the SQLite extension's keys); and, when the ODBC extension
// is built, its own parser.
#include <map>

#include "vesk/datastore.h"
#include "vesk/datastore/sql/checks.h"

#include "sqlite_keys.h"
#ifdef VESK_FUZZ_ODBC
#include "odbc_parameters.h"
#endif

#include "fuzz_support.h"

namespace {

namespace checks = vesk::datastore::sql::checks;

using vesk::datastore::sqlite_backend::known_keys;  // the SQLite extension's keys

bool digits(const std::string& text) {
    return !text.empty() && text.size() <= 12 &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

// An accepted string gives known keys with values of their kind, and one
// more item with an unknown or repeated key is refused by name.
void check_kit_parser(const std::string& parameters) {
    std::map<std::string, std::string> values;
    if (!checks::parse_parameters(parameters, known_keys(), values).empty()) return;
    for (const auto& [key, value] : values) {
        const auto known = known_keys().find(key);
        VESK_FUZZ_CHECK(known != known_keys().end());
        VESK_FUZZ_CHECK(value.find('|') == std::string::npos);
        if (known->second == checks::ValueKind::boolean)
            VESK_FUZZ_CHECK(value == "true" || value == "false");
        if (known->second == checks::ValueKind::milliseconds ||
            known->second == checks::ValueKind::bytes)
            VESK_FUZZ_CHECK(digits(value));
    }
    const auto refused_by_name = [&](const std::string& key, const std::string& value) {
        std::map<std::string, std::string> more;
        const std::string item = "|" + key + "=" + value;
        VESK_FUZZ_CHECK(checks::parse_parameters(parameters + item, known_keys(), more).find(key) !=
                        std::string::npos);
    };
    refused_by_name("nokey", "1");
    if (!values.empty()) refused_by_name(values.begin()->first, values.begin()->second);
}

#ifdef VESK_FUZZ_ODBC
// An accepted string gives values within their ranges; an unknown key
// added is refused by name.
void check_odbc_parser(const std::string& parameters) {
    namespace odbc = vesk::datastore::odbc_backend;
    odbc::OdbcParameters out;
    std::string error;
    if (!odbc::parse_odbc_parameters(parameters, out, error)) {
        VESK_FUZZ_CHECK(!error.empty());
        return;
    }
    VESK_FUZZ_CHECK(out.rows_per_statement >= 0 &&
                    out.rows_per_statement <= odbc::max_rows_per_statement);
    VESK_FUZZ_CHECK(out.login_timeout_s >= 0 && out.login_timeout_s <= odbc::max_timeout_s);
    VESK_FUZZ_CHECK(out.query_timeout_s >= 0 && out.query_timeout_s <= odbc::max_timeout_s);
    VESK_FUZZ_CHECK(out.source_is_dsn == (out.source.find('=') == std::string::npos));
    if (parameters.find('=') != std::string::npos) {
        odbc::OdbcParameters more;
        error.clear();
        VESK_FUZZ_CHECK(!odbc::parse_odbc_parameters(parameters + "|nokey=1", more, error));
        VESK_FUZZ_CHECK(error.find("nokey") != std::string::npos);
    }
}
#endif

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ::setenv("HOME", "/home/fuzz", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string parameters = vesk::fuzz::text_of(data, size);
    std::string source = "unset";
    bool read_only = false;
    const bool ok = parse_sqlite_params(parameters, source, read_only);

    // A value is one piece of one item: it holds neither separator and has
    // no blank at either end; "true" must be in the text for read_only.
    if (source != "unset") {
        VESK_FUZZ_CHECK(source.find_first_of("|=") == std::string::npos);
        VESK_FUZZ_CHECK(source == vesk::str::stripws(source));
        VESK_FUZZ_CHECK(parameters.find(source) != std::string::npos);
    }
    if (read_only) VESK_FUZZ_CHECK(parameters.find("true") != std::string::npos);
    // A string of well-formed items stays well-formed with one more.
    if (ok) {
        std::string more;
        bool more_read_only = false;
        VESK_FUZZ_CHECK(parse_sqlite_params(parameters + "|read_only=true", more, more_read_only));
        VESK_FUZZ_CHECK(more_read_only);
    }

    std::string path = vesk::str::stripws(source);
    if (path.size() >= 2 && path.front() == '"' && path.back() == '"')
        path = path.substr(1, path.size() - 2);
    (void)vesk::str::wordexp(path);

    check_kit_parser(parameters);
#ifdef VESK_FUZZ_ODBC
    check_odbc_parser(parameters);
#endif
    return 0;
}
