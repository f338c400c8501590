#include "platform/linux/helper_preview_renderer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace vondle {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

// Helpers that behave in every way the real one should not, as shell scripts.
class HelperPreviewRendererTest : public testing::Test {
 protected:
  HelperPreviewRendererTest() {
    std::string pattern = fs::temp_directory_path() / "vondle-helper-XXXXXX";
    folder = mkdtemp(pattern.data());
    file = write("photo", "GIF89a");
  }
  ~HelperPreviewRendererTest() override { fs::remove_all(folder); }

  std::string write(const std::string& name, std::string_view contents) const {
    std::ofstream(folder / name) << contents;
    return folder / name;
  }
  std::string helper(const std::string& script) const {
    const auto path = write("helper", "#!/bin/sh\n" + script + "\n");
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }
  static std::optional<std::string> picture(HelperPreviewRenderer& renderer, const std::string& path,
                                            const std::string& extension = "jpg") {
    std::promise<std::optional<std::string>> promise;
    renderer.picture(path, extension, 400, 0.82,
                     [&promise](std::optional<std::string> jpeg) { promise.set_value(std::move(jpeg)); });
    return promise.get_future().get();
  }
  std::optional<std::string> pictureBy(const std::string& script, Duration deadline = seconds(20)) const {
    HelperPreviewRenderer renderer(helper(script), deadline);
    return picture(renderer, file);
  }
  // What the process says of itself in the file that a script made.
  [[nodiscard]] std::string read(const std::string& name) const {
    std::ifstream stream(folder / name);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  fs::path folder;
  std::string file;
};

constexpr const char* JPEG_START = "printf '\\377\\330\\377'";

TEST_F(HelperPreviewRendererTest, GivesTheFileOnStandardInputAndTakesTheJpegFromStandardOutput) {
  EXPECT_EQ(pictureBy(std::string(JPEG_START) + "; cat"),
            "\xFF\xD8\xFF"
            "GIF89a");
}

TEST_F(HelperPreviewRendererTest, SaysWhatIsWantedOnTheCommandLine) {
  HelperPreviewRenderer renderer(helper(std::string(JPEG_START) + "; echo \"$@\""));
  EXPECT_EQ(picture(renderer, file),
            "\xFF\xD8\xFF"
            "picture 400 82\n");
  std::promise<std::optional<std::string>> promise;
  renderer.video(file, 960.0, 10000.0, 0.82,
                 [&promise](std::optional<std::string> jpeg) { promise.set_value(std::move(jpeg)); });
  EXPECT_EQ(promise.get_future().get(),
            "\xFF\xD8\xFF"
            "video 960 10000 82\n");
}

TEST_F(HelperPreviewRendererTest, HandsOnNoOtherDescriptorAndNoEnvironment) {
  const int leaked = open("/dev/null", O_RDONLY);  // without close-on-exec
  setenv("VONDLE_TEST_SECRET", "secret", 1);
  const auto seen = pictureBy(std::string(JPEG_START) + "; ls -m /proc/$$/fd; tr '\\0' ' ' </proc/$$/environ");
  unsetenv("VONDLE_TEST_SECRET");
  close(leaked);
  // 10 is where the shell keeps its script.
  EXPECT_EQ(seen,
            "\xFF\xD8\xFF"
            "0, 1, 10, 2\nLC_ALL=C ");
}

struct BadHelper {
  const char* what;
  const char* script;
};

TEST_F(HelperPreviewRendererTest, AHelperThatFailsGivesNoPreview) {
  const BadHelper cases[] = {
      {"exit status", "printf '\\377\\330\\377'; exit 1"},
      {"killed by a signal", "printf '\\377\\330\\377'; kill -SEGV $$"},
      {"no output", "exit 0"},
      {"two bytes", "printf '\\377\\330'"},
      {"another format", "printf '\\211PNG'"},
      {"text", "echo no preview"},
      {"more than four megabytes", "printf '\\377\\330\\377'; head -c 4194302 /dev/zero"},
      {"no end", "printf '\\377\\330\\377'; cat /dev/zero"},
  };
  for (const auto& test : cases) EXPECT_EQ(pictureBy(test.script), std::nullopt) << test.what;
}

TEST_F(HelperPreviewRendererTest, FourMegabytesAreStillTaken) {
  const auto jpeg = pictureBy(std::string(JPEG_START) + "; head -c 4194301 /dev/zero");
  ASSERT_TRUE(jpeg);
  EXPECT_EQ(jpeg->size(), HelperPreviewRenderer::MAX_JPEG_BYTES);
}

TEST_F(HelperPreviewRendererTest, StartsNoHelperForWhatDoesNotBeginLikeAPicture) {
  const auto script = helper("touch \"$0.started\"; printf '\\377\\330\\377'");
  HelperPreviewRenderer renderer(script);
  using namespace std::string_view_literals;
  for (const auto& start : {"plain text"sv, ""sv, "\x89PN"sv, "ftypheic"sv, "<svg"sv, "BM"sv})
    EXPECT_EQ(picture(renderer, write("no picture", start), "png"), std::nullopt) << start;
  EXPECT_FALSE(fs::exists(script + ".started"));
  for (const auto& start : {"\xFF\xD8\xFF\xE0"sv, "\x89PNG\r\n"sv, "GIF87a"sv, "RIFF\0\0\0\0WEBP"sv, "II*\0"sv,
                            "MM\0*"sv, "II+\0"sv, "\xFF\x0A"sv, "\0\0\0\x0CJXL \r\n"sv,
                            "\0\0\0\x18"
                            "ftypavif"sv})
    EXPECT_TRUE(picture(renderer, write("picture", start), "txt")) << start;
}

TEST_F(HelperPreviewRendererTest, AMissingHelperGivesNoPreview) {
  HelperPreviewRenderer renderer(folder / "nothing");
  EXPECT_EQ(picture(renderer, file), std::nullopt);
}

TEST_F(HelperPreviewRendererTest, LooksForTheHelperBesideTheRunningProgram) {
  EXPECT_EQ(HelperPreviewRenderer::helperBesideProgram(),
            fs::read_symlink("/proc/self/exe").parent_path() / "vondle-preview");
}

TEST_F(HelperPreviewRendererTest, ReadsRegularFilesOnly) {
  HelperPreviewRenderer renderer(helper(JPEG_START));
  ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
  fs::create_symlink(file, folder / "link");
  fs::create_symlink("/dev/zero", folder / "link-to-device");
  for (const std::string& path :
       {std::string(folder / "fifo"), folder.string(), std::string("/dev/zero"), std::string(folder / "link-to-device"),
        std::string(folder / "missing"), std::string()})
    EXPECT_EQ(picture(renderer, path), std::nullopt) << path;
  EXPECT_EQ(picture(renderer, folder / "link"), "\xFF\xD8\xFF");
}

TEST_F(HelperPreviewRendererTest, RawPicturesOfCamerasAreLeftToTheServer) {
  HelperPreviewRenderer renderer(helper(JPEG_START));
  for (const char* extension : {"dng", "nef", "cr2", "cr3", "arw", "orf", "rw2", "raf"})
    EXPECT_EQ(picture(renderer, file, extension), std::nullopt) << extension;
  for (const char* extension : {"jpg", "tif", ""}) EXPECT_TRUE(picture(renderer, file, extension)) << extension;
}

struct SlowHelper {
  const char* what;
  const char* script;
};

// A process that was killed; the kernel may take a moment, and who inherits it has perhaps not yet taken notice.
bool endsSoon(int pid) {
  for (int i = 0; i < 1000; ++i) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(status, line);
    if (line.empty() || line.find(") Z ") != std::string::npos || line.find(") X ") != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

// The script leaves its process id and that of a child; both must be gone.
TEST_F(HelperPreviewRendererTest, ASlowHelperIsKilledAtTheDeadlineWithAllItStarted) {
  const SlowHelper cases[] = {
      {"sleeps", "sleep 1000 & echo $! >$0.child; wait"},
      {"closes its output and stays", "sleep 1000 & echo $! >$0.child; printf '\\377\\330\\377'; exec >&-; wait"},
      {"ends, but its child keeps the pipe", "sleep 1000 & echo $! >$0.child; printf '\\377\\330\\377'"},
  };
  for (const auto& test : cases) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(pictureBy(test.script, seconds(0.5)), std::nullopt) << test.what;
    const auto took = steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(500)) << test.what;
    EXPECT_LT(took, std::chrono::seconds(10)) << test.what;
    const int child = std::stoi(read("helper.child"));
    EXPECT_TRUE(endsSoon(child)) << test.what;
  }
}

TEST_F(HelperPreviewRendererTest, PreviewsBeingMadeAreGivenUpAtItsEnd) {
  std::promise<std::optional<std::string>> first;
  std::promise<std::optional<std::string>> second;
  const auto begin = steady_clock::now();
  {
    HelperPreviewRenderer renderer(helper("sleep 1000"));
    renderer.picture(file, "jpg", 400, 0.82,
                     [&](std::optional<std::string> jpeg) { first.set_value(std::move(jpeg)); });
    renderer.video(file, 960, 10000, 0.82, [&](std::optional<std::string> jpeg) { second.set_value(std::move(jpeg)); });
  }
  EXPECT_EQ(first.get_future().get(), std::nullopt);
  EXPECT_EQ(second.get_future().get(), std::nullopt);
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(10));
}

}  // namespace
}  // namespace vondle
