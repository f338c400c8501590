#include "platform/random_source.h"

#include <fmt/format.h>

namespace vondle {

std::string formatUUID(std::array<std::uint8_t, 16> randomBytes) {
  randomBytes[6] = (randomBytes[6] & 0x0F) | 0x40;  // version 4
  randomBytes[8] = (randomBytes[8] & 0x3F) | 0x80;  // RFC 4122's variant
  std::string text;
  for (std::size_t i = 0; i < randomBytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    fmt::format_to(std::back_inserter(text), "{:02X}", randomBytes[i]);
  }
  return text;
}

}  // namespace vondle
