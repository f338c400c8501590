#include "platform/person_name.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

std::string written(const PersonNameComponents& name) {
  std::string out;
  const auto add = [&](std::string_view key, const std::optional<std::string>& value) {
    if (value) out.append(out.empty() ? "" : "; ").append(key).append("=").append(*value);
  };
  add("prefix", name.namePrefix);
  add("given", name.givenName);
  add("middle", name.middleName);
  add("family", name.familyName);
  add("suffix", name.nameSuffix);
  add("nickname", name.nickname);
  return out;
}

TEST(PersonName, TakesWrittenNamesApart) {
  const struct {
    std::string_view text, parts;
  } CASES[] = {
      {"Ann", "given=Ann"},
      {"Ann Lee", "given=Ann; family=Lee"},
      {"  Ann   Lee ", "given=Ann; family=Lee"},
      {"Ann Marie Lee", "given=Ann; middle=Marie; family=Lee"},
      {"Dr. Ann Marie Lee Jr.", "prefix=Dr.; given=Ann; middle=Marie; family=Lee; suffix=Jr."},
      {"Prof. Dr. Ann Lee", "prefix=Prof. Dr.; given=Ann; family=Lee"},
      {"Ann Lee PhD MD", "given=Ann; family=Lee; suffix=PhD MD"},
      {"Ann Lee, Jr.", "given=Ann; family=Lee; suffix=Jr."},
      {"Lee, Ann", "given=Ann; family=Lee"},
      {"van der Berg, Ann Marie", "given=Ann; middle=Marie; family=van der Berg"},
      {"Ludwig van Dam", "given=Ludwig; family=van Dam"},
      {"Anna Maria von der Tann", "given=Anna; middle=Maria; family=von der Tann"},
      {"Van Morris", "given=Van; family=Morris"},
      {"Dr.", "given=Dr."},
      {"Ann,", "given=Ann"},
      {"Lee , Ann", "given=Ann; family=Lee"},
      {"Lee,Ann ,Marie,,", "given=Ann; middle=Marie; family=Lee"},
      {", Ann Lee", "given=Ann; family=Lee"},
      {", , Ann", "given=Ann"},
      {"Ann Lee , Jr.", "given=Ann; family=Lee; suffix=Jr."},
      {"J\xC3\xB6rg M\xC3\xBCller", "given=J\xC3\xB6rg; family=M\xC3\xBCller"},
      {"王小明", "given=小明; family=王"},
      {"欧阳修", "given=修; family=欧阳"},
      {"山田太郎", "given=太郎; family=山田"},
      {"山田 太郎", "given=太郎; family=山田"},
      {"김철수", "given=철수; family=김"},
      {"さくら", "given=さくら"},
  };
  for (const auto& [text, parts] : CASES) {
    const auto name = parsePersonName(text);
    ASSERT_TRUE(name) << text;
    EXPECT_EQ(written(*name), parts) << text;
  }
}

TEST(PersonName, HasNoneWithoutALetter) {
  for (const std::string_view text : {"", "  ", "123", "- , .", "42 7"}) EXPECT_EQ(parsePersonName(text), std::nullopt);
}

}  // namespace
}  // namespace vondle
