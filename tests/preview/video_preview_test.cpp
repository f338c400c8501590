#include <array>
#include <cmath>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "preview/preview_samples.h"

namespace vondle {
namespace {

constexpr int LOSSY = 18;

MATCHER_P2(IsNear, colour, tolerance, "") {
  return isNear(arg, colour, tolerance);
}

void expectQuarters(const Preview& preview, const std::array<Colour, 4>& expected) {
  const auto quarters = preview.quarters();
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_THAT(quarters[i], IsNear(expected[i], LOSSY)) << i;
}

void ffmpeg(const std::string& arguments) {
  run("ffmpeg -nostdin -y -v error -bitexact " + arguments);
}

constexpr const char* H264 = "-c:v libx264 -preset ultrafast -pix_fmt yuv420p";

// Grey that grows by 10.48 with each frame.
constexpr const char* COUNTING = "format=yuv420p,geq=lum='min(235,16+9*N)':cb=128:cr=128";

int frameNumberIn(const Preview& preview) {
  return static_cast<int>(std::lround(preview.centre()[0] / (9 * 255 / 219.0)));
}

// A video of such frames with one key frame at its start.
std::string counting(const std::string& name, double duration, const std::string& rate) {
  ffmpeg(fmt::format("-f lavfi -i \"color=black:s=64x64:r={},{}\" -t {} {} -g 9999 -qp 4 {}", rate, COUNTING, duration,
                     H264, name));
  return sample(name);
}

struct TimeCase {
  const char* name;
  double duration;
  const char* rate;
  int frame;
};

TEST(VideoPreviewTest, ShowsTheFrameAtOneSecondOrInTheMiddleOfAShortVideo) {
  const TimeCase cases[] = {{"short.mp4", 1.2, "10", 6},   {"shorter.MOV", 0.5, "20", 5},
                            {"almost.m4v", 1.9, "20", 19}, {"two.mp4", 2.0, "10", 10},
                            {"long.mp4", 600, "2", 2},     {"one-frame.mp4", 0.1, "10", 0},
                            {"between.mp4", 5, "1/0.7", 1}};
  for (const auto& test : cases) {
    const auto preview = previewOfVideo(counting(test.name, test.duration, test.rate));
    ASSERT_TRUE(preview) << test.name;
    EXPECT_EQ(frameNumberIn(*preview), test.frame) << test.name;
    EXPECT_EQ(preview->size(), "64x64");
  }
}

TEST(VideoPreviewTest, FindsTheFrameAlsoBetweenKeyFramesAndWithReorderedFrames) {
  ffmpeg(fmt::format("-f lavfi -i \"color=black:s=64x64:r=20,{}\" -t 1.3 -c:v libx264 -bf 3 -g 7 -qp 4 reordered.mp4",
                     COUNTING));
  const auto preview = previewOfVideo(sample("reordered.mp4"));
  ASSERT_TRUE(preview);
  EXPECT_EQ(frameNumberIn(*preview), 13);
}

class QuartersVideoTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { makeQuarters("quarters.png", 640, 480); }

  static void encode(const std::string& name, const std::string& options) {
    ffmpeg("-loop 1 -r 10 -t 0.5 -i quarters.png " + options + " " + name);
  }
};

struct FormatCase {
  const char* name;
  const char* options;
  const char* size;
};

TEST_F(QuartersVideoTest, ReadsTheUsualFormatsAndFitsThemIntoTheBox) {
  const FormatCase cases[] = {
      {"h264.mp4", "-c:v libx264 -preset ultrafast -pix_fmt yuv420p", "640x480"},
      {"h264.mov", "-c:v libx264 -preset ultrafast -pix_fmt yuv444p -vf scale=1280:720:out_color_matrix=bt709",
       "960x540"},
      {"tall.m4v", "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -vf scale=720:1280:out_color_matrix=bt709",
       "720x1280"},
      {"hevc.mp4", "-c:v libx265 -x265-params log-level=none -preset ultrafast -pix_fmt yuv420p10le -tag:v hvc1",
       "640x480"},
      {"hevc.mov", "-c:v libx265 -x265-params log-level=none -preset ultrafast -pix_fmt yuv420p -tag:v hvc1",
       "640x480"},
      {"hevc.m4v", "-c:v libx265 -x265-params log-level=none -preset ultrafast -pix_fmt yuv420p -f mp4", "640x480"},
      {"mpeg4.mp4", "-c:v mpeg4 -q:v 2", "640x480"},
      {"h264.3gp", "-c:v libx264 -preset ultrafast -pix_fmt yuv420p", "640x480"},
      {"h263.3gp", "-c:v h263 -q:v 2 -vf scale=352:288,setsar=1 -r 29.97", "352x288"},
      {"anamorphic.mp4", "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -vf scale=720:576,setsar=16/11", "960x528"},
      {"prores.mov", "-c:v prores_ks -profile:v 4444 -pix_fmt yuva444p10le", "640x480"},
      {"fullrange.mp4", "-c:v libx264 -preset ultrafast -vf scale=out_range=full -pix_fmt yuvj420p", "640x480"},
      {"hd709.mp4",
       "-c:v libx264 -preset ultrafast -vf scale=1280:960:out_color_matrix=bt709 -pix_fmt yuv420p -colorspace bt709",
       "960x720"},
      {"untagged-hd.mp4", "-c:v libx264 -preset ultrafast -vf scale=1280:960:out_color_matrix=bt709 -pix_fmt yuv420p",
       "960x720"},
      {"sound.mp4", "-f lavfi -i sine=d=1 -shortest -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac",
       "640x480"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    encode(test.name, test.options);
    const auto preview = previewOfVideo(sample(test.name));
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->size(), test.size);
    expectQuarters(*preview, {RED, GREEN, BLUE, YELLOW});
  }
}

struct TurnCase {
  const char* what;
  std::array<int, 4> matrix;  // a b c d: the point (x, y) is shown at (a x + c y, b x + d y), y downwards
};

TEST_F(QuartersVideoTest, TurnsAndMirrorsAsTheTrackSays) {
  encode("turned.mp4", H264);
  auto bytes = readSample("turned.mp4");
  // 40 bytes after its name, the track header has its matrix of nine numbers.
  const auto matrix = bytes.find("tkhd") + 44;
  ASSERT_LT(matrix, bytes.size());
  const auto put = [&bytes](std::size_t at, int value) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(static_cast<unsigned>(value << 16) >> (24 - 8 * i));
  };
  const TurnCase cases[] = {{"upright", {1, 0, 0, 1}},        {"quarter clockwise", {0, 1, -1, 0}},
                            {"upside down", {-1, 0, 0, -1}},  {"quarter anticlockwise", {0, -1, 1, 0}},
                            {"left to right", {-1, 0, 0, 1}}, {"top to bottom", {1, 0, 0, -1}},
                            {"diagonal", {0, 1, 1, 0}},       {"other diagonal", {0, -1, -1, 0}}};
  constexpr std::array<Colour, 4> QUARTERS = {RED, GREEN, BLUE, YELLOW};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    const auto [a, b, c, d] = test.matrix;
    put(matrix, a);
    put(matrix + 4, b);
    put(matrix + 12, c);
    put(matrix + 16, d);
    const auto preview = previewOfVideo(writeSample("turned.mp4", bytes));
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->size(), a != 0 ? "640x480" : "480x640");
    std::array<Colour, 4> expected;
    for (int i = 0; i < 4; ++i) {
      const int x = i % 2 == 0 ? -1 : 1;
      const int y = i < 2 ? -1 : 1;
      const int shownX = a * x + c * y;
      const int shownY = b * x + d * y;
      expected[(shownY > 0 ? 2 : 0) + (shownX > 0 ? 1 : 0)] = QUARTERS[i];
    }
    expectQuarters(*preview, expected);
  }
}

TEST_F(QuartersVideoTest, ATurnedVideoIsFittedAfterTurning) {
  ffmpeg(fmt::format("-f lavfi -i color=red:s=1920x1080:r=10:d=0.5 {} flat.mp4", H264));
  run("ffmpeg -nostdin -y -v error -i flat.mp4 -c copy -metadata:s:v rotate=90 portrait.mp4");
  const auto preview = previewOfVideo(sample("portrait.mp4"));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), "960x1707");
}

TEST_F(QuartersVideoTest, WhatIsTransparentBecomesWhite) {
  ffmpeg("-f lavfi -i color=black@0:s=320x240:r=10:d=0.5,format=yuva444p10le -c:v prores_ks -profile:v 4444 clear.mov");
  const auto preview = previewOfVideo(sample("clear.mov"));
  ASSERT_TRUE(preview);
  EXPECT_THAT(preview->centre(), IsNear(WHITE, 2));
}

struct BrightCase {
  const char* name;
  const char* transfer;
  int luma;  // ten bits, narrow range
  int grey;
};

TEST_F(QuartersVideoTest, HighDynamicRangeIsShownAsOnAnOrdinaryScreen) {
  const BrightCase cases[] = {{"pq-black.mp4", "smpte2084", 64, 0},        {"pq-white.mp4", "smpte2084", 573, 228},
                              {"pq-peak.mp4", "smpte2084", 723, 255},      {"hlg-black.mp4", "arib-std-b67", 64, 0},
                              {"hlg-white.mp4", "arib-std-b67", 721, 228}, {"hlg-peak.mp4", "arib-std-b67", 940, 255}};
  for (const auto& test : cases) {
    ffmpeg(
        fmt::format("-f lavfi -i \"color=gray:s=64x64:r=10:d=0.5,format=yuv420p10le,geq=lum={}:cb=512:cr=512\" "
                    "-c:v libx265 -preset ultrafast -x265-params log-level=none:qp=4 -pix_fmt yuv420p10le "
                    "-color_primaries bt2020 -color_trc {} -colorspace bt2020nc -color_range tv {}",
                    test.luma, test.transfer, test.name));
    const auto preview = previewOfVideo(sample(test.name));
    ASSERT_TRUE(preview) << test.name;
    EXPECT_THAT(preview->centre(), IsNear(Colour{test.grey, test.grey, test.grey}, 6)) << test.name;
  }
}

TEST_F(QuartersVideoTest, OfATruncatedVideoThereIsAnEarlierFrame) {
  ffmpeg(fmt::format("-f lavfi -i testsrc2=s=320x240:r=25:d=3 {} -movflags +faststart whole.mp4", H264));
  const auto bytes = readSample("whole.mp4");
  const auto preview = previewOfVideo(writeSample("cut.mp4", bytes.substr(0, bytes.size() / 4)));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), "320x240");
}

TEST_F(QuartersVideoTest, WithoutAPictureInItThereIsNone) {
  ffmpeg("-f lavfi -i sine=d=1 -c:a aac sound.mp4");
  ffmpeg("-f lavfi -i sine=d=1 -i quarters.png -map 0 -map 1 -c:a aac -c:v png -disposition:v attached_pic cover.mp4");
  ffmpeg(fmt::format("-f lavfi -i testsrc2=s=320x240:r=25:d=1 {} plain.mp4", H264));
  ffmpeg(fmt::format("-f lavfi -i testsrc2=s=320x240:r=25:d=1 {} -f matroska matroska.mp4", H264));
  ffmpeg("-f lavfi -i testsrc2=s=320x240:r=25:d=1 -c:v mpeg4 -f avi avi.mov");
  const auto plain = readSample("plain.mp4");
  writeSample("without-index.mp4", plain.substr(0, plain.rfind("moov")));
  writeSample("empty.mov", "");
  writeSample("text.mov", "#EXTM3U\nfile:///etc/passwd\n");
  run("cp quarters.png picture.mp4");
  ASSERT_TRUE(previewOfVideo(sample("plain.mp4")));
  for (const char* name : {"sound.mp4", "cover.mp4", "matroska.mp4", "avi.mov", "without-index.mp4", "empty.mov",
                           "text.mov", "picture.mp4"})
    EXPECT_FALSE(previewOfVideo(sample(name))) << name;
}

}  // namespace
}  // namespace vondle
