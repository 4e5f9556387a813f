#pragma once
// Helpers shared by the test plugins: reading their parameter string and
// appending call records to a trace file. Header-only, so that every plugin
// stays a single self-contained module.

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "vesk/str.h"

namespace vesk::test_plugin {

// The items of a parameter string: "key=value" joined by "|". Kept in a
// plain vector: std::map and std::to_string would give the plugin
// STB_GNU_UNIQUE symbols, and such a library can never be unloaded, which
// would hide whether the controller unloads it.
class Items {
public:
    explicit Items(const std::string& parameters) {
        for (const auto& item : vesk::str::split(parameters, '|', true)) {
            const auto eq = item.find('=');
            if (eq == std::string::npos)
                items_.emplace_back(item, std::string());
            else
                items_.emplace_back(item.substr(0, eq), item.substr(eq + 1));
        }
    }
    Items() = default;

    // The value of the last item named `key`; "" when there is none.
    std::string get(const std::string& key) const {
        for (auto it = items_.rbegin(); it != items_.rend(); ++it) {
            if (it->first == key) return it->second;
        }
        return std::string();
    }

private:
    std::vector<std::pair<std::string, std::string>> items_;
};

// Decimal text of `value`.
inline std::string number(long value) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "%ld", value);
    return buffer;
}

// Appends `line` and a newline to `path`; does nothing for an empty path.
inline void append_line(const std::string& path, const std::string& line) noexcept {
    if (path.empty()) return;
    if (std::FILE* f = std::fopen(path.c_str(), "a")) {
        std::fputs(line.c_str(), f);
        std::fputc('\n', f);
        std::fclose(f);
    }
}

}  // namespace vesk::test_plugin
