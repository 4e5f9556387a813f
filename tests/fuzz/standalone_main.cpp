// Runs a fuzz target over files and folders of inputs, once each, without
// libFuzzer: the regression pass of the normal (g++) build. Exit 0 when every
// input ran; a fault aborts the process as it would under libFuzzer.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-') continue;  // libFuzzer options
        std::error_code ec;
        if (!fs::is_directory(argv[i], ec)) {
            inputs.emplace_back(argv[i]);
            continue;
        }
        const auto from = inputs.size();
        for (const auto& entry : fs::directory_iterator(argv[i]))
            if (entry.is_regular_file()) inputs.push_back(entry.path());
        std::sort(inputs.begin() + std::ptrdiff_t(from), inputs.end());
    }
    bool ok = !inputs.empty();
    if (!ok) std::cerr << "no inputs given\n";
    for (const auto& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::cerr << "cannot read " << path.string() << "\n";
            ok = false;
            continue;
        }
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        // A copy of exactly the input's size, so that reads past the end are caught.
        const std::vector<uint8_t> data(text.begin(), text.end());
        LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    }
    std::cout << "ran " << inputs.size() << " inputs\n" << std::flush;
    return ok && std::cout.good() ? 0 : 1;
}
