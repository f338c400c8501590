#pragma once

#include <functional>
#include <memory>

#include "platform/clock.h"
#include "platform/scheduler.h"

namespace vondle {

// A timer source: runs its handler on the queue every interval, the first time one interval after creation. Deadlines
// count from creation, so they do not drift; ticks missed while the queue was busy run once. Any thread may cancel it
// or let it go, also from within the handler; no tick begins afterwards.
class RepeatingTimer {
 public:
  RepeatingTimer(const Clock& clock, std::shared_ptr<Queue> queue, Duration interval, std::function<void()> handler);
  ~RepeatingTimer();
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  void cancel();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vondle
