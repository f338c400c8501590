#include "service/last_errors.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

const Error FIRST("Test", 1);
const Error SECOND("Test", 2);

TEST(LastErrorsTest, TheLatestErrorOfAnItemCountsUntilASuccess) {
  LastErrors errors;
  EXPECT_FALSE(errors.of(7));
  errors.note(7, FIRST, {10});
  errors.note(7, SECOND, {20});
  EXPECT_EQ(errors.of(7)->error, SECOND);
  EXPECT_EQ(errors.of(7)->when, Timestamp{20});
  errors.forget(7);
  EXPECT_FALSE(errors.of(7));
  errors.forget(7);
}

TEST(LastErrorsTest, OnlyTheNewestAreKept) {
  LastErrors errors;
  for (Inode inode = 1; inode <= LastErrors::CAPACITY; ++inode) errors.note(inode, FIRST, {1});
  errors.note(1, SECOND, {2});
  errors.note(LastErrors::CAPACITY + 1, FIRST, {3});
  EXPECT_TRUE(errors.of(1)) << "it failed again lately";
  EXPECT_FALSE(errors.of(2));
  EXPECT_TRUE(errors.of(3));
}

TEST(LastErrorsTest, TheNewestComeFirst) {
  LastErrors errors;
  for (Inode inode = 1; inode <= 3; ++inode) errors.note(inode, FIRST, {1});
  errors.note(1, SECOND, {2});
  const auto newest = errors.newest(2);
  ASSERT_EQ(newest.size(), 2u);
  EXPECT_EQ(newest[0].first, 1u);
  EXPECT_EQ(newest[0].second.error, SECOND);
  EXPECT_EQ(newest[1].first, 3u);
}

}  // namespace
}  // namespace vondle
