#include "transfer/large_upload.h"

#include <algorithm>
#include <utility>

#include "base/json.h"
#include "base/shared_instance.h"
#include "config/plog.h"
#include "transfer/checked_add.h"

namespace vondle {
namespace {

constexpr Duration HEARTBEAT = seconds(15.0);

}  // namespace

LargeUpload& LargeUpload::shared() {
  return SharedInstance<LargeUpload>::current();
}

LargeUpload::LargeUpload(const Clock& clock, Scheduler& scheduler, Files& files, const Limits& limits, std::string path)
    : clock_(clock),
      files_(files),
      limits_(limits),
      path_(std::move(path)),
      queue_(scheduler.makeSerialQueue("com.ferrow.vondle.large-upload")) {}

void LargeUpload::started(std::int64_t size) {
  endIfQuiet();
  const bool unlimited = limits_.uploadUnlimited();
  MutexLock hold(lock_);
  bytes_ = checkedAdd(bytes_, std::max<std::int64_t>(size, 0));
  uploads_ = checkedAdd(uploads_, 1);
  lastActivity_ = now();
  if (!unlimited || active_ || bytes_ < threshold) return;
  active_ = true;
  since_ = now();
  const std::int64_t bytes = bytes_;
  const std::int64_t uploads = uploads_;
  hold.unlock();
  plog.log("large upload at full speed: %d files, %lld bytes so far", uploads, bytes);
  publish();
}

void LargeUpload::touch() {
  MutexLock hold(lock_);
  lastActivity_ = now();
  if (!active_ || (lastWrite_ && lastActivity_->monotonic - lastWrite_->monotonic < HEARTBEAT)) return;
  hold.unlock();
  publish();
}

void LargeUpload::endIfQuiet() {
  MutexLock hold(lock_);
  if (lastActivity_ && clock_.monotonic() - lastActivity_->monotonic <= quietGap) return;
  const bool wasActive = std::exchange(active_, false);
  if (wasActive || bytes_ >= 1) bytes_ = uploads_ = 0;  // empty files alone are no reason to count anew
  hold.unlock();
  if (!wasActive) return;
  plog.log("large upload finished");
  publish();
}

bool LargeUpload::isActive() const {
  MutexLock hold(lock_);
  return active_;
}

void LargeUpload::publish() {
  MutexLock hold(lock_);
  lastWrite_ = now();
  const json::Object state = {{"active", active_},
                              {"since", since_.value_or(Moment()).wall.secondsSince1970},
                              {"last", lastActivity_.value_or(Moment()).wall.secondsSince1970},
                              {"bytes", bytes_},
                              {"files", uploads_}};
  // Under the lock, so that the file's last state is the last one there was.
  queue_->post([&files = files_, path = path_, text = json::serialize(state)] {
    static_cast<void>(files.writeAtomically(path, text));
  });
}

}  // namespace vondle
