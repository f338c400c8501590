#include "service/contents/cache_rules.h"

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

#include <fmt/format.h>

namespace vondle {
namespace {

std::int64_t missingUnderLimit(const CacheLimits& limits, const CacheUse& use, std::int64_t wanted, bool isKept) {
  return isKept ? 0 : use.bytes + wanted - limits.limit;
}

std::int64_t missingOnDisk(const CacheLimits& limits, const CacheUse& use, std::int64_t wanted) {
  return use.disk ? limits.reserveOn(*use.disk) + use.underWay + wanted - use.disk->free : 0;
}

std::string inWords(std::int64_t bytes) {
  return sizeInWords(static_cast<double>(bytes));
}

}  // namespace

std::int64_t CacheLimits::reserveOn(const DiskSpace& disk) const {
  return reserve.value_or(std::min(disk.size / 20, MOST_RESERVE));
}

std::int64_t missingRoom(const CacheLimits& limits, const CacheUse& use, std::int64_t wanted, bool isKept) {
  return std::max(
      {std::int64_t{0}, missingUnderLimit(limits, use, wanted, isKept), missingOnDisk(limits, use, wanted)});
}

Error noRoomError(const CacheLimits& limits, const CacheUse& use, std::int64_t wanted, bool isKept) {
  const auto onDisk = missingOnDisk(limits, use, wanted);
  auto text = onDisk >= missingUnderLimit(limits, use, wanted, isKept)
                  ? fmt::format(
                        "there is no room for {}: {} are free on the disk, and {} are to stay so; make room "
                        "there, or set \"disk_reserve\" lower in ~/.vondle/service.json",
                        inWords(wanted), inWords(use.disk ? use.disk->free : 0),
                        inWords(use.disk ? limits.reserveOn(*use.disk) : 0))
                  : fmt::format(
                        "there is no room for {}: downloaded files may take {}; close some of those that are "
                        "open, or set \"cache_limit\" higher in ~/.vondle/service.json",
                        inWords(wanted), inWords(limits.limit));
  return {POSIX_ERROR_DOMAIN, ENOSPC, std::move(text)};
}

Eviction chooseEviction(std::vector<CachedFile> files, std::int64_t bytes) {
  Eviction eviction;
  if (bytes <= 0) return eviction;
  std::erase_if(files, [](const CachedFile& file) { return file.isKept || file.isOpen; });
  std::ranges::sort(files, {}, [](const CachedFile& file) { return std::tie(file.lastUse, file.inode); });
  for (const auto& file : files) {
    if (eviction.bytes >= bytes) break;
    if (file.bytes == 0) continue;
    eviction.files.push_back(file);
    eviction.bytes += file.bytes;
  }
  return eviction;
}

}  // namespace vondle
