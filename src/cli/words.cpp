#include "cli/words.h"

#include <fmt/format.h>

namespace vondle {

std::string durationInWords(Duration duration) {
  const auto whole = static_cast<std::int64_t>(inSeconds(duration));
  if (whole < 120) return fmt::format("{} s", whole < 0 ? 0 : whole);
  if (whole < 2 * 3600) return fmt::format("{} min", whole / 60);
  if (whole < 48 * 3600) return fmt::format("{} h", whole / 3600);
  return fmt::format("{} days", whole / 86400);
}

std::string limitInWords(double kilobytesPerSecond) {
  return kilobytesPerSecond > 0 ? fmt::format("{} kB/s", kilobytesPerSecond) : "unlimited";
}

std::string countInWords(std::int64_t count, const char* one, const char* many) {
  return fmt::format("{} {}", count, count == 1 ? one : many);
}

}  // namespace vondle
