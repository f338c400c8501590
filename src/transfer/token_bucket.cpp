#include "transfer/token_bucket.h"

#include <algorithm>

namespace vondle {

TokenBucket::TokenBucket(const Clock& clock) : clock_(clock), last_(clock.monotonic()) {}

void TokenBucket::setRate(double newRate) {
  MutexLock hold(lock_);
  if (newRate == rate_) return;
  const double oldRate = rate_;
  rate_ = std::max(newRate, 0.0);
  tokens_ = oldRate == 0 ? rate_ : std::min(rate_, tokens_);
  last_ = clock_.monotonic();
}

bool TokenBucket::isUnlimited() const {
  MutexLock hold(lock_);
  return rate_ == 0;
}

double TokenBucket::take(std::int64_t bytes) {
  MutexLock hold(lock_);
  if (rate_ <= 0) return 0;
  const MonotonicTime now = clock_.monotonic();
  tokens_ = std::min(rate_ * BURST_SECONDS, tokens_ + inSeconds(now - last_) * rate_);
  last_ = now;
  tokens_ = std::max(tokens_ - static_cast<double>(bytes), -rate_ * MAX_DEBT_SECONDS);
  return tokens_ >= 0 ? 0 : -tokens_ / rate_;
}

double TokenBucket::tokens() const {
  MutexLock hold(lock_);
  return tokens_;
}

double TokenBucket::rate() const {
  MutexLock hold(lock_);
  return rate_;
}

}  // namespace vondle
