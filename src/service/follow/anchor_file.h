#pragma once

#include <optional>
#include <string>

#include "base/error.h"
#include "fileprovider/enumerator.h"
#include "platform/files.h"

namespace vondle {

// How far the tree has followed the change feed, kept over restarts: {"anchor": hexadecimal digits, "moved": boolean}.
struct FollowedAnchor {
  SyncAnchor anchor;
  bool hasMoved = false;  // the feed has moved on to it, rather than started with it
  friend bool operator==(const FollowedAnchor&, const FollowedAnchor&) = default;
};

// None when there is no file or it cannot be read; then the tree is taken to have missed changes.
std::optional<FollowedAnchor> loadAnchor(Files& files, const std::string& path);
Result<void> saveAnchor(Files& files, const std::string& path, const FollowedAnchor& anchor);

}  // namespace vondle
