#include "platform/linux/preview_helper/pixels.h"

#include <cstdint>
#include <cstdlib>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Pointwise;

MATCHER(IsWithinOne, "") {
  return std::abs(std::get<0>(arg) - std::get<1>(arg)) <= 1;
}

TEST(Pixels, ANewPixelIsTheMeanOfWhatItCovers) {
  const Pixels picture{.width = 4, .height = 2, .bands = 3, .values = {10, 0, 255, 20, 0, 255, 90, 1, 255, 90, 1, 255,
                                                                       30, 0, 255, 40, 0, 255, 90, 1, 255, 94, 3, 255}};
  const auto half = scaledDown(picture, 2, 1);
  EXPECT_EQ(half.width, 2);
  EXPECT_EQ(half.height, 1);
  EXPECT_EQ(half.bands, 3);
  EXPECT_THAT(half.values, ElementsAre(25, 0, 255, 91, 2, 255));
  EXPECT_THAT(scaledDown(picture, 1, 1).values, ElementsAre(58, 1, 255));
}

TEST(Pixels, WhatLiesOnABorderIsShared) {
  const Pixels row{.width = 3, .height = 1, .bands = 3, .values = {0, 0, 0, 90, 60, 30, 240, 240, 240}};
  EXPECT_THAT(scaledDown(row, 2, 1).values, ElementsAre(30, 20, 10, 190, 180, 170));
  const Pixels column{.width = 1, .height = 3, .bands = 3, .values = row.values};
  EXPECT_THAT(scaledDown(column, 1, 2).values, ElementsAre(30, 20, 10, 190, 180, 170));
}

TEST(Pixels, WithTheSameSizeItIsTheSamePicture) {
  std::mt19937 random(1);
  Pixels picture{.width = 31, .height = 17, .bands = 3, .values = std::vector<std::uint8_t>(std::size_t{31} * 17 * 3)};
  for (auto& value : picture.values) value = static_cast<std::uint8_t>(random());
  EXPECT_THAT(scaledDown(picture, 31, 17).values, ElementsAreArray(picture.values));
}

TEST(Pixels, OneColourStaysTheSameInEverySize) {
  for (const std::uint8_t value : {0, 127, 255}) {
    const Pixels picture{
        .width = 1024, .height = 1021, .bands = 3, .values = std::vector(std::size_t{1024} * 1021 * 3, value)};
    for (const auto& [width, height] : {std::pair(1, 1), {1024, 1}, {1, 1021}, {512, 511}, {1023, 1020}, {700, 3}}) {
      const std::vector wanted(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3, value);
      EXPECT_TRUE(scaledDown(picture, width, height).values == wanted) << width << "x" << height;
    }
  }
}

TEST(Pixels, ColoursCountAsMuchAsTheyCanBeSeen) {
  const Pixels picture{
      .width = 4, .height = 1, .bands = 4, .values = {200, 100, 50, 255, 9, 9, 9, 0, 200, 0, 0, 192, 0, 200, 0, 64}};
  EXPECT_THAT(scaledDown(picture, 2, 1).values, Pointwise(IsWithinOne(), {200, 100, 50, 128, 150, 50, 0, 128}));
  const Pixels clear{.width = 2, .height = 1, .bands = 4, .values = {200, 100, 50, 0, 9, 9, 9, 0}};
  EXPECT_THAT(scaledDown(clear, 1, 1).values, ElementsAre(0, 0, 0, 0));
}

}  // namespace
}  // namespace vondle
