#pragma once

#include <cstdint>

#include "base/mutex.h"
#include "platform/clock.h"

namespace vondle {

// The bandwidth meter behind paced transfers: answers how long to wait after each chunk of bytes. Starts unlimited and
// empty. Time is monotonic. Any thread; constant time, no allocation, nothing ever sleeps here.
class TokenBucket {
 public:
  explicit TokenBucket(const Clock& clock);

  // Bytes per second; 0 and less: unlimited. The rate it has already changes nothing, a bucket that was unlimited
  // starts full, a lower rate trims the balance, a higher one leaves it.
  void setRate(double newRate) EXCLUDES(lock_);
  [[nodiscard]] bool isUnlimited() const EXCLUDES(lock_);
  // Charges the bytes and answers the seconds to wait before moving more; 0: go on.
  double take(std::int64_t bytes) EXCLUDES(lock_);

  // What is left, in bytes; negative: debt. As of the last take or setRate.
  [[nodiscard]] double tokens() const EXCLUDES(lock_);
  [[nodiscard]] double rate() const EXCLUDES(lock_);

 private:
  static constexpr double BURST_SECONDS = 1.0;
  static constexpr double MAX_DEBT_SECONDS = 2.0;

  const Clock& clock_;
  mutable Mutex lock_;
  double rate_ GUARDED_BY(lock_) = 0;
  double tokens_ GUARDED_BY(lock_) = 0;
  MonotonicTime last_ GUARDED_BY(lock_);
};

}  // namespace vondle
