#include "vesk/str.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <unistd.h>

namespace vesk::str {

std::vector<std::string> split(const std::string& text, char separator, bool flag) {
    std::vector<std::string> pieces;
    std::string::size_type start = 0;
    while (true) {
        const auto pos = text.find(separator, start);
        std::string piece =
            text.substr(start, pos == std::string::npos ? std::string::npos : pos - start);
        if (!(flag && piece.empty())) pieces.push_back(std::move(piece));
        if (pos == std::string::npos) break;
        start = pos + 1;
    }
    return pieces;
}

std::string stripws(std::string text) {
    const auto blank = [](unsigned char c) { return std::isspace(c) != 0; };
    std::string::size_type end = text.size();
    while (end > 0 && blank(static_cast<unsigned char>(text[end - 1]))) --end;
    std::string::size_type begin = 0;
    while (begin < end && blank(static_cast<unsigned char>(text[begin]))) ++begin;
    return text.substr(begin, end - begin);
}

std::string squeeze(std::string text, char ch) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == ch && !out.empty() && out.back() == ch) continue;
        out.push_back(c);
    }
    return out;
}

namespace {

// True when `c` is one of the characters of `set` (never for a NUL byte).
bool one_of(const char* set, char c) { return c != '\0' && std::strchr(set, c) != nullptr; }

// Variable names are ASCII whatever the locale: a letter or "_", then digits too.
bool is_name_start(char c) { return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_name_char(char c) { return is_name_start(c) || (c >= '0' && c <= '9'); }

// The home folder of `user` ("" for the caller) from the password database;
// false when there is no such user.
bool home_of(const std::string& user, std::string& home) {
    struct passwd entry {};
    struct passwd* found = nullptr;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? size_t(size) : size_t(16384));
    for (;;) {
        const int rc =
            user.empty() ? ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found)
                         : ::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE && buffer.size() < (size_t(1) << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc != 0 || found == nullptr || found->pw_dir == nullptr) return false;
        home = found->pw_dir;
        return true;
    }
}

// The expansion of a leading "~" or "~user" (the prefix up to the first
// "/"), or false to keep the prefix as written.
bool expand_tilde(const std::string& user, std::string& home) {
    for (char c : user)
        if (!(is_name_char(c) || c == '.' || c == '-')) return false;  // quoted or odd: as written
    if (user.empty()) {
        const char* env = std::getenv("HOME");
        if (env != nullptr && *env != '\0') {
            home = env;
            return true;
        }
    }
    return home_of(user, home);
}

// Expands the "$" at text[pos] into `out` and moves `pos` past what it
// consumed; false for a form that is not expanded here.
bool expand_dollar(const std::string& text, size_t& pos, std::string& out) {
    const size_t next = pos + 1;
    if (next == text.size() || !(is_name_start(text[next]) || text[next] == '{')) {
        // "$(", "$1", "$$", "$?" and the like are not expanded.
        if (next < text.size() && (text[next] == '(' || (text[next] >= '0' && text[next] <= '9') ||
                                   one_of("$?#@*!-", text[next])))
            return false;
        out += '$';  // a lone "$" is text, as in the shell
        pos = next;
        return true;
    }
    size_t begin = next;
    size_t end = next;
    if (text[next] == '{') {
        begin = next + 1;
        end = begin;
        if (end == text.size() || !is_name_start(text[end])) return false;
        while (end < text.size() && is_name_char(text[end])) ++end;
        if (end == text.size() || text[end] != '}') return false;  // an operator or no "}"
        pos = end + 1;
    } else {
        while (end < text.size() && is_name_char(text[end])) ++end;
        pos = end;
    }
    if (const char* value = std::getenv(text.substr(begin, end - begin).c_str())) out += value;
    return true;
}

}  // namespace

std::string wordexp(std::string text) {
    std::string out;
    out.reserve(text.size());
    size_t pos = 0;
    if (!text.empty() && text[0] == '~') {
        const size_t slash = text.find('/');
        const std::string user = text.substr(1, slash == std::string::npos ? slash : slash - 1);
        std::string home;
        if (expand_tilde(user, home)) {
            out = home;
            pos = slash == std::string::npos ? text.size() : slash;
        }
    }
    // Outside quotes, in double quotes, or in single quotes.
    enum { kPlain, kDouble, kSingle } quote = kPlain;
    while (pos < text.size()) {
        const char c = text[pos];
        if (quote == kSingle) {
            if (c == '\'')
                quote = kPlain;
            else
                out += c;
            ++pos;
        } else if (c == '`') {
            return text;  // command substitution
        } else if (c == '$') {
            if (!expand_dollar(text, pos, out)) return text;
        } else if (c == '\\') {
            // A backslash keeps the next character as it is; in double
            // quotes only before the characters that are special there.
            if (pos + 1 == text.size()) {
                out += c;
                ++pos;
            } else if (quote == kPlain || one_of("$`\"\\\n", text[pos + 1])) {
                if (text[pos + 1] != '\n') out += text[pos + 1];
                pos += 2;
            } else {
                out += c;
                ++pos;
            }
        } else if (c == '"') {
            quote = quote == kDouble ? kPlain : kDouble;
            ++pos;
        } else if (c == '\'' && quote == kPlain) {
            quote = kSingle;
            ++pos;
        } else {
            out += c;
            ++pos;
        }
    }
    if (quote != kPlain) return text;  // unbalanced quotes
    return out;
}

std::string dirname(const std::string& path) {
    const auto pos = path.rfind('/');
    if (pos == std::string::npos) return ".";
    if (pos == 0) return "/";
    return path.substr(0, pos);
}

}  // namespace vesk::str
