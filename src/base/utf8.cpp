#include "base/utf8.h"

namespace vondle {

UTF8Character firstUTF8Character(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return {};
  char32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return {};
    code = code << 6 | (next & 0x3FU);
  }
  const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (overlong || surrogate || code > 0x10FFFF) return {};
  return {code, length};
}

bool isUTF8(std::string_view text) {
  while (!text.empty()) {
    const auto next = firstUTF8Character(text);
    if (next.length == 0) return false;
    text.remove_prefix(next.length);
  }
  return true;
}

}  // namespace vondle
