#include "base/completion.h"

#include <memory>

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(CompletionTest, PassesItsArgumentsOnceAndIsEmptyAfterwards) {
  int sum = 0;
  Completion<int, std::unique_ptr<int>> completion([&](int a, std::unique_ptr<int> b) { sum += a + *b; });
  EXPECT_TRUE(static_cast<bool>(completion));
  std::move(completion)(1, std::make_unique<int>(2));
  EXPECT_EQ(sum, 3);
  EXPECT_FALSE(static_cast<bool>(completion));  // NOLINT(bugprone-use-after-move)
}

TEST(CompletionTest, MovingPassesTheDutyToAnswerOn) {
  int calls = 0;
  Completion<> first([&] { ++calls; });
  Completion<> second = std::move(first);
  EXPECT_FALSE(static_cast<bool>(first));  // NOLINT(bugprone-use-after-move)
  std::move(second)();
  EXPECT_EQ(calls, 1);
}

TEST(CompletionDeathTest, DroppingAnUnansweredCompletionIsReported) {
  EXPECT_DEATH({ Completion<> dropped([] {}); }, "dropped unanswered");
}

TEST(CompletionDeathTest, OverwritingAnUnansweredCompletionIsReported) {
  EXPECT_DEATH(
      {
        Completion<> target([] {});
        target = Completion<>([] {});
      },
      "dropped unanswered");
}

}  // namespace
}  // namespace vondle
