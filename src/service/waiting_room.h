#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"
#include "platform/progress.h"
#include "service/inode.h"

namespace vondle {

// Those who wait for one operation on an item, so that it is done once for all of them. Any thread; completions run
// with no lock held. Each waiter brings a Progress: cancelling it ends that wait with USER_CANCELLED, and when it was
// the last one, the operation is told that nobody waits.
template <class Value>
class WaitingRoom : public std::enable_shared_from_this<WaitingRoom<Value>> {
 public:
  using Answer = Completion<const Result<Value>&>;
  using Abandoned = std::function<void(Inode)>;

  explicit WaitingRoom(Abandoned abandoned) : abandoned_(std::move(abandoned)) {}

  // True for the first: the caller now begins the operation and calls settle at its end.
  bool enter(Inode inode, const std::shared_ptr<Progress>& wait, Answer answer) EXCLUDES(lock_) {
    std::uint64_t number = 0;
    bool first = false;
    {
      MutexLock hold(lock_);
      number = ++lastNumber_;
      first = !rooms_.contains(inode);
      rooms_[inode].emplace(number, std::move(answer));
    }
    if (!wait) return first;
    wait->setCancellationHandler([weak = this->weak_from_this(), inode, number] {
      if (const auto self = weak.lock()) self->leave(inode, number);
    });
    if (wait->isCancelled()) leave(inode, number);
    return first;
  }

  // Answers everyone.
  void settle(Inode inode, const Result<Value>& result) EXCLUDES(lock_) {
    Room room;
    {
      MutexLock hold(lock_);
      const auto found = rooms_.find(inode);
      if (found == rooms_.end()) return;
      room = std::move(found->second);
      rooms_.erase(found);
    }
    for (auto& [number, answer] : room) std::move(answer)(result);
  }

  void settleAll(const Result<Value>& result) EXCLUDES(lock_) {
    std::vector<Inode> inodes;
    {
      MutexLock hold(lock_);
      for (const auto& [inode, room] : rooms_) inodes.push_back(inode);
    }
    for (const Inode inode : inodes) settle(inode, result);
  }

  [[nodiscard]] std::size_t waitingFor(Inode inode) const EXCLUDES(lock_) {
    MutexLock hold(lock_);
    const auto found = rooms_.find(inode);
    return found == rooms_.end() ? 0 : found->second.size();
  }

 private:
  using Room = std::unordered_map<std::uint64_t, Answer>;

  void leave(Inode inode, std::uint64_t number) EXCLUDES(lock_) {
    Room left;
    bool isEmpty = false;
    {
      MutexLock hold(lock_);
      const auto found = rooms_.find(inode);
      if (found == rooms_.end()) return;
      if (auto waiter = found->second.extract(number)) left.insert(std::move(waiter));
      isEmpty = !left.empty() && found->second.empty();
    }
    for (auto& [gone, answer] : left) std::move(answer)(failure(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED)));
    if (isEmpty && abandoned_) abandoned_(inode);
  }

  const Abandoned abandoned_;
  mutable Mutex lock_;
  std::uint64_t lastNumber_ GUARDED_BY(lock_) = 0;
  std::unordered_map<Inode, Room> rooms_ GUARDED_BY(lock_);
};

}  // namespace vondle
