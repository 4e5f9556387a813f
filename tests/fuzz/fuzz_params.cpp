// Parameter strings as an extension receives them: parse_sqlite_params, then
// the source as the SQLite extension prepares it (blanks and one pair of
// double quotes removed, then wordexp). The extension's further keys
// (busy_timeout_ms, query_timeout_ms, max_length) are read inside the
// extension, which has no entry point for them short of opening a database.
#include <cstdint>
#include <string>

#include "vesk/datastore.h"

#include "fuzz_support.h"

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
    return 0;
}
