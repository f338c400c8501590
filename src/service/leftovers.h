#pragma once

#include <string>
#include <string_view>

namespace vondle {

// What the temporary file of a replacement begins with.
inline constexpr std::string_view REPLACEMENT_PREFIX = ".vondle-";

// Removes the files of a folder whose names begin with the prefix: what a process that was killed left half written.
// Only where no living process writes.
void removeLeftovers(const std::string& folder, std::string_view prefix);

}  // namespace vondle
