#include "state/item_cache.h"

#include <algorithm>
#include <utility>

#include "api/vondle_api.h"
#include "base/shared_instance.h"

namespace vondle {

ItemCache& ItemCache::shared() {
  return SharedInstance<ItemCache>::current();
}

void ItemCache::store(const std::vector<Entry>& entries) {
  MutexLock hold(lock_);
  for (const Entry& entry : entries) entries_.put(entry);
}

void ItemCache::store(const Entry& entry) {
  MutexLock hold(lock_);
  entries_.put(entry);
}

std::optional<Entry> ItemCache::get(const std::string& id) {
  MutexLock hold(lock_);
  return entries_.get(id);
}

void ItemCache::forget(const std::string& id) {
  MutexLock hold(lock_);
  entries_.remove(id);
}

void ItemCache::resolve(std::string id, std::optional<Duration> maxAge, Completion<std::optional<Entry>> completion) {
  std::optional<Entry> cached = get(id);
  if (cached) {
    // Never less than 0, though the clock may have been set back since.
    const double age = std::max(clock_.now().secondsSince1970 - cached->fetchedAt.secondsSince1970, 0.0);
    if (!maxAge || age < inSeconds(*maxAge)) return std::move(completion)(std::move(cached));
  }
  api_.item(std::move(id),
            [this, cached = std::move(cached), completion = std::move(completion)](Result<Entry> fresh) mutable {
              if (!fresh) return std::move(completion)(std::move(cached));
              store(*fresh);
              std::move(completion)(std::move(*fresh));
            });
}

}  // namespace vondle
