#include "platform/linux/helper_picture_scaler.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace vondle {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::Optional;

// Helpers that behave in every way the real one should not, as Python programs. "answer(list)" and "read()" are given.
class HelperPictureScalerTest : public testing::Test {
 protected:
  HelperPictureScalerTest() {
    std::string pattern = fs::temp_directory_path() / "vondle-scaler-XXXXXX";
    folder = mkdtemp(pattern.data());
  }
  ~HelperPictureScalerTest() override { fs::remove_all(folder); }

  // Each one that starts leaves a line in the file "started".
  std::string helper(const std::string& script) const {
    const auto path = folder / "helper";
    std::ofstream(path) << "#!/usr/bin/python3 -IS\n"
                           "import os, struct, sys, time\n"
                           "open(sys.argv[0] + '.started', 'a').write(' '.join(sys.argv[1:]) + '\\n')\n"
                           "def raw(data):\n"
                           "    while data: data = data[os.write(1, data):]\n"
                           "def number(value): raw(struct.pack('I', value))\n"
                           "def answer(pngs):\n"
                           "    number(len(pngs))\n"
                           "    for png in pngs: number(len(png)); raw(png)\n"
                           "def exactly(size):\n"
                           "    data = b''\n"
                           "    while len(data) < size:\n"
                           "        more = os.read(0, size - len(data))\n"
                           "        if not more: sys.exit(0)\n"
                           "        data += more\n"
                           "    return data\n"
                           "def read(): return exactly(struct.unpack('I', exactly(4))[0])\n"
                        << script << "\n";
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }
  [[nodiscard]] int startedCount() const {
    std::ifstream file(folder / "helper.started");
    int lines = 0;
    for (std::string line; std::getline(file, line);) ++lines;
    return lines;
  }

  static std::future<std::optional<ScaledPicture>> begin(HelperPictureScaler& scaler, std::string picture) {
    auto promise = std::make_shared<std::promise<std::optional<ScaledPicture>>>();
    auto future = promise->get_future();
    scaler.scale(std::move(picture),
                 [promise](std::optional<ScaledPicture> scaled) { promise->set_value(std::move(scaled)); });
    return future;
  }
  static std::optional<ScaledPicture> scale(HelperPictureScaler& scaler, std::string picture) {
    return begin(scaler, std::move(picture)).get();
  }

  fs::path folder;
};

constexpr const char* ECHO = "while True: picture = read(); answer([b'a' + picture, b'b' + picture, b'c'])";

TEST_F(HelperPictureScalerTest, OneHelperScalesOnePictureAfterTheOther) {
  HelperPictureScaler scaler(helper(ECHO));
  EXPECT_THAT(scale(scaler, "one"), Optional(ElementsAre("aone", "bone", "c")));
  EXPECT_THAT(scale(scaler, std::string(1'000'000, 'x')),
              Optional(ElementsAre("a" + std::string(1'000'000, 'x'), "b" + std::string(1'000'000, 'x'), "c")));
  EXPECT_THAT(scale(scaler, ""), Optional(ElementsAre("a", "b", "c")));
  EXPECT_EQ(startedCount(), 1);
  std::string arguments;
  std::getline(std::ifstream(folder / "helper.started") >> std::ws, arguments);
  EXPECT_EQ(arguments, "thumbnails 128 256 512");
}

TEST_F(HelperPictureScalerTest, TwoHelpersShareTheWorkAndNoMore) {
  HelperPictureScaler scaler(helper(ECHO));
  std::vector<std::future<std::optional<ScaledPicture>>> all;
  for (int i = 0; i < 50; ++i) all.push_back(begin(scaler, std::to_string(i)));
  for (int i = 0; i < 50; ++i) EXPECT_THAT(all[i].get(), Optional(testing::Contains("a" + std::to_string(i)))) << i;
  EXPECT_LE(startedCount(), HelperPictureScaler::AT_ONCE);
}

TEST_F(HelperPictureScalerTest, AHelperEndsWhenThereIsNothingToDo) {
  const std::string script = "open(sys.argv[0] + '.pid', 'w').write(str(os.getpid()))\n";
  HelperPictureScaler scaler(helper(script + ECHO), seconds(10), seconds(0.01));
  EXPECT_TRUE(scale(scaler, "one"));
  int pid = 0;
  std::ifstream(folder / "helper.pid") >> pid;
  for (int i = 0; i < 1000 && kill(pid, 0) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_NE(kill(pid, 0), 0);
  EXPECT_TRUE(scale(scaler, "two")) << "the next picture has another one made";
}

struct BadScaler {
  const char* what;
  const char* script;
};

TEST_F(HelperPictureScalerTest, OnlyThePictureThatAHelperFailsOnIsLost) {
  const BadScaler cases[] = {
      {"ends", "sys.exit(0)"},
      {"is killed", "os.kill(os.getpid(), 11)"},
      {"says nothing", "time.sleep(1000)"},
      {"ends in the middle", "number(3); number(1); raw(b'a'); sys.exit(0)"},
      {"stops in the middle", "number(3); number(1); raw(b'a'); time.sleep(1000)"},
      {"too many sizes", "answer([b'a', b'b', b'c', b'd'])"},
      {"too few sizes", "answer([b'a', b'b'])"},
      {"an enormous size", "number(3); number(0xFFFFFFFF); time.sleep(1000)"},
      {"more than there is room for", "answer([b'a' * 4194300, b'b' * 4, b'c'])"},
      {"no end", "number(3)\nwhile True: raw(b'\\0' * 65536)"},
  };
  for (const auto& test : cases) {
    const std::string script = std::string("while True:\n  picture = read()\n  if picture == b'bad':\n") + "    exec(" +
                               "'''" + test.script + "'''" + ")\n  else: answer([picture, b'b', b'c'])";
    HelperPictureScaler scaler(helper(script), seconds(1));
    EXPECT_TRUE(scale(scaler, "before")) << test.what;
    EXPECT_EQ(scale(scaler, "bad"), std::nullopt) << test.what;
    EXPECT_THAT(scale(scaler, "after"), Optional(ElementsAre("after", "b", "c"))) << test.what;
  }
}

TEST_F(HelperPictureScalerTest, APictureThatIsNoneKeepsTheHelper) {
  HelperPictureScaler scaler(
      helper("while True:\n  if read() == b'bad': answer([])\n  else: answer([b'a', b'b', b'c'])"));
  EXPECT_TRUE(scale(scaler, "good"));
  EXPECT_EQ(scale(scaler, "bad"), std::nullopt);
  EXPECT_TRUE(scale(scaler, "good"));
  EXPECT_EQ(startedCount(), 1);
}

TEST_F(HelperPictureScalerTest, PicturesOfMoreThanFourMebibytesAreNotEvenSent) {
  HelperPictureScaler scaler(helper("while True: answer([b'a', b'b', str(len(read())).encode()])"));
  EXPECT_EQ(scale(scaler, std::string(PictureScaler::MAX_PICTURE_BYTES + 1, 'x')), std::nullopt);
  EXPECT_EQ(startedCount(), 0);
  EXPECT_THAT(scale(scaler, std::string(PictureScaler::MAX_PICTURE_BYTES, 'x')),
              Optional(ElementsAre("a", "b", "4194304")));
}

TEST_F(HelperPictureScalerTest, WithoutAHelperThereIsNone) {
  HelperPictureScaler scaler(folder / "nothing");
  EXPECT_EQ(scale(scaler, "one"), std::nullopt);
}

TEST_F(HelperPictureScalerTest, WhatIsNotScaledAtItsEndIsGivenUp) {
  std::vector<std::future<std::optional<ScaledPicture>>> all;
  {
    HelperPictureScaler scaler(helper("time.sleep(1000)"), seconds(100));
    for (int i = 0; i < 5; ++i) all.push_back(begin(scaler, "x"));
  }
  for (auto& each : all) EXPECT_EQ(each.get(), std::nullopt);
  EXPECT_LE(startedCount(), HelperPictureScaler::AT_ONCE);
}

}  // namespace
}  // namespace vondle
