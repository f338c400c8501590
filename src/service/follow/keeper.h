#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/inode.h"
#include "service/listing/folder_listing.h"
#include "service/replica/tree.h"

namespace vondle {

// Sees to it that what is to be kept downloaded is here: items whose policy says so, and everything in folders whose
// policy says so, whatever its own policy, also what appears there later. Lists such folders, fetches such files in the
// background, and fetches them again when they change on the server. Where an item is kept no more, its fetch is
// cancelled; dropping what is here is for whoever stopped it.
//
// What cannot be had is tried again after a delay that doubles. When everything is here, nothing runs. Any thread.
class Keeper : public std::enable_shared_from_this<Keeper> {
 public:
  static constexpr std::size_t AT_ONCE = 4;  // listings and fetches
  static constexpr Duration FIRST_RETRY = seconds(5);
  static constexpr Duration LAST_RETRY = seconds(300);

  // What there is of some items and everything in them.
  struct Share {
    std::size_t files = 0;
    std::size_t filesHere = 0;
    std::int64_t bytes = 0;
    std::int64_t bytesHere = 0;  // with those of fetches under way
    std::size_t pending = 0;     // files and unlisted folders that are still to come and have not failed
    std::map<Inode, Error> failures;
  };

  struct Status {
    std::size_t items = 0;    // of that policy
    std::size_t waiting = 0;  // files and folders, with those under way
    std::size_t failing = 0;
  };

  Keeper(Tree& tree, std::shared_ptr<ContentStore> contents, std::shared_ptr<FolderListing> listing,
         Scheduler& scheduler);

  // Begins with what the tree says is to be kept; once.
  void start();
  // What the changes mean for what is kept; subscribe it to the Tree, after the contents.
  void apply(const std::vector<ReplicaChange>& changes);
  // What the item had here is gone, without a change of the tree's. See ContentStore::onAbandoned.
  void noteMissing(Inode inode);
  // Tries at once what has failed, which does not count as failed from here on.
  void retryNow() EXCLUDES(lock_);
  // Ends what runs, and begins nothing more.
  void stop();

  [[nodiscard]] Status status() const EXCLUDES(lock_);
  // Goes through the whole tree below the items.
  [[nodiscard]] Share shareOf(const std::vector<Inode>& inodes) const EXCLUDES(lock_);

 private:
  struct Running {
    std::shared_ptr<Progress> wait;
    bool isChanged = false;  // since it began
  };

  // All on the queue.
  void look(const std::vector<Inode>& inodes);
  void take(Inode inode);
  void work();
  void begin(Inode inode);
  void beginFolder(Inode folder, const std::shared_ptr<Progress>& wait);
  void beginFile(Inode file, const std::shared_ptr<Progress>& wait);
  void ended(Inode inode, const std::optional<Error>& error) EXCLUDES(lock_);
  void failed(Inode inode, const Error& error) EXCLUDES(lock_);
  void retry(const std::map<Inode, Error>& failures);
  void publish() EXCLUDES(lock_);

  [[nodiscard]] std::map<Inode, Error> takeFailures() EXCLUDES(lock_);
  [[nodiscard]] Replica& replica() const { return tree_.replica(); }
  [[nodiscard]] bool isHere(Inode file) const;

  Tree& tree_;
  const std::shared_ptr<ContentStore> contents_;
  const std::shared_ptr<FolderListing> listing_;
  const std::shared_ptr<Queue> queue_;

  // Used on the queue alone.
  std::deque<Inode> waiting_;
  std::set<Inode> isWaiting_;  // the same, for looking up
  std::map<Inode, Running> running_;
  Duration retryDelay_ = FIRST_RETRY;
  TimerID timer_ = 0;
  bool stopped_ = false;

  mutable Mutex lock_;
  std::map<Inode, Error> failures_ GUARDED_BY(lock_);
  std::size_t waitingCount_ GUARDED_BY(lock_) = 0;
};

}  // namespace vondle
