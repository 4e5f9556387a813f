// Runs a fuzz target over files and folders of inputs, once each, without
// libFuzzer: the regression pass of the normal (g++) build. Exit 0 when every
// input ran; a fault aborts the process as it would under libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool run_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::cerr << "cannot read " << path.string() << "\n";
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so that reads past the end are caught.
    std::vector<uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    size_t count = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path arg(argv[i]);
        if (!arg.empty() && argv[i][0] == '-') continue;  // libFuzzer options
        std::error_code ec;
        if (std::filesystem::is_directory(arg, ec)) {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(arg))
                if (entry.is_regular_file()) files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            for (const auto& file : files) ok = run_file(file) && ok, ++count;
        } else {
            ok = run_file(arg) && ok;
            ++count;
        }
    }
    std::cout << "ran " << count << " inputs\n";
    if (count == 0) {
        std::cerr << "no inputs given\n";
        return 1;
    }
    std::cout.flush();
    return ok && std::cout.good() ? 0 : 1;
}
