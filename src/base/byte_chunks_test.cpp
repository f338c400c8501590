#include "base/byte_chunks.h"

#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(ByteChunksTest, RunsOfEveryLengthStayWhereTheyArePut) {
  std::mt19937 random(7);
  ByteChunks bytes;
  std::vector<std::pair<std::uint32_t, std::string>> runs;
  for (const std::size_t length : {0U, 1U, 3U, 4U, 5U, 1U << 20, (1U << 20) + 1, 3U << 20, 2U})
    for (int i = 0; i < 3; ++i) {
      const std::string run(length, static_cast<char>('a' + random() % 26));
      const auto half = std::string_view(run).substr(0, length / 2);
      runs.emplace_back(bytes.add(half, std::string_view(run).substr(half.size())), run);
    }
  for (int i = 0; i < 100'000; ++i) {
    const std::string run(random() % 60, static_cast<char>('a' + random() % 26));
    runs.emplace_back(bytes.add(run), run);
  }
  for (const auto& [address, run] : runs) EXPECT_EQ(std::string_view(bytes.at(address), run.size()), run);
  EXPECT_LT(bytes.size(), std::size_t{40} << 20);
}

TEST(ByteChunksTest, TakesOverTheRunsOfAnother) {
  ByteChunks bytes, other;
  EXPECT_EQ(bytes.append(ByteChunks()), 0U);
  const auto mine = bytes.add("mine");
  const auto theirs = other.add("theirs");
  const auto moved = bytes.append(std::move(other));
  const auto later = bytes.add("later");
  EXPECT_EQ(std::string_view(bytes.at(mine), 4), "mine");
  EXPECT_EQ(std::string_view(bytes.at(theirs + moved), 6), "theirs");
  EXPECT_EQ(std::string_view(bytes.at(later), 5), "later");
  EXPECT_EQ(bytes.size(), std::size_t{2} << 20);
}

}  // namespace
}  // namespace vondle
