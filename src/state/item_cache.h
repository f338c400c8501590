#pragma once

#include <optional>
#include <string>
#include <vector>

#include "api/entry.h"
#include "base/completion.h"
#include "base/mutex.h"
#include "base/time.h"
#include "platform/clock.h"
#include "state/compact_entries.h"

namespace vondle {

class VondleAPI;

// How old a record may be before a change on the server is built on it: never a cached one, unless the server fails.
inline constexpr Duration mutationFreshness = seconds(0);

// The records that the server sent since this process started, by identifier; without a bound. Any thread.
class ItemCache {
 public:
  ItemCache(VondleAPI& api, const Clock& clock) : api_(api), clock_(clock) {}
  static ItemCache& shared();

  // Replaces earlier records of the same identifiers as a whole; the later of two in one list counts.
  void store(const std::vector<Entry>& entries) EXCLUDES(lock_);
  void store(const Entry& entry) EXCLUDES(lock_);
  std::optional<Entry> get(const std::string& id) EXCLUDES(lock_);
  void forget(const std::string& id) EXCLUDES(lock_);

  // The cached record when it is younger than maxAge, or, without a maxAge, whatever its age. Else the server's, which
  // is stored; when the server fails, the cached one all the same, if there is one. Completes before the call returns
  // or on a thread of the API client's.
  void resolve(std::string id, std::optional<Duration> maxAge, Completion<std::optional<Entry>> completion)
      EXCLUDES(lock_);

 private:
  VondleAPI& api_;
  const Clock& clock_;
  Mutex lock_;
  CompactEntries entries_ GUARDED_BY(lock_);
};

}  // namespace vondle
