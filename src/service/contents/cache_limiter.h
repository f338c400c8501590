#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"
#include "platform/files.h"
#include "platform/scheduler.h"
#include "service/contents/cache_rules.h"
#include "service/contents/content_store.h"
#include "service/replica/replica.h"

namespace vondle {

// Keeps the downloaded contents within their bounds (see CacheLimits): finds room for a fetch before it begins, and
// drops what was used least recently when there is too much. What programs have written, what they have open, what is
// to be kept downloaded and what is being fetched stays, whatever the bounds. Never drops anything for a fetch that has
// no room even then.
//
// It looks after the bounds when something happened that may have taken room, and again while too much is here that
// cannot go yet; else it does nothing. Any thread.
class CacheLimiter : public std::enable_shared_from_this<CacheLimiter> {
 public:
  // How long after something happened it looks, so that it costs little however much happens; a program that fills the
  // reserve faster than that finds the disk full.
  static constexpr Duration LOOK_DELAY = seconds(2);
  static constexpr Duration LOOK_AGAIN_DELAY = seconds(60);
  // The kernel tells a moment later that a program has closed a file: who finds no room looks again after this time.
  static constexpr Duration CLOSING_TIME = seconds(0.1);
  // What goes beyond what must, as a part of the limit: choosing goes through all that is here.
  static constexpr std::int64_t MARGIN = 32;

  CacheLimiter(CacheLimits limits, const Replica& replica, std::shared_ptr<ContentStore> contents, Files& files);

  // Sets room aside for a fetch of an item's contents, for as long as the answer lives; what goes for it is gone from
  // the disk by then. ENOSPC, with a text for the user, when there is none. For ContentStore::reserveWith.
  using RoomAnswer = Completion<Result<ContentStore::Room>>;
  void reserve(Inode inode, std::int64_t bytes, RoomAnswer answer);

  // Something happened that may take room on the disk. Cheap, so it may be said of each request of a program's.
  void noteUse();

  struct Status {
    std::int64_t bytes = 0;      // here, as the server has them
    std::int64_t keptBytes = 0;  // of these, to be kept downloaded
    std::int64_t limit = 0;
    std::optional<std::int64_t> reserve = {};  // none, and none of the next: nobody can tell
    std::optional<std::int64_t> diskFree = {};
  };
  // Goes through all that is here.
  [[nodiscard]] Status status() const EXCLUDES(lock_);

 private:
  class Reservation;
  struct Reserved {
    Inode inode = 0;
    std::int64_t bytes = 0;
    bool isKept = false;
  };
  struct Here {
    std::vector<CachedFile> files;
    std::int64_t bytes = 0;
    std::int64_t keptBytes = 0;
  };

  // On the queue.
  void tryToReserve(Inode inode, std::int64_t bytes, bool isLastTry, RoomAnswer answer);
  bool makeRoom(std::int64_t bytes, bool isKept) EXCLUDES(lock_);
  void look() EXCLUDES(lock_);
  void evict(const Eviction& eviction);

  // Everything that is here.
  [[nodiscard]] Here here() const;
  [[nodiscard]] CacheUse useWith(std::int64_t keptBytes) const EXCLUDES(lock_);
  [[nodiscard]] ContentStore::Room setAside(Inode inode, std::int64_t bytes, bool isKept) EXCLUDES(lock_);
  void giveBack(std::uint64_t number) EXCLUDES(lock_);

  const CacheLimits limits_;
  const Replica& replica_;
  const std::shared_ptr<ContentStore> contents_;
  Files& files_;
  const std::shared_ptr<Queue> queue_;  // the one on which the contents' files come and go
  std::atomic<bool> isToLook_ = false;

  // Used on the queue alone, as of the last time it went through all that is here.
  std::int64_t keptBytes_ = 0;
  // What could go when there was too little of it, until it looks again: a large folder that is to be kept downloaded
  // asks for each of its files.
  std::optional<std::int64_t> mostForKept_;
  TimerID again_ = 0;

  mutable Mutex lock_;
  std::map<std::uint64_t, Reserved> reserved_ GUARDED_BY(lock_);
  std::uint64_t lastNumber_ GUARDED_BY(lock_) = 0;
};

}  // namespace vondle
