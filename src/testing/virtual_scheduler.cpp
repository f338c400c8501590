#include "testing/virtual_scheduler.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace vondle {
namespace {

// No test needs so many tasks at one moment: more means that tasks post each other for ever.
constexpr std::uint64_t MAX_TASKS_AT_ONE_MOMENT = 20'000'000;

[[noreturn]] void stop(const char* why, const std::string& label) {
  std::fprintf(stderr, "virtual scheduler: %s (queue %s)\n", why, label.c_str());
  std::abort();
}

}  // namespace

class VirtualScheduler::VirtualQueue final : public Queue {
 public:
  VirtualQueue(VirtualScheduler& scheduler, std::string_view label, bool isConcurrent)
      : concurrent(isConcurrent), name(label), scheduler_(scheduler), schedulerAlive_(scheduler.alive_) {}
  ~VirtualQueue() override {
    if (!schedulerAlive_.expired()) scheduler_.forget(this);
  }

  void post(Task task) override { live().addReady({this, 0, std::move(task)}); }

  TimerID after(Duration delay, Task task) override {
    VirtualScheduler& scheduler = live();
    const TimerID timer = scheduler.nextTimer_++;
    const Duration due = scheduler.elapsed_ + std::max(delay, Duration::zero());
    scheduler.timers_.emplace(std::pair(due, timer), Entry{this, timer, std::move(task)});
    return timer;
  }

  bool cancel(TimerID timer) override { return timer != 0 && live().cancel(this, timer); }

  const bool concurrent;
  const std::string name;

 private:
  VirtualScheduler& live() {
    if (schedulerAlive_.expired()) stop("a queue was used after its scheduler's end", name);
    return scheduler_;
  }

  VirtualScheduler& scheduler_;
  const std::weak_ptr<bool> schedulerAlive_;
};

VirtualScheduler::VirtualScheduler(std::optional<std::uint64_t> seed)
    : global_(std::make_shared<VirtualQueue>(*this, "global", true)) {
  if (seed) random_.emplace(*seed);
}

// What still waits never runs; it may let go of queues as it goes.
VirtualScheduler::~VirtualScheduler() {
  while (!ready_.empty() || !timers_.empty()) {
    const Ready ready = std::exchange(ready_, {});
    const Timers timers = std::exchange(timers_, {});
  }
  global_.reset();
}

std::shared_ptr<Queue> VirtualScheduler::makeSerialQueue(std::string_view label) {
  return std::make_shared<VirtualQueue>(*this, label, false);
}

Timestamp VirtualScheduler::now() const {
  return {wallClock_.secondsSince1970 + inSeconds(elapsed_ - wallClockSetAt_)};
}

void VirtualScheduler::setWallClock(Timestamp now) {
  wallClock_ = now;
  wallClockSetAt_ = elapsed_;
}

void VirtualScheduler::addReady(Entry entry) {
  ready_.emplace(nextReady_++, std::move(entry));
}

void VirtualScheduler::wakeTimers() {
  while (!timers_.empty() && timers_.begin()->first.first <= elapsed_)
    addReady(std::move(timers_.extract(timers_.begin()).mapped()));
}

VirtualScheduler::Ready::iterator VirtualScheduler::choose() {
  if (!random_) return ready_.begin();
  std::map<const VirtualQueue*, std::vector<Ready::iterator>> candidates;
  std::vector<const VirtualQueue*> queues;  // in the order of their tasks, so that a seed means the same in every run
  for (auto at = ready_.begin(); at != ready_.end(); ++at) {
    auto& ofQueue = candidates[at->second.queue];
    if (ofQueue.empty()) queues.push_back(at->second.queue);
    if (ofQueue.empty() || at->second.queue->concurrent) ofQueue.push_back(at);
  }
  const auto draw = [this](const auto& list) { return list[(*random_)() % list.size()]; };
  return draw(candidates[draw(queues)]);
}

bool VirtualScheduler::runNext() {
  wakeTimers();
  if (ready_.empty()) return false;
  Entry entry = std::move(ready_.extract(choose()).mapped());
  if (running_) stop("driven from within a task", entry.queue->name);
  if (++ranAtThisMoment_ > MAX_TASKS_AT_ONE_MOMENT) stop("tasks post each other for ever", entry.queue->name);
  running_ = true;
  entry.task();
  entry.task = {};
  running_ = false;
  return true;
}

bool VirtualScheduler::jumpToNextTimer(Duration latest) {
  if (timers_.empty() || timers_.begin()->first.first > latest) return false;
  elapsed_ = std::max(elapsed_, timers_.begin()->first.first);
  ranAtThisMoment_ = 0;
  return true;
}

bool VirtualScheduler::step() {
  return runNext() || (jumpToNextTimer(Duration::max()) && runNext());
}

void VirtualScheduler::runUntilIdle() {
  while (runNext()) {
  }
}

void VirtualScheduler::advance(Duration duration) {
  const Duration end = elapsed_ + duration;
  do runUntilIdle();
  while (jumpToNextTimer(end));
  elapsed_ = end;
  ranAtThisMoment_ = 0;
}

bool VirtualScheduler::runUntil(const std::function<bool()>& condition, Duration limit) {
  const Duration end = elapsed_ + limit;
  while (!condition())
    if (!runNext() && !jumpToNextTimer(end)) return false;
  return true;
}

bool VirtualScheduler::cancel(const VirtualQueue* queue, TimerID timer) {
  const auto cancelIn = [&](auto& waiting) {
    for (auto at = waiting.begin(); at != waiting.end(); ++at) {
      if (at->second.timer != timer || at->second.queue != queue) continue;
      const auto node = waiting.extract(at);  // its end may call back
      return true;
    }
    return false;
  };
  return cancelIn(timers_) || cancelIn(ready_);
}

void VirtualScheduler::forget(const VirtualQueue* queue) {
  std::vector<Entry> forgotten;  // ended last: their ends may call back
  const auto forgetIn = [&](auto& waiting) {
    for (auto at = waiting.begin(); at != waiting.end();) {
      const auto next = std::next(at);
      if (at->second.queue == queue) forgotten.push_back(std::move(waiting.extract(at).mapped()));
      at = next;
    }
  };
  forgetIn(timers_);
  forgetIn(ready_);
}

}  // namespace vondle
