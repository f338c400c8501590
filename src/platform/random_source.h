#pragma once

#include <string>

namespace vondle {

// Unpredictable names. Any thread.
class RandomSource {
 public:
  virtual ~RandomSource() = default;
  virtual std::string uuid() = 0;  // 8-4-4-4-12 upper-case hexadecimal digits
};

}  // namespace vondle
