#include "state/pending.h"

#include <cstdlib>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "base/shared_instance.h"
#include "config/plog.h"
#include "platform/repeating_timer.h"

namespace vondle {
namespace {

// How many operations one tick reports at most.
constexpr std::size_t MAX_REPORTS = 5;

}  // namespace

class Pending::Registry : public std::enable_shared_from_this<Registry> {
 public:
  Registry(const Clock& clock, Scheduler& scheduler)
      : clock_(clock), queue_(scheduler.makeSerialQueue("com.ferrow.vondle.pending")) {}

  std::int64_t begin(std::string what, std::int64_t total) EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    if (__builtin_add_overflow(nextID_, 1, &nextID_)) std::abort();
    ops_.emplace(nextID_, Op{.what = std::move(what), .at = clock_.monotonic(), .total = total});
    startWatchdog();
    return nextID_;
  }

  void progress(std::int64_t id) EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    if (const auto found = ops_.find(id); found != ops_.end()) ++found->second.done;
  }

  void end(std::int64_t id) EXCLUDES(lock_) {
    std::optional<Op> ended;
    {
      const MutexLock lock(lock_);
      if (auto node = ops_.extract(id)) ended = std::move(node.mapped());
    }
    if (!ended) return;
    const Duration took = clock_.monotonic() - ended->at;
    if (took > longOperation) plog.log("%{public}@ finished after %.0fs", ended->what, inSeconds(took));
  }

 private:
  struct Op {
    std::string what;
    MonotonicTime at;
    std::int64_t total = 0;
    std::int64_t done = 0;
  };

  void startWatchdog() REQUIRES(lock_) {
    if (timer_) return;
    timer_.emplace(clock_, queue_, interval, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->sweep();
    });
  }

  void sweep() EXCLUDES(lock_) {
    std::vector<Op> stale;
    std::size_t inFlight = 0;
    MonotonicTime now;
    {
      const MutexLock lock(lock_);
      if (ops_.empty()) return timer_.reset();
      now = clock_.monotonic();
      inFlight = ops_.size();
      for (const auto& [id, op] : ops_) {  // ids are handed out in the order of time: oldest first
        if (now - op.at <= warnAfter || stale.size() == MAX_REPORTS) break;
        stale.push_back(op);
      }
    }
    for (const auto& op : stale) {
      plog.log("still waiting after %.0fs: %{public}@ (%d of %d done, %d in flight)", inSeconds(now - op.at), op.what,
               op.done, op.total, inFlight);
    }
  }

  const Clock& clock_;
  const std::shared_ptr<Queue> queue_;
  Mutex lock_;
  std::map<std::int64_t, Op> ops_ GUARDED_BY(lock_);
  std::int64_t nextID_ GUARDED_BY(lock_) = 0;
  std::optional<RepeatingTimer> timer_ GUARDED_BY(lock_);
};

Pending::Pending(const Clock& clock, Scheduler& scheduler) : registry_(std::make_shared<Registry>(clock, scheduler)) {}

Pending& Pending::shared() {
  return SharedInstance<Pending>::current();
}

std::int64_t Pending::begin(std::string what, std::int64_t total) {
  return registry_->begin(std::move(what), total);
}
void Pending::progress(std::int64_t id) {
  registry_->progress(id);
}
void Pending::end(std::int64_t id) {
  registry_->end(id);
}

}  // namespace vondle
