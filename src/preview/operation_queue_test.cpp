#include "preview/operation_queue.h"

#include <map>
#include <vector>

#include <gmock/gmock.h>

#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OperationQueueTest : public testing::Test {
 protected:
  void add(OperationQueue& queue, int number) {
    queue.add([this, number](Completion<> done) {
      begun.push_back(number);
      running.emplace(number, std::move(done));
    });
  }
  void end(int number) {
    auto done = std::move(running.at(number));
    running.erase(number);
    std::move(done)();
    scheduler.runUntilIdle();
  }

  VirtualScheduler scheduler;
  std::vector<int> begun;
  std::map<int, Completion<>> running;
};

TEST_F(OperationQueueTest, BeginsNothingBeforeAddReturns) {
  OperationQueue queue(scheduler.global(), 2);
  add(queue, 1);
  EXPECT_THAT(begun, IsEmpty());
  scheduler.runUntilIdle();
  EXPECT_THAT(begun, ElementsAre(1));
  end(1);
}

TEST_F(OperationQueueTest, BeginsInOrderAndOnlyAsManyAsAllowed) {
  OperationQueue queue(scheduler.global(), 2);
  for (int number = 1; number <= 5; ++number) add(queue, number);
  scheduler.runUntilIdle();
  EXPECT_THAT(begun, ElementsAre(1, 2));
  end(2);
  EXPECT_THAT(begun, ElementsAre(1, 2, 3));
  end(1);
  end(3);
  EXPECT_THAT(begun, ElementsAre(1, 2, 3, 4, 5));
  end(4);
  end(5);
}

TEST_F(OperationQueueTest, AnOperationThatEndsAtOnceMakesRoomAtOnce) {
  OperationQueue queue(scheduler.global(), 1);
  for (int number = 1; number <= 3; ++number)
    queue.add([this, number](Completion<> done) {
      begun.push_back(number);
      std::move(done)();
    });
  scheduler.runUntilIdle();
  EXPECT_THAT(begun, ElementsAre(1, 2, 3));
}

TEST_F(OperationQueueTest, WhatWasAddedRunsAlsoAfterItsEnd) {
  {
    OperationQueue queue(scheduler.global(), 1);
    add(queue, 1);
    add(queue, 2);
  }
  scheduler.runUntilIdle();
  end(1);
  EXPECT_THAT(begun, ElementsAre(1, 2));
  end(2);
}

}  // namespace
}  // namespace vondle
