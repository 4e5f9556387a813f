#pragma once
// Helpers shared by the fuzz targets.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// A property of the code under test that does not hold: print it and abort,
// which libFuzzer (and the regression driver) report as a crash.
#define VESK_FUZZ_CHECK(condition)                                                             \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

namespace vesk::fuzz {

inline std::string text_of(const uint8_t* data, size_t size) {
    return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

}  // namespace vesk::fuzz
