#include "session.h"

#include <algorithm>
#include <iostream>
#include <sys/time.h>
#include <unistd.h>

#include "vesk/str.h"

#include "errors.h"

namespace vesk::tool {

namespace {
std::ostream* g_diag = nullptr;
}  // namespace

std::ostream& diag() { return g_diag != nullptr ? *g_diag : std::cerr; }
void set_diag(std::ostream* stream) { g_diag = stream; }

std::vector<vesk::datastore::DataStoreConfig> selected_configs(const GlobalOptions& global) {
    const std::string path =
        global.config_file.empty() ? default_config_path() : global.config_file;
    auto configs = read_config_file(path);
    if (global.datastores.empty()) return configs;
    std::vector<vesk::datastore::DataStoreConfig> chosen;
    for (const auto& name : global.datastores) {
        const auto found = std::find_if(configs.begin(), configs.end(), [&](const auto& config) {
            return config.instance_name == name;
        });
        if (found == configs.end())
            throw ToolError(kExitError, "no datastore named \"" + name + "\" in " + path);
        chosen.push_back(*found);
    }
    return chosen;
}

std::unique_ptr<Store> open_store(const GlobalOptions& global) {
    return std::make_unique<Store>(selected_configs(global));
}

void check_name(const std::string& what, const std::string& value, size_t max) {
    if (vesk::str::stripws(value).empty()) throw ToolError(kExitError, what + " must not be empty");
    if (value.size() > max)
        throw ToolError(kExitError, what + " \"" + value + "\" is longer than " +
                                        std::to_string(max) + " bytes");
    for (unsigned char c : value)
        if (c == '\'' || c == '"' || c == '\\' || c < 0x20 || c == 0x7f)
            throw ToolError(kExitError, what + " \"" + value +
                                            "\" contains a character that is "
                                            "not allowed (quote, backslash or "
                                            "control character)");
}

std::string hosts_filter(const std::vector<std::string>& hosts) {
    if (hosts.empty()) return "";
    std::string filter = "Hostname IN (";
    for (size_t i = 0; i < hosts.size(); ++i) filter += (i ? ",'" : "'") + hosts[i] + "'";
    return filter + ")";
}

Progress::Progress() : tty_(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() { clear(); }

void Progress::show(const std::string& text, bool force) {
    if (!tty_) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && shown_ && now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    shown_ = true;
    diag() << "\r\033[K" << text << std::flush;
}

void Progress::clear() {
    if (!tty_ || !shown_) return;
    diag() << "\r\033[K" << std::flush;
    shown_ = false;
}

int64_t now_microseconds() {
    timeval tv{};
    ::gettimeofday(&tv, nullptr);
    return int64_t(tv.tv_sec) * 1000000 + tv.tv_usec;
}

}  // namespace vesk::tool
