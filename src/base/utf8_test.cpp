#include "base/utf8.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(UTF8, TakesCharactersOfEveryLength) {
  const struct {
    std::string_view text;
    char32_t code;
    std::size_t length;
  } CASES[] = {{"a", U'a', 1},           {std::string_view("\0", 1), 0, 1}, {"\u00E9x", U'\u00E9', 2},
               {"\u20AC", U'\u20AC', 3}, {"\uFFFF", U'\uFFFF', 3},          {"\U0010FFFF", U'\U0010FFFF', 4}};
  for (const auto& [text, code, length] : CASES) {
    EXPECT_EQ(firstUTF8Character(text).code, code) << text;
    EXPECT_EQ(firstUTF8Character(text).length, length) << text;
    EXPECT_TRUE(isUTF8(text)) << text;
  }
  EXPECT_TRUE(isUTF8(""));
}

TEST(UTF8, RefusesEverythingElse) {
  for (const std::string_view text :
       {"\x80", "\xC3", "\xC3(", "\xC0\x80", "\xE0\x80\x80", "\xE2\x82", "\xED\xA0\x80", "\xF0\x80\x80\x80",
        "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "good \xFF bad"}) {
    EXPECT_FALSE(isUTF8(text)) << text;
  }
}

}  // namespace
}  // namespace vondle
