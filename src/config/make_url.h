#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vondle {

// An absolute URL of a text: the text itself where it is one, else the text with everything percent-encoded that a URL
// query may not hold, else none.
std::optional<std::string> makeURL(std::string_view text);

}  // namespace vondle
