#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "transfer/token_bucket.h"

namespace vondle {

// The user's bandwidth and concurrency settings, read from the configuration file at most once a second and only when
// its modification time has changed. A file that is missing or unreadable leaves everything as it was; a key of another
// type counts as absent. Any thread.
class Limits {
 public:
  static Limits& shared();

  Limits(const Clock& clock, Files& files, std::string configPath);

  // Cheap: call it before every decision.
  void refresh() EXCLUDES(lock_);

  TokenBucket download;  // charged with received bytes
  TokenBucket upload;    // charged with sent bytes

  // As of the last refresh.
  [[nodiscard]] bool paused() const { return paused_; }  // the user has paused all transfers
  [[nodiscard]] std::int64_t maxConcurrent() const { return maxConcurrent_; }
  [[nodiscard]] bool uploadUnlimited() const { return uploadUnlimited_; }  // no upload limit is configured

 private:
  struct Settings;

  [[nodiscard]] bool isDue() REQUIRES(lock_);
  std::optional<Settings> readChanged() REQUIRES(lock_);
  void apply(const Settings& settings) REQUIRES(lock_);

  const Clock& clock_;
  Files& files_;
  const std::string configPath_;
  std::atomic<bool> paused_ = false;
  std::atomic<std::int64_t> maxConcurrent_;
  std::atomic<bool> uploadUnlimited_ = true;
  // Held while the file is read: nobody may go on with settings that are about to be replaced.
  Mutex lock_;
  std::optional<MonotonicTime> lastCheck_ GUARDED_BY(lock_);
  std::optional<Timestamp> lastModification_ GUARDED_BY(lock_);
};

}  // namespace vondle
