#pragma once

#include <string>
#include <string_view>

namespace vondle {

// Bytes from anywhere as text that a terminal or a log shows as it stands and that stays on its line: control
// characters (escape codes with them), line separators, what turns the direction of writing and a backslash become
// "\n", "\t", "\\", "\x1b" or "\u{202e}", and bytes that are not UTF-8 "\xff". No two inputs look alike.
std::string visibleText(std::string_view bytes);

}  // namespace vondle
