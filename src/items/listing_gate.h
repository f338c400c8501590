#pragma once

#include <deque>
#include <functional>

#include "base/completion.h"
#include "base/mutex.h"
#include "platform/scheduler.h"

namespace vondle {

// Lets so many folder listings run at once and queues the rest: urgent ones first, the newest of them before the
// others; then the rest in the order they came. Any thread.
class ListingGate {
 public:
  static constexpr int LIMIT = 4;

  // Called exactly once when the listing has ended, however it did.
  using Done = Completion<>;
  using Job = std::move_only_function<void(Done)>;

  // Jobs that had to wait run on the queue: the thread that releases a slot is not held up, and a thousand jobs that
  // end at once need no deep stack.
  explicit ListingGate(Queue& queue, int limit = LIMIT) : queue_(queue), limit_(limit) {}
  static ListingGate& shared();

  // Runs the job before returning when a slot is free.
  void run(bool urgent, Job job) EXCLUDES(lock_);

 private:
  void start(Job job);
  void release() EXCLUDES(lock_);

  Queue& queue_;
  const int limit_;
  Mutex lock_;
  int running_ GUARDED_BY(lock_) = 0;
  std::deque<Job> waiting_ GUARDED_BY(lock_);
};

}  // namespace vondle
