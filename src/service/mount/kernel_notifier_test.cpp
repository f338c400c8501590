#include "service/mount/kernel_notifier.h"

#include <future>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::ElementsAre;
using Kind = ReplicaChange::Kind;

class RecordingCaches final : public KernelCaches {
 public:
  void forgetEntry(Inode folder, const std::string& name) override { note(fmt::format("entry {} {}", folder, name)); }
  void forgetItem(Inode folder, const std::string& name, Inode inode) override {
    note(fmt::format("item {} {} {}", folder, name, inode));
  }
  void forgetAttributes(Inode inode) override { note(fmt::format("attributes {}", inode)); }
  void forgetContents(Inode inode) override {
    note(fmt::format("contents {}", inode));
    begun.set_value();
    goOn.get_future().wait();
  }
  std::vector<std::string> calls() EXCLUDES(lock_) {
    MutexLock hold(lock_);
    return calls_;
  }
  std::promise<void> begun;
  std::promise<void> goOn;

 private:
  void note(std::string call) EXCLUDES(lock_) {
    MutexLock hold(lock_);
    calls_.push_back(std::move(call));
  }
  Mutex lock_;
  std::vector<std::string> calls_ GUARDED_BY(lock_);
};

TEST(KernelNotifierTest, EveryChangeMakesTheKernelForgetWhatItMustInOrder) {
  RecordingCaches caches;
  caches.goOn.set_value();
  KernelNotifier notifier(caches);
  notifier.tell({{Kind::entryAdded, 1, "a", 2},
                 {Kind::entryRemoved, 1, "b", 3},
                 {Kind::itemRemoved, 1, "c", 4},
                 {Kind::itemRemoved, 0, "", 5},  // within a removed folder: the kernel drops it with the folder
                 {Kind::attributesChanged, 0, "", 6},
                 {Kind::contentsChanged, 0, "", 7}});
  notifier.drain();
  EXPECT_THAT(caches.calls(), ElementsAre("entry 1 a", "entry 1 b", "item 1 c 4", "attributes 6", "contents 7"));
}

TEST(KernelNotifierTest, TellingNeverWaitsForTheKernelAndStoppingLeavesTheRest) {
  RecordingCaches caches;
  KernelNotifier notifier(caches);
  notifier.tell({{Kind::contentsChanged, 0, "", 7}});
  caches.begun.get_future().wait();
  notifier.tell({{Kind::attributesChanged, 0, "", 8}});
  auto stopping = std::async(std::launch::async, [&] { notifier.stop(); });
  notifier.drain();  // returns because the notifier stops
  caches.goOn.set_value();
  stopping.wait();
  EXPECT_THAT(caches.calls(), ElementsAre("contents 7"));
}

}  // namespace
}  // namespace vondle
