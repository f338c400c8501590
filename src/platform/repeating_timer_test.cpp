#include "platform/repeating_timer.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

class RepeatingTimerTest : public testing::Test {
 protected:
  std::unique_ptr<RepeatingTimer> make(Duration interval, std::function<void()> alsoDo = [] {}) {
    return std::make_unique<RepeatingTimer>(scheduler_, queue_, interval, [this, alsoDo] {
      ticks_.push_back(inSeconds(scheduler_.monotonic().sinceStart));
      alsoDo();
    });
  }
  // As if the thread were busy, or the machine stood still, for so long.
  void keepQueueBusyUntil(double moment) { queueIsBusyUntil_ = moment; }

  // Runs late what is due while the queue is busy.
  class BusyQueue final : public Queue {
   public:
    BusyQueue(RepeatingTimerTest& test, std::shared_ptr<Queue> queue) : test_(test), queue_(std::move(queue)) {}
    void post(Task task) override { queue_->post(std::move(task)); }
    TimerID after(Duration delay, Task task) override {
      const double now = inSeconds(test_.scheduler_.monotonic().sinceStart);
      return queue_->after(std::max(delay, seconds(test_.queueIsBusyUntil_ - now)), std::move(task));
    }
    bool cancel(TimerID timer) override { return queue_->cancel(timer); }

   private:
    RepeatingTimerTest& test_;
    const std::shared_ptr<Queue> queue_;
  };

  VirtualScheduler scheduler_;
  double queueIsBusyUntil_ = 0;
  std::shared_ptr<Queue> queue_ = std::make_shared<BusyQueue>(*this, scheduler_.makeSerialQueue("timer"));
  std::vector<double> ticks_;
};

TEST_F(RepeatingTimerTest, TicksFirstOneIntervalAfterCreationAndThenEveryInterval) {
  const auto timer = make(seconds(15));
  scheduler_.advance(seconds(14.999));
  EXPECT_THAT(ticks_, ElementsAre());
  scheduler_.advance(seconds(45.001));
  EXPECT_THAT(ticks_, ElementsAre(15, 30, 45, 60));
}

TEST_F(RepeatingTimerTest, StopsWhenCancelledAndLeavesNothingWaiting) {
  const auto timer = make(seconds(1));
  scheduler_.advance(seconds(2.5));
  timer->cancel();
  EXPECT_EQ(scheduler_.timerCount(), 0U);
  scheduler_.advance(seconds(10));
  EXPECT_THAT(ticks_, ElementsAre(1, 2));
}

TEST_F(RepeatingTimerTest, StopsWhenCancelledFromItsHandler) {
  std::unique_ptr<RepeatingTimer> timer;
  timer = make(seconds(1), [&] {
    if (ticks_.size() == 2) timer->cancel();
  });
  scheduler_.advance(seconds(10));
  EXPECT_THAT(ticks_, ElementsAre(1, 2));
  EXPECT_EQ(scheduler_.timerCount(), 0U);
}

TEST_F(RepeatingTimerTest, StopsWhenLetGoFromItsHandler) {
  std::unique_ptr<RepeatingTimer> timer;
  timer = make(seconds(1), [&] { timer.reset(); });
  scheduler_.advance(seconds(10));
  EXPECT_THAT(ticks_, ElementsAre(1));
  EXPECT_EQ(scheduler_.timerCount(), 0U);
}

TEST_F(RepeatingTimerTest, StopsWhenCancelledWhileItsTickIsDue) {
  const auto timer = make(seconds(1));
  scheduler_.advance(seconds(0.5));
  const auto other = scheduler_.makeSerialQueue("other");
  other->after(seconds(0.25), [&] { timer->cancel(); });
  scheduler_.advance(seconds(5));
  EXPECT_THAT(ticks_, ElementsAre());
}

TEST_F(RepeatingTimerTest, HoldsItsQueueAndMayBeTheLastToLetItGo) {
  auto timer = make(seconds(1), [] {});
  queue_.reset();
  scheduler_.advance(seconds(1));
  timer.reset();
  scheduler_.advance(seconds(5));
  EXPECT_THAT(ticks_, ElementsAre(1));
}

TEST_F(RepeatingTimerTest, RunsMissedTicksOnceAndKeepsItsBeat) {
  keepQueueBusyUntil(4.5);
  const auto timer = make(seconds(1));
  scheduler_.advance(seconds(7));
  EXPECT_THAT(ticks_, ElementsAre(4.5, 5, 6, 7));
}

TEST_F(RepeatingTimerTest, DoesNotDriftWhenEachTickIsALittleLate) {
  const auto timer = make(seconds(1), [&] { keepQueueBusyUntil(ticks_.size() + 1.25); });
  scheduler_.advance(seconds(4));
  EXPECT_THAT(ticks_, ElementsAre(1, 2.25, 3.25));
}

TEST_F(RepeatingTimerTest, TakesNoNoticeOfTheWallClock) {
  const auto timer = make(seconds(1));
  scheduler_.setWallClock({0});
  scheduler_.advance(seconds(2));
  EXPECT_THAT(ticks_, ElementsAre(1, 2));
}

}  // namespace
}  // namespace vondle
