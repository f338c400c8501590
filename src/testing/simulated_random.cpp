#include "testing/simulated_random.h"

#include <algorithm>

namespace vondle {

std::string SimulatedRandom::uuid() {
  std::array<std::uint8_t, 16> bytes;
  std::ranges::generate(bytes, [this] { return static_cast<std::uint8_t>(engine_()); });
  return formatUUID(bytes);
}

}  // namespace vondle
