#pragma once

#include <cstdint>
#include <string_view>

namespace vondle {

// 64 bits made of texts, the same on every machine and in every version: file names are made of them. FNV-1a with a
// final mix; each text is followed by its length, so that ("ab", "c") and ("a", "bc") differ. Not secret, not
// collision-proof against somebody who tries.
template <class... Texts>
constexpr std::uint64_t stableHash(const Texts&... texts) {
  std::uint64_t hash = 0xcbf29ce484222325;
  const auto add = [&hash](std::string_view text) {
    constexpr std::uint64_t PRIME = 0x100000001b3;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * PRIME;
    for (std::uint64_t length = text.size(), i = 0; i < 8; ++i, length >>= 8) hash = (hash ^ (length & 0xff)) * PRIME;
  };
  (add(texts), ...);
  hash ^= hash >> 32;
  hash *= 0xd6e8feb86659fd93;
  hash ^= hash >> 32;
  hash *= 0xd6e8feb86659fd93;
  return hash ^ (hash >> 32);
}

}  // namespace vondle
