#include "session.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <pwd.h>
#include <sys/time.h>
#include <unistd.h>

#include "vesk/datastore/parameter_pack.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

#include "errors.h"
#include "odbc_parameters.h"
#include "validate.h"

namespace vesk::tool {

namespace {
std::ostream* g_diag = nullptr;
}  // namespace

std::ostream& diag() { return g_diag != nullptr ? *g_diag : std::cerr; }
void set_diag(std::ostream* stream) { g_diag = stream; }

std::vector<vesk::datastore::DataStoreConfig> selected_configs(const GlobalOptions& global) {
    const std::string path =
        global.config_file.empty() ? default_config_path() : global.config_file;
    if (global.verbose) diag() << "vesk-datastore: configuration " << path << "\n";
    auto configs = read_config_file(path);
    if (global.datastores.empty()) return configs;
    std::vector<vesk::datastore::DataStoreConfig> chosen;
    for (const auto& name : global.datastores) {
        // A name given twice selects its datastore once.
        if (std::any_of(chosen.begin(), chosen.end(),
                        [&](const auto& config) { return config.instance_name == name; }))
            continue;
        const auto found = std::find_if(configs.begin(), configs.end(), [&](const auto& config) {
            return config.instance_name == name;
        });
        if (found == configs.end())
            throw ToolError(kExitError, "no datastore named \"" + name + "\" in " + path);
        chosen.push_back(*found);
    }
    return chosen;
}

namespace {
std::vector<std::string> g_files;
}  // namespace

const std::vector<std::string>& opened_files() { return g_files; }

std::string datastore_file(const vesk::datastore::DataStoreConfig& config, bool* read_only) {
    if (read_only != nullptr) *read_only = false;
    if (config.type != vesk::datastore::sqlite3) return "";
    std::string source = vesk::datastore::DEFAULT_DATA_SOURCE;
    bool configured_read_only = false;
    if (!parse_sqlite_params(config.source_parameters, source, configured_read_only)) return "";
    if (read_only != nullptr) *read_only = configured_read_only;
    source = vesk::str::stripws(source);
    if (source.size() >= 2 && source.front() == '"' && source.back() == '"')
        source = source.substr(1, source.size() - 2);
    const std::string path = vesk::str::wordexp(source);
    if (path.empty() || path == ":memory:" || path.rfind("file:", 0) == 0) return "";
    return path;
}

namespace {

// The ODBC data source of parameter string `parameters` for people to read:
// "DSN NAME", or the connection string with the values of its password
// keys hidden.
std::string odbc_source_text(const std::string& parameters) {
    vesk::datastore::odbc_backend::OdbcParameters parsed;
    std::string problem;
    if (!vesk::datastore::odbc_backend::parse_odbc_parameters(parameters, parsed, problem))
        return "(" + problem + ")";
    if (parsed.source_is_dsn) return "DSN " + parsed.source;
    // Items end at ";" outside braces (a braced value may hold ";").
    std::vector<std::string> items(1);
    int depth = 0;
    for (const char ch : parsed.source) {
        if (ch == ';' && depth == 0) {
            items.emplace_back();
            continue;
        }
        if (ch == '{') ++depth;
        if (ch == '}' && depth > 0) --depth;
        items.back() += ch;
    }
    std::string shown;
    for (const auto& item : items) {
        if (item.empty()) continue;
        const std::string key = vesk::str::stripws(item.substr(0, item.find('=')));
        std::string lower;
        for (const char ch : key) lower += char(std::tolower(static_cast<unsigned char>(ch)));
        const bool secret = lower == "pwd" || lower == "password";
        shown += (secret ? key + "=***" : item) + ";";
    }
    return shown;
}

}  // namespace

void settle_home() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') return;
    const passwd* pw = ::getpwuid(::geteuid());
    if (pw != nullptr && pw->pw_dir != nullptr && pw->pw_dir[0] == '/')
        ::setenv("HOME", pw->pw_dir, 1);
}

std::unique_ptr<Store> open_store(const GlobalOptions& global, Access access) {
    auto configs = selected_configs(global);
    const char* home = std::getenv("HOME");
    g_files.clear();
    for (const auto& config : configs) {
        if ((home == nullptr || *home == '\0') &&
            config.source_parameters.find("$HOME") != std::string::npos)
            throw ToolError(kExitError, "datastore \"" + config.instance_name +
                                            "\" lives under $HOME, but HOME is not set and the "
                                            "password database names no home directory; set "
                                            "HOME or give the datastore an absolute path");
        const std::string file = datastore_file(config);
        if (global.verbose && config.type == vesk::datastore::odbc)
            diag() << "vesk-datastore: datastore \"" << config.instance_name << "\": ODBC "
                   << odbc_source_text(config.source_parameters) << "\n";
        if (file.empty()) continue;
        g_files.push_back(file);
        if (global.verbose)
            diag() << "vesk-datastore: datastore \"" << config.instance_name << "\": " << file
                   << "\n";
        if (access == Access::read && ::access(file.c_str(), F_OK) != 0)
            throw ToolError(kExitError, "no datastore at " + file +
                                            " (nothing was stored yet; `vesk-datastore collect` "
                                            "or `import` creates it)");
    }
    return std::make_unique<Store>(std::move(configs));
}

void check_name(const std::string& what, const std::string& value, size_t max,
                const std::string& limit) {
    const std::string problem = name_problem(value, max, limit);
    if (!problem.empty()) throw ToolError(kExitError, what + " \"" + value + "\" " + problem);
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
