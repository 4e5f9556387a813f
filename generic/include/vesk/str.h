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

// Shell-style expansion of a configured path, done here without a shell and
// without the C library's wordexp. Expanded: "$NAME" and "${NAME}" (NAME a
// variable name; an unset variable gives ""), a leading "~" ($HOME, else the
// password database) and "~user"; quotes and backslashes are removed as the
// shell removes them ('...' is not expanded). Not expanded, and then the
// whole text comes back unchanged: command substitution ("$(...)", "`...`"),
// arithmetic ("$((...))"), "${NAME?}"-style operators, special parameters
// ("$1", "$$") and unbalanced quotes. Globbing characters, blanks and other
// shell syntax are ordinary text. Never runs anything.
VESK_GENERIC_EXPORT std::string wordexp(std::string text);

// Everything before the last "/" ("." when there is none, "/" for a root path).
VESK_GENERIC_EXPORT std::string dirname(const std::string& path);

}  // namespace vesk::str
