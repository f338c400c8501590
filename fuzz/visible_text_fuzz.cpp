#include <charconv>

#include "base/utf8.h"
#include "fuzzing.h"
#include "platform/visible_text.h"

namespace vondle {
namespace {

std::string utf8(std::uint32_t code) {
  if (code < 0x80) return {static_cast<char>(code)};
  if (code < 0x800) return {static_cast<char>(0xc0 | code >> 6), static_cast<char>(0x80 | (code & 0x3f))};
  if (code < 0x10000)
    return {static_cast<char>(0xe0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 0x3f)),
            static_cast<char>(0x80 | (code & 0x3f))};
  return {static_cast<char>(0xf0 | code >> 18), static_cast<char>(0x80 | (code >> 12 & 0x3f)),
          static_cast<char>(0x80 | (code >> 6 & 0x3f)), static_cast<char>(0x80 | (code & 0x3f))};
}

std::uint32_t hexadecimal(std::string_view digits) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  REQUIRE(error == std::errc() && end == digits.data() + digits.size());
  return value;
}

// The bytes that a visible text stands for.
std::string bytesOf(std::string_view visible) {
  std::string bytes;
  while (!visible.empty()) {
    if (visible[0] != '\\') {
      bytes += visible[0];
      visible.remove_prefix(1);
      continue;
    }
    REQUIRE(visible.size() >= 2);
    if (visible[1] == 'u') {
      const auto end = visible.find('}');
      REQUIRE(visible.starts_with("\\u{") && end != std::string_view::npos);
      bytes += utf8(hexadecimal(visible.substr(3, end - 3)));
      visible.remove_prefix(end + 1);
    } else if (visible[1] == 'x') {
      REQUIRE(visible.size() >= 4);
      bytes += static_cast<char>(hexadecimal(visible.substr(2, 2)));
      visible.remove_prefix(4);
    } else {
      constexpr std::string_view LETTERS = "nt\\";
      const auto which = LETTERS.find(visible[1]);
      REQUIRE(which != std::string_view::npos);
      bytes += "\n\t\\"[which];
      visible.remove_prefix(2);
    }
  }
  return bytes;
}

}  // namespace

void fuzz(std::string_view bytes) {
  const auto visible = visibleText(bytes);
  REQUIRE(isUTF8(visible));
  for (std::string_view rest = visible; !rest.empty();) {
    const auto [code, length] = firstUTF8Character(rest);
    REQUIRE(code >= 0x20 && (code < 0x7f || code > 0x9f));
    REQUIRE(code != 0x2028 && code != 0x2029 && !(code >= 0x202a && code <= 0x202e) &&
            !(code >= 0x2066 && code <= 0x2069));
    rest.remove_prefix(length);
  }
  REQUIRE(bytesOf(visible) == bytes);
}

}  // namespace vondle
