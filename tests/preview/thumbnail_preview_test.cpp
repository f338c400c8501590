// Thumbnails made by the real helper.

#include <unistd.h>
#include <vips/vips.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <string>

#include <gmock/gmock.h>

#include "platform/linux/helper_picture_scaler.h"
#include "preview/preview_samples.h"
#include "service/thumbnails/thumbnail_cache.h"
#include "service/thumbnails/thumbnail_png.h"

namespace vondle {
namespace {

using testing::ElementsAre;

class ThumbnailTest : public testing::Test {
 protected:
  ThumbnailTest() { EXPECT_EQ(VIPS_INIT("tests"), 0); }

  std::optional<ScaledPicture> scale(const std::string& bytes) {
    std::promise<std::optional<ScaledPicture>> promise;
    scaler_.scale(bytes, [&promise](std::optional<ScaledPicture> scaled) { promise.set_value(std::move(scaled)); });
    return promise.get_future().get();
  }
  std::vector<std::string> sizes(const std::string& name) {
    std::vector<std::string> sizes;
    const auto scaled = scale(readSample(name));
    EXPECT_TRUE(scaled && ThumbnailCache::isAcceptable(*scaled)) << name;
    for (const auto& png : scaled.value_or(ScaledPicture()))
      if (const auto size = png::sizeOf(png, 512))
        sizes.push_back(std::to_string(size->width) + "x" + std::to_string(size->height));
    return sizes;
  }
  // The colours in the middle of the quarters.
  static std::vector<Colour> quarters(const std::string& png) {
    VipsImage* image = vips_image_new_from_buffer(png.data(), png.size(), "", nullptr);
    std::vector<Colour> colours;
    for (const auto& [x, y] : {std::pair(1, 1), {3, 1}, {1, 3}, {3, 3}}) {
      double* values = nullptr;
      int count = 0;
      EXPECT_EQ(vips_getpoint(image, &values, &count, vips_image_get_width(image) * x / 4,
                              vips_image_get_height(image) * y / 4, nullptr),
                0);
      colours.push_back({static_cast<int>(values[0]), static_cast<int>(values[1]), static_cast<int>(values[2])});
      g_free(values);
    }
    g_object_unref(image);
    return colours;
  }

  HelperPictureScaler scaler_;
};

TEST_F(ThumbnailTest, EverySizeHasItsLongerSideOrThePicturesOwn) {
  makeQuarters("400x300.png", 400, 300);
  makeQuarters("300x400.png", 300, 400);
  makeQuarters("90x60.png", 90, 60);
  makeQuarters("960x240.png", 960, 240);
  run("/usr/bin/convert 400x300.png -quality 90 400x300.jpg");
  EXPECT_THAT(sizes("400x300.jpg"), ElementsAre("128x96", "256x192", "400x300"));
  EXPECT_THAT(sizes("400x300.png"), ElementsAre("128x96", "256x192", "400x300"));
  EXPECT_THAT(sizes("300x400.png"), ElementsAre("96x128", "192x256", "300x400"));
  EXPECT_THAT(sizes("960x240.png"), ElementsAre("128x32", "256x64", "512x128"));
  EXPECT_THAT(sizes("90x60.png"), ElementsAre("90x60", "90x60", "90x60"));
  const auto small = scale(readSample("90x60.png"));
  ASSERT_TRUE(small);
  EXPECT_EQ((*small)[1], (*small)[2]) << "by which the largest is left out";
}

TEST_F(ThumbnailTest, ColoursAreRightAndPicturesUpright) {
  makeQuarters("upright.png", 400, 400);
  run("/usr/bin/convert upright.png -quality 95 upright.jpg; /usr/bin/convert upright.jpg -rotate 270 turned.jpg;"
      "exiftool -q -overwrite_original -n -Orientation=6 turned.jpg");
  for (const auto* name : {"upright.png", "upright.jpg", "turned.jpg"}) {
    const auto scaled = scale(readSample(name));
    ASSERT_TRUE(scaled) << name;
    for (const auto& png : *scaled) {
      const auto colours = quarters(png);
      const Colour wanted[] = {RED, GREEN, BLUE, YELLOW};
      for (int i = 0; i < 4; ++i) EXPECT_TRUE(isNear(colours[i], wanted[i], 12)) << name << " " << i;
    }
  }
}

TEST_F(ThumbnailTest, AllKindsOfPicturesCanBeGivenToOthers) {
  makeQuarters("kind.png", 400, 300);
  run("/usr/bin/convert kind.png kind.webp; /usr/bin/convert kind.png kind.gif;"
      "/usr/bin/convert kind.png -colorspace gray grey.jpg; /usr/bin/convert kind.png -colorspace CMYK cmyk.jpg;"
      "/usr/bin/convert kind.png -alpha set -channel A -evaluate set 50% clear.png;"
      "/usr/bin/convert kind.png -depth 16 PNG48:deep.png; /usr/bin/convert kind.png -monochrome bits.png;"
      "/usr/bin/convert kind.png -set comment evil -set Thumb::URI file:///etc/passwd texts.png");
  for (const auto* name :
       {"kind.webp", "kind.gif", "grey.jpg", "cmyk.jpg", "clear.png", "deep.png", "bits.png", "texts.png"})
    EXPECT_THAT(sizes(name), ElementsAre("128x96", "256x192", "400x300")) << name;
}

TEST_F(ThumbnailTest, WhatIsNoPictureIsTooLargeOrIsCutHasNoneAndHarmsNoOther) {
  makeQuarters("good.png", 400, 300);
  run("/usr/bin/convert good.png -quality 90 good.jpg; vips black huge.png[compression=9,bitdepth=1] 6000 5000;"
      "printf '<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"9\" height=\"9\"/>' >drawing.svg");
  const auto jpeg = readSample("good.jpg"), png = readSample("good.png");
  const std::pair<const char*, std::string> cases[] = {
      {"nothing", ""},
      {"text", "<html>Service unavailable</html>"},
      {"zeros", std::string(100'000, '\0')},
      {"30 million pixels", readSample("huge.png")},
      {"a drawing", readSample("drawing.svg")},
      {"half a JPEG", jpeg.substr(0, jpeg.size() / 2)},
      {"half a PNG", png.substr(0, png.size() / 2)},
      {"too many bytes", std::string(PictureScaler::MAX_PICTURE_BYTES + 1, 'x')},
  };
  for (const auto& [what, bytes] : cases) {
    EXPECT_FALSE(scale(bytes)) << what;
    EXPECT_TRUE(scale(jpeg)) << "after " << what;
  }
}

TEST_F(ThumbnailTest, DamagedPicturesGiveNoneOrWhatCanBeGivenToOthers) {
  makeQuarters("whole.png", 200, 150);
  run("/usr/bin/convert whole.png -quality 90 whole.jpg; /usr/bin/convert whole.png whole.webp;"
      "/usr/bin/convert whole.png whole.gif");
  std::mt19937 random(11);
  int made = 0;
  for (const auto* name : {"whole.png", "whole.jpg", "whole.webp", "whole.gif"}) {
    const auto whole = readSample(name);
    for (int round = 0; round < 20; ++round) {
      auto bytes = whole;
      for (int i = 0; i < 4; ++i)
        bytes[random() % std::min<std::size_t>(bytes.size(), 400)] = static_cast<char>(random());
      const auto scaled = scale(bytes);
      made += scaled.has_value();
      EXPECT_TRUE(!scaled || ThumbnailCache::isAcceptable(*scaled)) << name << " " << round;
    }
  }
  EXPECT_GT(made, 0);
}

TEST_F(ThumbnailTest, TheHelperIsInItsSandboxWhenItHasPictures) {
  makeQuarters("any.png", 90, 60);
  ASSERT_TRUE(scale(readSample("any.png")));
  int found = 0;
  for (const auto& process : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(process.path() / "status");
    std::string text((std::istreambuf_iterator<char>(file)), {});
    if (!text.starts_with("Name:\tvondle-preview\n") ||
        text.find("\nPPid:\t" + std::to_string(::getpid()) + "\n") == std::string::npos)
      continue;
    ++found;
    EXPECT_NE(text.find("\nSeccomp:\t2\n"), std::string::npos);
    EXPECT_NE(text.find("\nNoNewPrivs:\t1\n"), std::string::npos);
  }
  EXPECT_EQ(found, 1);
}

}  // namespace
}  // namespace vondle
