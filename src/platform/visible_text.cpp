#include "platform/visible_text.h"

#include <cstddef>
#include <iterator>

#include <fmt/format.h>

namespace vondle {
namespace {

struct Character {
  char32_t code = 0;
  std::size_t length = 0;  // in bytes; 0: not UTF-8
};

// The first character of a text that is not empty.
Character firstCharacter(std::string_view text) {
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

bool misleads(char32_t code) {
  return (code >= 0x80 && code <= 0x9F) ||                                          // control characters
         code == 0x2028 || code == 0x2029 ||                                        // line and paragraph separator
         code == 0x061C || code == 0x200E || code == 0x200F ||                      // marks of direction
         (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);  // embeddings, overrides, isolates
}

}  // namespace

std::string visibleText(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  while (!bytes.empty()) {
    const Character next = firstCharacter(bytes);
    const auto byte = static_cast<unsigned char>(bytes[0]);
    if (next.length == 0 || ((byte < 0x20 || byte == 0x7F) && byte != '\n' && byte != '\t')) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
    } else if (next.code == '\n') {
      out += "\\n";
    } else if (next.code == '\t') {
      out += "\\t";
    } else if (next.code == '\\') {
      out += "\\\\";
    } else if (misleads(next.code)) {
      fmt::format_to(std::back_inserter(out), "\\u{{{:x}}}", static_cast<unsigned>(next.code));
    } else {
      out += bytes.substr(0, next.length);
    }
    bytes.remove_prefix(next.length == 0 ? 1 : next.length);
  }
  return out;
}

}  // namespace vondle
