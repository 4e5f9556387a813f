#include "text_check.h"

#include <cstdint>
#include <cstring>

namespace vesk::datastore::odbc_backend {

namespace {

// Length of the valid UTF-8 sequence at `s[i]`, or 0 when it is invalid.
std::size_t sequence_length(std::string_view s, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char b0 = byte(i);
    if (b0 < 0x80) return 1;
    std::size_t n;
    unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        n = 2;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        n = 3;
        if (b0 == 0xE0) low = 0xA0;   // overlong
        if (b0 == 0xED) high = 0x9F;  // surrogates
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        n = 4;
        if (b0 == 0xF0) low = 0x90;   // overlong
        if (b0 == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
        return 0;
    }
    if (i + n > s.size()) return 0;
    if (byte(i + 1) < low || byte(i + 1) > high) return 0;
    for (std::size_t k = 2; k < n; ++k)
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
    return n;
}

}  // namespace

std::optional<std::string> text_problem(std::string_view text) {
    const std::size_t size = text.size();
    std::size_t i = 0;
    while (i < size) {
        // Runs of ASCII without NUL, the common case, 8 bytes at a time.
        for (; i + 8 <= size; i += 8) {
            std::uint64_t word;
            std::memcpy(&word, text.data() + i, 8);
            constexpr std::uint64_t high = 0x8080808080808080ULL;
            constexpr std::uint64_t ones = 0x0101010101010101ULL;
            if ((word & high) != 0 || ((word - ones) & ~word & high) != 0) break;
        }
        if (i >= size) break;
        if (text[i] == '\0') return "contains a NUL byte at offset " + std::to_string(i);
        const std::size_t n = sequence_length(text, i);
        if (n == 0) return "is not valid UTF-8 at offset " + std::to_string(i);
        i += n;
    }
    return std::nullopt;
}

std::string refused_text_message(std::size_t row, const std::string& field,
                                 const std::string& problem) {
    return "row " + std::to_string(row) + ", field " + field + ": the text " + problem +
           ", which a PostgreSQL text column cannot store; nothing was written. Store such "
           "output base64-encoded (and set the row's Encoding accordingly)";
}

}  // namespace vesk::datastore::odbc_backend
