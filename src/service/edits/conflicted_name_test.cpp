#include "service/edits/conflicted_name.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(ConflictedNameTest, TheMarkStandsBeforeTheExtension) {
  const struct {
    const char* name;
    bool isFolder;
    unsigned number;
    const char* result;
  } cases[] = {
      {"a.txt", false, 1, "a (conflicted copy).txt"},
      {"a.txt", false, 2, "a (conflicted copy 2).txt"},
      {"a.tar.gz", false, 1, "a.tar (conflicted copy).gz"},
      {"plain", false, 1, "plain (conflicted copy)"},
      {".hidden", false, 1, ".hidden (conflicted copy)"},
      {"a.b", true, 1, "a.b (conflicted copy)"},
      {"a (conflicted copy).txt", false, 2, "a (conflicted copy 2).txt"},
      {"a (conflicted copy 7).txt", false, 1, "a (conflicted copy).txt"},
      {"a (conflicted copy x).txt", false, 1, "a (conflicted copy x) (conflicted copy).txt"},
      {" (conflicted copy)", false, 1, " (conflicted copy) (conflicted copy)"},
  };
  for (const auto& [name, isFolder, number, result] : cases)
    EXPECT_EQ(conflictedName(name, isFolder, number), result) << name;
}

TEST(ConflictedNameTest, ALongNameIsCutBetweenCharacters) {
  std::string umlauts;
  for (int i = 0; i < 125; ++i) umlauts += "ä";
  const auto name = conflictedName(umlauts + ".txt", false, 12);
  EXPECT_LE(name.size(), 255U);
  EXPECT_GE(name.size(), 254U);
  EXPECT_TRUE(name.ends_with("ä (conflicted copy 12).txt")) << name;
}

}  // namespace
}  // namespace vondle
