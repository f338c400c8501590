#include "platform/linux/send_chunk.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(SendChunk, GrowsWhileNothingHoldsItUpAndStaysWithinItsBounds) {
  SendChunk chunk;
  const auto start = chunk.size();
  for (int i = 0; i < SendChunk::CHUNKS_TO_GROW - 1; ++i) chunk.sent();
  EXPECT_EQ(chunk.size(), start);
  chunk.sent();
  EXPECT_EQ(chunk.size(), 2 * start);
  for (int i = 0; i < 1000; ++i) chunk.sent();
  EXPECT_EQ(chunk.size(), SendChunk::LARGEST);
}

TEST(SendChunk, HalvesWithEachSuspension) {
  SendChunk chunk;
  const auto start = chunk.size();
  chunk.suspended();
  EXPECT_EQ(chunk.size(), start / 2);
  for (int i = 0; i < 20; ++i) chunk.suspended();
  EXPECT_EQ(chunk.size(), SendChunk::SMALLEST);
}

TEST(SendChunk, ASuspensionBeginsTheCountToGrowAnew) {
  SendChunk chunk;
  for (int i = 0; i < SendChunk::CHUNKS_TO_GROW - 1; ++i) chunk.sent();
  chunk.suspended();
  const auto halved = chunk.size();
  chunk.sent();
  EXPECT_EQ(chunk.size(), halved);
}

}  // namespace
}  // namespace vondle
