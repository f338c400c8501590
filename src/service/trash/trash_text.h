#pragma once

#include <string>
#include <string_view>

#include "base/time.h"

// What desktops read and write in a trash folder, by the conventions of freedesktop.org: pure functions.
namespace vondle {

inline constexpr std::string_view TRASH_INFO_SUFFIX = ".trashinfo";

// Of the top folder's trash of this user; every program makes up the same name.
[[nodiscard]] std::string trashFolderName(unsigned user);

// The contents of a .trashinfo file. The path is below the top folder, with slashes between; the time is written as
// local time.
[[nodiscard]] std::string trashInfoText(std::string_view path, Timestamp deleted);

// The server's path as it is in the mounted folder: each name as a local one.
[[nodiscard]] std::string localPath(std::string_view serverPath);

}  // namespace vondle
