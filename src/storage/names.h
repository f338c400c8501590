#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "storage/refusal.h"

namespace vondle::storage {

// Bytes of a name; what the common file systems allow.
inline constexpr std::size_t MAX_NAME_BYTES = 255;
// Folders above an item.
inline constexpr std::size_t MAX_DEPTH = 1000;

bool isUTF8(std::string_view text);

// 400 for a name that is empty, ".", "..", too long, not UTF-8, or holds "/" or a zero byte.
Answer<void> checkName(std::string_view name);

// "a/b/c" gives a, b, c; "" gives nothing, it is the root. 400 when a component is not a valid name, so also for a
// leading, trailing or double "/".
Answer<std::vector<std::string>> splitPath(std::string_view path);

// The folder's path and the last component; 400 for the root.
Answer<std::pair<std::string, std::string>> splitLast(std::string_view path);

// A folder's path as it stands in a request that names folders by prefix: with one "/" at the end, which is taken off.
Answer<std::string> folderOfPrefix(std::string_view prefix);

std::string joinPath(std::string_view folder, std::string_view name);

}  // namespace vondle::storage
