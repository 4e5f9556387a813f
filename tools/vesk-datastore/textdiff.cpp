#include "textdiff.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace vesk::tool {

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t nl = text.find('\n', start);
        if (nl == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return lines;
}

namespace {

// One line of the edit script: ' ' kept, '-' removed, '+' added.
struct Edit {
    char op;
    size_t a;  // index in `before` (for ' ' and '-')
    size_t b;  // index in `after` (for ' ' and '+')
};

// Largest table of the LCS computation (cells), about 16 MB of lengths.
constexpr size_t kMaxCells = size_t(4) << 20;

std::vector<Edit> edit_script(const std::vector<std::string>& a,
                              const std::vector<std::string>& b) {
    size_t pre = 0;
    while (pre < a.size() && pre < b.size() && a[pre] == b[pre]) ++pre;
    size_t suf = 0;
    while (suf < a.size() - pre && suf < b.size() - pre &&
           a[a.size() - 1 - suf] == b[b.size() - 1 - suf])
        ++suf;
    const size_t n = a.size() - pre - suf;
    const size_t m = b.size() - pre - suf;

    std::vector<Edit> script;
    for (size_t i = 0; i < pre; ++i) script.push_back({' ', i, i});
    if (n * m <= kMaxCells) {
        // lcs[i][j]: length of the longest common subsequence of the middle
        // parts from line i of `a` and line j of `b` on.
        std::vector<uint32_t> lcs((n + 1) * (m + 1), 0);
        auto at = [&](size_t i, size_t j) -> uint32_t& { return lcs[i * (m + 1) + j]; };
        for (size_t i = n; i-- > 0;)
            for (size_t j = m; j-- > 0;)
                at(i, j) = a[pre + i] == b[pre + j] ? at(i + 1, j + 1) + 1
                                                    : std::max(at(i + 1, j), at(i, j + 1));
        size_t i = 0, j = 0;
        while (i < n || j < m) {
            if (i < n && j < m && a[pre + i] == b[pre + j]) {
                script.push_back({' ', pre + i, pre + j});
                ++i;
                ++j;
            } else if (j < m && (i == n || at(i, j + 1) > at(i + 1, j))) {
                script.push_back({'+', pre + i, pre + j});
                ++j;
            } else {
                script.push_back({'-', pre + i, pre + j});
                ++i;
            }
        }
    } else {
        for (size_t i = 0; i < n; ++i) script.push_back({'-', pre + i, pre});
        for (size_t j = 0; j < m; ++j) script.push_back({'+', pre + n, pre + j});
    }
    for (size_t k = 0; k < suf; ++k)
        script.push_back({' ', a.size() - suf + k, b.size() - suf + k});
    return script;
}

// "start,count" of a hunk side; an empty side names the line before it.
std::string range(size_t first, size_t count) {
    std::ostringstream out;
    out << (count == 0 ? first : first + 1);
    if (count != 1) out << ',' << count;
    return out.str();
}

}  // namespace

std::string unified_diff(const std::string& before, const std::string& after,
                         const std::string& before_label, const std::string& after_label,
                         int context) {
    if (before == after) return "";
    const auto a = split_lines(before);
    const auto b = split_lines(after);
    const auto script = edit_script(a, b);
    const size_t ctx = context < 0 ? 0 : size_t(context);

    std::ostringstream out;
    out << "--- " << before_label << "\n+++ " << after_label << "\n";
    size_t k = 0;
    while (k < script.size()) {
        // Find the next change, then grow the hunk while changes are no
        // more than 2 * context lines apart.
        while (k < script.size() && script[k].op == ' ') ++k;
        if (k == script.size()) break;
        const size_t start = k >= ctx ? k - ctx : 0;
        size_t end = k;
        size_t last_change = k;
        while (end < script.size()) {
            if (script[end].op != ' ') {
                last_change = end;
            } else if (end - last_change > 2 * ctx) {
                break;
            }
            ++end;
        }
        end = std::min(script.size(), last_change + ctx + 1);

        size_t a_count = 0, b_count = 0;
        for (size_t i = start; i < end; ++i) {
            if (script[i].op != '+') ++a_count;
            if (script[i].op != '-') ++b_count;
        }
        out << "@@ -" << range(script[start].a, a_count) << " +" << range(script[start].b, b_count)
            << " @@\n";
        for (size_t i = start; i < end; ++i) {
            const auto& e = script[i];
            out << e.op << (e.op == '+' ? b[e.b] : a[e.a]) << "\n";
        }
        k = end;
    }
    // A missing final line break matters only when it is the difference.
    const bool a_nl = before.empty() || before.back() == '\n';
    const bool b_nl = after.empty() || after.back() == '\n';
    if (a_nl != b_nl) out << "\\ No newline at end of " << (a_nl ? "new" : "old") << " text\n";
    return out.str();
}

}  // namespace vesk::tool
