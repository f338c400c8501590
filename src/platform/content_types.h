#pragma once

#include <optional>
#include <string_view>

namespace vondle {

inline constexpr std::string_view FOLDER_CONTENT_TYPE = "inode/directory";
inline constexpr std::string_view GENERIC_DATA_CONTENT_TYPE = "application/octet-stream";

// The media type for a file-name extension (without the dot, any case), from a table made at build time of
// shared-mime-info's globs, so that it is the same on every machine; none for an unknown extension.
std::optional<std::string_view> contentTypeForExtension(std::string_view extension);

}  // namespace vondle
