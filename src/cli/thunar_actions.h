#pragma once

#include <optional>
#include <string>

namespace vondle {

// Thunar knows actions of a file of each user's alone, which holds other actions, too, and which it writes itself.
// `actions` is that file; those that are Vondle's are told by their ids. None when it is not such a file.
std::optional<std::string> withVondleActions(const std::string& actions, const std::string& program);
std::optional<std::string> withoutVondleActions(const std::string& actions);

}  // namespace vondle
