#include "platform/linux/journal_log.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::ElementsAre;

TEST(JournalLog, WritesFieldsToSearchBy) {
  EXPECT_THAT(JournalLog::fields(LogLevel::standard, "com.example", "provider", "text"),
              ElementsAre("MESSAGE=text", "PRIORITY=5", "SUBSYSTEM=com.example", "CATEGORY=provider"));
}

TEST(JournalLog, GivesEachLevelItsPriority) {
  const auto priority = [](LogLevel level) { return JournalLog::fields(level, "", "", "")[1]; };
  EXPECT_EQ(priority(LogLevel::debug), "PRIORITY=7");
  EXPECT_EQ(priority(LogLevel::info), "PRIORITY=6");
  EXPECT_EQ(priority(LogLevel::standard), "PRIORITY=5");
  EXPECT_EQ(priority(LogLevel::error), "PRIORITY=3");
}

TEST(JournalLog, MakesMessagesSafeToShow) {
  EXPECT_EQ(JournalLog::fields(LogLevel::info, "", "", "a\nPRIORITY=0\x1B[2J")[0], R"(MESSAGE=a\nPRIORITY=0\x1b[2J)");
}

TEST(JournalLog, IsConnectedToStderrWhenTheEnvironmentNamesItsFile) {
  struct stat found;
  ASSERT_EQ(fstat(STDERR_FILENO, &found), 0);
  const char* const before = getenv("JOURNAL_STREAM");
  const std::string saved = before ? before : "";
  unsetenv("JOURNAL_STREAM");
  EXPECT_FALSE(JournalLog::isConnectedToStderr());
  for (const auto& [stream, connected] :
       {std::pair(fmt::format("{}:{}", found.st_dev, found.st_ino), true),
        std::pair(fmt::format("{}:{}", found.st_dev, found.st_ino + 1), false),
        std::pair(fmt::format("{}:{}", found.st_dev + 1, found.st_ino), false), std::pair(std::string("x"), false)}) {
    setenv("JOURNAL_STREAM", stream.c_str(), 1);
    EXPECT_EQ(JournalLog::isConnectedToStderr(), connected) << stream;
  }
  before ? setenv("JOURNAL_STREAM", saved.c_str(), 1) : unsetenv("JOURNAL_STREAM");
}

}  // namespace
}  // namespace vondle
