#pragma once

#include <cstdint>
#include <string>

#include "base/time.h"

// Figures as people read them; sizes are in base/byte_size.h.
namespace vondle {

// "3 s", "5 min", "2 h", "4 days".
std::string durationInWords(Duration duration);
// A limit in kB/s: "unlimited" or "512 kB/s".
std::string limitInWords(double kilobytesPerSecond);
// "1 file", "2 files".
std::string countInWords(std::int64_t count, const char* one, const char* many);

}  // namespace vondle
