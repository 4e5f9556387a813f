#pragma once
// String helpers shared by the vesk tools. Stateless; safe from any thread.

#include <string>
#include <vector>

#include "vesk/generic_export.h"

namespace vesk::str {

// Cuts `text` at every `separator`, pieces in order. With `flag` true empty
// pieces are dropped; with false they are kept, so split("", '|', false)
// is one empty piece and split("a|", '|', false) is "a" and "".
VESK_GENERIC_EXPORT std::vector<std::string> split(const std::string& text, char separator,
                                                   bool flag);

// `text` without leading and trailing white space.
VESK_GENERIC_EXPORT std::string stripws(std::string text);

// Every run of two or more `ch` replaced by a single `ch`.
VESK_GENERIC_EXPORT std::string squeeze(std::string text, char ch);

// Shell-style word expansion ("$HOME", "${VAR}", a leading "~") without ever
// running a command; the text is returned unchanged when it cannot be expanded.
VESK_GENERIC_EXPORT std::string wordexp(std::string text);

// Everything before the last "/" ("." when there is none, "/" for a root path).
VESK_GENERIC_EXPORT std::string dirname(const std::string& path);

}  // namespace vesk::str
