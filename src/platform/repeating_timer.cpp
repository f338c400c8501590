#include "platform/repeating_timer.h"

#include <cassert>
#include <utility>

#include "base/mutex.h"

namespace vondle {

struct RepeatingTimer::State : std::enable_shared_from_this<State> {
  State(const Clock& itsClock, std::shared_ptr<Queue> itsQueue, Duration itsInterval, std::function<void()> itsHandler)
      : clock(itsClock),
        queue(std::move(itsQueue)),
        interval(itsInterval),
        handler(std::move(itsHandler)),
        next(clock.monotonic() + interval) {
    assert(interval > Duration::zero());
  }

  void arm() EXCLUDES(lock) {
    MutexLock hold(lock);
    if (cancelled) return;
    armed = queue->after(next - clock.monotonic(), [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->tick();
    });
  }

  void tick() EXCLUDES(lock) {
    if (isCancelled()) return;
    const Duration late = clock.monotonic() - next;
    next = next + interval * (late / interval + 1);
    handler();
    arm();
  }

  void cancel() EXCLUDES(lock) {
    MutexLock hold(lock);
    cancelled = true;
    queue->cancel(armed);
  }

  bool isCancelled() EXCLUDES(lock) {
    MutexLock hold(lock);
    return cancelled;
  }

  const Clock& clock;
  const std::shared_ptr<Queue> queue;
  const Duration interval;
  const std::function<void()> handler;
  MonotonicTime next;  // touched by the constructor, then only on the queue
  Mutex lock;
  bool cancelled GUARDED_BY(lock) = false;
  TimerID armed GUARDED_BY(lock) = 0;
};

RepeatingTimer::RepeatingTimer(const Clock& clock, std::shared_ptr<Queue> queue, Duration interval,
                               std::function<void()> handler)
    : state_(std::make_shared<State>(clock, std::move(queue), interval, std::move(handler))) {
  state_->arm();
}

RepeatingTimer::~RepeatingTimer() {
  cancel();
}

void RepeatingTimer::cancel() {
  state_->cancel();
}

}  // namespace vondle
