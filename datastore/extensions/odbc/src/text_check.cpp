#include "text_check.h"

#include <cctype>
#include <cstdint>
#include <cstring>
#include <strings.h>

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

std::optional<std::string> single_statement(const std::string& sql, bool plain_backslash) {
    std::size_t end = sql.size();
    while (end > 0 &&
           (sql[end - 1] == ';' || std::isspace(static_cast<unsigned char>(sql[end - 1]))))
        --end;
    std::string body = sql.substr(0, end);
    if (body.find("--") != std::string::npos) body += '\n';
    if (body.find(';') == std::string::npos) return body;
    // A backslash that escapes the next character can end a quote where the
    // scan below would not. Where every '...' text reads escapes, one
    // anywhere makes any ";" a separator; where only E'...' texts do, such a
    // text does from where it starts.
    const bool backslash = body.find('\\') != std::string::npos;
    if (backslash && !plain_backslash) return std::nullopt;
    // A text in '...' or a name in "..." (each doubling its quote inside) is
    // the only place where ";" does not end a statement, as long as nothing
    // outside them has changed what is quoted: a dollar quote, a comment, a
    // bracket, a backtick or an escape text. From the first of those on, any
    // ";" is taken for a separator wherever it stands.
    char quote = 0;
    for (std::size_t i = 0; i < body.size(); ++i) {
        const char c = body[i];
        if (quote != 0) {
            if (c == quote) quote = 0;  // a doubled quote reopens at once
            continue;
        }
        const bool escape_text = backslash && c == '\'' && i > 0 && (body[i - 1] | 0x20) == 'e';
        if (escape_text || c == '$' || c == '[' || c == '`' || body.compare(i, 2, "--") == 0 ||
            body.compare(i, 2, "/*") == 0) {
            if (body.find(';', i) != std::string::npos) return std::nullopt;
            return body;
        }
        if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == ';') {
            return std::nullopt;
        }
    }
    return body;
}

bool is_query(std::string_view sql) {
    std::size_t i = 0;
    const std::size_t size = sql.size();
    while (i < size) {
        const char c = sql[i];
        if (std::isspace(static_cast<unsigned char>(c)) || c == '(') {
            ++i;
        } else if (sql.compare(i, 2, "--") == 0) {
            const std::size_t eol = sql.find('\n', i);
            i = eol == std::string_view::npos ? size : eol + 1;
        } else if (sql.compare(i, 2, "/*") == 0) {
            // PostgreSQL nests block comments.
            int depth = 0;
            do {
                if (sql.compare(i, 2, "/*") == 0) {
                    ++depth;
                    i += 2;
                } else if (sql.compare(i, 2, "*/") == 0) {
                    --depth;
                    i += 2;
                } else {
                    ++i;
                }
            } while (depth > 0 && i < size);
        } else {
            break;
        }
    }
    std::size_t end = i;
    while (end < size && (std::isalnum(static_cast<unsigned char>(sql[end])) || sql[end] == '_' ||
                          sql[end] == '$' || static_cast<unsigned char>(sql[end]) >= 0x80))
        ++end;
    const std::string_view word = sql.substr(i, end - i);
    for (const char* keyword : {"select", "with", "values", "table"})
        if (word.size() == std::strlen(keyword) &&
            ::strncasecmp(word.data(), keyword, word.size()) == 0)
            return true;
    return false;
}

namespace {

std::string lower_case(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

}  // namespace

std::optional<std::string> names_code_loader(std::string_view sql) {
    const std::string lower = lower_case(sql);
    for (const char* name : {"load_extension", "fts3_tokenizer"})
        if (lower.find(name) != std::string::npos) return std::string(name);
    return std::nullopt;
}

bool names_advisory_lock(std::string_view sql) {
    return lower_case(sql).find("advisory") != std::string::npos;
}

}  // namespace vesk::datastore::odbc_backend
