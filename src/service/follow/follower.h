#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"
#include "fileprovider/replicated_extension.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/scheduler.h"
#include "service/follow/anchor_file.h"
#include "service/replica/tree.h"

namespace vondle {

// Keeps the tree true to the server by reading the working set's changes: at the start, when it is signalled, on a
// schedule, and when somebody asks for it. One run reads page after page until no more is coming. A run that fails, or
// whose pages lead nowhere, is tried again after a delay that doubles. Any thread.
//
// A feed can begin anew (its reader forgot how far it was, and goes on from the newest change), and a crash can come
// between its page and ours. Both show in the anchors: one that is not the anchor the tree was last brought to, or that
// moves without news although it was never reached by news. The tree then takes every folder as changed, to be listed
// again on next need.
class Follower : public std::enable_shared_from_this<Follower> {
 public:
  static constexpr Duration INTERVAL_IN_USE = seconds(30);
  static constexpr Duration INTERVAL_IDLE = seconds(300);
  static constexpr Duration FIRST_RETRY = seconds(2);
  static constexpr Duration LAST_RETRY = seconds(300);
  // A feed that has more to come after this many pages is left alone for a while.
  static constexpr std::size_t MAX_PAGES = 10'000;

  struct Status {
    SyncAnchor anchor;
    bool isRunning = false;
    std::optional<Timestamp> lastSuccess;
    std::optional<Error> lastError;  // of the last run, if it failed
    std::optional<Duration> nextIn;  // when it is not running
    std::int64_t updates = 0;        // items since the start
    std::int64_t deletions = 0;
  };

  // lastUse tells when a program last used the folder. The anchor is kept in the file named. All outlive the follower.
  Follower(ReplicatedExtension& extension, Tree& tree, Scheduler& scheduler, const Clock& clock, Files& files,
           std::string anchorPath, std::function<MonotonicTime()> lastUse);

  // Hears how each run ended; before start.
  void onRun(std::function<void(const std::optional<Error>&)> heard) { heard_ = std::move(heard); }
  // The first run; once.
  void start();
  // News is there: reads soon.
  void signal();
  // Reads everything that the server has now; completes with the run that began after this call.
  void sync(Completion<std::optional<Error>> completion);
  // A program uses the folder after a rest: the next run comes as soon as it would have come in use. Cheap.
  void noteUse();
  // No run begins any more, and whoever waits for one is told that it was cancelled.
  void stop();

  [[nodiscard]] Status status() const EXCLUDES(lock_);

 private:
  class PageObserver;

  // All on the queue, in the order of a run.
  void beginRun();
  void firstAnchorRead(std::optional<SyncAnchor> anchor);
  void readPage();
  void pageRead(PageObserver& page, SyncAnchor anchor, bool moreComing);
  void pageApplied(const SyncAnchor& anchor, bool hadNews, bool moreComing);
  void listEverythingAgain(Completion<> completion);
  void pageKept(const SyncAnchor& anchor, bool moreComing, bool mustSave);
  void finishRun(std::optional<Error> error);

  void scheduleNext(Duration delay);
  void runSoon();
  [[nodiscard]] Duration interval() const;
  void publish(const std::function<void(Status&)>& change) EXCLUDES(lock_);

  ReplicatedExtension& extension_;
  Tree& tree_;
  const Clock& clock_;
  Files& files_;
  const std::string anchorPath_;
  const std::function<MonotonicTime()> lastUse_;
  std::function<void(const std::optional<Error>&)> heard_;
  const std::shared_ptr<Queue> queue_;

  // Used on the queue alone.
  bool stopped_ = false;
  bool running_ = false;
  bool again_ = false;                                            // a run was asked for while one was running
  std::vector<Completion<std::optional<Error>>> waiting_;         // for the next run
  std::vector<Completion<std::optional<Error>>> waitingForThis_;  // for the one that is running
  std::shared_ptr<Enumerator> enumerator_;
  std::optional<FollowedAnchor> followed_;
  bool missedChanges_ = false;
  std::unordered_set<SyncAnchor> anchorsOfRun_;
  TimerID timer_ = 0;
  MonotonicTime lastRun_;
  Duration retry_{0};  // 0: the last run succeeded

  std::atomic<bool> restsLong_ = false;  // the next run comes later than it would in use
  mutable Mutex lock_;
  Status status_ GUARDED_BY(lock_);
  MonotonicTime statusNextAt_ GUARDED_BY(lock_);
};

}  // namespace vondle
