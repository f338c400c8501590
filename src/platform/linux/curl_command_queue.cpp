#include "platform/linux/curl_command_queue.h"

#include <utility>

namespace vondle {

void CurlCommandQueue::add(std::shared_ptr<CurlTask> task) {
  MutexLock hold(lock_);
  if (!closed_) tasks_.push_back(std::move(task));
}

// The wake-up is one write that can't block, and must not come after close: then the multi handle may be gone.
void CurlCommandQueue::push(std::shared_ptr<CurlTask> task) {
  MutexLock hold(lock_);
  if (closed_) return;
  tasks_.push_back(std::move(task));
  if (!std::exchange(isAwake_, true)) curl_multi_wakeup(multi_);
}

void CurlCommandQueue::close() {
  MutexLock hold(lock_);
  closed_ = true;
  curl_multi_wakeup(multi_);
}

bool CurlCommandQueue::take(std::vector<std::shared_ptr<CurlTask>>& tasks) {
  tasks.clear();
  MutexLock hold(lock_);
  tasks.swap(tasks_);
  isAwake_ = false;
  return !closed_;
}

}  // namespace vondle
