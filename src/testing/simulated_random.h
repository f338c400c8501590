#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "platform/random_source.h"

namespace vondle {

// The same names for the same seed. One thread.
class SimulatedRandom final : public RandomSource {
 public:
  explicit SimulatedRandom(std::uint64_t seed = 1) : engine_(seed) {}

  std::string uuid() override;

 private:
  std::mt19937_64 engine_;
};

}  // namespace vondle
