#pragma once

#include <memory>
#include <string_view>

#include "platform/scheduler.h"

namespace vondle {

// Queues and timers on a pool of threads. Delays count while the machine sleeps; one that ran out during sleep is
// noticed within five minutes of waking. What still waits at its end never runs; the end waits for running tasks, so it
// must not come from one, and no queue may be used or let go of afterwards.
class AsioScheduler final : public Scheduler {
 public:
  static constexpr int DEFAULT_THREADS = 4;  // some calls of the platform block for a moment, so more than two

  explicit AsioScheduler(int threads = DEFAULT_THREADS);
  ~AsioScheduler() override;

  std::shared_ptr<Queue> makeSerialQueue(std::string_view label) override;
  Queue& global() override;

 private:
  class Pool;
  class AsioQueue;
  const std::unique_ptr<Pool> pool_;
  std::unique_ptr<AsioQueue> global_;
};

}  // namespace vondle
