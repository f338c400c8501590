#pragma once

#include <string>
#include <string_view>

namespace vondle {

// What a file or folder is called whose name somebody else's has: "NAME (conflicted copy).EXT", from the second on
// "NAME (conflicted copy 2).EXT". A name that is one of these already is counted on from its first part; one that would
// be too long for a folder is cut. Numbers start at 1.
std::string conflictedName(std::string_view name, bool isFolder, unsigned number);

}  // namespace vondle
