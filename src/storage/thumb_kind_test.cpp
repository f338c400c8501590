#include "storage/thumb_kind.h"

#include <gtest/gtest.h>

namespace vondle::storage {
namespace {

TEST(ThumbKindTest, TheExtensionDecides) {
  const struct {
    const char* name;
    ThumbKind expected;
  } cases[] = {
      {"a.jpg", ThumbKind::picture},   {"A.JPG", ThumbKind::picture},  {"photo.HEIC", ThumbKind::picture},
      {"a.b.png", ThumbKind::picture}, {"clip.MOV", ThumbKind::video}, {"clip.mp4", ThumbKind::video},
      {"a.mp4.txt", ThumbKind::none},  {"a.svg", ThumbKind::none},     {"a.nef", ThumbKind::none},
      {"a.pdf", ThumbKind::none},      {"jpg", ThumbKind::none},       {".jpg", ThumbKind::none},
      {"a.", ThumbKind::none},         {"", ThumbKind::none},          {"a.jpg ", ThumbKind::none},
  };
  for (const auto& [name, expected] : cases) EXPECT_EQ(thumbKindOf(name), expected) << name;
}

TEST(ThumbKindTest, OnlyFilesWithBytesOfSuchAKindAreExpectedToHaveOne) {
  EXPECT_TRUE(hasThumb({.name = "a.jpg", .size = 1}));
  EXPECT_FALSE(hasThumb({.name = "a.jpg", .size = 0}));
  EXPECT_FALSE(hasThumb({.name = "a.jpg", .isFolder = true, .size = 1}));
  EXPECT_FALSE(hasThumb({.name = "a.txt", .size = 1}));
}

TEST(ThumbKindTest, WhatIsKnownGoesBeforeWhatIsExpected) {
  EXPECT_TRUE(hasThumb({.name = "a.txt", .size = 1, .thumb = Thumb::stored}));
  EXPECT_FALSE(hasThumb({.name = "a.jpg", .size = 1, .thumb = Thumb::impossible}));
}

}  // namespace
}  // namespace vondle::storage
