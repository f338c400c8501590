#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Amounts of bytes as people read and write them: 1 kB is 1024 bytes.
namespace vondle {

constexpr std::int64_t MEBIBYTE = std::int64_t{1} << 20;
constexpr std::int64_t GIBIBYTE = std::int64_t{1} << 30;

// "0 B", "512 B", "1.5 kB", "12 MB".
std::string sizeInWords(double bytes);

// Of "512", "20 GiB", "1.5 GB", "700m": a number, and B, K, M, G, T or P, alone or followed by B or iB, in capitals or
// not. Absent for anything else, also for a negative number and what 64 bits cannot hold.
std::optional<std::int64_t> parseByteSize(std::string_view text);

}  // namespace vondle
