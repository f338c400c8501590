#include "platform/linux/preview_helper/png_writer.h"

#include <vips/vips.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vondle {
namespace {

// As another program reads it.
std::optional<Pixels> decoded(const std::string& png) {
  VipsImage* image = nullptr;
  if (vips_pngload_buffer(const_cast<char*>(png.data()), png.size(), &image, "fail_on", VIPS_FAIL_ON_WARNING,
                          nullptr) != 0)
    return std::nullopt;
  std::size_t size = 0;
  auto* values = static_cast<std::uint8_t*>(vips_image_write_to_memory(image, &size));
  std::optional<Pixels> pixels;
  if (values)
    pixels = Pixels{.width = vips_image_get_width(image),
                    .height = vips_image_get_height(image),
                    .bands = vips_image_get_bands(image),
                    .values = {values, values + size}};
  g_free(values);
  g_object_unref(image);
  return pixels;
}

class PngWriterTest : public testing::Test {
 protected:
  PngWriterTest() { EXPECT_EQ(VIPS_INIT("tests"), 0); }

  static void expectItselfAgain(const Pixels& picture) {
    const auto again = decoded(encodePNG(picture));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->width, picture.width);
    EXPECT_EQ(again->height, picture.height);
    EXPECT_EQ(again->bands, picture.bands);
    EXPECT_EQ(again->values, picture.values);
  }
  static Pixels filledWith(int width, int height, int bands, auto&& value) {
    Pixels picture{.width = width, .height = height, .bands = bands, .values = {}};
    for (int i = 0; i < width * height * bands; ++i) picture.values.push_back(static_cast<std::uint8_t>(value(i)));
    return picture;
  }
};

TEST_F(PngWriterTest, WhatIsWrittenCanBeReadAgain) {
  std::mt19937 random(1);
  for (const int bands : {3, 4})
    for (const auto& [width, height] : {std::pair(1, 1), {1, 9}, {9, 1}, {2, 2}, {400, 267}})
      expectItselfAgain(filledWith(width, height, bands, [&](int) { return random(); }));
}

TEST_F(PngWriterTest, PlainAreasTakeNextToNothing) {
  const auto plain = filledWith(400, 300, 3, [](int i) { return i / 3 % 400 < 200 ? 40 : 200; });
  expectItselfAgain(plain);
  EXPECT_LT(encodePNG(plain).size(), 6'000u);
}

TEST_F(PngWriterTest, SmoothOnesTakeFarLessThanTheirPixels) {
  std::mt19937 random(1);
  const auto smooth = filledWith(400, 300, 3, [&](int i) { return i / 3 % 400 / 2 + random() % 4; });
  expectItselfAgain(smooth);
  EXPECT_LT(encodePNG(smooth).size(), smooth.values.size() / 2);
}

}  // namespace
}  // namespace vondle
