#include "service/trash/trash_names.h"

#include <set>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(TrashNamesTest, EqualNamesGetNumbersBeforeTheirExtension) {
  TrashNames names;
  EXPECT_EQ(names.nameOf({"1"}, "a.txt", false), "a.txt");
  EXPECT_EQ(names.nameOf({"2"}, "a.txt", false), "a 2.txt");
  EXPECT_EQ(names.nameOf({"3"}, "a.txt", false), "a 3.txt");
  EXPECT_EQ(names.nameOf({"4"}, "a.d", true), "a.d");
  EXPECT_EQ(names.nameOf({"5"}, "a.d", true), "a.d 2") << "a folder has no extension";
  EXPECT_EQ(names.nameOf({"6"}, ".profile", false), ".profile");
  EXPECT_EQ(names.nameOf({"7"}, ".profile", false), ".profile 2");
}

TEST(TrashNamesTest, ANameStaysWhileOthersComeAndGo) {
  TrashNames names;
  names.nameOf({"1"}, "a", false);
  names.nameOf({"2"}, "a", false);
  names.forget({"1"});
  EXPECT_EQ(names.nameOf({"2"}, "a", false), "a 2");
  EXPECT_EQ(names.nameOf({"3"}, "a", false), "a");
  EXPECT_EQ(names.nameOf({"4"}, "a", false), "a 3");
}

TEST(TrashNamesTest, ANameThatIsLikeANumberedOneIsGoneRound) {
  TrashNames names;
  EXPECT_EQ(names.nameOf({"1"}, "a 2", false), "a 2");
  EXPECT_EQ(names.nameOf({"2"}, "a", false), "a");
  EXPECT_EQ(names.nameOf({"3"}, "a", false), "a 3");
}

TEST(TrashNamesTest, WhatAProgramChoseIsKeptAndNobodyElseGetsIt) {
  TrashNames names;
  EXPECT_TRUE(names.give({"1"}, "a.2.txt"));
  EXPECT_TRUE(names.give({"1"}, "a.2.txt"));
  EXPECT_FALSE(names.give({"2"}, "a.2.txt"));
  EXPECT_EQ(names.nameOf({"1"}, "a.txt", false), "a.2.txt");
  EXPECT_EQ(names.nameOf({"3"}, "a.2.txt", false), "a.2 2.txt");
  EXPECT_TRUE(names.give({"1"}, "b"));
  EXPECT_FALSE(names.isTaken("a.2.txt"));
  names.rename({"1"}, {"9"});
  EXPECT_EQ(names.nameOf({"9"}, "x", false), "b");
  EXPECT_FALSE(names.give({"1"}, "b"));
}

TEST(TrashNamesTest, ImpossibleNamesAreMapped) {
  TrashNames names;
  EXPECT_EQ(names.nameOf({"1"}, "a/b", false), "%=a%2Fb");
  EXPECT_EQ(names.nameOf({"2"}, "..", false), "%=..");
  EXPECT_EQ(names.nameOf({"3"}, "", true), "%=");
  EXPECT_EQ(names.nameOf({"4"}, "two\nlines", false), "two\nlines");
}

TEST(TrashNamesTest, LongNamesLeaveRoomForASuffixAndAreNotCutWithinACharacter) {
  TrashNames names;
  std::string umlauts;
  for (int i = 0; i < 125; ++i) umlauts += "\xC3\xA4";
  const auto one = names.nameOf({"1"}, umlauts + ".txt", false);
  const auto two = names.nameOf({"2"}, umlauts + ".txt", false);
  EXPECT_EQ(one.size(), 244U);
  EXPECT_TRUE(one.ends_with("\xC3\xA4.txt"));
  EXPECT_LE(two.size(), TrashNames::MAX_NAME);
  EXPECT_TRUE(two.ends_with("\xC3\xA4 2.txt"));
  const auto cut = names.nameOf({"3"}, std::string(4000, 'x'), false);
  EXPECT_LE(cut.size(), TrashNames::MAX_NAME);
  EXPECT_NE(names.nameOf({"4"}, std::string(4000, 'x'), false), cut);
}

TEST(TrashNamesTest, AHundredThousandEqualNamesTakeNoLongerThanAnyOthers) {
  TrashNames names;
  std::set<std::string> seen;
  for (int i = 0; i < 100'000; ++i) seen.insert(names.nameOf({fmt::format("{}", i)}, "a.txt", false));
  EXPECT_EQ(seen.size(), 100'000U);
  EXPECT_EQ(names.nameOf({"99999"}, "a.txt", false), "a 100000.txt");
}

}  // namespace
}  // namespace vondle
