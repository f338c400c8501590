#include "platform/dispatch_group.h"

#include <cassert>
#include <utility>

namespace vondle {

void DispatchGroup::enter() {
  MutexLock hold(lock_);
  ++inside_;
}

void DispatchGroup::leave() {
  MutexLock hold(lock_);
  assert(inside_ > 0);
  if (--inside_ > 0 || !queue_) return;
  Queue* queue = std::exchange(queue_, nullptr);
  Task task = std::move(task_);
  hold.unlock();
  queue->post(std::move(task));
}

void DispatchGroup::notify(Queue& queue, Task task) {
  MutexLock hold(lock_);
  assert(!queue_);
  if (inside_ > 0) {
    queue_ = &queue;
    task_ = std::move(task);
    return;
  }
  hold.unlock();
  queue.post(std::move(task));
}

}  // namespace vondle
