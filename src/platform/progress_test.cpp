#include "platform/progress.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::ElementsAre;

TEST(Progress, StartsEmptyAndUntouched) {
  const auto progress = Progress::make();
  EXPECT_EQ(progress->totalUnitCount(), 0);
  EXPECT_EQ(progress->completedUnitCount(), 0);
  EXPECT_EQ(progress->fractionCompleted(), 0);
  EXPECT_EQ(progress->kind(), ProgressKind::none);
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::none);
  EXPECT_TRUE(progress->isCancellable());
  EXPECT_FALSE(progress->isPausable());
  EXPECT_FALSE(progress->isCancelled());
  EXPECT_FALSE(progress->isPaused());
}

TEST(Progress, KeepsWhatItIsTold) {
  const auto progress = Progress::make(7);
  progress->setKind(ProgressKind::file, FileOperationKind::uploading);
  progress->setCancellable(false);
  progress->setPausable(true);
  EXPECT_EQ(progress->totalUnitCount(), 7);
  EXPECT_EQ(progress->kind(), ProgressKind::file);
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::uploading);
  EXPECT_FALSE(progress->isCancellable());
  EXPECT_TRUE(progress->isPausable());
}

struct FractionCase {
  std::int64_t total;
  std::int64_t completed;
  double fraction;
};

class ProgressFraction : public testing::TestWithParam<FractionCase> {};

TEST_P(ProgressFraction, IsCompletedOfTotal) {
  const auto progress = Progress::make(GetParam().total);
  progress->setCompletedUnitCount(GetParam().completed);
  EXPECT_DOUBLE_EQ(progress->fractionCompleted(), GetParam().fraction);
}

INSTANTIATE_TEST_SUITE_P(Counts, ProgressFraction,
                         testing::Values(FractionCase{10, 0, 0}, FractionCase{10, 3, 0.3}, FractionCase{10, 10, 1},
                                         FractionCase{10, 12, 1}, FractionCase{0, 5, 0}, FractionCase{-1, 5, 0},
                                         FractionCase{10, -2, 0}));

class ProgressWithChildren : public testing::Test {
 protected:
  ProgressWithChildren() {
    parent_->addChild(first_, 60);
    parent_->addChild(second_, 40);
  }

  std::shared_ptr<Progress> parent_ = Progress::make(100);
  std::shared_ptr<Progress> first_ = Progress::make(6);
  std::shared_ptr<Progress> second_ = Progress::make(4);
};

TEST_F(ProgressWithChildren, CountsFinishedChildrenAndTheFractionsOfTheOthers) {
  first_->setCompletedUnitCount(3);
  EXPECT_EQ(parent_->completedUnitCount(), 0);
  EXPECT_DOUBLE_EQ(parent_->fractionCompleted(), 0.3);
  first_->setCompletedUnitCount(6);
  second_->setCompletedUnitCount(1);
  EXPECT_EQ(parent_->completedUnitCount(), 60);
  EXPECT_DOUBLE_EQ(parent_->fractionCompleted(), 0.7);
  second_->setCompletedUnitCount(4);
  EXPECT_EQ(parent_->completedUnitCount(), 100);
  EXPECT_DOUBLE_EQ(parent_->fractionCompleted(), 1);
}

TEST_F(ProgressWithChildren, AddsItsOwnCountToThoseOfItsChildren) {
  const auto parent = Progress::make(100);
  parent->setCompletedUnitCount(50);
  const auto child = Progress::make(10);
  parent->addChild(child, 50);
  EXPECT_EQ(parent->completedUnitCount(), 50);
  child->setCompletedUnitCount(10);
  EXPECT_EQ(parent->completedUnitCount(), 100);
}

TEST_F(ProgressWithChildren, FallsBackWhenAChildStartsAgain) {
  first_->setCompletedUnitCount(6);
  EXPECT_EQ(parent_->completedUnitCount(), 60);
  first_->setCompletedUnitCount(0);
  EXPECT_EQ(parent_->completedUnitCount(), 0);
  EXPECT_DOUBLE_EQ(parent_->fractionCompleted(), 0);
}

TEST_F(ProgressWithChildren, CountsGrandchildren) {
  const auto grandchild = Progress::make(10);
  first_->addChild(grandchild, 6);
  grandchild->setCompletedUnitCount(5);
  EXPECT_DOUBLE_EQ(parent_->fractionCompleted(), 0.3);
  grandchild->setCompletedUnitCount(10);
  EXPECT_EQ(parent_->completedUnitCount(), 60);
}

TEST_F(ProgressWithChildren, PassesCancellingPausingAndResumingDown) {
  const auto grandchild = Progress::make(1);
  second_->addChild(grandchild, 4);
  parent_->pause();
  EXPECT_TRUE(first_->isPaused() && second_->isPaused() && grandchild->isPaused());
  parent_->resume();
  EXPECT_FALSE(first_->isPaused() || second_->isPaused() || grandchild->isPaused());
  parent_->cancel();
  EXPECT_TRUE(first_->isCancelled() && second_->isCancelled() && grandchild->isCancelled());
}

TEST_F(ProgressWithChildren, PassesNothingUp) {
  first_->pause();
  first_->cancel();
  EXPECT_FALSE(parent_->isPaused() || parent_->isCancelled() || second_->isPaused() || second_->isCancelled());
}

TEST_F(ProgressWithChildren, TellsChildrenAddedLater) {
  parent_->pause();
  parent_->cancel();
  const auto late = Progress::make(1);
  bool told = false;
  late->setCancellationHandler([&] { told = true; });
  parent_->addChild(late, 0);
  EXPECT_TRUE(late->isPaused());
  EXPECT_TRUE(late->isCancelled());
  EXPECT_TRUE(told);
}

TEST_F(ProgressWithChildren, LeavesAPausedChildPausedWhenItIsAdded) {
  const auto late = Progress::make(1);
  late->pause();
  parent_->addChild(late, 0);
  EXPECT_TRUE(late->isPaused());
}

class ProgressHandlers : public testing::Test {
 protected:
  ProgressHandlers() {
    progress_->setCancellationHandler([this] { called_.push_back("cancel"); });
    progress_->setPausingHandler([this] { called_.push_back("pause"); });
    progress_->setResumingHandler([this] { called_.push_back("resume"); });
  }

  std::shared_ptr<Progress> progress_ = Progress::make(1);
  std::vector<std::string> called_;
};

TEST_F(ProgressHandlers, RunWithinTheCallOncePerChange) {
  progress_->resume();
  EXPECT_THAT(called_, ElementsAre());
  progress_->pause();
  progress_->pause();
  EXPECT_THAT(called_, ElementsAre("pause"));
  progress_->resume();
  progress_->resume();
  progress_->pause();
  EXPECT_THAT(called_, ElementsAre("pause", "resume", "pause"));
}

TEST_F(ProgressHandlers, OfCancellingRunOnceForAll) {
  progress_->cancel();
  progress_->cancel();
  EXPECT_THAT(called_, ElementsAre("cancel"));
  EXPECT_TRUE(progress_->isCancelled());
}

TEST_F(ProgressHandlers, MayBeSetOnACancelledOrPausedObjectWithoutRunning) {
  const auto progress = Progress::make(1);
  progress->cancel();
  progress->pause();
  progress->setCancellationHandler([this] { called_.push_back("cancel"); });
  progress->setPausingHandler([this] { called_.push_back("pause"); });
  EXPECT_THAT(called_, ElementsAre());
}

TEST_F(ProgressHandlers, MayUseTheObject) {
  progress_->setPausingHandler([this] {
    called_.push_back("pause");
    progress_->setCompletedUnitCount(1);
    progress_->resume();
    EXPECT_FALSE(progress_->isPaused());
  });
  progress_->pause();
  EXPECT_THAT(called_, ElementsAre("pause", "resume"));
  EXPECT_FALSE(progress_->isPaused());
  EXPECT_EQ(progress_->completedUnitCount(), 1);
}

TEST_F(ProgressHandlers, MayLetGoOfTheObject) {
  auto progress = Progress::make(1);
  progress->setCancellationHandler([&] { progress.reset(); });
  const auto kept = progress;
  kept->cancel();
  EXPECT_EQ(progress, nullptr);
}

TEST(ProgressFromManyThreads, EndsAsTheLastHandlerSaid) {
  for (int round = 0; round < 200; ++round) {
    const auto parent = Progress::make(1);
    const auto child = Progress::make(1);
    std::atomic<bool> parentPaused = false;
    std::atomic<bool> childPaused = false;
    parent->setPausingHandler([&] { parentPaused = true; });
    parent->setResumingHandler([&] { parentPaused = false; });
    child->setPausingHandler([&] { childPaused = true; });
    child->setResumingHandler([&] { childPaused = false; });
    {
      const std::jthread pauses([&] {
        for (int i = 0; i < 20; ++i) parent->pause();
      });
      const std::jthread resumes([&] {
        for (int i = 0; i < 20; ++i) parent->resume();
      });
      const std::jthread adds([&] { parent->addChild(child, 1); });
    }
    ASSERT_EQ(parentPaused, parent->isPaused());
    ASSERT_EQ(child->isPaused(), parent->isPaused());
    ASSERT_EQ(childPaused, child->isPaused());
  }
}

}  // namespace
}  // namespace vondle
