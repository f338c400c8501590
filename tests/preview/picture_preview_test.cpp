#include <unistd.h>

#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "preview/preview_samples.h"

namespace vondle {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int LOSSY = 16;

MATCHER_P2(IsNear, colour, tolerance, "") {
  return isNear(arg, colour, tolerance);
}

void expectQuarters(const Preview& preview, const std::array<Colour, 4>& expected, int tolerance = LOSSY) {
  const auto quarters = preview.quarters();
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_THAT(quarters[i], IsNear(expected[i], tolerance)) << i;
}

class PicturePreviewTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    makeQuarters("quarters.png", 1200, 800);
    run("vips copy quarters.png quarters.jpg[Q=95]");
  }

  // A plain picture with these options and of this colour.
  static std::string plain(const std::string& name, const std::string& options, const std::string& colour) {
    run(fmt::format("/usr/bin/convert -size 600x500 xc:'{}' {} {}", colour, options, name));
    return sample(name.substr(name.find(':') + 1));
  }
};

struct FormatCase {
  const char* name;
  const char* command;
};

TEST_F(PicturePreviewTest, ReadsEveryUsualFormat) {
  const FormatCase cases[] = {
      {"f.jpg", "vips copy quarters.png f.jpg"},
      {"progressive.jpg", "vips copy quarters.png progressive.jpg[interlace]"},
      {"f.png", "vips copy quarters.png f.png"},
      {"interlaced.png", "vips copy quarters.png interlaced.png[interlace]"},
      {"f.webp", "vips copy quarters.png f.webp"},
      {"lossless.webp", "vips copy quarters.png lossless.webp[lossless]"},
      {"f.gif", "/usr/bin/convert quarters.png f.gif"},
      {"f.tif", "vips copy quarters.png f.tif[compression=lzw]"},
      {"tiled.tif", "vips copy quarters.png tiled.tif[tile,compression=jpeg]"},
      {"f.heic", "heif-enc -q 80 quarters.jpg -o f.heic"},
      {"f.avif", "heif-enc -A -q 80 quarters.jpg -o f.avif"},
      {"f.jxl", "cjxl quarters.png f.jxl -e 3"},
      {"png-inside.jpg", "cp quarters.png png-inside.jpg"},
      {"without-extension", "cp quarters.png without-extension"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    run(test.command);
    const auto preview = previewOfPicture(sample(test.name));
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->size(), "400x267");
    expectQuarters(*preview, {RED, GREEN, BLUE, YELLOW});
  }
}

struct SizeCase {
  int width;
  int height;
  const char* extension;
  const char* expected;
};

TEST_F(PicturePreviewTest, TheLongerSideIsFourHundredAndSmallerPicturesKeepTheirSize) {
  const SizeCase cases[] = {{800, 1200, "jpg", "267x400"}, {401, 400, "png", "400x399"}, {401, 400, "jpg", "400x399"},
                            {400, 400, "webp", "400x400"}, {400, 10, "png", "400x10"},   {120, 90, "jpg", "120x90"},
                            {8000, 1, "png", "400x1"},     {3, 600, "png", "2x400"},     {1, 1, "png", "1x1"},
                            {5003, 3001, "jpg", "400x240"}};
  for (const auto& test : cases) {
    const auto name = fmt::format("{}x{}.{}", test.width, test.height, test.extension);
    run(fmt::format("/usr/bin/convert -size {}x{} xc:teal {}", test.width, test.height, name));
    const auto preview = previewOfPicture(sample(name));
    ASSERT_TRUE(preview) << name;
    EXPECT_EQ(preview->size(), test.expected) << name;
  }
}

TEST_F(PicturePreviewTest, APyramidIsReadAtALevelThatIsLargeEnough) {
  makeQuarters("base.png", 2048, 1024);
  run("vips tiffsave base.png pyramid.tif --pyramid --tile --tile-width 128 --tile-height 128");
  const auto preview = previewOfPicture(sample("pyramid.tif"));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), "400x200");
  expectQuarters(*preview, {RED, GREEN, BLUE, YELLOW});
}

struct OrientationCase {
  int orientation;
  std::array<Colour, 4> quarters;
};

constexpr OrientationCase ORIENTATIONS[] = {{1, {RED, GREEN, BLUE, YELLOW}}, {2, {GREEN, RED, YELLOW, BLUE}},
                                            {3, {YELLOW, BLUE, GREEN, RED}}, {4, {BLUE, YELLOW, RED, GREEN}},
                                            {5, {RED, BLUE, GREEN, YELLOW}}, {6, {BLUE, RED, YELLOW, GREEN}},
                                            {7, {YELLOW, GREEN, BLUE, RED}}, {8, {GREEN, YELLOW, RED, BLUE}}};

TEST_F(PicturePreviewTest, TurnsPicturesUprightForEveryOrientation) {
  run("exiftool -q -n -Orientation=1 -o turned.jpg quarters.jpg");
  auto bytes = readSample("turned.jpg");
  const auto tag = bytes.find(std::string("\x12\x01\x03\0\x01\0\0\0\x01\0", 10));
  ASSERT_NE(tag, std::string::npos);
  for (const auto& test : ORIENTATIONS) {
    SCOPED_TRACE(test.orientation);
    bytes[tag + 8] = static_cast<char>(test.orientation);
    const auto preview = previewOfPicture(writeSample("turned.jpg", bytes));
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->size(), test.orientation < 5 ? "400x267" : "267x400");
    expectQuarters(*preview, test.quarters);
  }
}

TEST_F(PicturePreviewTest, TurnsPicturesUprightInEveryFormatThatCanSaySo) {
  run("rm -f sideways.*; exiftool -q -n -Orientation=6 -o sideways.jpg quarters.jpg; vips copy sideways.jpg "
      "sideways.webp; "
      "cjxl sideways.jpg sideways.jxl; vips copy quarters.png upright.tif; "
      "exiftool -q -n -Orientation=6 -o sideways.tif upright.tif; exiftool -q -n -Orientation=6 -o sideways.png "
      "quarters.png");
  for (const char* extension : {"webp", "jxl", "tif", "png"}) {
    SCOPED_TRACE(extension);
    const auto preview = previewOfPicture(sample(std::string("sideways.") + extension));
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->size(), "267x400");
    expectQuarters(*preview, {BLUE, RED, YELLOW, GREEN});
  }
}

TEST_F(PicturePreviewTest, TurnsAHeicOnceThoughItSaysSoTwice) {
  run("exiftool -q -n -Orientation=6 -o sideways.jpg quarters.jpg; heif-enc -q 80 sideways.jpg -o turned.heic");
  auto bytes = readSample("turned.heic");
  ASSERT_THAT(bytes, HasSubstr("Exif"));
  // The box about bits per channel, which nobody needs, makes room for the one about rotation: three quarter turns
  // anticlockwise, as the EXIF part says in its way.
  const auto box = bytes.find("pixi");
  ASSERT_NE(box, std::string::npos);
  ASSERT_EQ(bytes.substr(box - 4, 4), std::string("\0\0\0\x10", 4));
  bytes.replace(box, 12, std::string("irot\3\0\0\0\0\0\0\0", 12));
  const auto preview = previewOfPicture(writeSample("turned.heic", bytes));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), "267x400");
  expectQuarters(*preview, {BLUE, RED, YELLOW, GREEN});
}

struct ColourCase {
  const char* name;
  const char* options;
  const char* colour;
  Colour expected;
  int tolerance;
};

TEST_F(PicturePreviewTest, WhatIsTransparentBecomesWhite) {
  const ColourCase cases[] = {
      {"PNG32:clear.png", "", "rgba(0,0,0,0)", WHITE, 1},
      {"PNG64:clear16.png", "-depth 16", "rgba(0,0,0,0)", WHITE, 1},
      {"PNG32:half.png", "", "rgba(200,60,30,0.5)", {228, 158, 143}, 4},
      {"PNG64:half16.png", "-depth 16", "rgba(200,60,30,0.5)", {228, 158, 143}, 4},
      {"clear-grey.png", "-colorspace gray -define png:color-type=4", "rgba(0,0,0,0)", WHITE, 1},
      {"PNG8:clear-palette.png", "", "rgba(0,0,0,0)", WHITE, 1},
      {"clear.gif", "", "rgba(0,0,0,0)", WHITE, 1},
      {"clear.webp", "-define webp:lossless=true", "rgba(0,0,0,0)", WHITE, 1},
      {"clear.tif", "", "rgba(0,0,0,0)", WHITE, 1},
  };
  for (const auto& test : cases) {
    const auto preview = previewOfPicture(plain(test.name, test.options, test.colour));
    ASSERT_TRUE(preview) << test.name;
    EXPECT_THAT(preview->centre(), IsNear(test.expected, test.tolerance)) << test.name;
    EXPECT_THAT(preview->at(0, 0), IsNear(test.expected, test.tolerance)) << test.name;
  }
}

TEST_F(PicturePreviewTest, ColoursStayWhatTheyAreInEveryKindOfPicture) {
  const Colour brick = {200, 60, 30};
  const ColourCase cases[] = {
      {"PNG24:plain.png", "", "rgb(200,60,30)", brick, 3},
      {"plain.jpg", "-quality 98", "rgb(200,60,30)", brick, 4},
      {"PNG48:deep.png", "-depth 16", "rgb(200,60,30)", brick, 3},
      {"deep.tif", "-depth 16", "rgb(200,60,30)", brick, 3},
      {"PNG8:palette.png", "", "rgb(200,60,30)", brick, 3},
      {"grey.png", "-colorspace gray -define png:color-type=0", "rgb(90,90,90)", {90, 90, 90}, 3},
      {"grey16.png",
       "-colorspace gray -depth 16 -define png:color-type=0 -define png:bit-depth=16",
       "rgb(90,90,90)",
       {90, 90, 90},
       3},
      {"grey.jpg", "-colorspace gray -quality 98", "rgb(90,90,90)", {90, 90, 90}, 3},
      {"bilevel.png", "-define png:color-type=0 -define png:bit-depth=1", "white", WHITE, 1},
      {"bilevel.tif", "-compress Group4 -monochrome", "black", {0, 0, 0}, 1},
      {"lab.tif", "-colorspace Lab", "rgb(200,60,30)", brick, 6},
      {"lossless.webp", "-define webp:lossless=true", "rgb(200,60,30)", brick, 4},
  };
  for (const auto& test : cases) {
    const auto preview = previewOfPicture(plain(test.name, test.options, test.colour));
    ASSERT_TRUE(preview) << test.name;
    EXPECT_THAT(preview->centre(), IsNear(test.expected, test.tolerance)) << test.name;
  }
}

TEST_F(PicturePreviewTest, AColourProfileIsHeededAndABrokenOneIsNot) {
  const Colour brick = {200, 60, 30};
  plain("PNG24:brick.png", "", "rgb(200,60,30)");
  run("vips icc_transform brick.png wide.jpg[Q=98] p3 --input-profile srgb; exiftool -icc_profile -b wide.jpg "
      ">wide.icc");
  // The numbers in the file are others; the profile says what they mean.
  const auto wide = previewOfPicture(sample("wide.jpg"));
  ASSERT_TRUE(wide);
  EXPECT_THAT(wide->centre(), IsNear(brick, 4));
  run("rm -f stripped.jpg; exiftool -q -icc_profile= -o stripped.jpg wide.jpg");
  const auto stripped = previewOfPicture(sample("stripped.jpg"));
  ASSERT_TRUE(stripped);
  EXPECT_THAT(stripped->centre(), Not(IsNear(brick, 8)));

  // A profile for colours in a grey picture, and one whose inside is noise.
  run("/usr/bin/convert -size 600x500 xc:'gray(90)' -colorspace gray -quality 98 grey-tagged.jpg; "
      "exiftool -q -overwrite_original '-icc_profile<=wide.icc' grey-tagged.jpg");
  const auto grey = previewOfPicture(sample("grey-tagged.jpg"));
  ASSERT_TRUE(grey);
  EXPECT_THAT(grey->centre(), IsNear(Colour{90, 90, 90}, 4));

  std::string profile = readSample("wide.icc");
  ASSERT_GT(profile.size(), 200u);
  for (std::size_t i = 128; i < profile.size(); ++i) profile[i] = static_cast<char>(i * 37);
  writeSample("noise.icc", profile);
  run("vips copy brick.png noise-tagged.jpg[Q=98]; "
      "exiftool -q -m -overwrite_original '-icc_profile<=noise.icc' noise-tagged.jpg");
  const auto noise = previewOfPicture(sample("noise-tagged.jpg"));
  ASSERT_TRUE(noise);
  EXPECT_THAT(noise->centre(), IsNear(brick, 4));
}

TEST_F(PicturePreviewTest, PrintingColoursComeOutWithAndWithoutTheirProfile) {
  plain("PNG24:brick.png", "", "rgb(200,60,30)");
  run("vips icc_transform brick.png cmyk.jpg[Q=98] cmyk --input-profile srgb; "
      "rm -f bare.jpg; exiftool -q -icc_profile= -o bare.jpg cmyk.jpg; vips copy cmyk.jpg cmyk.tif");
  for (const char* name : {"cmyk.jpg", "bare.jpg", "cmyk.tif"}) {
    const auto preview = previewOfPicture(sample(name));
    ASSERT_TRUE(preview) << name;
    EXPECT_THAT(preview->centre(), IsNear(Colour{205, 61, 41}, 8)) << name;
  }
}

TEST_F(PicturePreviewTest, ShowsTheFirstOfSeveralPictures) {
  run("/usr/bin/convert -delay 10 -size 600x500 xc:'rgb(220,30,30)' xc:'rgb(40,60,200)' several.gif; "
      "/usr/bin/convert -size 600x500 xc:'rgb(220,30,30)' xc:'rgb(40,60,200)' several.tif; "
      "vips copy several.gif[n=-1] several.webp[lossless]");
  for (const char* name : {"several.gif", "several.tif", "several.webp"}) {
    const auto preview = previewOfPicture(sample(name));
    ASSERT_TRUE(preview) << name;
    EXPECT_EQ(preview->size(), "400x333") << name;
    EXPECT_THAT(preview->centre(), IsNear(RED, LOSSY)) << name;
  }
}

struct EmbeddedCase {
  const char* size;
  Colour expected;
};

TEST_F(PicturePreviewTest, AnEmbeddedThumbnailServesOnlyWhenItIsLargeEnough) {
  const EmbeddedCase cases[] = {{"160x120", RED}, {"399x300", RED}, {"400x300", BLUE}, {"480x360", BLUE}};
  plain("large.jpg", "-resize 1200x900! -quality 95", "rgb(220,30,30)");
  for (const auto& test : cases) {
    run(
        fmt::format("/usr/bin/convert -size {} xc:'rgb(40,60,200)' -quality 95 -strip small.jpg; rm -f both.jpg; "
                    "exiftool -q -n -Orientation=6 '-ThumbnailImage<=small.jpg' -o both.jpg large.jpg",
                    test.size));
    const auto preview = previewOfPicture(sample("both.jpg"));
    ASSERT_TRUE(preview) << test.size;
    EXPECT_EQ(preview->size(), "300x400") << test.size;
    EXPECT_THAT(preview->centre(), IsNear(test.expected, LOSSY)) << test.size;
  }
}

TEST_F(PicturePreviewTest, ABrokenEmbeddedThumbnailIsPassedOver) {
  plain("large.jpg", "-resize 1200x900! -quality 95", "rgb(220,30,30)");
  run("/usr/bin/convert -size 480x360 plasma:fractal -seed 1 -quality 90 -strip small.jpg; head -c 3000 small.jpg "
      ">cut.jpg; "
      "rm -f both.jpg; exiftool -q -m '-ThumbnailImage<=cut.jpg' -o both.jpg large.jpg");
  const auto preview = previewOfPicture(sample("both.jpg"));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), "400x300");
  EXPECT_THAT(preview->centre(), IsNear(RED, LOSSY));
}

TEST_F(PicturePreviewTest, TellsNothingOfWhereAndWithWhatThePictureWasTaken) {
  run("rm -f secret.jpg; exiftool -q -n -GPSLatitude=48.2 -GPSLatitudeRef=N -Model=SecretCamera -Comment=SecretComment "
      "-XMP-dc:Creator=SecretPerson -o secret.jpg quarters.jpg");
  const auto preview = previewOfPicture(sample("secret.jpg"));
  ASSERT_TRUE(preview);
  for (const char* trace : {"Exif", "Secret", "http://ns.adobe.com", "ICC_PROFILE"})
    EXPECT_THAT(preview->jpeg, Not(HasSubstr(trace)));
}

TEST_F(PicturePreviewTest, ThePreviewIsSmallAndNotWorn) {
  run("/usr/bin/convert -size 1600x1200 plasma:red-blue -seed 3 -quality 92 busy.jpg");
  const auto preview = previewOfPicture(sample("busy.jpg"));
  ASSERT_TRUE(preview);
  EXPECT_LT(preview->jpeg.size(), 80'000u);
  run("vips thumbnail busy.jpg wanted.jpg[Q=82,strip,optimize_coding] 400");
  const auto wanted = static_cast<double>(readSample("wanted.jpg").size());
  EXPECT_NEAR(static_cast<double>(preview->jpeg.size()), wanted, wanted * 0.02);
}

TEST_F(PicturePreviewTest, OfATruncatedPictureThereIsNone) {
  run("heif-enc -q 80 quarters.jpg -o whole.heic; vips copy quarters.png whole.webp; cp quarters.png whole.png; "
      "/usr/bin/convert -size 1200x800 plasma:red-blue -seed 5 whole.jpg");
  for (const char* extension : {"jpg", "png", "webp", "heic"}) {
    const auto bytes = readSample(std::string("whole.") + extension);
    ASSERT_TRUE(previewOfPicture(sample(std::string("whole.") + extension))) << extension;
    const auto path = writeSample(std::string("cut.") + extension, bytes.substr(0, bytes.size() * 2 / 3));
    EXPECT_FALSE(previewOfPicture(path)) << extension;
  }
}

TEST_F(PicturePreviewTest, HarmlessFlawsDoNotMatter) {
  const auto path = writeSample("trailing.jpg", readSample("quarters.jpg") + std::string(5000, 'x'));
  EXPECT_TRUE(previewOfPicture(path));
}

TEST_F(PicturePreviewTest, KindsThatAreLeftToTheServerGiveNone) {
  run("cp quarters.png base.png");
  writeSample(
      "a.svg",
      "<svg xmlns='http://www.w3.org/2000/svg' xmlns:xlink='http://www.w3.org/1999/xlink' width='500' height='400'>"
      "<rect width='500' height='400' fill='red'/><image xlink:href='base.png' width='500' height='400'/></svg>");
  run("gzip -c a.svg >a.svgz; for kind in bmp psd ico ppm exr jp2 pdf miff; do /usr/bin/convert base.png -resize 200x "
      "a.$kind || rm -f a.$kind; done");
  writeSample("a.txt", "no picture at all");
  writeSample("empty.jpg", "");
  writeSample("script.jpg", "push graphic-context\nimage over 0,0 0,0 'https://127.0.0.1/x'\npop graphic-context\n");
  int seen = 0;
  for (const char* name : {"a.svg", "a.svgz", "a.bmp", "a.psd", "a.ico", "a.ppm", "a.exr", "a.jp2", "a.pdf", "a.miff",
                           "a.txt", "empty.jpg", "script.jpg"}) {
    if (access(sample(name).c_str(), R_OK) != 0) continue;  // this build of the sample maker does not write it
    ++seen;
    EXPECT_FALSE(previewOfPicture(sample(name))) << name;
    // Nor does another name make it one; and the helper, which is not even asked about it, would not read it.
    run(fmt::format("cp {} disguised.png", name));
    EXPECT_FALSE(previewOfPicture(sample("disguised.png"))) << name;
    EXPECT_NO_THROW(run(fmt::format("if '{}' picture 400 82 <{} >preview; then false; fi",
                                    HelperPreviewRenderer::helperBesideProgram(), name)));
  }
  EXPECT_GE(seen, 9);
}

TEST_F(PicturePreviewTest, ARawPictureIsNotTakenForTheTinyOneInIt) {
  run("vips copy quarters.png raw.tif; cp raw.tif raw.dng");
  EXPECT_TRUE(previewOfPicture(sample("raw.tif")));
  EXPECT_FALSE(previewOfPicture(sample("raw.dng")));
}

}  // namespace
}  // namespace vondle
