#include "storage/arrivals.h"

#include <algorithm>
#include <utility>

namespace vondle::storage {

Arrivals::Hold::Hold(Arrivals& arrivals, std::int64_t owner, std::string key, std::int64_t bytes)
    : arrivals_(arrivals) {
  const MutexLock lock(arrivals_.lock_);
  body_ = arrivals_.bodies_.emplace(std::move(key), Body{.owner = owner, .bytes = bytes});
}

Arrivals::Hold::~Hold() {
  const MutexLock lock(arrivals_.lock_);
  arrivals_.bodies_.erase(body_);
}

std::int64_t Arrivals::of(std::int64_t owner, std::string_view exceptKey) const {
  const MutexLock lock(lock_);
  std::int64_t sum = 0;
  for (auto body = bodies_.begin(); body != bodies_.end();) {
    const auto end = bodies_.upper_bound(body->first);
    std::int64_t largest = 0;
    for (const auto& key = body->first; body != end; ++body)
      if (body->second.owner == owner && key != exceptKey) largest = std::max(largest, body->second.bytes);
    sum += largest;
  }
  return sum;
}

}  // namespace vondle::storage
