#pragma once

#include <condition_variable>
#include <mutex>

// A mutex that clang's thread-safety analysis understands. A lock stands beside what it guards, and the guarded members
// say GUARDED_BY(lock_). Under a lock only memory is touched: no I/O, no callback.

#if defined(__clang__)
#define VONDLE_ANNOTATE(x) __attribute__((x))
#else
#define VONDLE_ANNOTATE(x)
#endif

#define CAPABILITY(x) VONDLE_ANNOTATE(capability(x))
#define SCOPED_CAPABILITY VONDLE_ANNOTATE(scoped_lockable)
#define GUARDED_BY(x) VONDLE_ANNOTATE(guarded_by(x))
#define REQUIRES(...) VONDLE_ANNOTATE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VONDLE_ANNOTATE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VONDLE_ANNOTATE(release_capability(__VA_ARGS__))
#define EXCLUDES(...) VONDLE_ANNOTATE(locks_excluded(__VA_ARGS__))

namespace vondle {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for a scope; unlock() gives it up early, lock() takes it again.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() {
    if (held_) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() RELEASE() {
    held_ = false;
    mutex_.unlock();
  }
  void lock() ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

// For the few threads that must wait (the notifier, a test's main thread): wait with the Mutex held.
using ConditionVariable = std::condition_variable_any;

}  // namespace vondle
