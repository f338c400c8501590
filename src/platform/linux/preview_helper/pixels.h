#pragma once

#include <cstdint>
#include <vector>

namespace vondle {

// A picture in memory: rows from the top, pixels from the left, of each red, green, blue and, where there are four
// bands, opacity.
struct Pixels {
  int width = 0;
  int height = 0;
  int bands = 0;
  std::vector<std::uint8_t> values;
};

// Scaled to a size that is no larger in either direction, and of no more than 16 million pixels before: each new pixel
// is the mean of the area that it covers.
Pixels scaledDown(Pixels picture, int width, int height);

}  // namespace vondle
