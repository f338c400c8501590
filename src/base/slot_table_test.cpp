#include "base/slot_table.h"

#include <random>
#include <set>

#include <gtest/gtest.h>

namespace vondle {
namespace {

using Slot = SlotTable::Slot;
constexpr auto ALL = [](Slot) { return true; };

TEST(SlotTableTest, TellsSlotsOfTheSameHashApart) {
  SlotTable table;
  const auto is = [](Slot wanted) { return [wanted](Slot slot) { return slot == wanted; }; };
  EXPECT_TRUE(table.add({1, 7}, is(1)));
  EXPECT_TRUE(table.add({2, 7}, is(2)));
  EXPECT_FALSE(table.add({3, 7}, is(2)));
  EXPECT_EQ(table.find(7, is(2)), 2U);
  EXPECT_EQ(table.find(7, is(3)), SlotTable::NONE);
  EXPECT_EQ(table.find(8, ALL), SlotTable::NONE);
  table.remove(7, 1);
  EXPECT_EQ(table.find(7, is(1)), SlotTable::NONE);
  EXPECT_EQ(table.find(7, is(2)), 2U);
  table.renameAll([](Slot slot) { return slot + 10; });
  EXPECT_EQ(table.find(7, ALL), 12U);
  EXPECT_EQ(table.size(), 1U);
}

// With few hashes, and many at either end of the table, where the search goes round.
TEST(SlotTableTest, StaysTrueUnderRandomChanges) {
  std::mt19937 random(20240501);
  SlotTable table;
  std::set<Slot> expected;
  const auto hashOf = [](Slot slot) { return (slot % 3 == 0 ? 0xffffffffU - slot % 50 : slot % 50) << (slot % 5); };
  for (int step = 0; step < 20'000; ++step) {
    const Slot slot = random() % 2000;
    const bool isThere = expected.contains(slot);
    const auto matches = [slot](Slot other) { return other == slot; };
    ASSERT_EQ(table.find(hashOf(slot), matches) == slot, isThere);
    if (isThere && random() % 2 == 0) {
      table.remove(hashOf(slot), slot);
      expected.erase(slot);
    } else {
      ASSERT_EQ(table.add({slot, hashOf(slot)}, matches), !isThere);
      expected.insert(slot);
    }
    ASSERT_EQ(table.size(), expected.size());
  }
}

TEST(SlotTableTest, TakesManyAtOnceUnlessTwoMatch) {
  SlotTable table;
  std::vector<SlotTable::Cell> cells;
  const auto same = [](Slot a, Slot b) { return a % 100'000 == b % 100'000; };
  for (Slot slot = 0; slot < 50'000; ++slot) cells.push_back({slot, SlotTable::mix(slot)});
  EXPECT_TRUE(table.addAll(cells, same));
  for (Slot slot = 0; slot < 50'000; ++slot) ASSERT_EQ(table.find(SlotTable::mix(slot), ALL), slot);
  EXPECT_FALSE(table.addAll({{100'007, SlotTable::mix(7)}}, same));
  EXPECT_TRUE(table.addAll({}, same));
}

}  // namespace
}  // namespace vondle
