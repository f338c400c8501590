#include "storage/names.h"

#include <gtest/gtest.h>

namespace vondle::storage {
namespace {

TEST(NamesTest, NamesThatNoFileSystemCouldHoldAreRefused) {
  const std::string cases[] = {"",
                               ".",
                               "..",
                               "a/b",
                               "/",
                               std::string("a\0b", 3),
                               std::string(256, 'x'),
                               "\xff",
                               "\xc3",
                               "\xc0\xaf",
                               "\xed\xa0\x80",
                               "\xf4\x90\x80\x80",
                               "\xe2\x82",
                               "a\x80"};
  for (const auto& name : cases) {
    const auto valid = checkName(name);
    ASSERT_FALSE(valid) << testing::PrintToString(name);
    EXPECT_EQ(valid.error().status, 400);
  }
}

TEST(NamesTest, OtherNamesAreTaken) {
  const std::string cases[] = {"a", "...", " ", ".hidden", "a\nb", "\\", "ü€😀", std::string(255, 'x')};
  for (const auto& name : cases) EXPECT_TRUE(checkName(name)) << name;
}

TEST(NamesTest, PathsFallIntoTheirNames) {
  EXPECT_EQ(splitPath("")->size(), 0U);
  EXPECT_EQ(*splitPath("a/b c/d"), (std::vector<std::string>{"a", "b c", "d"}));
  for (const char* path : {"/", "/a", "a/", "a//b", "a/../b", "./a"}) EXPECT_FALSE(splitPath(path)) << path;
  std::string deep = "a";
  for (std::size_t i = 1; i < MAX_DEPTH; ++i) deep += "/a";
  EXPECT_TRUE(splitPath(deep));
  EXPECT_FALSE(splitPath(deep + "/a"));
}

TEST(NamesTest, ThePlaceOfAPathIsItsFolderAndItsLastName) {
  EXPECT_EQ(*splitLast("a"), std::pair(std::string(), std::string("a")));
  EXPECT_EQ(*splitLast("a/b/c"), std::pair(std::string("a/b"), std::string("c")));
  EXPECT_EQ(splitLast("").error().status, 400);
}

TEST(NamesTest, APrefixIsAFolderPathWithASlash) {
  EXPECT_EQ(folderOfPrefix("a/b/"), "a/b");
  for (const char* prefix : {"", "/", "a", "a//", "../"}) EXPECT_FALSE(folderOfPrefix(prefix)) << prefix;
}

TEST(NamesTest, JoiningPutsNothingBeforeTheTop) {
  EXPECT_EQ(joinPath("", "a"), "a");
  EXPECT_EQ(joinPath("a/b", "c"), "a/b/c");
}

}  // namespace
}  // namespace vondle::storage
