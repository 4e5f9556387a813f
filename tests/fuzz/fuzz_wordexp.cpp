// wordexp over any text: no crash, nothing run, and the forms it does not
// expand leave the text exactly as written.

#include "vesk/str.h"

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Fixed values, so that a run is repeatable.
    ::setenv("HOME", "/home/fuzz", 1);
    ::setenv("VESK_FUZZ_A", "a$b`c'd\"e", 1);
    ::setenv("VESK_FUZZ_EMPTY", "", 1);
    ::unsetenv("VESK_FUZZ_UNSET");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = vesk::fuzz::text_of(data, size);
    const std::string out = vesk::str::wordexp(text);

    // Command substitution with nothing quoting it: the text comes back
    // unchanged. (A quoted or escaped "`" is an ordinary character.)
    const bool quoting = text.find_first_of("\\\"'") != std::string::npos;
    if (!quoting && (text.find('`') != std::string::npos || text.find("$(") != std::string::npos))
        VESK_FUZZ_CHECK(out == text);
    // Nothing to expand or remove: unchanged.
    if (text.find_first_of("$\\\"'") == std::string::npos && (text.empty() || text[0] != '~'))
        VESK_FUZZ_CHECK(out == text);
    return 0;
}
