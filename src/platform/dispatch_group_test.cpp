#include "platform/dispatch_group.h"

#include <gtest/gtest.h>

#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

class DispatchGroupTest : public testing::Test {
 protected:
  void notify() {
    group_.notify(scheduler_.global(), [this] { ++notified_; });
  }
  int notifiedNow() {
    scheduler_.runUntilIdle();
    return notified_;
  }

  VirtualScheduler scheduler_;
  DispatchGroup group_;
  int notified_ = 0;
};

TEST_F(DispatchGroupTest, NotifiesAtOnceWhenNobodyEntered) {
  notify();
  EXPECT_EQ(notified_, 0) << "on the queue, not within the call";
  EXPECT_EQ(notifiedNow(), 1);
}

TEST_F(DispatchGroupTest, NotifiesOnceWhenTheLastHasLeft) {
  group_.enter();
  group_.enter();
  notify();
  EXPECT_EQ(notifiedNow(), 0);
  group_.leave();
  EXPECT_EQ(notifiedNow(), 0);
  group_.leave();
  EXPECT_EQ(notified_, 0) << "on the queue, not within the call";
  EXPECT_EQ(notifiedNow(), 1);
}

TEST_F(DispatchGroupTest, NotifiesAtOnceWhenAllHaveLeftAlready) {
  group_.enter();
  group_.leave();
  notify();
  EXPECT_EQ(notifiedNow(), 1);
}

TEST_F(DispatchGroupTest, NotifiesNoSecondTimeWhenItIsUsedAgain) {
  group_.enter();
  notify();
  group_.leave();
  EXPECT_EQ(notifiedNow(), 1);
  group_.enter();
  group_.leave();
  EXPECT_EQ(notifiedNow(), 1);
}

TEST_F(DispatchGroupTest, MayGoOnceItsTaskRuns) {
  auto group = std::make_unique<DispatchGroup>();
  group->enter();
  group->notify(scheduler_.global(), [&] {
    group.reset();
    ++notified_;
  });
  group->leave();
  EXPECT_EQ(notifiedNow(), 1);
}

TEST_F(DispatchGroupTest, LetsGoOfItsTaskAfterRunningIt) {
  const auto token = std::make_shared<int>();
  group_.enter();
  group_.notify(scheduler_.global(), [token] {});
  group_.leave();
  scheduler_.runUntilIdle();
  EXPECT_EQ(token.use_count(), 1);
}

using DispatchGroupDeathTest = DispatchGroupTest;

TEST_F(DispatchGroupDeathTest, AbortsWhenMoreLeaveThanEntered) {
  EXPECT_DEATH(group_.leave(), "inside_ > 0");
}

}  // namespace
}  // namespace vondle
