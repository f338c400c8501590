#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "base/time.h"
#include "platform/picture_scaler.h"

namespace vondle {

// Has pictures scaled by processes of vondle-preview, two side by side while there is work, each for one picture after
// the other: starting one takes longer than scaling ten. One that hangs, dies or answers wrongly is killed, and only
// the picture that it had is lost. After MAX_PICTURES a fresh one goes on; when there is nothing to do, none stays.
class HelperPictureScaler final : public PictureScaler {
 public:
  static constexpr int AT_ONCE = 2;
  static constexpr Duration DEADLINE = seconds(10);  // of one picture
  static constexpr Duration LINGER = seconds(1);     // without work
  static constexpr int MAX_PICTURES = 500;
  static constexpr std::size_t MAX_ANSWER_BYTES = 4u << 20;

  // The helper is the one beside the running program when nobody says otherwise.
  HelperPictureScaler();
  explicit HelperPictureScaler(std::string helper, Duration deadline = DEADLINE, Duration linger = LINGER);
  ~HelperPictureScaler() override;  // what is not scaled yet is given up and completed with none

  void scale(std::string picture, ScalingCompletion completion) override EXCLUDES(lock_);

 private:
  struct Job {
    std::string picture;
    ScalingCompletion completion;
  };
  class Worker;

  void run() EXCLUDES(lock_);
  bool isClosed() EXCLUDES(lock_);
  std::optional<Job> nextJob() EXCLUDES(lock_);

  const std::string helper_;
  const Duration deadline_;
  const Duration linger_;
  const int closing_;  // an event that is set when all is to be given up
  Mutex lock_;
  ConditionVariable changed_;
  std::deque<Job> jobs_ GUARDED_BY(lock_);
  int threads_ GUARDED_BY(lock_) = 0;
  int workers_ GUARDED_BY(lock_) = 0;  // of those: that take work
  int idle_ GUARDED_BY(lock_) = 0;     // of those: that wait for some
  bool isClosed_ GUARDED_BY(lock_) = false;
};

}  // namespace vondle
