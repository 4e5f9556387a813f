#include "vesk/fs.h"

#include <climits>
#include <dlfcn.h>
#include <unistd.h>

namespace vesk::fs {

std::string abspath(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    std::string cwd;
    char buffer[PATH_MAX];
    if (::getcwd(buffer, sizeof buffer) != nullptr) cwd = buffer;
    if (path.empty()) return cwd;
    if (cwd.empty() || cwd.back() != '/') cwd += '/';
    return cwd + path;
}

// noinline keeps the return address inside the caller's object file.
__attribute__((noinline)) std::string selfpath() {
    Dl_info info{};
    void* caller = __builtin_extract_return_addr(__builtin_return_address(0));
    if (::dladdr(caller, &info) != 0 && info.dli_fname != nullptr && info.dli_fname[0] != '\0')
        return abspath(info.dli_fname);
    return std::string();
}

}  // namespace vesk::fs
