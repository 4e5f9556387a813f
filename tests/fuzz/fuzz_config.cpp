// The configuration path: a group file and a datastore configuration file,
// read from temporary files through the library's checked reader, walked,
// and their attributes read. Input: the group file, a line "%%", then the
// datastore configuration file (default_sqlite.xml of the install path,
// which every entry without config_file names).
//
// Allowed outcomes: records, or std::runtime_error with one of the library's
// fixed texts. Anything else (another exception, a crash, a leak) is a fault.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include <libxml/tree.h>

#include "vesk/datastore.h"

#include "fuzz_support.h"

namespace {

using vesk::datastore::DataStoreConfig;
using Utility = vesk::datastore::DataStoreParseUtility;

std::string g_dir;          // the install path, a fresh temporary folder
std::ostringstream g_sink;  // what the error log writes
std::streambuf* g_cerr = nullptr;

void write_file(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    VESK_FUZZ_CHECK(out.good());
}

bool fixed_text(const std::string& what) {
    return what == "Error opening datastore configuration" ||
           what.rfind("Invalid value for attribute type ", 0) == 0 ||
           what.rfind("Invalid value for attribute source types ", 0) == 0;
}

// Reads `file`, its root element's attributes, and walks it as a group file.
void read(const std::string& file) {
    try {
        xmlNode* root = Utility::read_config_document(file);
        VESK_FUZZ_CHECK(root != nullptr);
        DataStoreConfig config;
        if (Utility::parse_xml(root, config)) {
            DataStoreConfig fallback;
            fallback.instance_name = "fallback";
            const auto configs = Utility::parse_db_configs(root, fallback);
            VESK_FUZZ_CHECK(!configs.empty());
        }
    } catch (const std::runtime_error& e) {
        VESK_FUZZ_CHECK(fixed_text(e.what()));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char templ[] = "/tmp/vesk-fuzz-config-XXXXXX";
    VESK_FUZZ_CHECK(::mkdtemp(templ) != nullptr);
    g_dir = templ;
    std::filesystem::create_directories(g_dir + "/etc/datastore");
    ::setenv("HOME", g_dir.c_str(), 1);
    Utility::set_default_install_path(g_dir);
    // Log lines are produced (level 3 and the walk's), and dropped here.
    vesk::log::LOG_LEVEL = 7;
    vesk::log::LOG_OUTPUT = 0;
    g_cerr = std::cerr.rdbuf(g_sink.rdbuf());
    std::atexit([] {
        std::cerr.rdbuf(g_cerr);  // before g_sink goes
        std::error_code ec;
        std::filesystem::remove_all(g_dir, ec);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input = vesk::fuzz::text_of(data, size);
    const auto cut = input.find("\n%%\n");
    const std::string group = input.substr(0, cut);
    const std::string config = cut == std::string::npos ? "" : input.substr(cut + 4);
    const std::string group_file = g_dir + "/group.xml";
    const std::string config_file = g_dir + "/etc/datastore/default_sqlite.xml";
    write_file(group_file, group);
    write_file(config_file, config);

    read(group_file);
    read(config_file);

    // The documents are kept for the life of a process; a fuzzer runs
    // millions of inputs in one.
    Utility::release_config_documents();
    g_sink.str("");
    return 0;
}
