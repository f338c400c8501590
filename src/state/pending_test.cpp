#include "state/pending.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "testing/captured_log.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr Duration INSTANT{1};

struct PendingTest : testing::Test {
  VirtualScheduler scheduler;
  CapturedLog log;
  Pending pending{scheduler, scheduler};
};

TEST_F(PendingTest, HandsOutIdsFromOneAndNeverAgain) {
  EXPECT_EQ(pending.begin("a", 1), 1);
  EXPECT_EQ(pending.begin("b", 1), 2);
  pending.end(2);
  pending.end(1);
  EXPECT_EQ(pending.begin("c", 1), 3);
}

TEST_F(PendingTest, AnOperationOfTenSecondsEndsSilently) {
  const auto id = pending.begin("fetch a", 1);
  scheduler.advance(seconds(10));
  pending.end(id);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PendingTest, ALongerOperationTellsHowLongItTook) {
  const struct {
    Duration took;
    std::string line;
  } CASES[] = {{seconds(10) + INSTANT, "fetch a finished after 10s"},
               {seconds(10.5), "fetch a finished after 10s"},
               {seconds(10.6), "fetch a finished after 11s"},
               {seconds(3600), "fetch a finished after 3600s"}};
  for (const auto& [took, line] : CASES) {
    const auto id = pending.begin("fetch a", 1);
    scheduler.advance(took);
    log.clear();
    pending.end(id);
    EXPECT_THAT(log.lines(),
                ElementsAre(CapturedLog::Line{LogLevel::standard, "com.ferrow.vondle.fileprovider", "provider", line}));
  }
}

TEST_F(PendingTest, EndingTwiceTellsOnce) {
  const auto id = pending.begin("fetch a", 1);
  scheduler.advance(seconds(11));
  pending.end(id);
  pending.end(id);
  EXPECT_THAT(log.messages(), SizeIs(1));
}

TEST_F(PendingTest, UnknownIdsChangeNothing) {
  const auto id = pending.begin("fetch a", 2);
  for (const std::int64_t unknown : {std::int64_t{0}, std::int64_t{-1}, id + 1}) {
    pending.progress(unknown);
    pending.end(unknown);
  }
  const auto ended = pending.begin("fetch b", 1);
  pending.end(ended);
  pending.progress(ended);
  scheduler.advance(seconds(45));
  EXPECT_THAT(log.messages(), ElementsAre("still waiting after 45s: fetch a (0 of 2 done, 1 in flight)"));
}

TEST_F(PendingTest, ReportsAtTheTickAfterThirtySeconds) {
  pending.begin("fetch a", 1);
  scheduler.advance(seconds(30));
  EXPECT_THAT(log.lines(), IsEmpty());
  scheduler.advance(seconds(15) - INSTANT);
  EXPECT_THAT(log.lines(), IsEmpty());
  scheduler.advance(INSTANT);
  EXPECT_THAT(log.lines(),
              ElementsAre(CapturedLog::Line{LogLevel::standard, "com.ferrow.vondle.fileprovider", "provider",
                                            "still waiting after 45s: fetch a (0 of 1 done, 1 in flight)"}));
  scheduler.advance(seconds(15));
  EXPECT_THAT(log.messages(), SizeIs(2));
}

TEST_F(PendingTest, AtATickReportsWhatIsOlderThanThirtySecondsOnly) {
  scheduler.advance(seconds(1));
  pending.begin("of 45 s", 1);
  scheduler.advance(seconds(14));
  pending.begin("of 31 s", 1);
  scheduler.advance(seconds(1));
  pending.begin("of 30 s", 1);
  scheduler.advance(seconds(30));
  EXPECT_THAT(log.messages(), ElementsAre("still waiting after 45s: of 45 s (0 of 1 done, 3 in flight)",
                                          "still waiting after 31s: of 31 s (0 of 1 done, 3 in flight)"));
}

TEST_F(PendingTest, ReportsProgress) {
  const auto id = pending.begin("thumbnails", 12);
  pending.progress(id);
  pending.progress(id);
  scheduler.advance(seconds(45));
  EXPECT_THAT(log.messages(), ElementsAre("still waiting after 45s: thumbnails (2 of 12 done, 1 in flight)"));
}

TEST_F(PendingTest, ReportsTheFiveOldestOfAll) {
  for (int i = 1; i <= 7; ++i) {
    pending.begin(fmt::format("op {}", i), 1);
    scheduler.advance(seconds(1));
  }
  scheduler.advance(seconds(38));  // the tick at 45 s
  EXPECT_THAT(log.messages(), ElementsAre("still waiting after 45s: op 1 (0 of 1 done, 7 in flight)",
                                          "still waiting after 44s: op 2 (0 of 1 done, 7 in flight)",
                                          "still waiting after 43s: op 3 (0 of 1 done, 7 in flight)",
                                          "still waiting after 42s: op 4 (0 of 1 done, 7 in flight)",
                                          "still waiting after 41s: op 5 (0 of 1 done, 7 in flight)"));
}

TEST_F(PendingTest, CountsFreshOperationsAsInFlight) {
  pending.begin("old", 1);
  scheduler.advance(seconds(40));
  pending.begin("fresh", 1);
  scheduler.advance(seconds(5));
  EXPECT_THAT(log.messages(), ElementsAre("still waiting after 45s: old (0 of 1 done, 2 in flight)"));
}

TEST_F(PendingTest, TheWatchdogStopsAtTheTickAfterTheLastEndAndStartsAgain) {
  EXPECT_EQ(scheduler.timerCount(), 0U);
  const auto id = pending.begin("fetch a", 1);
  pending.begin("fetch b", 1);
  EXPECT_EQ(scheduler.timerCount(), 1U);
  pending.end(2);
  pending.end(id);
  EXPECT_EQ(scheduler.timerCount(), 1U);
  scheduler.advance(seconds(15));
  EXPECT_EQ(scheduler.timerCount(), 0U);

  pending.begin("fetch c", 1);
  EXPECT_EQ(scheduler.timerCount(), 1U);
  scheduler.advance(seconds(45));
  EXPECT_THAT(log.messages(), SizeIs(1));
}

TEST_F(PendingTest, TheWatchdogEndsWithItsRegistry) {
  {
    Pending other(scheduler, scheduler);
    other.begin("fetch a", 1);
    EXPECT_EQ(scheduler.timerCount(), 1U);
  }
  scheduler.advance(seconds(60));
  EXPECT_EQ(scheduler.timerCount(), 0U);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PendingTest, TakesNoNoticeOfAWallClockThatIsSetBack) {
  const auto id = pending.begin("fetch a", 1);
  scheduler.advance(seconds(5));
  scheduler.setWallClock({scheduler.now().secondsSince1970 - 3600});
  scheduler.advance(seconds(6));
  pending.end(id);
  EXPECT_THAT(log.messages(), ElementsAre("fetch a finished after 11s"));
}

}  // namespace
}  // namespace vondle
