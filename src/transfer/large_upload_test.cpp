#include "transfer/large_upload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/json.h"
#include "testing/captured_log.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

constexpr std::int64_t GIBIBYTE = 1'073'741'824;

struct LargeUploadTest : testing::Test {
  static constexpr const char* CONFIG = "/home/user/.vondle/config.json";
  static constexpr const char* STATE = "/home/user/.vondle/large_upload.json";

  void configure(const std::string& text) {
    files.put(CONFIG, text);
    scheduler.advance(seconds(2));
    limits.refresh();
    log.clear();
  }
  json::Object state() {
    scheduler.runUntilIdle();
    return json::parseObject(files.contents(STATE).value_or("{}")).value();
  }
  bool isAnnounced() { return json::boolean(state(), "active").value_or(false); }
  double time() const { return scheduler.now().secondsSince1970; }

  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  CapturedLog log;
  Limits limits{scheduler, files, CONFIG};
  LargeUpload large{scheduler, scheduler, files, limits, STATE};

  LargeUploadTest() { files.put(CONFIG, "{}"); }
};

TEST_F(LargeUploadTest, TwoUploadsWithinTwoMinutesAddUp) {
  large.started(GIBIBYTE * 3 / 2);
  EXPECT_FALSE(large.isActive());
  EXPECT_TRUE(log.lines().empty());
  scheduler.advance(seconds(100));
  const double start = time();
  large.started(GIBIBYTE * 6 / 10);
  EXPECT_TRUE(large.isActive());
  EXPECT_THAT(log.messages(LogLevel::standard),
              ElementsAre("large upload at full speed: 2 files, 2254857830 bytes so far"));
  EXPECT_EQ(json::boolean(state(), "active"), true);
  EXPECT_EQ(json::integer(state(), "files"), 2);
  EXPECT_EQ(json::integer(state(), "bytes"), 2254857830);
  EXPECT_EQ(json::number(state(), "since"), start);
  EXPECT_EQ(json::number(state(), "last"), start);
}

TEST_F(LargeUploadTest, ExactlyTwoGibibytesAreEnough) {
  large.started(2 * GIBIBYTE - 1);
  EXPECT_FALSE(large.isActive());
  large.started(1);
  EXPECT_TRUE(large.isActive());
}

TEST_F(LargeUploadTest, MoreUploadsDoNotBeginTheModeAgain) {
  large.started(3 * GIBIBYTE);
  const double start = time();
  scheduler.runUntilIdle();
  const int writes = files.writeCount(STATE);
  log.clear();
  scheduler.advance(seconds(15));
  large.started(GIBIBYTE);
  EXPECT_TRUE(log.lines().empty());
  scheduler.runUntilIdle();
  EXPECT_EQ(files.writeCount(STATE), writes);
  large.touch();
  EXPECT_EQ(json::number(state(), "since"), start);
  EXPECT_EQ(json::integer(state(), "files"), 2);
}

TEST_F(LargeUploadTest, WithAnUploadLimitTheModeStaysOff) {
  configure(R"({"max_upload_kbps": 100})");
  large.started(5 * GIBIBYTE);
  EXPECT_FALSE(large.isActive());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(files.contents(STATE), std::nullopt);
  configure("{}");
  large.started(1);  // the limit is gone, the bytes still count
  EXPECT_TRUE(large.isActive());
}

TEST_F(LargeUploadTest, UploadsPartedByTwoQuietMinutesDoNotAddUp) {
  large.started(GIBIBYTE * 3 / 2);
  scheduler.advance(seconds(121));
  large.started(GIBIBYTE * 3 / 2);
  EXPECT_FALSE(large.isActive());
  scheduler.advance(seconds(60));
  large.touch();
  scheduler.advance(seconds(61));
  large.started(GIBIBYTE * 3 / 2);
  EXPECT_TRUE(large.isActive());
  EXPECT_EQ(json::integer(state(), "files"), 2);
}

TEST_F(LargeUploadTest, UploadsOfNothingStayCountedHoweverQuietItIs) {
  large.started(0);
  large.started(0);
  scheduler.advance(seconds(121));
  large.endIfQuiet();
  large.started(3 * GIBIBYTE);
  EXPECT_EQ(json::integer(state(), "files"), 3);
}

TEST_F(LargeUploadTest, EndsAfterMoreThanTwoQuietMinutes) {
  large.started(3 * GIBIBYTE);
  EXPECT_TRUE(isAnnounced());
  const double last = time();
  log.clear();
  scheduler.advance(seconds(120));
  large.endIfQuiet();
  EXPECT_TRUE(large.isActive());
  scheduler.advance(seconds(1));
  large.endIfQuiet();
  EXPECT_FALSE(large.isActive());
  EXPECT_THAT(log.messages(LogLevel::standard), ElementsAre("large upload finished"));
  EXPECT_EQ(json::boolean(state(), "active"), false);
  EXPECT_EQ(json::integer(state(), "bytes"), 0);
  EXPECT_EQ(json::integer(state(), "files"), 0);
  EXPECT_EQ(json::number(state(), "last"), last);
  large.endIfQuiet();
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(LargeUploadTest, WhileBytesGoOutTheFileIsWrittenEveryFifteenSeconds) {
  large.started(3 * GIBIBYTE);
  scheduler.runUntilIdle();
  const int writes = files.writeCount(STATE);
  for (int i = 0; i < 14; ++i) {
    scheduler.advance(seconds(1));
    large.touch();
  }
  EXPECT_EQ(files.writeCount(STATE), writes);
  scheduler.advance(seconds(1));
  large.touch();
  EXPECT_EQ(json::number(state(), "last"), time());
  EXPECT_EQ(files.writeCount(STATE), writes + 1);
  large.touch();
  scheduler.runUntilIdle();
  EXPECT_EQ(files.writeCount(STATE), writes + 1);
}

TEST_F(LargeUploadTest, OutsideTheModeNothingIsWritten) {
  large.endIfQuiet();
  large.touch();
  large.started(100);
  scheduler.advance(seconds(500));
  large.touch();
  large.endIfQuiet();
  EXPECT_EQ(files.contents(STATE), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(LargeUploadTest, ANegativeSizeCountsAsAnEmptyUpload) {
  large.started(-5 * GIBIBYTE);
  large.started(2 * GIBIBYTE);
  EXPECT_TRUE(large.isActive());
  EXPECT_EQ(json::integer(state(), "bytes"), 2 * GIBIBYTE);
  EXPECT_EQ(json::integer(state(), "files"), 2);
}

TEST_F(LargeUploadTest, AWriteThatFailsIsForgottenAndTheNextOneCounts) {
  files.fail(FileOperation::write, STATE, ENOSPC);
  large.started(3 * GIBIBYTE);
  EXPECT_FALSE(isAnnounced());
  scheduler.advance(seconds(15));
  large.touch();
  EXPECT_TRUE(isAnnounced());
}

TEST_F(LargeUploadTest, MoreBytesThanCanBeCountedEndTheProcess) {
  large.started(std::numeric_limits<std::int64_t>::max());
  EXPECT_DEATH(large.started(1), "overflow");
}

}  // namespace
}  // namespace vondle
