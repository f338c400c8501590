#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "base/time.h"

namespace vondle {

using Task = std::move_only_function<void()>;

// Names a pending delayed task of one queue; 0 names none.
using TimerID = std::uint64_t;

// Runs tasks on the scheduler's threads. Any thread may call. A queue may be destroyed from any thread, one of its own
// tasks included: tasks and timers that have not begun by then never run.
class Queue {
 public:
  virtual ~Queue() = default;
  virtual void post(Task task) = 0;
  // Runs the task once, not before the delay has passed (a negative delay counts as none).
  virtual TimerID after(Duration delay, Task task) = 0;
  // True when the task was still waiting and will not run.
  virtual bool cancel(TimerID timer) = 0;
};

// Thread pool, serial queues and timers. Tasks must not block for long: the pool is small.
class Scheduler {
 public:
  virtual ~Scheduler() = default;
  // A queue whose tasks run one at a time, in the order of posting. The label names it in diagnosis.
  virtual std::shared_ptr<Queue> makeSerialQueue(std::string_view label) = 0;
  // The concurrent queue: tasks run side by side, in no promised order.
  virtual Queue& global() = 0;
};

}  // namespace vondle
