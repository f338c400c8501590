#include "platform/linux/linux_clock.h"

#include <chrono>

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(LinuxClock, TellsTheWallClock) {
  const double now = inSeconds(std::chrono::system_clock::now().time_since_epoch());
  EXPECT_NEAR(LinuxClock().now().secondsSince1970, now, 60);
}

TEST(LinuxClock, NeverGoesBack) {
  const LinuxClock clock;
  MonotonicTime last = clock.monotonic();
  EXPECT_GT(last, MonotonicTime{});
  for (int i = 0; i < 10000; ++i) {
    const MonotonicTime next = clock.monotonic();
    ASSERT_GE(next, last);
    last = next;
  }
}

}  // namespace
}  // namespace vondle
