#include "service/contents/cache_limiter.h"

#include <algorithm>
#include <utility>

#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log LOG("com.ferrow.vondle.service", "cache");

}  // namespace

// Room that is set aside, until this goes.
class CacheLimiter::Reservation {
 public:
  Reservation(std::weak_ptr<CacheLimiter> limiter, std::uint64_t number)
      : limiter_(std::move(limiter)), number_(number) {}
  ~Reservation() {
    if (const auto limiter = limiter_.lock()) limiter->giveBack(number_);
  }
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;

 private:
  const std::weak_ptr<CacheLimiter> limiter_;
  const std::uint64_t number_;
};

CacheLimiter::CacheLimiter(CacheLimits limits, const Replica& replica, std::shared_ptr<ContentStore> contents,
                           Files& files)
    : limits_(limits), replica_(replica), contents_(std::move(contents)), files_(files), queue_(contents_->queue()) {}

void CacheLimiter::reserve(Inode inode, std::int64_t bytes, RoomAnswer answer) {
  queue_->post([self = shared_from_this(), inode, bytes, answer = std::move(answer)]() mutable {
    self->tryToReserve(inode, bytes, false, std::move(answer));
  });
}

void CacheLimiter::tryToReserve(Inode inode, std::int64_t bytes, bool isLastTry, RoomAnswer answer) {
  const bool isKept = replica_.keptBy(inode).has_value();
  if (makeRoom(bytes, isKept)) {
    // What goes is removed on the same queue.
    return queue_->post([room = setAside(inode, bytes, isKept), answer = std::move(answer)]() mutable {
      std::move(answer)(std::move(room));
    });
  }
  if (!isLastTry && !isKept) {
    queue_->after(CLOSING_TIME, [self = shared_from_this(), inode, bytes, answer = std::move(answer)]() mutable {
      self->tryToReserve(inode, bytes, true, std::move(answer));
    });
    return;
  }
  noteUse();
  std::move(answer)(failure(noRoomError(limits_, useWith(keptBytes_), bytes, isKept)));
}

bool CacheLimiter::makeRoom(std::int64_t bytes, bool isKept) {
  const auto missingAtFirst = missingRoom(limits_, useWith(keptBytes_), bytes, isKept);
  if (missingAtFirst == 0) return true;
  if (isKept && mostForKept_ && missingAtFirst > *mostForKept_) return false;
  auto all = here();
  keptBytes_ = all.keptBytes;
  const auto missing = missingRoom(limits_, useWith(keptBytes_), bytes, isKept);
  if (missing == 0) return true;
  const auto eviction = chooseEviction(std::move(all.files), missing + limits_.limit / MARGIN);
  if (eviction.bytes < missing) {
    mostForKept_ = eviction.bytes;
    return false;
  }
  evict(eviction);
  return true;
}

void CacheLimiter::noteUse() {
  if (isToLook_.load(std::memory_order_relaxed) || isToLook_.exchange(true)) return;
  queue_->after(LOOK_DELAY, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->isToLook_ = false;
    self->look();
  });
}

void CacheLimiter::look() {
  mostForKept_ = std::nullopt;
  queue_->cancel(std::exchange(again_, 0));
  // With all that is kept it would still be within the bounds.
  if (missingRoom(limits_, useWith(0), 0, false) == 0) return;
  auto all = here();
  keptBytes_ = all.keptBytes;
  const auto missing = missingRoom(limits_, useWith(keptBytes_), 0, false);
  if (missing == 0) return;
  const bool mayGoLater =
      std::ranges::any_of(all.files, [](const CachedFile& file) { return file.isOpen && !file.isKept; });
  const auto eviction = chooseEviction(std::move(all.files), missing + limits_.limit / MARGIN);
  evict(eviction);
  if (eviction.bytes >= missing || !mayGoLater) return;
  again_ = queue_->after(LOOK_AGAIN_DELAY, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->look();
  });
}

void CacheLimiter::evict(const Eviction& eviction) {
  std::int64_t files = 0;
  for (const auto& file : eviction.files) files += contents_->evictUnused(file.inode, file.lastUse) ? 1 : 0;
  if (files > 0) LOG.info("dropped %lld file(s) to make room", files);
}

CacheLimiter::Here CacheLimiter::here() const {
  Here here{.files = contents_->cachedFiles()};
  const bool isAnyKept = replica_.keptCount() > 0;
  for (auto& file : here.files) {
    file.isKept = isAnyKept && replica_.keptBy(file.inode);
    here.bytes += file.bytes;
    here.keptBytes += file.isKept ? file.bytes : 0;
  }
  return here;
}

CacheUse CacheLimiter::useWith(std::int64_t keptBytes) const {
  std::vector<Reserved> reserved;
  {
    MutexLock hold(lock_);
    for (const auto& [number, each] : reserved_) reserved.push_back(each);
  }
  CacheUse use{.bytes = contents_->bytesHere() - keptBytes};
  for (const auto& each : reserved) {
    const auto progress = contents_->progressOf(each.inode);
    const auto written = progress ? std::clamp(progress->completedUnitCount(), std::int64_t{0}, each.bytes) : 0;
    use.bytes += each.isKept ? 0 : each.bytes;
    use.underWay += each.bytes - written;
  }
  if (const auto disk = files_.space(contents_->folder())) use.disk = *disk;
  return use;
}

ContentStore::Room CacheLimiter::setAside(Inode inode, std::int64_t bytes, bool isKept) {
  MutexLock hold(lock_);
  reserved_[++lastNumber_] = {.inode = inode, .bytes = bytes, .isKept = isKept};
  return std::make_shared<Reservation>(weak_from_this(), lastNumber_);
}

void CacheLimiter::giveBack(std::uint64_t number) {
  {
    MutexLock hold(lock_);
    reserved_.erase(number);
  }
  noteUse();
}

CacheLimiter::Status CacheLimiter::status() const {
  const auto all = here();
  Status status{.bytes = all.bytes, .keptBytes = all.keptBytes, .limit = limits_.limit};
  if (const auto disk = files_.space(contents_->folder())) {
    status.reserve = limits_.reserveOn(*disk);
    status.diskFree = disk->free;
  }
  return status;
}

}  // namespace vondle
