#include "vesk/str.h"

#include <cctype>
#include <wordexp.h>

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

std::string wordexp(std::string text) {
    if (text.empty()) return text;
    ::wordexp_t words{};
    // WRDE_NOCMD: a "$(...)" or backquote makes the call fail instead of
    // running anything; WRDE_UNDEF is not set, so unset variables expand empty.
    const int rc = ::wordexp(text.c_str(), &words, WRDE_NOCMD);
    if (rc != 0) {
        if (rc == WRDE_NOSPACE) ::wordfree(&words);
        return text;
    }
    std::string out;
    for (size_t i = 0; i < words.we_wordc; ++i) {
        if (i) out += ' ';
        out += words.we_wordv[i];
    }
    ::wordfree(&words);
    return out;
}

std::string dirname(const std::string& path) {
    const auto pos = path.rfind('/');
    if (pos == std::string::npos) return ".";
    if (pos == 0) return "/";
    return path.substr(0, pos);
}

}  // namespace vesk::str
