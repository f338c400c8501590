#include "transfer/token_bucket.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

struct TokenBucketTest : testing::Test {
  VirtualScheduler clock;
  TokenBucket bucket{clock};
};

TEST_F(TokenBucketTest, AFreshOneIsUnlimitedAndStaysEmpty) {
  EXPECT_TRUE(bucket.isUnlimited());
  for (const std::int64_t bytes : {0L, 1L, 1'000'000'000'000L}) EXPECT_EQ(bucket.take(bytes), 0);
  EXPECT_EQ(bucket.tokens(), 0);
}

TEST_F(TokenBucketTest, TheFirstRateFillsItAndDebtIsWaitedFor) {
  bucket.setRate(100'000);
  EXPECT_FALSE(bucket.isUnlimited());
  EXPECT_EQ(bucket.tokens(), 100'000);
  EXPECT_DOUBLE_EQ(bucket.take(250'000), 1.5);
  EXPECT_EQ(bucket.tokens(), -150'000);
}

TEST_F(TokenBucketTest, DebtEndsAtTwoSecondsWorth) {
  bucket.setRate(100'000);
  bucket.take(250'000);
  EXPECT_DOUBLE_EQ(bucket.take(1'000'000), 2.0);
  EXPECT_EQ(bucket.tokens(), -200'000);
  EXPECT_DOUBLE_EQ(bucket.take(1), 2.0);
}

TEST_F(TokenBucketTest, WithinTheBalanceThereIsNoWait) {
  bucket.setRate(1000);
  EXPECT_EQ(bucket.take(1000), 0);
  EXPECT_EQ(bucket.tokens(), 0);
  EXPECT_GT(bucket.take(1), 0);
}

TEST_F(TokenBucketTest, ANegativeRateIsUnlimited) {
  bucket.setRate(1000);
  bucket.setRate(-5);
  EXPECT_TRUE(bucket.isUnlimited());
  EXPECT_EQ(bucket.rate(), 0);
  EXPECT_EQ(bucket.take(10'000), 0);
  bucket.setRate(2000);  // it was unlimited: full again
  EXPECT_EQ(bucket.tokens(), 2000);
}

TEST_F(TokenBucketTest, TheSameRateAgainChangesNothing) {
  bucket.setRate(1000);
  bucket.take(1500);
  clock.advance(seconds(0.25));
  bucket.setRate(1000);
  EXPECT_EQ(bucket.tokens(), -500);
  clock.advance(seconds(0.25));
  EXPECT_EQ(bucket.take(0), 0);  // half a second of refill, not a quarter
  EXPECT_DOUBLE_EQ(bucket.tokens(), 0);
}

TEST_F(TokenBucketTest, ALowerRateTrimsTheBalanceAndAHigherOneKeepsIt) {
  bucket.setRate(1'000'000);
  bucket.setRate(1000);
  EXPECT_EQ(bucket.tokens(), 1000);
  bucket.take(1500);
  ASSERT_EQ(bucket.tokens(), -500);
  bucket.setRate(1'000'000);
  EXPECT_EQ(bucket.tokens(), -500);
}

TEST_F(TokenBucketTest, AChangeOfRateCountsRefillFromThen) {
  bucket.setRate(1000);
  bucket.take(2000);
  clock.advance(seconds(10));
  bucket.setRate(2000);
  clock.advance(seconds(0.25));
  bucket.take(0);
  EXPECT_DOUBLE_EQ(bucket.tokens(), -500);
}

TEST_F(TokenBucketTest, ItRefillsWithTimeUpToOneSecondsWorth) {
  bucket.setRate(1000);
  bucket.take(2500);
  clock.advance(seconds(0.5));
  EXPECT_DOUBLE_EQ(bucket.take(0), 1.0);
  clock.advance(std::chrono::hours(24));
  EXPECT_EQ(bucket.take(0), 0);
  EXPECT_EQ(bucket.tokens(), 1000);
}

TEST_F(TokenBucketTest, TheWallClockDoesNotMatter) {
  bucket.setRate(1000);
  bucket.take(2000);
  clock.setWallClock({0});
  EXPECT_DOUBLE_EQ(bucket.take(0), 1.0);
}

TEST_F(TokenBucketTest, ChargesFromManyThreadsAddUp) {
  bucket.setRate(1'000'000);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < 1000; ++j) bucket.take(100);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(bucket.tokens(), 600'000);
}

}  // namespace
}  // namespace vondle
