#include "transfer/stats.h"

#include "base/json.h"
#include "base/shared_instance.h"
#include "config/paths.h"
#include "transfer/checked_add.h"

namespace vondle {
namespace {

constexpr double WINDOW_SECONDS = 3.0;
constexpr Duration WRITE_INTERVAL = seconds(1.0);

}  // namespace

Stats& Stats::shared() {
  return SharedInstance<Stats>::current();
}

Stats::Stats(const Clock& clock, Scheduler& scheduler, Files& files)
    : clock_(clock), files_(files), queue_(scheduler.makeSerialQueue("com.ferrow.vondle.stats")) {}

void Stats::record(std::int64_t down, std::int64_t up) {
  MutexLock hold(lock_);
  const MonotonicTime now = clock_.monotonic();
  samples_.push_back({now, down, up});
  downSum_ = checkedAdd(downSum_, down);
  upSum_ = checkedAdd(upSum_, up);
  while (now - samples_.front().at > seconds(WINDOW_SECONDS)) {
    downSum_ -= samples_.front().down;
    upSum_ -= samples_.front().up;
    samples_.pop_front();
  }
  if (lastWrite_ && now - *lastWrite_ < WRITE_INTERVAL) return;
  lastWrite_ = now;
  const json::Object rates = {{"down_bps", static_cast<double>(downSum_) / WINDOW_SECONDS},
                              {"up_bps", static_cast<double>(upSum_) / WINDOW_SECONDS},
                              {"at", clock_.now().secondsSince1970}};
  hold.unlock();
  queue_->post([&files = files_, text = json::serialize(rates)] {
    const auto container = files.applicationGroupContainer(APPLICATION_GROUP);
    if (container) static_cast<void>(files.writeAtomically(*container + "/stats.json", text));
  });
}

}  // namespace vondle
