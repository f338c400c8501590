#include "testing/virtual_scheduler.h"

#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::ElementsAre;

class VirtualSchedulerTest : public testing::Test {
 protected:
  Task note(std::string what) {
    return [this, what] { ran_.push_back(what); };
  }

  VirtualScheduler scheduler_;
  std::shared_ptr<Queue> a_ = scheduler_.makeSerialQueue("a");
  std::shared_ptr<Queue> b_ = scheduler_.makeSerialQueue("b");
  std::vector<std::string> ran_;
};

TEST_F(VirtualSchedulerTest, RunsNothingByItself) {
  a_->post(note("posted"));
  a_->after(seconds(0), note("delayed"));
  EXPECT_THAT(ran_, ElementsAre());
  scheduler_.runUntilIdle();
  EXPECT_THAT(ran_, ElementsAre("posted", "delayed"));
}

TEST_F(VirtualSchedulerTest, RunsTasksOfAllQueuesInTheOrderOfPosting) {
  a_->post(note("1"));
  b_->post(note("2"));
  a_->post(note("3"));
  scheduler_.global().post(note("4"));
  scheduler_.runUntilIdle();
  EXPECT_THAT(ran_, ElementsAre("1", "2", "3", "4"));
}

TEST_F(VirtualSchedulerTest, LetsNoTimePassWhileTasksRun) {
  a_->after(std::chrono::nanoseconds(1), note("later"));
  scheduler_.runUntilIdle();
  EXPECT_THAT(ran_, ElementsAre());
  EXPECT_EQ(scheduler_.monotonic(), MonotonicTime{});
}

TEST_F(VirtualSchedulerTest, RunsTimersInTheOrderOfTimeAndCreationEachAtItsMoment) {
  const auto noteTime = [this](std::string what) {
    return [this, what] { ran_.push_back(what + " at " + std::to_string(scheduler_.monotonic().sinceStart.count())); };
  };
  a_->after(Duration(30), noteTime("third"));
  b_->after(Duration(10), noteTime("first"));
  a_->after(Duration(10), noteTime("second"));
  a_->after(Duration(31), noteTime("never"));
  scheduler_.advance(Duration(30));
  EXPECT_THAT(ran_, ElementsAre("first at 10", "second at 10", "third at 30"));
  EXPECT_EQ(scheduler_.timerCount(), 1U);
}

TEST_F(VirtualSchedulerTest, AdvancesToTheEndAlsoPastTheLastTimer) {
  a_->after(seconds(1), [this] { a_->after(seconds(2), note("nested")); });
  scheduler_.advance(seconds(10));
  EXPECT_THAT(ran_, ElementsAre("nested"));
  EXPECT_EQ(scheduler_.monotonic(), MonotonicTime{seconds(10)});
}

TEST_F(VirtualSchedulerTest, StepsFromTimerToTimerUntilNothingIsLeft) {
  a_->after(seconds(900), note("back-off"));
  a_->post(note("now"));
  EXPECT_TRUE(scheduler_.step());
  EXPECT_THAT(ran_, ElementsAre("now"));
  EXPECT_FALSE(scheduler_.runNext());
  EXPECT_TRUE(scheduler_.step());
  EXPECT_THAT(ran_, ElementsAre("now", "back-off"));
  EXPECT_EQ(scheduler_.monotonic(), MonotonicTime{seconds(900)});
  EXPECT_FALSE(scheduler_.step());
}

TEST_F(VirtualSchedulerTest, RunsUntilTheConditionHoldsAndNoFurther) {
  for (int i = 1; i <= 5; ++i) a_->after(seconds(i), note(std::to_string(i)));
  EXPECT_TRUE(scheduler_.runUntil([this] { return ran_.size() == 3; }));
  EXPECT_EQ(scheduler_.monotonic(), MonotonicTime{seconds(3)});
  EXPECT_FALSE(scheduler_.runUntil([this] { return ran_.size() == 5; }, seconds(1.5)));
  EXPECT_EQ(ran_.size(), 4U);
  EXPECT_FALSE(scheduler_.runUntil([] { return false; }));
}

TEST_F(VirtualSchedulerTest, CountsWhatWaits) {
  a_->post(note("ready"));
  const TimerID timer = b_->after(seconds(5), note("timer"));
  EXPECT_EQ(scheduler_.readyCount(), 1U);
  EXPECT_EQ(scheduler_.timerCount(), 1U);
  EXPECT_TRUE(b_->cancel(timer));
  EXPECT_EQ(scheduler_.timerCount(), 0U);
  a_.reset();
  EXPECT_EQ(scheduler_.readyCount(), 0U);
}

TEST_F(VirtualSchedulerTest, CancelsATimerThatIsDueButHasNotRun) {
  TimerID second = 0;
  a_->after(seconds(1), [&] { EXPECT_TRUE(a_->cancel(second)); });
  second = a_->after(seconds(1), note("cancelled"));
  scheduler_.advance(seconds(1));
  EXPECT_THAT(ran_, ElementsAre());
}

TEST_F(VirtualSchedulerTest, KnowsTimersOnlyByTheirQueue) {
  const TimerID timer = a_->after(seconds(1), note("a"));
  EXPECT_FALSE(b_->cancel(timer));
  scheduler_.advance(seconds(1));
  EXPECT_THAT(ran_, ElementsAre("a"));
}

TEST_F(VirtualSchedulerTest, LetsTheWallClockFollowTheTimeAndJump) {
  EXPECT_EQ(scheduler_.now(), VirtualScheduler::START);
  scheduler_.advance(seconds(60));
  EXPECT_EQ(scheduler_.now().secondsSince1970, VirtualScheduler::START.secondsSince1970 + 60);
  scheduler_.setWallClock({1000});
  scheduler_.advance(seconds(1));
  EXPECT_EQ(scheduler_.now(), Timestamp{1001});
  EXPECT_EQ(scheduler_.monotonic(), MonotonicTime{seconds(61)});
}

TEST_F(VirtualSchedulerTest, OutlivedByAQueueWhoseTasksThenNeverRun) {
  auto other = std::make_unique<VirtualScheduler>();
  const auto queue = other->makeSerialQueue("left over");
  queue->post(note("never"));
  queue->after(seconds(1), note("never"));
  other.reset();
  EXPECT_THAT(ran_, ElementsAre());
}

TEST_F(VirtualSchedulerTest, LetsGoOfTasksThatHoldTheirOwnQueue) {
  const auto token = std::make_shared<int>();
  {
    VirtualScheduler other;
    const auto queue = other.makeSerialQueue("held");
    queue->post([queue, token] {});
    queue->after(seconds(1), [queue, token] {});
  }
  EXPECT_EQ(token.use_count(), 1);
}

using VirtualSchedulerDeathTest = VirtualSchedulerTest;

TEST_F(VirtualSchedulerDeathTest, AbortsWhenDrivenFromWithinATask) {
  a_->post([this] { scheduler_.advance(seconds(1)); });
  a_->post([] {});
  EXPECT_DEATH(scheduler_.runUntilIdle(), "driven from within a task");
}

std::vector<int> orderWithSeed(std::uint64_t seed) {
  VirtualScheduler scheduler(seed);
  const auto one = scheduler.makeSerialQueue("one");
  const auto two = scheduler.makeSerialQueue("two");
  std::vector<int> order;
  for (int i = 0; i < 4; ++i) {
    one->post([&order, i] { order.push_back(i); });
    two->post([&order, i] { order.push_back(10 + i); });
    scheduler.global().post([&order, i] { order.push_back(100 + i); });
  }
  scheduler.runUntilIdle();
  return order;
}

TEST(SeededVirtualScheduler, RepeatsItsOrderForTheSameSeedAndVariesItForOthers) {
  std::set<std::vector<int>> orders;
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    EXPECT_EQ(orderWithSeed(seed), orderWithSeed(seed));
    orders.insert(orderWithSeed(seed));
  }
  EXPECT_GT(orders.size(), 40U);
}

TEST(SeededVirtualScheduler, KeepsSerialQueuesInOrderAndMixesTheConcurrentOne) {
  bool mixed = false;
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    std::vector<int> one, two, concurrent;
    for (const int what : orderWithSeed(seed)) (what < 10 ? one : what < 100 ? two : concurrent).push_back(what);
    EXPECT_THAT(one, ElementsAre(0, 1, 2, 3));
    EXPECT_THAT(two, ElementsAre(10, 11, 12, 13));
    EXPECT_THAT(concurrent, testing::UnorderedElementsAre(100, 101, 102, 103));
    mixed = mixed || !std::ranges::is_sorted(concurrent);
  }
  EXPECT_TRUE(mixed);
}

}  // namespace
}  // namespace vondle
