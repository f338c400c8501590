#include "service/follow/follower.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "platform/log.h"

namespace vondle {

namespace {

constexpr Log LOG("com.ferrow.vondle.service", "follow");

Error endlessFeed() {
  return {POSIX_ERROR_DOMAIN, EPROTO, "the server announces more changes but sends none"};
}

}  // namespace

// Gathers one page, so that the tree takes its updates and deletions as one change. Updates may still arrive after the
// finish: they are applied as they come.
class Follower::PageObserver : public ChangeObserver, public std::enable_shared_from_this<PageObserver> {
 public:
  PageObserver(std::weak_ptr<Follower> follower, Tree& tree) : follower_(std::move(follower)), tree_(tree) {}

  void didUpdateItems(std::vector<Item> items) override EXCLUDES(lock_) {
    const auto follower = follower_.lock();
    if (!follower) return;
    follower->publish([&](Status& status) { status.updates += static_cast<std::int64_t>(items.size()); });
    {
      const MutexLock guard(lock_);
      if (!finished_) return (void)std::ranges::move(items, std::back_inserter(updates_));
    }
    tree_.applyUpdates(std::move(items), [] {});
  }

  void didDeleteItemsWithIdentifiers(std::vector<ItemIdentifier> identifiers) override EXCLUDES(lock_) {
    const auto follower = follower_.lock();
    if (!follower) return;
    follower->publish([&](Status& status) { status.deletions += static_cast<std::int64_t>(identifiers.size()); });
    {
      const MutexLock guard(lock_);
      if (!finished_) return (void)std::ranges::move(identifiers, std::back_inserter(deletions_));
    }
    tree_.applyDeletions(std::move(identifiers), [] {});
  }

  void finishEnumeratingChangesUpToSyncAnchor(SyncAnchor anchor, bool moreComing) override {
    finish([self = shared_from_this(), anchor = std::move(anchor), moreComing](Follower& follower) mutable {
      follower.pageRead(*self, std::move(anchor), moreComing);
    });
  }

  void finishEnumeratingWithError(Error error) override {
    finish([error = std::move(error)](Follower& follower) mutable { follower.finishRun(std::move(error)); });
  }

  // After the finish; once.
  [[nodiscard]] std::vector<Item> takeUpdates() EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    return std::exchange(updates_, {});
  }
  [[nodiscard]] std::vector<ItemIdentifier> takeDeletions() EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    return std::exchange(deletions_, {});
  }

 private:
  template <class Step>
  void finish(Step step) EXCLUDES(lock_) {
    {
      const MutexLock guard(lock_);
      if (std::exchange(finished_, true)) return;
    }
    if (const auto follower = follower_.lock()) {
      follower->queue_->post([follower, step = std::move(step)]() mutable {
        if (!follower->stopped_) step(*follower);
      });
    }
  }

  const std::weak_ptr<Follower> follower_;
  Tree& tree_;
  Mutex lock_;
  bool finished_ GUARDED_BY(lock_) = false;
  std::vector<Item> updates_ GUARDED_BY(lock_);
  std::vector<ItemIdentifier> deletions_ GUARDED_BY(lock_);
};

Follower::Follower(ReplicatedExtension& extension, Tree& tree, Scheduler& scheduler, const Clock& clock, Files& files,
                   std::string anchorPath, std::function<MonotonicTime()> lastUse)
    : extension_(extension),
      tree_(tree),
      clock_(clock),
      files_(files),
      anchorPath_(std::move(anchorPath)),
      lastUse_(std::move(lastUse)),
      queue_(scheduler.makeSerialQueue("follow")) {}

void Follower::start() {
  queue_->post([self = shared_from_this()] { self->runSoon(); });
}

void Follower::signal() {
  queue_->post([self = shared_from_this()] { self->runSoon(); });
}

void Follower::sync(Completion<std::optional<Error>> completion) {
  queue_->post([self = shared_from_this(), completion = std::move(completion)]() mutable {
    if (self->stopped_) return std::move(completion)(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
    self->retry_ = Duration(0);
    self->waiting_.push_back(std::move(completion));
    self->runSoon();
  });
}

void Follower::noteUse() {
  if (!restsLong_ || !restsLong_.exchange(false)) return;
  queue_->post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->stopped_ || self->running_ || self->retry_ > Duration(0)) return;
    self->scheduleNext(std::max(Duration(0), self->lastRun_ + INTERVAL_IN_USE - self->clock_.monotonic()));
  });
}

void Follower::stop() {
  queue_->post([self = shared_from_this()] {
    self->stopped_ = true;
    self->queue_->cancel(self->timer_);
    self->enumerator_.reset();
    auto waiting = std::exchange(self->waiting_, {});
    std::ranges::move(self->waitingForThis_, std::back_inserter(waiting));
    self->waitingForThis_.clear();
    for (auto& completion : waiting) std::move(completion)(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  });
}

Follower::Status Follower::status() const {
  const MutexLock guard(lock_);
  auto status = status_;
  if (status.nextIn) status.nextIn = std::max(Duration(0), statusNextAt_ - clock_.monotonic());
  return status;
}

void Follower::runSoon() {
  if (stopped_) return;
  if (running_)
    again_ = true;
  else
    beginRun();
}

void Follower::beginRun() {
  queue_->cancel(timer_);
  restsLong_ = false;
  running_ = true;
  again_ = false;
  waitingForThis_ = std::exchange(waiting_, {});
  anchorsOfRun_.clear();
  publish([](Status& status) {
    status.isRunning = true;
    status.nextIn.reset();
  });
  enumerator_ = extension_.enumeratorForContainer(WORKING_SET_CONTAINER, {.isSystemRequest = true});
  if (followed_) return readPage();
  enumerator_->currentSyncAnchor([self = shared_from_this()](std::optional<SyncAnchor> anchor) {
    self->queue_->post([self, anchor = std::move(anchor)]() mutable { self->firstAnchorRead(std::move(anchor)); });
  });
}

void Follower::firstAnchorRead(std::optional<SyncAnchor> anchor) {
  if (stopped_) return;
  const auto saved = loadAnchor(files_, anchorPath_);
  if (saved && anchor == saved->anchor) {
    followed_ = saved;
  } else {
    followed_ = FollowedAnchor{.anchor = anchor.value_or(""), .hasMoved = false};
    missedChanges_ = true;
  }
  readPage();
}

void Follower::readPage() {
  anchorsOfRun_.insert(followed_->anchor);
  tree_.replica().beginPage();
  enumerator_->enumerateChanges(std::make_shared<PageObserver>(weak_from_this(), tree_), followed_->anchor);
}

void Follower::pageRead(PageObserver& page, SyncAnchor anchor, bool moreComing) {
  auto updates = page.takeUpdates();
  auto deletions = page.takeDeletions();
  const bool hadNews = !updates.empty() || !deletions.empty();
  tree_.applyPage(std::move(updates), std::move(deletions),
                  [self = shared_from_this(), hadNews, anchor = std::move(anchor), moreComing]() mutable {
                    self->queue_->post([self, hadNews, anchor = std::move(anchor), moreComing] {
                      if (!self->stopped_) self->pageApplied(anchor, hadNews, moreComing);
                    });
                  });
}

void Follower::pageApplied(const SyncAnchor& anchor, bool hadNews, bool moreComing) {
  const bool moved = anchor != followed_->anchor;
  if (moved && !hadNews && !followed_->hasMoved) missedChanges_ = true;
  if (missedChanges_) {
    missedChanges_ = false;
    return listEverythingAgain([self = shared_from_this(), anchor, moreComing] {
      self->queue_->post([self, anchor, moreComing] {
        if (!self->stopped_) self->pageKept(anchor, moreComing, true);
      });
    });
  }
  pageKept(anchor, moreComing, moved);
}

void Follower::listEverythingAgain(Completion<> completion) {
  LOG.log("changes may have been missed: folders are listed again when they are needed");
  tree_.applyDeletions({ROOT_CONTAINER}, std::move(completion));
}

void Follower::pageKept(const SyncAnchor& anchor, bool moreComing, bool mustSave) {
  const bool isNew = anchorsOfRun_.insert(anchor).second;
  if (anchor != followed_->anchor) followed_ = FollowedAnchor{.anchor = anchor, .hasMoved = true};
  if (mustSave) {
    if (const auto saved = saveAnchor(files_, anchorPath_, *followed_); !saved) {
      LOG.error("the anchor could not be saved: %{public}@", saved.error().localizedDescription());
    }
  }
  publish([&](Status& status) { status.anchor = anchor; });
  if (!moreComing) return finishRun(std::nullopt);
  if (!isNew || anchorsOfRun_.size() > MAX_PAGES) return finishRun(endlessFeed());
  readPage();
}

void Follower::finishRun(std::optional<Error> error) {
  running_ = false;
  enumerator_.reset();
  anchorsOfRun_.clear();
  lastRun_ = clock_.monotonic();
  if (error) {
    retry_ = retry_ == Duration(0) ? FIRST_RETRY : std::min(2 * retry_, LAST_RETRY);
    LOG.error("following changes failed: %{public}@", error->localizedDescription());
  } else {
    retry_ = Duration(0);
  }
  publish([&](Status& status) {
    status.isRunning = false;
    status.lastError = error;
    if (!error) status.lastSuccess = clock_.now();
  });
  if (heard_) heard_(error);
  for (auto& completion : std::exchange(waitingForThis_, {})) std::move(completion)(error);
  if (again_ || !waiting_.empty()) return beginRun();
  if (error) return scheduleNext(retry_);
  scheduleNext(interval());
}

void Follower::scheduleNext(Duration delay) {
  queue_->cancel(timer_);
  timer_ = queue_->after(delay, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->runSoon();
  });
  restsLong_ = !running_ && retry_ == Duration(0) && delay > INTERVAL_IN_USE;
  const auto nextAt = clock_.monotonic() + delay;
  publish([&](Status& status) { status.nextIn = delay; });
  const MutexLock guard(lock_);
  statusNextAt_ = nextAt;
}

Duration Follower::interval() const {
  return clock_.monotonic() - lastUse_() <= INTERVAL_IN_USE ? INTERVAL_IN_USE : INTERVAL_IDLE;
}

void Follower::publish(const std::function<void(Status&)>& change) {
  const MutexLock guard(lock_);
  change(status_);
}

}  // namespace vondle
