#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/scheduler.h"

namespace vondle {

// Keeps the bytes moved within the last three seconds and publishes the rates, at most once a second, in stats.json of
// the container that programs of the application group share. Written on a queue of its own, so that no transfer waits
// for the disk; a write that fails is forgotten. Any thread.
class Stats {
 public:
  static Stats& shared();

  Stats(const Clock& clock, Scheduler& scheduler, Files& files);

  void record(std::int64_t down, std::int64_t up) EXCLUDES(lock_);

 private:
  struct Sample {
    MonotonicTime at;
    std::int64_t down;
    std::int64_t up;
  };

  const Clock& clock_;
  Files& files_;
  const std::shared_ptr<Queue> queue_;
  Mutex lock_;
  std::deque<Sample> samples_ GUARDED_BY(lock_);  // oldest first: the clock never goes back
  std::int64_t downSum_ GUARDED_BY(lock_) = 0;    // over the samples, so that a fast line costs no more than a slow one
  std::int64_t upSum_ GUARDED_BY(lock_) = 0;
  std::optional<MonotonicTime> lastWrite_ GUARDED_BY(lock_);
};

}  // namespace vondle
