#pragma once

#include <deque>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "service/mount/kernel_caches.h"
#include "service/replica/replica_change.h"

namespace vondle {

// Makes the kernel forget what is no longer true, on a thread of its own that serves nothing else: each step may wait
// for the kernel. Any thread may tell; telling returns at once.
class KernelNotifier {
 public:
  explicit KernelNotifier(KernelCaches& caches);
  ~KernelNotifier();

  void tell(const std::vector<ReplicaChange>& changes) EXCLUDES(lock_);
  // Waits until all that was told before is done.
  void drain() EXCLUDES(lock_);
  // What was told and not done yet is left.
  void stop() EXCLUDES(lock_);

 private:
  void run() EXCLUDES(lock_);
  void carryOut(const ReplicaChange& change);

  KernelCaches& caches_;
  Mutex lock_;
  ConditionVariable woken_;
  std::deque<ReplicaChange> changes_ GUARDED_BY(lock_);
  bool isBusy_ GUARDED_BY(lock_) = false;
  bool isStopped_ GUARDED_BY(lock_) = false;
  std::thread thread_;
};

}  // namespace vondle
