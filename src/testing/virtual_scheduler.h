#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "platform/clock.h"
#include "platform/scheduler.h"

namespace vondle {

// A scheduler and its clocks in virtual time, on the one thread that drives it: tasks and timers run only within the
// calls below, so that a back-off of fifteen minutes takes microseconds and every run is the same. Without a seed,
// tasks run in the order of posting and timers in the order of (time, creation). With a seed, the next task is drawn
// among the queues that have one waiting (for the concurrent queue: any of its tasks), which searches through
// interleavings. The monotonic clock starts at 0, the wall clock at START. Driving it from within a task is a mistake
// that aborts.
class VirtualScheduler final : public Scheduler, public Clock {
 public:
  static constexpr Timestamp START{1'714'550'400};  // 2024-05-01T08:00:00Z

  explicit VirtualScheduler(std::optional<std::uint64_t> seed = std::nullopt);
  ~VirtualScheduler() override;

  std::shared_ptr<Queue> makeSerialQueue(std::string_view label) override;
  Queue& global() override { return *global_; }

  [[nodiscard]] Timestamp now() const override;
  [[nodiscard]] MonotonicTime monotonic() const override { return {elapsed_}; }
  // Sets the user's clock, as a person or NTP would; the monotonic clock and the timers take no notice.
  void setWallClock(Timestamp now);

  // Runs one task that is ready now; false when there is none.
  bool runNext();
  // Runs one task, jumping to the next timer when none is ready; false when nothing is left at all.
  bool step();
  // Runs what is ready, and what that makes ready, until nothing is; no time passes.
  void runUntilIdle();
  // Lets the time pass, running everything that falls due on the way at its moment.
  void advance(Duration duration);
  // Runs, jumping from timer to timer, until the condition holds; false when it does not within the limit.
  bool runUntil(const std::function<bool()>& condition, Duration limit = std::chrono::hours(24));

  // What waits: tasks that could run now, and timers whose time has not come. For "nothing runs without a reason".
  [[nodiscard]] std::size_t readyCount() const { return ready_.size(); }
  [[nodiscard]] std::size_t timerCount() const { return timers_.size(); }

 private:
  class VirtualQueue;
  struct Entry {
    VirtualQueue* queue;
    TimerID timer;  // 0: posted
    Task task;
  };
  using Ready = std::map<std::uint64_t, Entry>;  // by order of becoming ready
  using Timers = std::map<std::pair<Duration, TimerID>, Entry>;

  void addReady(Entry entry);
  void wakeTimers();
  Ready::iterator choose();
  bool jumpToNextTimer(Duration latest);
  bool cancel(const VirtualQueue* queue, TimerID timer);
  void forget(const VirtualQueue* queue);

  Duration elapsed_{0};
  Timestamp wallClock_ = START;  // at wallClockSetAt_
  Duration wallClockSetAt_{0};
  std::uint64_t nextReady_ = 1;
  TimerID nextTimer_ = 1;
  Ready ready_;
  Timers timers_;
  std::optional<std::mt19937_64> random_;
  bool running_ = false;
  std::uint64_t ranAtThisMoment_ = 0;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::shared_ptr<Queue> global_;
};

}  // namespace vondle
