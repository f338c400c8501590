#include "service/thumbnails/thumbnail_png.h"

#include <random>

#include <gmock/gmock.h>

namespace vondle::png {
namespace {

using testing::Optional;
using testing::Pair;
using testing::UnorderedElementsAre;

// A chunk with a wrong checksum can't be made by the functions under test.
std::string spoiled(std::string png, std::size_t position) {
  png.at(position) = static_cast<char>(png.at(position) ^ 1);
  return png;
}

TEST(ThumbnailPng, TheSmallestPictureIsOne) {
  const auto size = sizeOf(onePixel(), 1);
  ASSERT_TRUE(size);
  EXPECT_EQ(size->width, 1u);
  EXPECT_EQ(size->height, 1u);
  EXPECT_FALSE(sizeOf(onePixel(), 0));
}

TEST(ThumbnailPng, WhatIsCutSpoiledOrFollowedBySomethingIsNone) {
  const auto png = onePixel();
  for (std::size_t size = 0; size < png.size(); ++size) EXPECT_FALSE(sizeOf(png.substr(0, size), 9)) << size;
  for (std::size_t i = 0; i < png.size(); ++i) EXPECT_FALSE(sizeOf(spoiled(png, i), 9)) << i;
  EXPECT_FALSE(sizeOf(png + "x", 9));
  EXPECT_FALSE(sizeOf(png + png, 9));
  EXPECT_FALSE(sizeOf("\xFF\xD8\xFF", 9));
}

TEST(ThumbnailPng, WhatHasOtherPartsIsNone) {
  EXPECT_FALSE(sizeOf(withTexts(onePixel(), {{"Comment", "hello"}}), 9));
}

TEST(ThumbnailPng, TextsAreReadAsTheyWereGiven) {
  const Texts texts = {{"Thumb::URI", "file:///home/a%20b"}, {"Thumb::MTime", "12"}, {"Software", ""}};
  EXPECT_EQ(textsOf(withTexts(onePixel(), texts)), texts);
  EXPECT_EQ(textsOf(onePixel()), Texts());
  EXPECT_EQ(textsOf("GIF89a"), std::nullopt);
}

TEST(ThumbnailPng, OfTheBeginningOfAFileTheWholeTextsAreRead) {
  const auto png = withTexts(onePixel(), {{"A", "1"}, {"B", std::string(HEAD_BYTES, 'x')}});
  EXPECT_THAT(textsOf(png.substr(0, HEAD_BYTES)), Optional(UnorderedElementsAre(Pair("A", "1"))));
}

TEST(ThumbnailPng, ATextOfWrongChecksumDoesNotCount) {
  const auto png = withTexts(onePixel(), {{"Key", "value"}});
  EXPECT_EQ(textsOf(spoiled(png, png.find("value"))), Texts());
}

TEST(ThumbnailPng, OneTextIsExchangedAndTheRestStays) {
  const auto png = withTexts(onePixel(), {{"A", "1"}, {"B", "2"}, {"BB", "3"}});
  const auto changed = withText(png, "B", "something longer");
  ASSERT_TRUE(changed);
  EXPECT_EQ(textsOf(*changed), (Texts{{"A", "1"}, {"B", "something longer"}, {"BB", "3"}}));
  EXPECT_EQ(*withText(*changed, "B", "2"), png);
  EXPECT_EQ(withText(png, "C", "4"), std::nullopt);
  EXPECT_EQ(withText("GIF89a", "B", "4"), std::nullopt);
  EXPECT_EQ(withText(png.substr(0, 20), "B", "4"), std::nullopt);
}

TEST(ThumbnailPng, NoBytesAreReadBeyondTheEnd) {
  std::mt19937 random(7);
  const auto png = withTexts(onePixel(), {{"Thumb::URI", "file:///a"}, {"Thumb::MTime", "1"}});
  for (int round = 0; round < 20'000; ++round) {
    std::string bytes = png.substr(0, 8 + random() % (png.size() - 8));
    for (int i = 0; i < 3; ++i) bytes[8 + random() % (bytes.size() - 8 + 1) - 1] = static_cast<char>(random());
    EXPECT_FALSE(sizeOf(bytes, 9));
    textsOf(bytes);
    withText(bytes, "Thumb::URI", "file:///b");
  }
}

}  // namespace
}  // namespace vondle::png
