#include "service/thumbnails/thumbnail_outcomes.h"

#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

constexpr Inode PICTURE = 7;
constexpr std::uint64_t TAG = 1, OTHER_TAG = 2;

class ThumbnailOutcomesTest : public testing::Test {
 protected:
  // Answers are counted; those to waits that were cancelled apart.
  std::shared_ptr<Progress> wait(std::uint64_t tag = TAG) {
    auto progress = Progress::make();
    outcomes_->whenSettled(PICTURE, tag, progress, [this](const Result<std::monostate>& result) {
      EXPECT_TRUE(result || result.error().is(COCOA_ERROR_DOMAIN, USER_CANCELLED));
      ++(result ? answered_ : cancelled_);
    });
    return progress;
  }

  VirtualScheduler scheduler_;
  const std::shared_ptr<ThumbnailOutcomes> outcomes_ = std::make_shared<ThumbnailOutcomes>(scheduler_, scheduler_);
  int answered_ = 0, cancelled_ = 0;
};

TEST_F(ThumbnailOutcomesTest, WhatIsSettledIsNotWaitedFor) {
  EXPECT_FALSE(outcomes_->isSettled(PICTURE, TAG));
  outcomes_->settle(PICTURE, TAG);
  EXPECT_TRUE(outcomes_->isSettled(PICTURE, TAG));
  EXPECT_TRUE(outcomes_->isSettledForGood(PICTURE, TAG));
  wait();
  EXPECT_EQ(answered_, 1);
}

TEST_F(ThumbnailOutcomesTest, AllWhoWaitAreAnsweredWhenItComes) {
  wait();
  wait();
  EXPECT_EQ(answered_, 0);
  outcomes_->settle(PICTURE, TAG);
  EXPECT_EQ(answered_, 2);
}

TEST_F(ThumbnailOutcomesTest, OtherContentsAreNotSettled) {
  outcomes_->settle(PICTURE, OTHER_TAG);
  EXPECT_FALSE(outcomes_->isSettled(PICTURE, TAG));
  EXPECT_FALSE(outcomes_->isSettledForGood(PICTURE, TAG));
  wait();
  EXPECT_EQ(answered_, 0);
  outcomes_->answerAll();
}

TEST_F(ThumbnailOutcomesTest, WhatCannotBeHadNowIsSettledForAWhile) {
  outcomes_->settle(PICTURE, TAG, seconds(60));
  EXPECT_TRUE(outcomes_->isSettled(PICTURE, TAG));
  EXPECT_FALSE(outcomes_->isSettledForGood(PICTURE, TAG));
  scheduler_.advance(seconds(60));
  EXPECT_FALSE(outcomes_->isSettled(PICTURE, TAG));
}

TEST_F(ThumbnailOutcomesTest, NobodyWaitsForever) {
  wait();
  scheduler_.advance(ThumbnailOutcomes::PATIENCE - Duration(1));
  EXPECT_EQ(answered_, 0);
  scheduler_.advance(Duration(1));
  EXPECT_EQ(answered_, 1);
  EXPECT_FALSE(outcomes_->isSettled(PICTURE, TAG));
}

TEST_F(ThumbnailOutcomesTest, AWaitCanBeCancelled) {
  const auto first = wait(), second = wait();
  first->cancel();
  EXPECT_EQ(cancelled_, 1);
  outcomes_->settle(PICTURE, TAG);
  EXPECT_EQ(answered_, 1);
}

TEST_F(ThumbnailOutcomesTest, WhenNothingComesAnyMoreAllAreAnswered) {
  wait();
  outcomes_->answerAll();
  EXPECT_EQ(answered_, 1);
  EXPECT_FALSE(outcomes_->isSettled(PICTURE, TAG));
}

TEST_F(ThumbnailOutcomesTest, WhatIsKnownIsBounded) {
  for (Inode inode = 100; inode < 100 + ThumbnailOutcomes::MAX_KNOWN; ++inode) outcomes_->settle(inode, TAG);
  EXPECT_TRUE(outcomes_->isSettled(100, TAG));
  outcomes_->settle(PICTURE, TAG);
  EXPECT_TRUE(outcomes_->isSettled(PICTURE, TAG));
  EXPECT_FALSE(outcomes_->isSettled(100, TAG));
}

}  // namespace
}  // namespace vondle
