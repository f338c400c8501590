#include "service/follow/keeper.h"

#include <algorithm>
#include <utility>

#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log LOG("com.ferrow.vondle.service", "keep");
constexpr Request SYSTEM{.isSystemRequest = true};

bool canMatter(const ReplicaChange& change) {
  return change.kind != ReplicaChange::Kind::itemRemoved && change.kind != ReplicaChange::Kind::entryRemoved;
}

}  // namespace

Keeper::Keeper(Tree& tree, std::shared_ptr<ContentStore> contents, std::shared_ptr<FolderListing> listing,
               Scheduler& scheduler)
    : tree_(tree),
      contents_(std::move(contents)),
      listing_(std::move(listing)),
      queue_(scheduler.makeSerialQueue("keep")) {}

void Keeper::start() {
  queue_->post([self = shared_from_this()] { self->look(self->replica().keptItems()); });
}

void Keeper::apply(const std::vector<ReplicaChange>& changes) {
  std::vector<Inode> inodes;
  for (const auto& change : changes)
    if (canMatter(change)) inodes.push_back(change.inode);
  // Also when nothing is kept any more: what runs must end.
  if (inodes.empty() || (replica().keptCount() == 0 && status().waiting == 0)) return;
  queue_->post([self = shared_from_this(), inodes = std::move(inodes)] { self->look(inodes); });
}

void Keeper::noteMissing(Inode inode) {
  if (replica().keptCount() == 0) return;
  queue_->post([self = shared_from_this(), inode] { self->look({inode}); });
}

void Keeper::look(const std::vector<Inode>& inodes) {
  if (stopped_) return;
  const auto running = running_;
  for (const auto& [inode, each] : running)
    if (!replica().keptBy(inode)) each.wait->cancel();
  for (const Inode inode : inodes)
    if (replica().keptBy(inode)) take(inode);
  work();
}

void Keeper::take(Inode inode) {
  if (const auto found = running_.find(inode); found != running_.end()) {
    found->second.isChanged = true;
  } else if (isWaiting_.insert(inode).second) {
    waiting_.push_back(inode);
  }
}

void Keeper::work() {
  while (!stopped_ && !waiting_.empty() && running_.size() < AT_ONCE) {
    const Inode inode = waiting_.front();
    waiting_.pop_front();
    isWaiting_.erase(inode);
    begin(inode);
  }
  publish();
}

void Keeper::begin(Inode inode) {
  const auto attributes = replica().attributes(inode);
  if (!attributes || !replica().keptBy(inode)) {
    MutexLock hold(lock_);
    failures_.erase(inode);
    return;
  }
  const auto wait = Progress::make();
  if (attributes->isFolder) {
    beginFolder(inode, wait);
  } else if (!isHere(inode)) {
    beginFile(inode, wait);
  }
}

void Keeper::beginFolder(Inode folder, const std::shared_ptr<Progress>& wait) {
  running_[folder] = {.wait = wait};
  listing_->require(folder, SYSTEM, wait, [self = shared_from_this(), folder](std::optional<Error> error) {
    self->queue_->post([self, folder, error = std::move(error)] { self->ended(folder, error); });
  });
}

void Keeper::beginFile(Inode file, const std::shared_ptr<Progress>& wait) {
  running_[file] = {.wait = wait};
  contents_->require(file, SYSTEM, wait,
                     [self = shared_from_this(), file](const Result<std::shared_ptr<const ContentFile>>& result) {
                       auto error = result ? std::nullopt : std::optional(result.error());
                       self->queue_->post([self, file, error = std::move(error)] { self->ended(file, error); });
                     });
}

void Keeper::ended(Inode inode, const std::optional<Error>& error) {
  const bool isChanged = std::exchange(running_[inode].isChanged, false);
  running_.erase(inode);
  const auto attributes = replica().attributes(inode);
  if (!attributes || !replica().keptBy(inode)) {
    MutexLock hold(lock_);
    failures_.erase(inode);
  } else if (error) {
    failed(inode, *error);
  } else {
    retryDelay_ = FIRST_RETRY;
    {
      MutexLock hold(lock_);
      failures_.erase(inode);
    }
    if (isChanged) take(inode);
    if (attributes->isFolder)
      for (const Inode child : replica().children(inode)) take(child);
  }
  work();
}

void Keeper::failed(Inode inode, const Error& error) {
  if (stopped_) return;
  {
    MutexLock hold(lock_);
    failures_.insert_or_assign(inode, error);
  }
  if (timer_ != 0) return;
  // The others that fail until then mostly do so for the same reason, and there may be very many.
  LOG.info("keeping %{public}@ downloaded: %{public}@", replica().pathOf(inode).value_or("?"),
           error.localizedDescription());
  timer_ = queue_->after(retryDelay_, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->retryDelay_ = std::min(2 * self->retryDelay_, LAST_RETRY);
    self->retry(self->takeFailures());
  });
}

void Keeper::retryNow() {
  auto failures = takeFailures();
  if (failures.empty()) return;
  queue_->post([self = shared_from_this(), failures = std::move(failures)] {
    self->queue_->cancel(self->timer_);
    self->retryDelay_ = FIRST_RETRY;
    self->retry(failures);
  });
}

std::map<Inode, Error> Keeper::takeFailures() {
  MutexLock hold(lock_);
  return std::exchange(failures_, {});
}

void Keeper::retry(const std::map<Inode, Error>& failures) {
  timer_ = 0;
  for (const auto& [inode, error] : failures) take(inode);
  work();
}

void Keeper::stop() {
  queue_->post([self = shared_from_this()] {
    self->stopped_ = true;
    self->queue_->cancel(self->timer_);
    self->waiting_.clear();
    const auto running = self->running_;
    for (const auto& [inode, each] : running) each.wait->cancel();
  });
}

void Keeper::publish() {
  MutexLock hold(lock_);
  waitingCount_ = waiting_.size() + running_.size();
}

Keeper::Status Keeper::status() const {
  const auto items = replica().keptCount();
  MutexLock hold(lock_);
  return {.items = items, .waiting = waitingCount_, .failing = failures_.size()};
}

// Edited contents are here, too.
bool Keeper::isHere(Inode file) const {
  const auto state = contents_->state(file);
  return state != ContentState::absent && state != ContentState::fetching;
}

Keeper::Share Keeper::shareOf(const std::vector<Inode>& inodes) const {
  Share share;
  {
    MutexLock hold(lock_);
    share.failures = failures_;
  }
  std::map<Inode, Error> failures;
  std::set<Inode> seen;
  std::deque<Inode> left(inodes.begin(), inodes.end());
  for (; !left.empty(); left.pop_front()) {
    const Inode inode = left.front();
    const auto attributes = replica().attributes(inode);
    if (!attributes || !seen.insert(inode).second) continue;
    const auto failure = share.failures.find(inode);
    if (failure != share.failures.end()) failures.insert(*failure);
    bool isMissing = false;
    if (attributes->isFolder) {
      isMissing = !attributes->isListed;
      for (const Inode child : replica().children(inode)) left.push_back(child);
    } else {
      isMissing = !isHere(inode);
      ++share.files;
      share.filesHere += isMissing ? 0 : 1;
      share.bytes += attributes->size;
      const auto progress = isMissing ? contents_->progressOf(inode) : nullptr;
      share.bytesHere += isMissing ? (progress ? progress->completedUnitCount() : 0) : attributes->size;
    }
    share.pending += isMissing && failure == share.failures.end() ? 1 : 0;
  }
  share.failures = std::move(failures);
  return share;
}

}  // namespace vondle
