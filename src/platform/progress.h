#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "base/mutex.h"

namespace vondle {

enum class ProgressKind { none, file };
enum class FileOperationKind { none, downloading, uploading };

// How far an operation is, and the user's hand on it. Shared by the operation, which counts, and whoever waits, who
// reads, cancels and pauses. Any thread. Cancelling is final; pause and resume may alternate; all three reach the
// children, those added later too. Handlers run with no lock held, on the thread that cancels, pauses or resumes. Where
// two threads pause and resume at the same time one of them runs the handlers for both, so that the last one run always
// fits isPaused. A handler set on an object that is already cancelled or paused is not called: look at isCancelled and
// isPaused after setting it.
class Progress {
 public:
  static std::shared_ptr<Progress> make(std::int64_t totalUnitCount = 0);

  void setKind(ProgressKind kind, FileOperationKind operation) EXCLUDES(lock_);
  [[nodiscard]] ProgressKind kind() const EXCLUDES(lock_);
  [[nodiscard]] FileOperationKind fileOperationKind() const EXCLUDES(lock_);

  void setTotalUnitCount(std::int64_t count) EXCLUDES(lock_);
  void setCompletedUnitCount(std::int64_t count) EXCLUDES(lock_);
  [[nodiscard]] std::int64_t totalUnitCount() const EXCLUDES(lock_);
  // Its own count plus the pending units of children that are finished.
  [[nodiscard]] std::int64_t completedUnitCount() const EXCLUDES(lock_);
  // 0 to 1, with the fractions of unfinished children; 0 when the total is unknown.
  [[nodiscard]] double fractionCompleted() const EXCLUDES(lock_);

  // The child stands for that many of this object's units. A child belongs to one parent.
  void addChild(const std::shared_ptr<Progress>& child, std::int64_t pendingUnitCount) EXCLUDES(lock_);

  void setCancellable(bool cancellable) EXCLUDES(lock_);
  void setPausable(bool pausable) EXCLUDES(lock_);
  [[nodiscard]] bool isCancellable() const EXCLUDES(lock_);
  [[nodiscard]] bool isPausable() const EXCLUDES(lock_);
  void setCancellationHandler(std::function<void()> handler) EXCLUDES(lock_);
  void setPausingHandler(std::function<void()> handler) EXCLUDES(lock_);
  void setResumingHandler(std::function<void()> handler) EXCLUDES(lock_);

  void cancel() EXCLUDES(lock_);
  void pause() EXCLUDES(lock_);
  void resume() EXCLUDES(lock_);
  [[nodiscard]] bool isCancelled() const EXCLUDES(lock_);
  [[nodiscard]] bool isPaused() const EXCLUDES(lock_);

 private:
  struct Child {
    std::shared_ptr<Progress> progress;
    std::int64_t units;
  };

  struct Counts {
    std::int64_t total;
    std::int64_t completed;
    std::vector<Child> children;
  };

  Progress() = default;
  void setPaused(bool paused) EXCLUDES(lock_);
  [[nodiscard]] Counts counts() const EXCLUDES(lock_);
  [[nodiscard]] bool isFinished() const EXCLUDES(lock_);

  mutable Mutex lock_;
  ProgressKind kind_ GUARDED_BY(lock_) = ProgressKind::none;
  FileOperationKind operation_ GUARDED_BY(lock_) = FileOperationKind::none;
  std::int64_t total_ GUARDED_BY(lock_) = 0;
  std::int64_t completed_ GUARDED_BY(lock_) = 0;
  bool cancellable_ GUARDED_BY(lock_) = true;
  bool pausable_ GUARDED_BY(lock_) = false;
  bool cancelled_ GUARDED_BY(lock_) = false;
  bool paused_ GUARDED_BY(lock_) = false;
  bool told_ GUARDED_BY(lock_) = false;     // paused_ as handlers and children last heard it
  bool telling_ GUARDED_BY(lock_) = false;  // a thread is at it, and will tell what changes meanwhile
  std::function<void()> onCancel_ GUARDED_BY(lock_);
  std::function<void()> onPause_ GUARDED_BY(lock_);
  std::function<void()> onResume_ GUARDED_BY(lock_);
  std::vector<Child> children_ GUARDED_BY(lock_);
};

}  // namespace vondle
