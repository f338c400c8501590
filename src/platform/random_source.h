#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace vondle {

// Unpredictable names. Any thread.
class RandomSource {
 public:
  virtual ~RandomSource() = default;
  virtual std::string uuid() = 0;  // 8-4-4-4-12 upper-case hexadecimal digits
};

// The text of a random (version 4) UUID made of these bytes.
std::string formatUUID(std::array<std::uint8_t, 16> randomBytes);

}  // namespace vondle
