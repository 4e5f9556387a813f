#include "vesk/log.h"

#include <cstdlib>
#include <string>

namespace vesk::log {
namespace {

int from_env(const char* name, int fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0') return fallback;
    return static_cast<int>(value);
}

}  // namespace

int LOG_LEVEL = from_env("VESK_LOG_LEVEL", 4);
int LOG_OUTPUT = from_env("VESK_LOG_OUTPUT", 0);

}  // namespace vesk::log
