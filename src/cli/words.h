#pragma once

#include <cstdint>
#include <string>

#include "base/time.h"

// Figures as people read them.
namespace vondle {

// "0 B", "512 B", "1.5 kB", "12 MB"; 1 kB is 1024 bytes, as in the limits.
std::string sizeInWords(double bytes);
// "3 s", "5 min", "2 h", "4 days".
std::string durationInWords(Duration duration);
// A limit in kB/s: "unlimited" or "512 kB/s".
std::string limitInWords(double kilobytesPerSecond);
// "1 file", "2 files".
std::string countInWords(std::int64_t count, const char* one, const char* many);

}  // namespace vondle
