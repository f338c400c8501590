#include "base/time.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(TimeTest, TheFractionalFormRequiresAFractionAndThePlainFormRefusesOne) {
  EXPECT_NEAR(parseISO8601Fractional("2024-05-01T10:20:30.123Z")->secondsSince1970, 1714558830.123, 1e-6);
  EXPECT_FALSE(parseISO8601Fractional("2024-05-01T10:20:30Z"));
  EXPECT_EQ(parseISO8601Plain("2024-05-01T10:20:30Z")->secondsSince1970, 1714558830);
  EXPECT_FALSE(parseISO8601Plain("2024-05-01T10:20:30.123Z"));
}

TEST(TimeTest, OffsetsCountFromUTC) {
  EXPECT_EQ(parseISO8601Plain("2024-05-01T12:20:30+02:00")->secondsSince1970, 1714558830);
  EXPECT_EQ(parseISO8601Plain("2024-05-01T05:20:30-05:00")->secondsSince1970, 1714558830);
}

TEST(TimeTest, RefusesWhatIsNoDate) {
  for (const char* bad :
       {"", "2024", "2024-02-30T00:00:00Z", "2024-13-01T00:00:00Z", "2024-05-01T24:00:00Z", "2024-05-01 10:20:30Z",
        "2024-05-01T10:20:30", "2024-05-01T10:20:30Zx", "2024-05-01T10:20:30+2", "2024-05-01T10:20:30+0200",
        "2024-05-01T10:20:60Z", "2024-05-01T10:20:30+25:00"})
    EXPECT_FALSE(parseISO8601Plain(bad)) << bad;
  EXPECT_FALSE(parseISO8601Fractional("2024-05-01T10:20:30.Z"));
}

TEST(TimeTest, FormattingIsTheInverseOfReadingToTheMillisecond) {
  for (const char* text : {"2024-05-01T10:20:30.123Z", "1970-01-01T00:00:00.000Z", "2099-12-31T23:59:59.999Z"})
    EXPECT_EQ(formatISO8601(*parseISO8601Fractional(text)), text);
}

}  // namespace
}  // namespace vondle
