#include "service/contents/cache_rules.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<Inode> inodesOf(const Eviction& eviction) {
  std::vector<Inode> inodes;
  for (const auto& file : eviction.files) inodes.push_back(file.inode);
  return inodes;
}

TEST(CacheRules, TheReserveIsATwentiethOfTheDiskUpToABound) {
  const struct {
    std::optional<std::int64_t> set;
    std::int64_t size, expected;
  } cases[] = {{{}, 0, 0},
               {{}, 20 * MEBIBYTE, MEBIBYTE},
               {{}, 40 * GIBIBYTE, 2 * GIBIBYTE},
               {{}, 4000 * GIBIBYTE, 2 * GIBIBYTE},
               {0, 40 * GIBIBYTE, 0},
               {9 * GIBIBYTE, 40 * GIBIBYTE, 9 * GIBIBYTE}};
  for (const auto& each : cases)
    EXPECT_EQ((CacheLimits{.reserve = each.set}.reserveOn({.size = each.size})), each.expected) << each.size;
}

TEST(CacheRules, RoomIsMissingBeyondTheLimitAndBeyondTheReserve) {
  const CacheLimits limits{.limit = 100, .reserve = 50};
  const auto disk = [](std::int64_t free) { return DiskSpace{.size = 1000, .free = free}; };
  const struct {
    CacheUse use;
    std::int64_t wanted;
    bool isKept;
    std::int64_t missing;
  } cases[] = {{{.bytes = 90, .disk = disk(500)}, 10, false, 0},
               {{.bytes = 90, .disk = disk(500)}, 11, false, 1},
               {{.bytes = 100, .disk = disk(500)}, 0, false, 0},
               {{.bytes = 130, .disk = disk(500)}, 0, false, 30},
               {{.bytes = 90, .disk = disk(500)}, 400, true, 0},
               {{.bytes = 900, .disk = disk(500)}, 451, true, 1},
               {{.bytes = 0, .disk = disk(60)}, 10, false, 0},
               {{.bytes = 0, .disk = disk(60)}, 11, false, 1},
               {{.bytes = 0, .underWay = 10, .disk = disk(60)}, 5, true, 5},
               {{.bytes = 95, .disk = disk(60)}, 25, false, 20},
               {{.bytes = 0, .disk = disk(20)}, 0, false, 30},
               {{.bytes = 95}, 25, false, 20},
               {{.bytes = 95}, 25, true, 0}};
  for (const auto& each : cases)
    EXPECT_EQ(missingRoom(limits, each.use, each.wanted, each.isKept), each.missing)
        << each.use.bytes << " " << each.wanted;
}

TEST(CacheRules, AnErrorNamesTheSettingThatStandsInTheWay) {
  const CacheLimits limits{.limit = 100, .reserve = 50};
  const CacheUse full{.bytes = 100, .disk = DiskSpace{.size = 1000, .free = 500}};
  const CacheUse tight{.bytes = 0, .disk = DiskSpace{.size = 1000, .free = 55}};
  const auto limitError = noRoomError(limits, full, 10, false);
  EXPECT_TRUE(limitError.is(POSIX_ERROR_DOMAIN, ENOSPC));
  EXPECT_THAT(limitError.description, HasSubstr("cache_limit"));
  const auto diskError = noRoomError(limits, tight, 10, false);
  EXPECT_TRUE(diskError.is(POSIX_ERROR_DOMAIN, ENOSPC));
  EXPECT_THAT(diskError.description, HasSubstr("disk_reserve"));
  EXPECT_THAT(noRoomError(limits, full, 480, true).description, HasSubstr("disk_reserve"));
}

TEST(CacheRules, TheLeastRecentlyUsedGoFirstAndNoMoreThanNeeded) {
  const std::vector<CachedFile> files = {{.inode = 2, .bytes = 10, .lastUse = {30}},
                                         {.inode = 3, .bytes = 10, .lastUse = {10}},
                                         {.inode = 4, .bytes = 10, .lastUse = {20}},
                                         {.inode = 5, .bytes = 10, .lastUse = {20}},
                                         {.inode = 6, .bytes = 0, .lastUse = {1}}};
  EXPECT_THAT(inodesOf(chooseEviction(files, 0)), IsEmpty());
  EXPECT_THAT(inodesOf(chooseEviction(files, -5)), IsEmpty());
  EXPECT_THAT(inodesOf(chooseEviction(files, 1)), ElementsAre(3));
  EXPECT_THAT(inodesOf(chooseEviction(files, 10)), ElementsAre(3));
  EXPECT_THAT(inodesOf(chooseEviction(files, 11)), ElementsAre(3, 4));
  EXPECT_THAT(inodesOf(chooseEviction(files, 40)), ElementsAre(3, 4, 5, 2)) << "an empty file takes no room";
  EXPECT_EQ(chooseEviction(files, 41).bytes, 40);
}

TEST(CacheRules, WhatIsKeptOrOpenStays) {
  const std::vector<CachedFile> files = {{.inode = 2, .bytes = 10, .lastUse = {1}, .isKept = true},
                                         {.inode = 3, .bytes = 10, .lastUse = {2}, .isOpen = true},
                                         {.inode = 4, .bytes = 10, .lastUse = {3}, .isKept = true, .isOpen = true},
                                         {.inode = 5, .bytes = 10, .lastUse = {4}}};
  const auto eviction = chooseEviction(files, 1000);
  EXPECT_THAT(inodesOf(eviction), ElementsAre(5));
  EXPECT_EQ(eviction.bytes, 10);
}

}  // namespace
}  // namespace vondle
