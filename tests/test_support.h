#pragma once
// Helpers shared by the test programs: a fresh temporary folder per test, a
// capture of what the error log writes to standard error, and the paths of
// the build tree.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <stdlib.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace vesk::test {

inline const std::string kPluginDir = VESK_TEST_PLUGIN_DIR;
inline const std::string kStageDir = VESK_STAGE_DIR;
inline const std::string kSourceDir = VESK_SOURCE_DIR;
inline const std::string kBinaryDir = VESK_BINARY_DIR;

// A folder created on construction and removed with its contents on destruction.
class TempDir {
public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "vesk-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // `name` inside the folder.
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes `text` to `name` inside the folder and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        const std::string p = file(name);
        std::ofstream(p, std::ios::binary) << text;
        return p;
    }

private:
    std::string path_;
};

// Sets an environment variable for the life of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const std::string& value) : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str())) old_ = old;
        ::setenv(name_.c_str(), value.c_str(), 1);
    }
    ~ScopedEnv() { old_ ? ::setenv(name_.c_str(), old_->c_str(), 1) : ::unsetenv(name_.c_str()); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// Redirects std::cerr into a buffer for the life of the object.
class CerrCapture {
public:
    CerrCapture() : old_(std::cerr.rdbuf(buffer_.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(old_); }
    CerrCapture(const CerrCapture&) = delete;
    CerrCapture& operator=(const CerrCapture&) = delete;

    std::string text() const { return buffer_.str(); }
    // The captured text cut into lines (without their "\n").
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        std::istringstream in(buffer_.str());
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

private:
    std::ostringstream buffer_;
    std::streambuf* old_;
};

// Reads a whole file.
inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace vesk::test
