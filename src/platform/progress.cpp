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
  const Counts now = counts();
  std::int64_t completed = now.completed;
  for (const Child& child : now.children)
    if (child.progress->isFinished()) completed += child.units;
  return completed;
}

double Progress::fractionCompleted() const {
  const Counts now = counts();
  if (now.total <= 0) return 0;
  auto done = static_cast<double>(now.completed);
  for (const Child& child : now.children)
    done += static_cast<double>(child.units) * child.progress->fractionCompleted();
  return std::clamp(done / static_cast<double>(now.total), 0.0, 1.0);
}

Progress::Counts Progress::counts() const {
  MutexLock hold(lock_);
  return {total_, completed_, children_};
}

bool Progress::isFinished() const {
  const std::int64_t total = totalUnitCount();
  return total > 0 && completedUnitCount() >= total;
}

void Progress::addChild(const std::shared_ptr<Progress>& child, std::int64_t pendingUnitCount) {
  bool paused;
  {
    MutexLock hold(lock_);
    children_.push_back({child, pendingUnitCount});
    paused = paused_;
  }
  if (isCancelled()) child->cancel();
  if (!paused) return;
  while (child->isPaused() != isPaused()) child->setPaused(isPaused());  // a resume may come in between
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

void Progress::cancel() {
  std::function<void()> handler;
  std::vector<Child> children;
  {
    MutexLock hold(lock_);
    if (cancelled_) return;
    cancelled_ = true;
    handler = onCancel_;
    children = children_;
  }
  if (handler) handler();
  for (const Child& child : children) child.progress->cancel();
}

void Progress::pause() {
  setPaused(true);
}
void Progress::resume() {
  setPaused(false);
}

void Progress::setPaused(bool paused) {
  MutexLock hold(lock_);
  paused_ = paused;
  if (telling_) return;
  telling_ = true;
  while (told_ != paused_) {
    told_ = paused_;
    const bool tell = told_;
    const std::function<void()> handler = tell ? onPause_ : onResume_;
    const std::vector<Child> children = children_;
    hold.unlock();
    if (handler) handler();
    for (const Child& child : children) child.progress->setPaused(tell);
    hold.lock();
  }
  telling_ = false;
}

bool Progress::isCancelled() const {
  MutexLock hold(lock_);
  return cancelled_;
}

bool Progress::isPaused() const {
  MutexLock hold(lock_);
  return paused_;
}

}  // namespace vondle
