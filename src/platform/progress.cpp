#include "platform/progress.h"

#include <algorithm>
#include <utility>

namespace vondle {

std::shared_ptr<Progress> Progress::make(std::int64_t totalUnitCount) {
  std::shared_ptr<Progress> progress(new Progress);
  progress->setTotalUnitCount(totalUnitCount);
  return progress;
}

void Progress::setKind(ProgressKind kind, FileOperationKind operation) {
  MutexLock hold(lock_);
  kind_ = kind;
  operation_ = operation;
}

ProgressKind Progress::kind() const {
  MutexLock hold(lock_);
  return kind_;
}

FileOperationKind Progress::fileOperationKind() const {
  MutexLock hold(lock_);
  return operation_;
}

void Progress::setTotalUnitCount(std::int64_t count) {
  MutexLock hold(lock_);
  total_ = count;
}

void Progress::setCompletedUnitCount(std::int64_t count) {
  MutexLock hold(lock_);
  completed_ = count;
}

std::int64_t Progress::totalUnitCount() const {
  MutexLock hold(lock_);
  return total_;
}

std::int64_t Progress::completedUnitCount() const {
  MutexLock hold(lock_);
  std::int64_t count = completed_;
  for (const Child& child : children_)
    if (child.progress->isFinished()) count += child.units;
  return count;
}

double Progress::fractionCompleted() const {
  MutexLock hold(lock_);
  if (total_ <= 0) return 0;
  auto done = static_cast<double>(completed_);
  for (const Child& child : children_)
    done += static_cast<double>(child.units) * child.progress->fractionCompleted();
  return std::clamp(done / static_cast<double>(total_), 0.0, 1.0);
}

bool Progress::isFinished() const { return totalUnitCount() > 0 && completedUnitCount() >= totalUnitCount(); }

void Progress::addChild(const std::shared_ptr<Progress>& child, std::int64_t pendingUnitCount) {
  MutexLock hold(lock_);
  children_.push_back({child, pendingUnitCount});
  const bool cancelled = cancelled_;
  const bool paused = paused_;
  hold.unlock();
  if (paused) child->pause();
  if (cancelled) child->cancel();
}

void Progress::setCancellable(bool cancellable) {
  MutexLock hold(lock_);
  cancellable_ = cancellable;
}

void Progress::setPausable(bool pausable) {
  MutexLock hold(lock_);
  pausable_ = pausable;
}

bool Progress::isCancellable() const {
  MutexLock hold(lock_);
  return cancellable_;
}

bool Progress::isPausable() const {
  MutexLock hold(lock_);
  return pausable_;
}

void Progress::setCancellationHandler(std::function<void()> handler) {
  MutexLock hold(lock_);
  onCancel_ = std::move(handler);
}

void Progress::setPausingHandler(std::function<void()> handler) {
  MutexLock hold(lock_);
  onPause_ = std::move(handler);
}

void Progress::setResumingHandler(std::function<void()> handler) {
  MutexLock hold(lock_);
  onResume_ = std::move(handler);
}

void Progress::change(bool Progress::*flag, bool value, std::function<void()> Progress::*handler,
                      void (Progress::*pass)()) {
  std::function<void()> call;
  std::vector<Child> children;
  {
    MutexLock hold(lock_);
    if (this->*flag == value) return;
    this->*flag = value;
    call = this->*handler;
    children = children_;
  }
  if (call) call();
  for (const Child& child : children) (child.progress.get()->*pass)();
}

void Progress::cancel() { change(&Progress::cancelled_, true, &Progress::onCancel_, &Progress::cancel); }
void Progress::pause() { change(&Progress::paused_, true, &Progress::onPause_, &Progress::pause); }
void Progress::resume() { change(&Progress::paused_, false, &Progress::onResume_, &Progress::resume); }

bool Progress::isCancelled() const {
  MutexLock hold(lock_);
  return cancelled_;
}

bool Progress::isPaused() const {
  MutexLock hold(lock_);
  return paused_;
}

}  // namespace vondle
