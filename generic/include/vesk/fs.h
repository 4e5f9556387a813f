#pragma once
// File-system helpers shared by the vesk tools. Stateless.

#include <string>

#include "vesk/generic_export.h"

namespace vesk::fs {

// `path` made absolute against the current working directory; ".." and "."
// are kept as they stand (no normalisation, no symlink resolution).
VESK_GENERIC_EXPORT std::string abspath(const std::string& path);

// Full path of the shared object that contains the caller of this function
// (not the executable): resolved through dladdr on the caller's address.
VESK_GENERIC_EXPORT std::string selfpath();

}  // namespace vesk::fs
