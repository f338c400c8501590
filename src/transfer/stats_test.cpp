#include "transfer/stats.h"

#include <gtest/gtest.h>

#include "base/json.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

struct StatsTest : testing::Test {
  json::Object published() {
    scheduler.runUntilIdle();
    return json::parseObject(files.contents(path).value_or("{}")).value();
  }
  double down() { return json::number(published(), "down_bps").value_or(-1); }
  double up() { return json::number(published(), "up_bps").value_or(-1); }

  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  const std::string path = SimulatedFiles::containerPath("group.com.ferrow.vondle") + "/stats.json";
  Stats stats{scheduler, scheduler, files};
};

TEST_F(StatsTest, OneChunkAfterALongIdleTimeIsSpreadOverTheWholeWindow) {
  stats.record(30'000, 0);
  EXPECT_DOUBLE_EQ(down(), 10'000.0);
  EXPECT_DOUBLE_EQ(up(), 0.0);
  EXPECT_EQ(json::number(published(), "at"), scheduler.now().secondsSince1970);
  scheduler.advance(std::chrono::hours(1));
  stats.record(0, 60'000);
  EXPECT_DOUBLE_EQ(down(), 0.0);
  EXPECT_DOUBLE_EQ(up(), 20'000.0);
}

TEST_F(StatsTest, PublishesAtMostOnceASecond) {
  stats.record(3, 0);
  scheduler.advance(seconds(0.999));
  stats.record(3, 0);
  EXPECT_DOUBLE_EQ(down(), 1.0);
  scheduler.advance(seconds(0.001));
  stats.record(3, 0);
  EXPECT_DOUBLE_EQ(down(), 3.0);
  EXPECT_EQ(files.writeCount(path), 2);
}

TEST_F(StatsTest, ASampleOfThreeSecondsStillCountsAndAnOlderOneDoesNot) {
  stats.record(300, 30);
  scheduler.advance(seconds(3));
  stats.record(600, 60);
  EXPECT_DOUBLE_EQ(down(), 300.0);
  scheduler.advance(seconds(1));
  stats.record(0, 0);
  EXPECT_DOUBLE_EQ(down(), 200.0);
  EXPECT_DOUBLE_EQ(up(), 20.0);
}

TEST_F(StatsTest, WithoutAContainerNothingIsWritten) {
  files.setContainerAvailable(false);
  stats.record(1, 1);
  scheduler.runUntilIdle();
  EXPECT_EQ(files.contents(path), std::nullopt);
}

TEST_F(StatsTest, AWriteThatFailsIsForgotten) {
  files.fail(FileOperation::write, path, ENOSPC);
  stats.record(3, 0);
  EXPECT_EQ(down(), -1);
  scheduler.advance(seconds(1));
  stats.record(0, 0);
  EXPECT_DOUBLE_EQ(down(), 1.0);
}

TEST_F(StatsTest, AWallClockThatIsSetBackChangesTheTimeOfTheReportAlone) {
  stats.record(3'000, 0);
  EXPECT_DOUBLE_EQ(down(), 1'000.0);
  const auto earlier = Timestamp{scheduler.now().secondsSince1970 - 3600};
  scheduler.setWallClock(earlier);
  scheduler.advance(seconds(1));
  stats.record(3'000, 0);
  EXPECT_DOUBLE_EQ(down(), 2'000.0);
  EXPECT_EQ(json::number(published(), "at"), earlier.secondsSince1970 + 1);
}

}  // namespace
}  // namespace vondle
