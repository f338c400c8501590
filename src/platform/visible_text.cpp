#include "platform/visible_text.h"

#include <iterator>

#include <fmt/format.h>

#include "base/utf8.h"

namespace vondle {
namespace {

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
    const UTF8Character next = firstUTF8Character(bytes);
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
