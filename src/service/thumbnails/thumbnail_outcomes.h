#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <variant>

#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/inode.h"
#include "service/waiting_room.h"

namespace vondle {

// Whose thumbnails are where file managers look for them, or are not to be had; and those who wait for that. Any
// thread; answers come with no lock held.
class ThumbnailOutcomes : public std::enable_shared_from_this<ThumbnailOutcomes> {
 public:
  // Nobody waits longer; who joins others waits as long as they.
  static constexpr Duration PATIENCE = seconds(10);
  // Beyond that all are forgotten; what is looked at is found out anew.
  static constexpr std::size_t MAX_KNOWN = 100'000;

  ThumbnailOutcomes(Scheduler& scheduler, const Clock& clock);

  // Of the contents with this tag; with a duration, for no longer than that.
  void settle(Inode inode, std::uint64_t tag, std::optional<Duration> duration = std::nullopt) EXCLUDES(lock_);
  // Nobody need wait any more for now.
  void answerAll();

  [[nodiscard]] bool isSettled(Inode inode, std::uint64_t tag) const EXCLUDES(lock_);
  [[nodiscard]] bool isSettledForGood(Inode inode, std::uint64_t tag) const EXCLUDES(lock_);

  // Fails only with USER_CANCELLED, when the wait is cancelled.
  using Answer = Completion<const Result<std::monostate>&>;
  void whenSettled(Inode inode, std::uint64_t tag, const std::shared_ptr<Progress>& wait, Answer answer)
      EXCLUDES(lock_);

 private:
  struct Outcome {
    std::uint64_t tag = 0;
    std::optional<MonotonicTime> until;
  };

  const Clock& clock_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<WaitingRoom<std::monostate>> waiting_;
  mutable Mutex lock_;
  std::unordered_map<Inode, Outcome> outcomes_ GUARDED_BY(lock_);
};

}  // namespace vondle
