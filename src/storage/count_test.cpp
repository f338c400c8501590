#include "storage/count.h"

#include <gtest/gtest.h>

namespace vondle::storage {
namespace {

TEST(CountTest, OnlyDigitsThatFitAreACount) {
  EXPECT_EQ(countIn("0"), 0);
  EXPECT_EQ(countIn("007"), 7);
  EXPECT_EQ(countIn("9223372036854775807"), INT64_MAX);
  for (const char* text : {"", "-1", "-0", "+1", " 1", "1 ", "1x", "0x1", "1.0", "9223372036854775808"})
    EXPECT_FALSE(countIn(text)) << text;
}

}  // namespace
}  // namespace vondle::storage
