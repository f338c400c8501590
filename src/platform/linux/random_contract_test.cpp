// What every source of names keeps, the real one and the simulated one.

#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/linux_random.h"
#include "testing/simulated_random.h"

namespace vondle {
namespace {

template <class Random>
class RandomContract : public testing::Test {};

using Randoms = testing::Types<LinuxRandom, SimulatedRandom>;
TYPED_TEST_SUITE(RandomContract, Randoms);

TYPED_TEST(RandomContract, MakesUUIDsInUpperCase) {
  TypeParam random;
  for (int i = 0; i < 100; ++i)
    EXPECT_THAT(random.uuid(),
                testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
}

TYPED_TEST(RandomContract, NeverMakesTheSameTwice) {
  TypeParam random;
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(seen.insert(random.uuid()).second);
}

TEST(SimulatedRandom, RepeatsItselfForTheSameSeed) {
  EXPECT_EQ(SimulatedRandom(7).uuid(), SimulatedRandom(7).uuid());
  EXPECT_NE(SimulatedRandom(7).uuid(), SimulatedRandom(8).uuid());
}

TEST(FormatUUID, SetsVersionAndVariant) {
  EXPECT_EQ(formatUUID({}), "00000000-0000-4000-8000-000000000000");
  std::array<std::uint8_t, 16> bytes;
  bytes.fill(0xFF);
  EXPECT_EQ(formatUUID(bytes), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
  for (std::uint8_t i = 0; i < 16; ++i) bytes[i] = i;
  EXPECT_EQ(formatUUID(bytes), "00010203-0405-4607-8809-0A0B0C0D0E0F");
}

}  // namespace
}  // namespace vondle
