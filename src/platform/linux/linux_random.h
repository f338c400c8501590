#pragma once

#include "platform/random_source.h"

namespace vondle {

// The kernel's random numbers.
class LinuxRandom final : public RandomSource {
 public:
  std::string uuid() override;
};

}  // namespace vondle
