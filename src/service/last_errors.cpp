#include "service/last_errors.h"

namespace vondle {

void LastErrors::note(Inode inode, Error error, Timestamp when) {
  if (heard_) heard_(error);
  MutexLock hold(lock_);
  if (const auto found = byInode_.find(inode); found != byInode_.end()) {
    order_.erase(found->second);
    byInode_.erase(found);
  }
  byInode_[inode] = order_.insert(order_.end(), {inode, {std::move(error), when}});
  if (order_.size() <= CAPACITY) return;
  byInode_.erase(order_.front().first);
  order_.pop_front();
}

void LastErrors::forget(Inode inode) {
  MutexLock hold(lock_);
  const auto found = byInode_.find(inode);
  if (found == byInode_.end()) return;
  order_.erase(found->second);
  byInode_.erase(found);
}

std::optional<LastErrors::Entry> LastErrors::of(Inode inode) const {
  MutexLock hold(lock_);
  const auto found = byInode_.find(inode);
  if (found == byInode_.end()) return std::nullopt;
  return found->second->second;
}

std::vector<std::pair<Inode, LastErrors::Entry>> LastErrors::newest(std::size_t count) const {
  MutexLock hold(lock_);
  std::vector<std::pair<Inode, Entry>> result;
  for (auto entry = order_.rbegin(); entry != order_.rend() && result.size() < count; ++entry) result.push_back(*entry);
  return result;
}

}  // namespace vondle
