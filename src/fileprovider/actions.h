#pragma once

#include <string_view>

// The custom actions that the extension offers on items.
namespace vondle {

inline constexpr std::string_view KEEP_DOWNLOADED_ACTION = "com.ferrow.vondle.keepDownloaded";
inline constexpr std::string_view STOP_KEEPING_ACTION = "com.ferrow.vondle.dontKeepDownloaded";

}  // namespace vondle
