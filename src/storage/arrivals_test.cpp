#include "storage/arrivals.h"

#include <memory>

#include <gtest/gtest.h>

namespace vondle::storage {
namespace {

constexpr std::int64_t ANN = 1;
constexpr std::int64_t BOB = 2;

TEST(ArrivalsTest, WhatArrivesCountsUntilItEnds) {
  Arrivals arrivals;
  EXPECT_EQ(arrivals.of(ANN, ""), 0);
  {
    const Arrivals::Hold first(arrivals, ANN, "a", 5);
    const Arrivals::Hold second(arrivals, ANN, "b", 7);
    const Arrivals::Hold others(arrivals, BOB, "c", 100);
    EXPECT_EQ(arrivals.of(ANN, ""), 12);
    EXPECT_EQ(arrivals.of(ANN, "b"), 5);
    EXPECT_EQ(arrivals.of(BOB, ""), 100);
  }
  EXPECT_EQ(arrivals.of(ANN, ""), 0);
}

TEST(ArrivalsTest, TransfersOfOneKeyCountOnce) {
  Arrivals arrivals;
  auto first = std::make_unique<Arrivals::Hold>(arrivals, ANN, "a", 5);
  auto second = std::make_unique<Arrivals::Hold>(arrivals, ANN, "a", 6);
  EXPECT_EQ(arrivals.of(ANN, ""), 6);
  second.reset();
  EXPECT_EQ(arrivals.of(ANN, ""), 5);
  first.reset();
  EXPECT_EQ(arrivals.of(ANN, ""), 0);
}

}  // namespace
}  // namespace vondle::storage
