#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "config/paths.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace vondle {

// A request that another process left: keep the item downloaded, or stop keeping it.
struct PinRequest {
  std::string id;
  bool pin = false;
  friend bool operator==(const PinRequest&, const PinRequest&) = default;
};

// The identifiers of the items that the user asked to keep downloaded, in ~/.vondle/pinned.json, which other processes
// may write too: a change of theirs is seen within a second. They leave messages in pinned_dirty.json (items whose pin
// changed) and pinned_pending.json (requests), which are taken from here. Any thread; the files are small and the lock
// is held while they are read and written.
class Pins {
 public:
  Pins(Files& files, const Clock& clock, Paths paths) : files_(files), clock_(clock), paths_(std::move(paths)) {}
  static Pins& shared();

  [[nodiscard]] std::string fileURL() const { return paths_.folder() + "/pinned.json"; }
  [[nodiscard]] std::string dirtyURL() const { return paths_.folder() + "/pinned_dirty.json"; }
  [[nodiscard]] std::string pendingURL() const { return paths_.folder() + "/pinned_pending.json"; }

  bool contains(const std::string& id) EXCLUDES(lock_);
  // Kept in memory even when it can't be written. Makes the folder when it is missing, so that a pin is not forgotten.
  void set(const std::string& id, bool pinned) EXCLUDES(lock_);
  // In the file's order, duplicates included; the file is gone afterwards. A file that can't be understood stays.
  std::vector<std::string> takeDirty() EXCLUDES(lock_);
  std::vector<PinRequest> takePending() EXCLUDES(lock_);

 private:
  std::set<std::string>& loaded() REQUIRES(lock_);

  Files& files_;
  const Clock& clock_;
  const Paths paths_;
  Mutex lock_;
  std::optional<std::set<std::string>> ids_ GUARDED_BY(lock_);
  std::optional<Timestamp> lastMtime_ GUARDED_BY(lock_);
  MonotonicTime lastCheck_ GUARDED_BY(lock_);
};

}  // namespace vondle
