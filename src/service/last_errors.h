#pragma once

#include <functional>
#include <list>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"
#include "service/inode.h"

namespace vondle {

// The last failure of each item, in full, for whoever asks why a program got an errno. Any thread. Keeps the newest
// CAPACITY; a success forgets the item's.
class LastErrors {
 public:
  static constexpr std::size_t CAPACITY = 1024;

  struct Entry {
    Error error;
    Timestamp when;
  };

  // Hears of every failure that is noted; before the first.
  void onNote(std::function<void(const Error&)> heard) { heard_ = std::move(heard); }
  void note(Inode inode, Error error, Timestamp when) EXCLUDES(lock_);
  void forget(Inode inode) EXCLUDES(lock_);
  [[nodiscard]] std::optional<Entry> of(Inode inode) const EXCLUDES(lock_);
  // Newest first.
  [[nodiscard]] std::vector<std::pair<Inode, Entry>> newest(std::size_t count) const EXCLUDES(lock_);

 private:
  using Order = std::list<std::pair<Inode, Entry>>;  // oldest first

  std::function<void(const Error&)> heard_;
  mutable Mutex lock_;
  Order order_ GUARDED_BY(lock_);
  std::unordered_map<Inode, Order::iterator> byInode_ GUARDED_BY(lock_);
};

}  // namespace vondle
