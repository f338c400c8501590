#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vondle {

// RFC 4648, section 4: with padding, without line breaks.
std::string base64(std::string_view bytes);
// None for what base64() does not make.
std::optional<std::string> bytesOfBase64(std::string_view text);

}  // namespace vondle
