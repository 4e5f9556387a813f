// split, stripws and squeeze against properties that any correct version has.
// Input: the first byte is the separator (or squeezed character), the rest the text.
#include <cctype>
#include <vector>

#include "vesk/str.h"

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const char sep = char(data[0]);
    const std::string text = vesk::fuzz::text_of(data + 1, size - 1);

    // split with empty pieces kept: joined again it is the text, one piece
    // more than separators.
    const auto kept = vesk::str::split(text, sep, false);
    std::string joined;
    size_t separators = 0;
    for (char c : text) separators += c == sep;
    VESK_FUZZ_CHECK(kept.size() == separators + 1);
    for (size_t i = 0; i < kept.size(); ++i) {
        VESK_FUZZ_CHECK(kept[i].find(sep) == std::string::npos);
        if (i) joined += sep;
        joined += kept[i];
    }
    VESK_FUZZ_CHECK(joined == text);
    // Dropping empty pieces: the same pieces, empty ones left out.
    std::vector<std::string> non_empty;
    for (const auto& piece : kept)
        if (!piece.empty()) non_empty.push_back(piece);
    VESK_FUZZ_CHECK(vesk::str::split(text, sep, true) == non_empty);

    // stripws: a piece of the text with no blank at either end, and no
    // non-blank character of the text lost.
    const std::string stripped = vesk::str::stripws(text);
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    VESK_FUZZ_CHECK(text.find(stripped) != std::string::npos);
    VESK_FUZZ_CHECK(stripped.empty() || (!blank(stripped.front()) && !blank(stripped.back())));
    size_t solid = 0, solid_after = 0;
    for (char c : text) solid += !blank(c);
    for (char c : stripped) solid_after += !blank(c);
    VESK_FUZZ_CHECK(solid == solid_after);
    VESK_FUZZ_CHECK(vesk::str::stripws(stripped) == stripped);

    // squeeze: no two `sep` in a row, the same text once the runs are
    // removed, and a second squeeze changes nothing.
    const std::string squeezed = vesk::str::squeeze(text, sep);
    VESK_FUZZ_CHECK(squeezed.find(std::string(2, sep)) == std::string::npos);
    const auto without = [sep](const std::string& s) {
        std::string out;
        for (char c : s)
            if (c != sep) out += c;
        return out;
    };
    VESK_FUZZ_CHECK(without(squeezed) == without(text));
    VESK_FUZZ_CHECK(vesk::str::squeeze(squeezed, sep) == squeezed);
    VESK_FUZZ_CHECK((text.find(sep) == std::string::npos) ==
                    (squeezed.find(sep) == std::string::npos));
    return 0;
}
