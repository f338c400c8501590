#pragma once

#include <string>
#include <string_view>

namespace vondle {

// The text, which is UTF-8, as it stands in XML and in what desktops take for markup.
std::string markupText(std::string_view text);

}  // namespace vondle
