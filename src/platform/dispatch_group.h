#pragma once

#include <memory>

#include "base/mutex.h"
#include "platform/scheduler.h"

namespace vondle {

// Waits, without a thread, until several asynchronous steps are done: enter before each, leave after each, and notify
// runs its task on the queue when as many have left as entered (at once when none is inside). Any thread.
class DispatchGroup {
 public:
  void enter() EXCLUDES(lock_);
  void leave() EXCLUDES(lock_);
  // Once per group; the queue must outlive the task.
  void notify(Queue& queue, Task task) EXCLUDES(lock_);

 private:
  Mutex lock_;
  int inside_ GUARDED_BY(lock_) = 0;
  Queue* queue_ GUARDED_BY(lock_) = nullptr;
  Task task_ GUARDED_BY(lock_);
};

}  // namespace vondle
