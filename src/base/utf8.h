#pragma once

#include <cstddef>
#include <string_view>

namespace vondle {

struct UTF8Character {
  char32_t code = 0;
  std::size_t length = 0;  // in bytes; 0: not UTF-8
};

// The first character of a text that is not empty. Overlong forms and surrogates are not UTF-8.
UTF8Character firstUTF8Character(std::string_view text);

bool isUTF8(std::string_view text);

}  // namespace vondle
