#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "base/byte_size.h"
#include "base/error.h"
#include "base/time.h"
#include "platform/files.h"
#include "service/inode.h"

// How much downloaded contents may take, and what goes when they take more: pure functions from what is known to
// decisions.
namespace vondle {

// Two bounds. The limit is for what is here because somebody has read it, or sent it to the server: what is to be kept
// downloaded does not count, for the user has asked for all of it. The reserve is what stays free on the disk, whatever
// for: kept items end there, too. What programs have written and the server has not counts for neither.
struct CacheLimits {
  static constexpr std::int64_t DEFAULT_LIMIT = 10 * GIBIBYTE;
  // The default reserve: a twentieth of the disk, but no more than this.
  static constexpr std::int64_t MOST_RESERVE = 2 * GIBIBYTE;

  std::int64_t limit = DEFAULT_LIMIT;
  std::optional<std::int64_t> reserve = {};  // none: the default

  [[nodiscard]] std::int64_t reserveOn(const DiskSpace& disk) const;
};

struct CacheUse {
  std::int64_t bytes = 0;              // that count for the limit, with those of fetches under way
  std::int64_t underWay = 0;           // that fetches under way have still to write
  std::optional<DiskSpace> disk = {};  // none: nobody can tell
};

// How many bytes must go first so that so many more have room; isKept when they do not count for the limit. 0 to see
// what is too much already.
[[nodiscard]] std::int64_t missingRoom(const CacheLimits& limits, const CacheUse& use, std::int64_t wanted,
                                       bool isKept);

// That there is none, and what to do about it.
[[nodiscard]] Error noRoomError(const CacheLimits& limits, const CacheUse& use, std::int64_t wanted, bool isKept);

// Contents that are here as the server has them.
struct CachedFile {
  Inode inode = 0;
  std::int64_t bytes = 0;
  Timestamp lastUse;
  bool isKept = false;  // to be kept downloaded
  bool isOpen = false;
};

struct Eviction {
  std::vector<CachedFile> files;
  std::int64_t bytes = 0;
};

// What goes for so many bytes: the least recently used first, and neither what is kept nor what is open. Fewer bytes
// when that is all there is.
[[nodiscard]] Eviction chooseEviction(std::vector<CachedFile> files, std::int64_t bytes);

}  // namespace vondle
