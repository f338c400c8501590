#pragma once

#include <string_view>

namespace vondle {

// The server's identifiers of the two folders that have words for names: the top folder, and the folder that holds what
// others share with the user.
inline constexpr std::string_view SERVER_ROOT = "root";
inline constexpr std::string_view SHARED_CONTAINER = "shared";

}  // namespace vondle
