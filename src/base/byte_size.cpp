#include "base/byte_size.h"

#include <array>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace vondle {
namespace {

constexpr std::string_view UNIT_LETTERS = "bkmgtp";

std::string inSmallLetters(std::string_view text) {
  std::string small;
  for (const char each : text) small += each >= 'A' && each <= 'Z' ? static_cast<char>(each - 'A' + 'a') : each;
  return small;
}

// The power of 1024 that the unit stands for.
std::optional<std::size_t> powerOf(std::string_view unit) {
  if (unit.empty()) return 0;
  const auto power = UNIT_LETTERS.find(unit.front());
  if (power == std::string_view::npos) return std::nullopt;
  const auto rest = unit.substr(1);
  return rest.empty() || (power > 0 && (rest == "b" || rest == "ib")) ? std::optional(power) : std::nullopt;
}

}  // namespace

std::string sizeInWords(double bytes) {
  constexpr std::array UNITS = {"B", "kB", "MB", "GB", "TB", "PB"};
  std::size_t unit = 0;
  // 1023.6 would be shown as 1024.
  while (unit + 1 < UNITS.size() && std::round(bytes) >= 1024) {
    bytes /= 1024;
    ++unit;
  }
  const bool needsFraction = unit > 0 && std::round(bytes * 10) < 100;
  return fmt::format("{:.{}f} {}", bytes, needsFraction ? 1 : 0, UNITS[unit]);
}

std::optional<std::int64_t> parseByteSize(std::string_view text) {
  double number = 0;
  const auto* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
  if (error != std::errc() || !(number >= 0)) return std::nullopt;
  std::string_view unit(rest, end);
  if (unit.starts_with(' ') && unit.size() > 1) unit.remove_prefix(1);
  const auto power = powerOf(inSmallLetters(unit));
  if (!power) return std::nullopt;
  const double bytes = std::ldexp(number, static_cast<int>(10 * *power));
  // The first that does not fit; of those below it every one does.
  if (!(bytes < 0x1p63)) return std::nullopt;
  return static_cast<std::int64_t>(bytes);
}

}  // namespace vondle
