#include "platform/linux/preview_helper/huffman_deflate.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <numeric>
#include <queue>
#include <utility>
#include <vector>

namespace vondle {
namespace {

constexpr std::size_t END_OF_BLOCK = 256;
constexpr std::size_t SYMBOLS = END_OF_BLOCK + 1;  // none for lengths of repetitions
constexpr unsigned MAX_LENGTH = 15;
constexpr std::size_t HEADER_BYTES = 140;

template <class Value>
using PerSymbol = std::array<Value, SYMBOLS>;

struct Code {
  std::uint32_t bits = 0;  // the first is the lowest
  unsigned length = 0;
};

// Least significant bit first, to where there is room for all of it and eight bytes more.
class BitWriter {
 public:
  explicit BitWriter(char* to) : to_(to) {}

  void put(Code code) {
    pending_ |= std::uint64_t{code.bits} << held_;
    held_ += code.length;
    if (held_ < 32) return;
    for (int i = 0; i < 4; ++i) to_[i] = static_cast<char>(pending_ >> 8 * i);
    to_ += 4;
    pending_ >>= 32;
    held_ -= 32;
  }
  // Up to a whole byte; the end.
  char* finish() {
    for (unsigned done = 0; done < held_; done += 8) *to_++ = static_cast<char>(pending_ >> done);
    return to_;
  }

 private:
  char* to_;
  std::uint64_t pending_ = 0;
  unsigned held_ = 0;
};

// At least two symbols are used: a code of no bits is none.
PerSymbol<std::uint64_t> countsOf(std::span<const std::uint8_t> bytes) {
  PerSymbol<std::uint64_t> counts{};
  for (const auto byte : bytes) ++counts[byte];
  counts[0] = std::max<std::uint64_t>(counts[0], 1);
  counts[END_OF_BLOCK] = 1;
  return counts;
}

// Huffman's: the two rarest are joined until one is left. A node comes after those that it joins.
PerSymbol<std::uint8_t> lengthsFor(const PerSymbol<std::uint64_t>& counts) {
  using Node = std::pair<std::uint64_t, std::size_t>;
  std::priority_queue<Node, std::vector<Node>, std::greater<>> nodes;
  for (std::size_t symbol = 0; symbol < SYMBOLS; ++symbol)
    if (counts[symbol] > 0) nodes.emplace(counts[symbol], symbol);
  std::array<std::size_t, 2 * SYMBOLS> parents{};
  std::size_t root = SYMBOLS - 1;
  while (nodes.size() > 1) {
    ++root;
    std::uint64_t count = 0;
    for (int i = 0; i < 2; ++i) {
      count += nodes.top().first;
      parents[nodes.top().second] = root;
      nodes.pop();
    }
    nodes.emplace(count, root);
  }
  std::array<std::uint8_t, 2 * SYMBOLS> depths{};
  PerSymbol<std::uint8_t> lengths{};
  for (std::size_t node = root; node-- > 0;)
    if (parents[node] != 0) depths[node] = static_cast<std::uint8_t>(depths[parents[node]] + 1);
  std::copy_n(depths.begin(), SYMBOLS, lengths.begin());
  return lengths;
}

// Halving brings the counts nearer to one another until no code is too long.
PerSymbol<std::uint8_t> limitedLengthsFor(PerSymbol<std::uint64_t> counts) {
  for (;;) {
    const auto lengths = lengthsFor(counts);
    if (*std::ranges::max_element(lengths) <= MAX_LENGTH) return lengths;
    for (auto& count : counts) count = (count + 1) / 2;
  }
}

std::uint32_t reversed(std::uint32_t bits, unsigned length) {
  std::uint32_t result = 0;
  for (unsigned i = 0; i < length; ++i) result |= (bits >> i & 1) << (length - 1 - i);
  return result;
}

PerSymbol<Code> codesOf(const PerSymbol<std::uint8_t>& lengths) {
  PerSymbol<Code> codes;
  std::uint32_t next = 0;
  for (unsigned length = 1; length <= MAX_LENGTH; ++length, next <<= 1)
    for (std::size_t symbol = 0; symbol < SYMBOLS; ++symbol)
      if (lengths[symbol] == length) codes[symbol] = {reversed(next++, length), length};
  return codes;
}

// The codes' lengths, each in four bits. As there must be codes for distances, there are two of one bit.
void putHeader(BitWriter& writer, const PerSymbol<std::uint8_t>& lengths) {
  constexpr unsigned LENGTH_KINDS = 19, REPETITIONS = 3;
  writer.put({1, 1});  // the last block
  writer.put({2, 2});  // with codes of its own
  writer.put({SYMBOLS - 257, 5});
  writer.put({2 - 1, 5});
  writer.put({LENGTH_KINDS - 4, 4});
  for (unsigned i = 0; i < LENGTH_KINDS; ++i) writer.put({i < REPETITIONS ? 0U : 4U, 3});
  for (const auto length : lengths) writer.put({reversed(length, 4), 4});
  for (int i = 0; i < 2; ++i) writer.put({reversed(1, 4), 4});
}

}  // namespace

std::string huffmanDeflate(std::span<const std::uint8_t> bytes) {
  const auto counts = countsOf(bytes);
  const auto lengths = limitedLengthsFor(counts);
  const auto codes = codesOf(lengths);
  std::string stream = "\x78\x01";
  const auto begin = stream.size();
  stream.resize(begin + HEADER_BYTES + std::inner_product(counts.begin(), counts.end(), lengths.begin(), 0UL) / 8 + 8);
  BitWriter writer(stream.data() + begin);
  putHeader(writer, lengths);
  for (const auto byte : bytes) writer.put(codes[byte]);
  writer.put(codes[END_OF_BLOCK]);
  stream.resize(static_cast<std::size_t>(writer.finish() - stream.data()));
  const auto checksum = ::adler32_z(1, bytes.data(), bytes.size());
  for (int shift = 24; shift >= 0; shift -= 8) stream += static_cast<char>(checksum >> shift);
  return stream;
}

}  // namespace vondle
