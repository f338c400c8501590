#pragma once

#include <memory>
#include <optional>

#include "base/completion.h"
#include "fileprovider/replicated_extension.h"
#include "platform/clock.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/last_errors.h"
#include "service/replica/tree.h"
#include "service/waiting_room.h"

namespace vondle {

// Lists folders through the extension, each once, on first need; whoever needs the same folder meanwhile shares the
// listing. A listing that nobody waits for any more goes on, for the next one who comes. Any thread.
class FolderListing : public std::enable_shared_from_this<FolderListing> {
 public:
  // A listing longer than this is refused.
  static constexpr std::size_t MAX_ITEMS = 5'000'000;
  static constexpr std::size_t MAX_PAGES = 10'000;

  FolderListing(Tree& tree, ReplicatedExtension& extension, LastErrors& errors, Scheduler& scheduler,
                const Clock& clock);

  // Completes at once when the folder is listed. Errors: the extension's; NO_SUCH_ITEM for one that is not (any more)
  // in the tree; USER_CANCELLED when the wait is cancelled. `wait` may be null.
  void require(Inode folder, Request request, const std::shared_ptr<Progress>& wait,
               Completion<std::optional<Error>> completion);

  [[nodiscard]] std::size_t waitersFor(Inode folder) const { return waiting_->waitingFor(folder); }

  // Ends every wait with the error; later calls fail with it too.
  void close(Error error) EXCLUDES(lock_);

 private:
  class Operation;
  struct Nothing {};

  void begin(Inode folder, Request request);
  void finished(Inode folder, Result<void> result);

  Tree& tree_;
  ReplicatedExtension& extension_;
  LastErrors& errors_;
  Scheduler& scheduler_;
  const Clock& clock_;
  std::shared_ptr<WaitingRoom<Nothing>> waiting_;
  Mutex lock_;
  std::optional<Error> closed_ GUARDED_BY(lock_);
};

}  // namespace vondle
