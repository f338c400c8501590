#include "platform/linux/linux_platform.h"

#include <unistd.h>

#include <future>
#include <latch>

#include <gtest/gtest.h>

namespace vondle {
namespace {

constexpr std::string_view NO_GROUP;  // so that nothing is made in the real home
constexpr Log LOG("com.example.test", "unit");

TEST(LinuxPlatform, IsAWholeMachine) {
  LinuxPlatform machine(NO_GROUP);
  const Platform platform = machine.platform();
  EXPECT_EQ(platform.process.pid(), getpid());
  EXPECT_EQ(platform.bundle.text("CFBundleExecutable"), "VondleFileProvider");
  EXPECT_NE(platform.random.uuid(), platform.random.uuid());
  EXPECT_GT(platform.clock.now().secondsSince1970, 0);
  std::latch ran(1);
  platform.scheduler.global().post([&] { ran.count_down(); });
  ran.wait();
  std::promise<std::optional<std::string>> preview;
  platform.previews.picture("/nowhere/photo.jpg", "jpg", 400, 0.82,
                            [&](std::optional<std::string> jpeg) { preview.set_value(std::move(jpeg)); });
  EXPECT_EQ(preview.get_future().get(), std::nullopt);
}

TEST(LinuxPlatform, TakesTheLogWhileItLives) {
  LogSink* const before = setLogSink(nullptr);
  testing::internal::CaptureStderr();
  {
    LinuxPlatform machine(NO_GROUP);
    LOG.error("kept %d", 1);
  }
  LOG.error("plain %d", 2);
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(lines.ends_with("Z error [unit] kept 1\nplain 2\n")) << lines;
  setLogSink(before);
}

}  // namespace
}  // namespace vondle
