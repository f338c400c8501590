#include "platform/linux/preview_helper/huffman_deflate.h"

#include <zlib.h>

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vondle {
namespace {

using Bytes = std::vector<std::uint8_t>;

// By zlib; empty when there is anything wrong with the stream, its checksum or its end.
Bytes inflated(const std::string& stream, std::size_t size) {
  Bytes bytes(size + 1);
  uLongf count = bytes.size();
  uLong taken = stream.size();
  const auto* from = reinterpret_cast<const Bytef*>(stream.data());
  if (::uncompress2(bytes.data(), &count, from, &taken) != Z_OK || taken != stream.size()) return {};
  bytes.resize(count);
  return bytes;
}

TEST(HuffmanDeflate, WhatWentInComesOutAgain) {
  std::mt19937 random(3);
  for (const unsigned kinds : {1, 2, 3, 100, 256})
    for (const std::size_t size : {1, 2, 3, 4, 5, 7, 8, 9, 100, 65'536, 300'001}) {
      Bytes bytes(size);
      for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random() % kinds);
      EXPECT_EQ(inflated(huffmanDeflate(bytes), size), bytes) << size << " of " << kinds;
    }
}

TEST(HuffmanDeflate, EveryByteCanBeTheOnlyOne) {
  for (int value = 0; value < 256; ++value) {
    const Bytes bytes(50, static_cast<std::uint8_t>(value));
    EXPECT_EQ(inflated(huffmanDeflate(bytes), bytes.size()), bytes) << value;
  }
}

TEST(HuffmanDeflate, NothingIsAnEmptyStream) {
  std::uint8_t byte = 0;
  uLongf count = 1;
  const auto stream = huffmanDeflate({});
  EXPECT_EQ(::uncompress(&byte, &count, reinterpret_cast<const Bytef*>(stream.data()), stream.size()), Z_OK);
  EXPECT_EQ(count, 0u);
}

// Each as frequent as the two before together: the rarest would have codes of more bits than there may be.
TEST(HuffmanDeflate, NoCodeIsTooLong) {
  Bytes bytes;
  std::size_t count = 1, before = 1;
  for (int value = 0; value < 26; ++value) {
    bytes.insert(bytes.end(), count, static_cast<std::uint8_t>(value));
    before = std::exchange(count, count + before);
  }
  EXPECT_EQ(inflated(huffmanDeflate(bytes), bytes.size()), bytes);
}

TEST(HuffmanDeflate, FrequentBytesTakeFewBits) {
  std::mt19937 random(5);
  std::binomial_distribution<int> difference(30, 0.5);
  Bytes bytes(200'000);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(difference(random) - 15);
  const auto stream = huffmanDeflate(bytes);
  EXPECT_EQ(inflated(stream, bytes.size()), bytes);
  const double entropy = 3.5;  // bits of such a byte
  EXPECT_LT(static_cast<double>(stream.size()), 1.02 * entropy / 8 * 200'000);
}

}  // namespace
}  // namespace vondle
