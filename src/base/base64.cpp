#include "base/base64.h"

#include <array>
#include <cstdint>

namespace vondle {
namespace {

constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t NO_DIGIT = 64;

constexpr auto VALUES = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(NO_DIGIT);
  for (std::size_t i = 0; i < DIGITS.size(); ++i)
    values[static_cast<unsigned char>(DIGITS[i])] = static_cast<std::uint8_t>(i);
  return values;
}();

}  // namespace

std::string base64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const auto group = bytes.substr(at, 3);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i)
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
    for (std::size_t i = 0; i < 4; ++i) text += i <= group.size() ? DIGITS[bits >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

std::optional<std::string> bytesOfBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (std::size_t at = 0; at < text.size(); at += 4) {
    auto group = text.substr(at, 4);
    if (at + 4 == text.size()) group = group.substr(0, group.find('='));
    if (group.size() < 2) return std::nullopt;
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      const auto value = i < group.size() ? VALUES[static_cast<unsigned char>(group[i])] : std::uint8_t{0};
      if (value == NO_DIGIT) return std::nullopt;
      bits = bits << 6 | value;
    }
    for (std::size_t i = 0; i + 1 < group.size(); ++i) bytes += static_cast<char>(bits >> (16 - 8 * i) & 255);
  }
  // Also what stands after the padding, and bits that say nothing.
  return base64(bytes) == text ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace vondle
