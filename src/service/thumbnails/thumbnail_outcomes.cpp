#include "service/thumbnails/thumbnail_outcomes.h"

#include <utility>

namespace vondle {

ThumbnailOutcomes::ThumbnailOutcomes(Scheduler& scheduler, const Clock& clock)
    : clock_(clock),
      queue_(scheduler.makeSerialQueue("waits for thumbnails")),
      waiting_(std::make_shared<WaitingRoom<std::monostate>>(nullptr)) {}

void ThumbnailOutcomes::settle(Inode inode, std::uint64_t tag, std::optional<Duration> duration) {
  {
    MutexLock hold(lock_);
    if (outcomes_.size() >= MAX_KNOWN) outcomes_.clear();
    outcomes_[inode] = {.tag = tag, .until = duration ? std::optional(clock_.monotonic() + *duration) : std::nullopt};
  }
  waiting_->settle(inode, std::monostate());
}

void ThumbnailOutcomes::answerAll() {
  waiting_->settleAll(std::monostate());
}

bool ThumbnailOutcomes::isSettled(Inode inode, std::uint64_t tag) const {
  MutexLock hold(lock_);
  const auto found = outcomes_.find(inode);
  if (found == outcomes_.end() || found->second.tag != tag) return false;
  return !found->second.until || clock_.monotonic() < *found->second.until;
}

bool ThumbnailOutcomes::isSettledForGood(Inode inode, std::uint64_t tag) const {
  MutexLock hold(lock_);
  const auto found = outcomes_.find(inode);
  return found != outcomes_.end() && found->second.tag == tag && !found->second.until;
}

void ThumbnailOutcomes::whenSettled(Inode inode, std::uint64_t tag, const std::shared_ptr<Progress>& wait,
                                    Answer answer) {
  if (isSettled(inode, tag)) return std::move(answer)(std::monostate());
  if (waiting_->enter(inode, wait, std::move(answer)))
    queue_->after(PATIENCE, [waiting = waiting_, inode] { waiting->settle(inode, std::monostate()); });
  // Meanwhile it may have come.
  if (isSettled(inode, tag)) waiting_->settle(inode, std::monostate());
}

}  // namespace vondle
