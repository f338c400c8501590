#include "platform/repeating_timer.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace vondle {

struct RepeatingTimer::State : std::enable_shared_from_this<State> {
  State(const Clock& itsClock, std::shared_ptr<Queue> itsQueue, Duration itsInterval, std::function<void()> itsHandler)
      : clock(itsClock), queue(std::move(itsQueue)), interval(itsInterval), handler(std::move(itsHandler)),
        next(clock.monotonic() + interval) {}

  void arm() {
    queue->after(next - clock.monotonic(), [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->tick();
    });
  }

  void tick() {
    if (cancelled) return;
    handler();
    if (cancelled) return;
    next = std::max(next + interval, clock.monotonic());
    arm();
  }

  const Clock& clock;
  const std::shared_ptr<Queue> queue;
  const Duration interval;
  const std::function<void()> handler;
  MonotonicTime next;  // touched by the constructor, then only on the queue
  std::atomic<bool> cancelled = false;
};

RepeatingTimer::RepeatingTimer(const Clock& clock, std::shared_ptr<Queue> queue, Duration interval,
                               std::function<void()> handler)
    : state_(std::make_shared<State>(clock, std::move(queue), interval, std::move(handler))) {
  state_->arm();
}

RepeatingTimer::~RepeatingTimer() { cancel(); }

void RepeatingTimer::cancel() { state_->cancelled = true; }

}  // namespace vondle
