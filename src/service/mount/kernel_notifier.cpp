#include "service/mount/kernel_notifier.h"

#include <utility>

namespace vondle {

KernelNotifier::KernelNotifier(KernelCaches& caches) : caches_(caches), thread_([this] { run(); }) {}

KernelNotifier::~KernelNotifier() {
  stop();
}

void KernelNotifier::tell(const std::vector<ReplicaChange>& changes) {
  MutexLock hold(lock_);
  for (const auto& change : changes)
    if (change.kind != ReplicaChange::Kind::itemRemoved || !change.name.empty()) changes_.push_back(change);
  woken_.notify_all();
}

void KernelNotifier::drain() {
  MutexLock hold(lock_);
  while (!isStopped_ && (isBusy_ || !changes_.empty())) woken_.wait(lock_);
}

void KernelNotifier::stop() {
  {
    MutexLock hold(lock_);
    isStopped_ = true;
    woken_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void KernelNotifier::run() {
  MutexLock hold(lock_);
  while (true) {
    while (!isStopped_ && changes_.empty()) woken_.wait(lock_);
    if (isStopped_) return;
    const auto change = std::move(changes_.front());
    changes_.pop_front();
    isBusy_ = true;
    hold.unlock();
    carryOut(change);
    hold.lock();
    isBusy_ = false;
    if (changes_.empty()) woken_.notify_all();
  }
}

void KernelNotifier::carryOut(const ReplicaChange& change) {
  switch (change.kind) {
    case ReplicaChange::Kind::entryAdded:
    case ReplicaChange::Kind::entryRemoved:
      caches_.forgetEntry(change.parent, change.name);
      break;
    case ReplicaChange::Kind::itemRemoved:
      caches_.forgetItem(change.parent, change.name, change.inode);
      break;
    case ReplicaChange::Kind::attributesChanged:
      caches_.forgetAttributes(change.inode);
      break;
    case ReplicaChange::Kind::contentsChanged:
      caches_.forgetContents(change.inode);
      break;
  }
}

}  // namespace vondle
