#pragma once
// Line-based unified diff of two texts, as shown by `snapshot diff`.

#include <string>
#include <vector>

namespace vesk::tool {

// `text` cut into lines; a final line break ends the last line and adds none.
std::vector<std::string> split_lines(const std::string& text);

// A unified diff ("--- "/"+++ " header, "@@" hunks with `context` lines of
// context) turning `before` into `after`; empty when the texts are equal.
// Long inputs whose middle parts differ heavily are shown as one replaced
// block instead of a minimal diff, so the cost stays bounded.
std::string unified_diff(const std::string& before, const std::string& after,
                         const std::string& before_label, const std::string& after_label,
                         int context = 3);

}  // namespace vesk::tool
