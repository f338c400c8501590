#include "platform/linux/linux_process_control.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(LinuxProcessControl, KnowsItsProcess) {
  EXPECT_EQ(LinuxProcessControl().pid(), getpid());
}

TEST(LinuxProcessControlDeathTest, EndsAtOnceWithTheStatusGiven) {
  const auto end = [] {
    std::atexit([] { std::fputs("cleaned up", stderr); });
    LinuxProcessControl().exit(3);
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(3), "^$") << "no clean-up";
}

}  // namespace
}  // namespace vondle
