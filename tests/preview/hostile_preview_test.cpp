#include <chrono>
#include <cstdint>
#include <random>
#include <semaphore>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "preview/preview_samples.h"

namespace vondle {
namespace {

using std::chrono::steady_clock;

// Nothing that is refused may take longer, nor anything that a mutation slowed down; on a busy machine.
constexpr auto PATIENCE = std::chrono::seconds(15);

std::string bigEndian(std::uint32_t value) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

std::uint32_t crc32(std::string_view bytes) {
  std::uint32_t crc = ~0u;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320u : 0);
  }
  return ~crc;
}

std::string pngChunk(const std::string& name, const std::string& data) {
  return bigEndian(static_cast<std::uint32_t>(data.size())) + name + data + bigEndian(crc32(name + data));
}

// Says that it is so large; there is next to nothing in it.
std::string hollowPng(std::uint32_t width, std::uint32_t height, const std::string& kind) {
  return "\x89PNG\r\n\x1A\n" + pngChunk("IHDR", bigEndian(width) + bigEndian(height) + kind) +
         pngChunk("IDAT", "\x78\x9C\x63") + pngChunk("IEND", "");
}

TEST(HostilePreviewTest, PicturesThatClaimToBeEnormousAreRefusedQuickly) {
  using namespace std::string_literals;
  const auto begin = steady_clock::now();
  const std::pair<const char*, std::string> bombs[] = {
      {"plain.png", hollowPng(60000, 60000, "\x08\x02\0\0\0"s)},
      {"interlaced.png", hollowPng(50000, 50000, "\x10\x06\0\0\1"s)},
      {"longest.png", hollowPng(0x7FFFFFFF, 1, "\x01\0\0\0\0"s)},
      {"screen.gif", "GIF89a\xFF\xFF\xFF\xFF\x80\0\0\0\0\0\xFF\xFF\xFF,\0\0\0\0\xFF\xFF\xFF\xFF\0\x02\x02\x44\x01\0;"s},
  };
  for (const auto& [name, bytes] : bombs) EXPECT_FALSE(previewOfPicture(writeSample(name, bytes))) << name;
  EXPECT_LT(steady_clock::now() - begin, PATIENCE);
}

TEST(HostilePreviewTest, TheLimitIsTwoHundredAndFiftyMillionPixels) {
  run("vips black at.png[compression=1,bitdepth=1] 25000 10000; vips black above.png[compression=1,bitdepth=1] 25000 "
      "10001");
  const auto preview = previewOfPicture(sample("at.png"));
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->size(), "400x160");
  EXPECT_FALSE(previewOfPicture(sample("above.png")));
}

TEST(HostilePreviewTest, APictureCannotMakeTheHelperReadOtherFiles) {
  run("/usr/bin/convert -size 600x500 xc:red secret.png");
  for (const char* reference : {"secret.png", "file:///etc/passwd", "https://127.0.0.1:1/x"}) {
    writeSample("reader.svg", fmt::format("<svg xmlns='http://www.w3.org/2000/svg' width='600' height='500'>"
                                          "<image href='{}' width='600' height='500'/></svg>",
                                          reference));
    run("cp reader.svg reader.png");
    EXPECT_FALSE(previewOfPicture(sample("reader.svg"))) << reference;
    EXPECT_FALSE(previewOfPicture(sample("reader.png"))) << reference;
  }
}

// Keeps two helpers busy and looks at what they answer.
class Crowd {
 public:
  void show(const std::string& path, bool isVideo) {
    slots_.acquire();
    const auto begin = steady_clock::now();
    auto completion = [this, begin, path](const std::optional<std::string>& jpeg) {
      {
        MutexLock hold(lock_);
        ++answers_;
        if (jpeg) ++previews_;
        slowest_ = std::max(slowest_, steady_clock::now() - begin);
      }
      std::filesystem::remove(path);
      slots_.release();
    };
    if (isVideo)
      renderer_.video(path, 960, 10000, 0.82, std::move(completion));
    else
      renderer_.picture(path, "jpg", 400, 0.82, std::move(completion));
  }
  void wait() {
    slots_.acquire();
    slots_.acquire();
    slots_.release(2);
  }

  int answers() EXCLUDES(lock_) {
    MutexLock hold(lock_);
    return answers_;
  }
  int previews() EXCLUDES(lock_) {
    MutexLock hold(lock_);
    return previews_;
  }
  steady_clock::duration slowest() EXCLUDES(lock_) {
    MutexLock hold(lock_);
    return slowest_;
  }

 private:
  std::counting_semaphore<2> slots_{2};
  Mutex lock_;
  int answers_ GUARDED_BY(lock_) = 0;
  int previews_ GUARDED_BY(lock_) = 0;
  steady_clock::duration slowest_ GUARDED_BY(lock_){};
  HelperPreviewRenderer renderer_;  // last: waits for what it has begun
};

std::string mutated(std::string bytes, std::mt19937& random) {
  const auto position = [&] { return random() % bytes.size(); };
  // Mostly near the start, where the structure is.
  const auto structural = [&] { return random() % std::min<std::size_t>(bytes.size(), 600); };
  const int changes = 1 + static_cast<int>(random() % 8);
  for (int i = 0; i < changes; ++i) {
    const auto at = random() % 3 == 0 ? position() : structural();
    switch (random() % 4) {
      case 0:
        bytes[at] = static_cast<char>(random());
        break;
      case 1:
        bytes[at] = random() % 2 ? '\xFF' : '\0';
        break;
      case 2:
        bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
        break;
      default:
        bytes.replace(at, 4, bigEndian(static_cast<std::uint32_t>(random()) | 0x7F000000u));
        break;
    }
  }
  if (random() % 8 == 0) bytes.resize(position());
  return bytes;
}

TEST(HostilePreviewTest, MutatedFilesEndInAPreviewOrNoneInGoodTime) {
  constexpr int EACH = 20;
  makeQuarters("quarters.png", 200, 150);
  run("vips copy quarters.png m.jpg[profile=srgb]; exiftool -q -overwrite_original -Orientation#=6 m.jpg; "
      "cp quarters.png m.png; vips copy quarters.png m.webp; /usr/bin/convert quarters.png m.gif; "
      "vips copy quarters.png m.tif[compression=lzw]; heif-enc -q 80 m.jpg -o m.heic; heif-enc -A -q 80 m.jpg -o "
      "m.avif; "
      "cjxl quarters.png m.jxl -e 3; "
      "ffmpeg -nostdin -y -v error -loop 1 -r 10 -t 1 -i quarters.png -c:v libx264 -pix_fmt yuv420p m.mp4; "
      "ffmpeg -nostdin -y -v error -loop 1 -r 10 -t 1 -i quarters.png -c:v libx265 -x265-params log-level=none "
      "-pix_fmt yuv420p m.mov; "
      "ffmpeg -nostdin -y -v error -loop 1 -r 10 -t 1 -i quarters.png -c:v mpeg4 m.m4v");
  std::mt19937 random(20240501);
  Crowd crowd;
  int shown = 0;
  for (const char* name :
       {"m.jpg", "m.png", "m.webp", "m.gif", "m.tif", "m.heic", "m.avif", "m.jxl", "m.mp4", "m.mov", "m.m4v"}) {
    const std::string original = readSample(name);
    ASSERT_GT(original.size(), 100u) << name;
    const bool isVideo = std::string_view(name).starts_with("m.m");
    for (int i = 0; i < EACH; ++i)
      crowd.show(writeSample(fmt::format("{}-{}", ++shown, name), mutated(original, random)), isVideo);
  }
  crowd.wait();
  EXPECT_EQ(crowd.answers(), shown);
  // Both outcomes are common, or the mutations are not what they should be.
  EXPECT_GT(crowd.previews(), shown / 10);
  EXPECT_LT(crowd.previews(), shown * 9 / 10);
  EXPECT_LT(crowd.slowest(), PATIENCE);
}

}  // namespace
}  // namespace vondle
