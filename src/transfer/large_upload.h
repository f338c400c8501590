#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/scheduler.h"
#include "transfer/limits.h"

namespace vondle {

// Notices that much is being uploaded at full speed (2 GiB and no upload limit) and says so in a small JSON file, for
// other programs to show; two minutes without any upload end it. The file is written on a queue of its own, so that
// nobody waits for the disk; a write that fails is forgotten. Any thread.
class LargeUpload {
 public:
  static constexpr std::int64_t threshold = 2'147'483'648;  // bytes
  static constexpr Duration quietGap = seconds(120.0);

  static LargeUpload& shared();

  LargeUpload(const Clock& clock, Scheduler& scheduler, Files& files, const Limits& limits, std::string path);

  // Once per upload, with the bytes that it will send.
  void started(std::int64_t size) EXCLUDES(lock_);
  // Whenever bytes of an upload have gone out.
  void touch() EXCLUDES(lock_);
  void endIfQuiet() EXCLUDES(lock_);
  [[nodiscard]] bool isActive() const EXCLUDES(lock_);

 private:
  struct Moment {
    MonotonicTime monotonic;
    Timestamp wall;
  };

  [[nodiscard]] Moment now() const { return {clock_.monotonic(), clock_.now()}; }
  void publish() EXCLUDES(lock_);

  const Clock& clock_;
  Files& files_;
  const Limits& limits_;
  const std::string path_;
  const std::shared_ptr<Queue> queue_;
  mutable Mutex lock_;
  bool active_ GUARDED_BY(lock_) = false;
  std::int64_t bytes_ GUARDED_BY(lock_) = 0;  // of uploads started since the last reset
  std::int64_t uploads_ GUARDED_BY(lock_) = 0;
  // None: long ago.
  std::optional<Moment> since_ GUARDED_BY(lock_);
  std::optional<Moment> lastActivity_ GUARDED_BY(lock_);
  std::optional<Moment> lastWrite_ GUARDED_BY(lock_);
};

}  // namespace vondle
