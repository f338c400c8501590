#include "platform/visible_text.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

using namespace std::string_view_literals;

struct Case {
  std::string_view bytes;
  std::string_view shown;
};

class VisibleText : public testing::TestWithParam<Case> {};

TEST_P(VisibleText, ShowsWhatItIs) {
  EXPECT_EQ(visibleText(GetParam().bytes), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(Ordinary, VisibleText,
                         testing::Values(Case{"", ""}, Case{"plain text", "plain text"},
                                         Case{"100 % “ok” – déjà 日本 𝄞 👩‍💻",
                                              "100 % “ok” – déjà 日本 𝄞 👩‍💻"},
                                         Case{"\xC2\xA0 \xEF\xBF\xBD \xF4\x8F\xBF\xBF",
                                              "\xC2\xA0 \xEF\xBF\xBD \xF4\x8F\xBF\xBF"},
                                         Case{"~ ", "~ "}));

INSTANTIATE_TEST_SUITE_P(ControlCharacters, VisibleText,
                         testing::Values(Case{"a\nb\tc\rd", R"(a\nb\tc\x0dd)"},
                                         Case{"\x1B[31mred\x1B[0m\a", R"(\x1b[31mred\x1b[0m\x07)"},
                                         Case{"\0end"sv, R"(\x00end)"}, Case{"\x7F", R"(\x7f)"},
                                         Case{"\xC2\x9B"
                                              "31m",
                                              R"(\u{9b}31m)"},
                                         Case{"\xE2\x80\xA8\xE2\x80\xA9", R"(\u{2028}\u{2029})"}));

INSTANTIATE_TEST_SUITE_P(DirectionOfWriting, VisibleText,
                         testing::Values(Case{"exe\xE2\x80\xAEgpj", R"(exe\u{202e}gpj)"},
                                         Case{"\xE2\x80\xAA\xE2\x81\xA6\xE2\x81\xA9", R"(\u{202a}\u{2066}\u{2069})"},
                                         Case{"\xD8\x9C\xE2\x80\x8E\xE2\x80\x8F", R"(\u{61c}\u{200e}\u{200f})"}));

INSTANTIATE_TEST_SUITE_P(
    NotUTF8, VisibleText,
    testing::Values(Case{"\xFF\xFE", R"(\xff\xfe)"}, Case{"\x80", R"(\x80)"}, Case{"a\xC3", R"(a\xc3)"},
                    Case{"\xC3(", R"(\xc3()"}, Case{"\xE2\x82", R"(\xe2\x82)"}, Case{"\xF0\x9F\x98", R"(\xf0\x9f\x98)"},
                    Case{"\xC0\xAF", R"(\xc0\xaf)"}, Case{"\xE0\x80\xAF", R"(\xe0\x80\xaf)"},
                    Case{"\xF0\x80\x80\xAF", R"(\xf0\x80\x80\xaf)"}, Case{"\xED\xA0\x80", R"(\xed\xa0\x80)"},
                    Case{"\xF4\x90\x80\x80", R"(\xf4\x90\x80\x80)"}, Case{"\xC3\xA9\xE9", "é\\xe9"}));

TEST(VisibleTextOfBackslash, TellsABackslashFromAnEscape) {
  EXPECT_EQ(visibleText("\\x1b"), R"(\\x1b)");
}

}  // namespace
}  // namespace vondle
