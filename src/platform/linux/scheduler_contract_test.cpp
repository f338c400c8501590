// What every scheduler keeps, the real one and the virtual one.

#include <array>
#include <atomic>
#include <latch>
#include <optional>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/mutex.h"
#include "platform/linux/asio_scheduler.h"
#include "platform/linux/linux_clock.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using std::chrono::milliseconds;

// A scheduler, its clock, and a way to wait for what runs on it.
class RealWorld {
 public:
  Scheduler& scheduler() { return scheduler_; }
  const Clock& clock() const { return clock_; }

  void signal() EXCLUDES(lock_) {
    MutexLock hold(lock_);
    ++signals_;
    changed_.notify_all();
  }
  // False when so many signals do not come in reasonable time.
  bool waitForSignals(int count) EXCLUDES(lock_) {
    const auto enough = [this, count]() REQUIRES(lock_) { return signals_ >= count; };
    lock_.lock();
    const bool came = changed_.wait_for(lock_, std::chrono::seconds(60), enough);
    lock_.unlock();
    return came;
  }

 private:
  Mutex lock_;
  ConditionVariable changed_;
  int signals_ GUARDED_BY(lock_) = 0;
  LinuxClock clock_;
  AsioScheduler scheduler_;  // last: its end waits for the tasks that signal
};

template <bool SEEDED>
class VirtualWorld {
 public:
  Scheduler& scheduler() { return scheduler_; }
  const Clock& clock() const { return scheduler_; }
  void signal() { ++signals_; }
  bool waitForSignals(int count) {
    return scheduler_.runUntil([this, count] { return signals_ >= count; });
  }

 private:
  VirtualScheduler scheduler_{SEEDED ? std::optional<std::uint64_t>(4711) : std::nullopt};
  int signals_ = 0;
};

template <class World>
class SchedulerContract : public testing::Test {
 protected:
  std::shared_ptr<Queue> makeQueue() { return world_->scheduler().makeSerialQueue("test"); }
  Queue& global() { return world_->scheduler().global(); }
  MonotonicTime now() { return world_->clock().monotonic(); }
  void signal() { world_->signal(); }
  bool waitForSignals(int count) { return world_->waitForSignals(count); }

  // Signals when the last task that holds it is gone, whether it ran or not.
  std::shared_ptr<void> makeToken() {
    return {nullptr, [this](void*) { signal(); }};
  }

  std::optional<World> world_{std::in_place};
};

using Worlds = testing::Types<RealWorld, VirtualWorld<false>, VirtualWorld<true>>;
TYPED_TEST_SUITE(SchedulerContract, Worlds);

TYPED_TEST(SchedulerContract, RunsTheTasksOfASerialQueueInTheOrderOfPosting) {
  const auto queue = this->makeQueue();
  std::vector<int> order;
  for (int i = 0; i < 2000; ++i) queue->post([&order, i] { order.push_back(i); });
  queue->post([this] { this->signal(); });
  ASSERT_TRUE(this->waitForSignals(1));
  ASSERT_EQ(order.size(), 2000U);
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TYPED_TEST(SchedulerContract, NeverRunsTwoTasksOfASerialQueueAtOnce) {
  constexpr int QUEUES = 4;
  constexpr int POSTERS = 8;
  constexpr int TASKS = 100;  // of each poster on each queue
  struct Lane {
    std::shared_ptr<Queue> queue;
    std::atomic<int> inside = 0;
    std::atomic<int> most = 0;
    int ran = 0;  // of the queue's tasks alone: a data race if two overlap
  };
  std::array<Lane, QUEUES> lanes;
  for (Lane& lane : lanes) lane.queue = this->makeQueue();
  for (int poster = 0; poster < POSTERS; ++poster)
    this->global().post([&] {
      for (int i = 0; i < TASKS; ++i)
        for (Lane& lane : lanes)
          lane.queue->post([this, &lane] {
            lane.most = std::max(lane.most.load(), ++lane.inside);
            ++lane.ran;
            --lane.inside;
            this->signal();
          });
    });
  ASSERT_TRUE(this->waitForSignals(QUEUES * POSTERS * TASKS));
  for (Lane& lane : lanes) {
    EXPECT_EQ(lane.most, 1);
    EXPECT_EQ(lane.ran, POSTERS * TASKS);
  }
}

TYPED_TEST(SchedulerContract, RunsTimersOfASerialQueueBetweenItsTasks) {
  const auto queue = this->makeQueue();
  std::atomic<int> inside = 0;
  int ran = 0;
  const auto task = [&] {
    EXPECT_EQ(++inside, 1);
    ++ran;
    --inside;
    this->signal();
  };
  for (int i = 0; i < 200; ++i) {
    queue->after(std::chrono::microseconds(i), task);
    queue->post(task);
  }
  ASSERT_TRUE(this->waitForSignals(400));
  EXPECT_EQ(ran, 400);
}

TYPED_TEST(SchedulerContract, RunsEveryTaskOfTheConcurrentQueueOnce) {
  std::array<std::atomic<int>, 1000> ran = {};
  for (auto& times : ran)
    this->global().post([&] {
      ++times;
      this->signal();
    });
  ASSERT_TRUE(this->waitForSignals(1000));
  for (const auto& times : ran) EXPECT_EQ(times, 1);
}

TYPED_TEST(SchedulerContract, RunsTasksThatTasksPost) {
  const auto queue = this->makeQueue();
  std::vector<int> order;
  queue->post([&] {
    queue->post([&] {
      order.push_back(2);
      this->signal();
    });
    order.push_back(1);
  });
  ASSERT_TRUE(this->waitForSignals(1));
  EXPECT_THAT(order, testing::ElementsAre(1, 2));
}

TYPED_TEST(SchedulerContract, RunsNoTaskWithinTheCallThatPostsIt) {
  const auto queue = this->makeQueue();
  bool within = false;
  const auto task = [&] {
    EXPECT_FALSE(within);
    this->signal();
  };
  queue->post([&] {
    within = true;
    queue->post(task);
    queue->after(Duration::zero(), task);
    within = false;
  });
  ASSERT_TRUE(this->waitForSignals(2));
}

TYPED_TEST(SchedulerContract, RunsDelayedTasksNotBeforeTheirTime) {
  const auto queue = this->makeQueue();
  const std::array delays = {milliseconds(0), milliseconds(1), milliseconds(3), milliseconds(20)};
  std::array<Duration, 8> waited = {};
  for (std::size_t i = 0; i < delays.size(); ++i)
    for (Queue* on : {queue.get(), &this->global()}) {
      Duration& result = waited[i * 2 + (on == queue.get() ? 0 : 1)];
      on->after(delays[i], [this, &result, start = this->now()] {
        result = this->now() - start;
        this->signal();
      });
    }
  ASSERT_TRUE(this->waitForSignals(8));
  for (std::size_t i = 0; i < waited.size(); ++i) EXPECT_GE(waited[i], delays[i / 2]);
}

TYPED_TEST(SchedulerContract, TakesANegativeDelayForNone) {
  const auto queue = this->makeQueue();
  queue->after(seconds(-1e9), [this] { this->signal(); });
  queue->after(Duration::min(), [this] { this->signal(); });
  EXPECT_TRUE(this->waitForSignals(2));
}

TYPED_TEST(SchedulerContract, WaitsForAVeryLongDelay) {
  const auto queue = this->makeQueue();
  const TimerID timer = queue->after(std::chrono::hours(24 * 365 * 100), [] { FAIL(); });
  queue->after(milliseconds(1), [this] { this->signal(); });
  ASSERT_TRUE(this->waitForSignals(1));
  EXPECT_TRUE(queue->cancel(timer));
}

TYPED_TEST(SchedulerContract, RunsTheTimersOfASerialQueueInTheOrderOfTheirTime) {
  const auto queue = this->makeQueue();
  std::vector<int> order;
  for (const int delay : {40, 10, 30, 20})
    queue->after(milliseconds(delay), [this, &order, delay] {
      order.push_back(delay);
      this->signal();
    });
  ASSERT_TRUE(this->waitForSignals(4));
  EXPECT_THAT(order, testing::ElementsAre(10, 20, 30, 40));
}

TYPED_TEST(SchedulerContract, NeverRunsACancelledTask) {
  const auto queue = this->makeQueue();
  for (Queue* on : {queue.get(), &this->global()}) {
    const TimerID timer = on->after(milliseconds(5), [token = this->makeToken()] { FAIL(); });
    EXPECT_TRUE(on->cancel(timer));
    EXPECT_FALSE(on->cancel(timer)) << "twice";
  }
  EXPECT_TRUE(this->waitForSignals(2)) << "lets go of what the tasks held";
}

TYPED_TEST(SchedulerContract, CancelsATaskThatIsDueWhileItsQueueIsBusy) {
  const auto queue = this->makeQueue();
  queue->post([&] {
    const TimerID timer = queue->after(Duration::zero(), [token = this->makeToken()] { FAIL(); });
    const MonotonicTime start = this->now();
    for (int i = 0; i < 1000 && this->now() == start; ++i) {
    }
    EXPECT_TRUE(queue->cancel(timer));
  });
  EXPECT_TRUE(this->waitForSignals(1));
}

TYPED_TEST(SchedulerContract, KnowsNothingToCancelOnceTheTaskHasBegun) {
  const auto queue = this->makeQueue();
  EXPECT_FALSE(queue->cancel(0));
  EXPECT_FALSE(queue->cancel(123456));
  TimerID timer = 0;
  bool cancelledWithin = true;
  queue->post([&] {
    timer = queue->after(Duration::zero(), [&] {
      cancelledWithin = queue->cancel(timer);
      this->signal();
    });
  });
  ASSERT_TRUE(this->waitForSignals(1));
  EXPECT_FALSE(cancelledWithin);
  EXPECT_FALSE(queue->cancel(timer));
}

TYPED_TEST(SchedulerContract, RunsOrCancelsEachOfManyTimersNeverBoth) {
  const auto queue = this->makeQueue();
  constexpr int TIMERS = 1000;
  std::array<std::atomic<bool>, TIMERS> ran = {};
  std::array<bool, TIMERS> cancelled = {};
  std::vector<TimerID> timers;
  for (int i = 0; i < TIMERS; ++i)
    timers.push_back(queue->after(std::chrono::microseconds(i % 100),
                                  [&ran, i, token = this->makeToken()] { EXPECT_FALSE(ran[i].exchange(true)); }));
  for (int i = 0; i < TIMERS; i += 2) cancelled[i] = queue->cancel(timers[i]);
  ASSERT_TRUE(this->waitForSignals(TIMERS));
  for (int i = 0; i < TIMERS; ++i) EXPECT_NE(ran[i], cancelled[i]) << i;
}

TYPED_TEST(SchedulerContract, NeverRunsWhatWaitsOnADestroyedQueue) {
  auto queue = this->makeQueue();
  queue->post([&] {
    queue->post([token = this->makeToken()] { FAIL(); });
    queue->after(Duration::zero(), [token = this->makeToken()] { FAIL(); });
    queue->after(milliseconds(2), [token = this->makeToken()] { FAIL(); });
    queue.reset();
  });
  EXPECT_TRUE(this->waitForSignals(3)) << "lets go of what the tasks held";
}

TYPED_TEST(SchedulerContract, LetsATaskFinishThatDestroysItsQueue) {
  auto queue = this->makeQueue();
  bool finished = false;
  queue->post([this, &finished, own = queue, text = std::string(100, 'x')]() mutable {
    own.reset();
    finished = text == std::string(100, 'x');
    this->signal();
  });
  queue.reset();
  ASSERT_TRUE(this->waitForSignals(1));
  EXPECT_TRUE(finished);
}

TYPED_TEST(SchedulerContract, MayDestroyQueuesFromOutsideWhileTheirTasksRun) {
  constexpr int QUEUES = 100;
  constexpr int TASKS = 10;
  for (int i = 0; i < QUEUES; ++i) {
    auto queue = this->makeQueue();
    for (int task = 0; task < TASKS; ++task) {
      queue->post([token = this->makeToken()] {});
      queue->after(std::chrono::microseconds(task), [token = this->makeToken()] {});
    }
    queue.reset();
  }
  EXPECT_TRUE(this->waitForSignals(QUEUES * TASKS * 2));
}

TYPED_TEST(SchedulerContract, LetsGoOfAllThatWaitsAtItsEnd) {
  const auto held = std::make_shared<int>();
  {
    const auto queue = this->makeQueue();
    queue->after(std::chrono::hours(1), [held] { FAIL(); });
    queue->after(std::chrono::hours(1), [held, queue] { FAIL(); });
    this->global().after(std::chrono::hours(1), [held, queue] { FAIL(); });
  }
  EXPECT_EQ(held.use_count(), 4) << "the queue lives on in its own task";
  this->world_.reset();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(AsioScheduler, RunsTasksOfTheConcurrentQueueSideBySide) {
  AsioScheduler scheduler(2);
  std::latch both(2);
  std::latch done(2);
  for (int i = 0; i < 2; ++i)
    scheduler.global().post([&] {
      both.arrive_and_wait();
      done.count_down();
    });
  done.wait();
}

TEST(AsioScheduler, RunsDifferentSerialQueuesSideBySide) {
  AsioScheduler scheduler(2);
  const auto one = scheduler.makeSerialQueue("one");
  const auto two = scheduler.makeSerialQueue("two");
  std::latch both(2);
  std::latch done(2);
  for (const auto& queue : {one, two})
    queue->post([&] {
      both.arrive_and_wait();
      done.count_down();
    });
  done.wait();
}

TEST(AsioScheduler, WaitsAtItsEndForTheTasksThatRun) {
  std::latch begun(1);
  std::atomic<bool> finished = false;
  {
    AsioScheduler scheduler(1);
    scheduler.global().post([&] {
      begun.count_down();
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      finished = true;
    });
    begun.wait();
  }
  EXPECT_TRUE(finished);
}

}  // namespace
}  // namespace vondle
