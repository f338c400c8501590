#include "items/listing_gate.h"

#include <utility>

#include "base/shared_instance.h"

namespace vondle {

ListingGate& ListingGate::shared() {
  return SharedInstance<ListingGate>::current();
}

void ListingGate::run(bool urgent, Job job) {
  {
    MutexLock hold(lock_);
    if (running_ >= limit_) {
      waiting_.insert(urgent ? waiting_.begin() : waiting_.end(), std::move(job));
      return;
    }
    ++running_;
  }
  start(std::move(job));
}

void ListingGate::start(Job job) {
  job([this] { release(); });
}

void ListingGate::release() {
  Job next;
  {
    MutexLock hold(lock_);
    if (waiting_.empty()) {
      --running_;
      return;
    }
    next = std::move(waiting_.front());
    waiting_.pop_front();
  }
  queue_.post([this, job = std::move(next)]() mutable { start(std::move(job)); });
}

}  // namespace vondle
