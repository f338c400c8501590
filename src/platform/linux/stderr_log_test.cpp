#include "platform/linux/stderr_log.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

std::string written(const std::function<void(StderrLog&)>& write) {
  VirtualScheduler time;
  time.advance(std::chrono::milliseconds(1500));
  StderrLog log(time);
  testing::internal::CaptureStderr();
  write(log);
  return testing::internal::GetCapturedStderr();
}

TEST(StderrLog, WritesTimeLevelCategoryAndText) {
  EXPECT_EQ(written([](StderrLog& log) { log.write(LogLevel::error, "com.example", "provider", "text"); }),
            "2024-05-01T08:00:01.500Z error [provider] text\n");
}

TEST(StderrLog, NamesEachLevel) {
  const std::string lines = written([](StderrLog& log) {
    for (const LogLevel level : {LogLevel::debug, LogLevel::info, LogLevel::standard}) log.write(level, "", "c", "x");
  });
  EXPECT_EQ(lines,
            "2024-05-01T08:00:01.500Z debug [c] x\n"
            "2024-05-01T08:00:01.500Z info [c] x\n"
            "2024-05-01T08:00:01.500Z notice [c] x\n");
}

TEST(StderrLog, KeepsAMessageOnOneLineAndHarmless) {
  EXPECT_EQ(written([](StderrLog& log) {
              log.write(LogLevel::info, "", "c", "a\n2024-05-01T08:00:01.500Z error [c] forged\x1B]0;title\a\xFF");
            }),
            "2024-05-01T08:00:01.500Z info [c] a\\n2024-05-01T08:00:01.500Z error [c] forged\\x1b]0;title\\x07\\xff\n");
}

}  // namespace
}  // namespace vondle
