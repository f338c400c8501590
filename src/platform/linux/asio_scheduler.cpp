#include "platform/linux/asio_scheduler.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <utility>

#include <asio/any_io_executor.hpp>
#include <asio/basic_waitable_timer.hpp>
#include <asio/bind_executor.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>

#include "base/mutex.h"
#include "platform/linux/linux_clock.h"

namespace vondle {
namespace {

// The monotonic clock, in the shape that Asio's timers ask for.
struct TimerClock {
  using duration = Duration;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<TimerClock>;
  static time_point now() { return time_point(LinuxClock::sinceBoot()); }
};

using Timer = asio::basic_waitable_timer<TimerClock>;

}  // namespace

class AsioScheduler::Pool : public asio::thread_pool {
 public:
  using asio::thread_pool::thread_pool;
};

class AsioScheduler::AsioQueue final : public Queue {
 public:
  explicit AsioQueue(asio::any_io_executor executor) : state_(std::make_shared<State>(std::move(executor))) {}
  ~AsioQueue() override { state_->close(); }

  void post(Task task) override {
    asio::post(state_->executor, [state = state_, task = std::move(task)]() mutable {
      if (!state->closed) std::move(task)();
    });
  }

  TimerID after(Duration delay, Task task) override { return state_->arm(state_, delay, std::move(task)); }
  bool cancel(TimerID timer) override { return timer != 0 && state_->take(timer); }

 private:
  // What tasks on their way hold on to, so that the queue may go at any moment. The tasks themselves belong to Asio,
  // which lets go of all of them at the pool's end, also of those that hold their own queue.
  struct State {
    explicit State(asio::any_io_executor itsExecutor) : executor(std::move(itsExecutor)) {}

    TimerID arm(const std::shared_ptr<State>& self, Duration delay, Task task) EXCLUDES(lock) {
      MutexLock hold(lock);
      const TimerID id = ++lastTimer;
      Timer& timer = waiting.emplace(id, executor).first->second;
      const auto now = TimerClock::now();
      timer.expires_at(now + std::clamp(delay, Duration::zero(), TimerClock::time_point::max() - now));
      timer.async_wait(
          asio::bind_executor(executor, [self, id, task = std::move(task)](const asio::error_code&) mutable {
            if (self->take(id)) std::move(task)();
          }));
      return id;
    }

    // True for the one who takes the timer: it decides whether the task runs.
    bool take(TimerID id) EXCLUDES(lock) {
      MutexLock hold(lock);
      return waiting.erase(id) > 0;
    }

    void close() EXCLUDES(lock) {
      closed = true;
      MutexLock hold(lock);
      waiting.clear();
    }

    const asio::any_io_executor executor;
    std::atomic<bool> closed = false;
    Mutex lock;
    TimerID lastTimer GUARDED_BY(lock) = 0;
    std::map<TimerID, Timer> waiting GUARDED_BY(lock);
  };

  const std::shared_ptr<State> state_;
};

AsioScheduler::AsioScheduler(int threads)
    : pool_(std::make_unique<Pool>(threads)), global_(std::make_unique<AsioQueue>(pool_->get_executor())) {}

AsioScheduler::~AsioScheduler() {
  pool_->stop();
  pool_->join();
  global_.reset();
}

std::shared_ptr<Queue> AsioScheduler::makeSerialQueue(std::string_view) {
  return std::make_shared<AsioQueue>(asio::make_strand(pool_->get_executor()));
}

Queue& AsioScheduler::global() {
  return *global_;
}

}  // namespace vondle
