#include "state/item_cache.h"

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/api_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct ItemCacheTest : testing::Test, ApiRig {
  ItemCache cache{api, scheduler};

  Entry entry(std::string id, std::string name) {
    Entry made;
    made.id = std::move(id);
    made.name = std::move(name);
    made.fetchedAt = scheduler.now();
    return made;
  }
  std::optional<Entry> resolve(std::string id, std::optional<Duration> maxAge) {
    Captured<std::optional<Entry>> answer;
    cache.resolve(std::move(id), maxAge, answer.completion());
    scheduler.runUntilIdle();
    return answer.value();
  }
};

TEST_F(ItemCacheTest, ReplacesARecordAsAWhole) {
  Entry first = entry("7", "a");
  first.ownerName = "Ann";
  cache.store({first});
  scheduler.advance(seconds(5));
  const Entry second = entry("7", "b");
  cache.store({second});
  EXPECT_EQ(cache.get("7"), second);
  EXPECT_EQ(cache.get("7")->fetchedAt, scheduler.now());
}

TEST_F(ItemCacheTest, KeepsTheLaterOfTwoRecordsInOneList) {
  cache.store({entry("7", "a"), entry("8", "x"), entry("7", "b")});
  EXPECT_EQ(cache.get("7")->name, "b");
  EXPECT_EQ(cache.get("8")->name, "x");
  cache.store(std::vector<Entry>{});
  EXPECT_EQ(cache.get("8")->name, "x");
}

TEST_F(ItemCacheTest, ForgetsARecord) {
  cache.store({entry("7", "a")});
  cache.forget("7");
  cache.forget("8");
  EXPECT_EQ(cache.get("7"), std::nullopt);
}

TEST_F(ItemCacheTest, ResolvesARecordOfAnyAgeWithoutTheServer) {
  cache.store({entry("7", "a")});
  scheduler.advance(std::chrono::hours(24 * 365));
  EXPECT_EQ(resolve("7", std::nullopt)->name, "a");
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(ItemCacheTest, AsksTheServerForARecordThatIsTooOld) {
  answer("item", R"({"id":"7","name":"fresh"})");
  cache.store({entry("7", "a")});
  scheduler.advance(seconds(9));
  EXPECT_EQ(resolve("7", seconds(10))->name, "a");
  scheduler.advance(seconds(1));
  EXPECT_EQ(resolve("7", seconds(10))->name, "fresh");
  EXPECT_THAT(requests(), ElementsAre("item?id=7"));
}

TEST_F(ItemCacheTest, AlwaysAsksTheServerBeforeAMutation) {
  answer("item", R"({"id":"7","name":"fresh"})");
  cache.store({entry("7", "a")});
  EXPECT_EQ(resolve("7", mutationFreshness)->name, "fresh");
  EXPECT_EQ(resolve("7", mutationFreshness)->name, "fresh");
  EXPECT_THAT(requests(), ElementsAre("item?id=7", "item?id=7"));
}

TEST_F(ItemCacheTest, AsksTheServerBeforeAMutationAlsoWhenTheClockWasSetBack) {
  answer("item", R"({"id":"7","name":"fresh"})");
  cache.store({entry("7", "a")});
  scheduler.setWallClock({scheduler.now().secondsSince1970 - 3600});
  EXPECT_EQ(resolve("7", mutationFreshness)->name, "fresh");
}

TEST_F(ItemCacheTest, StoresWhatTheServerAnswers) {
  answer("item", R"({"id":"7","name":"fresh"})");
  EXPECT_EQ(resolve("7", std::nullopt)->name, "fresh");
  const auto stored = cache.get("7");
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->name, "fresh");
  EXPECT_EQ(stored->fetchedAt, scheduler.now());
}

TEST_F(ItemCacheTest, FallsBackToTheStaleRecordWhenTheServerFails) {
  answer("item", "", 500);
  cache.store({entry("7", "stale")});
  scheduler.advance(seconds(60));
  EXPECT_EQ(resolve("7", mutationFreshness)->name, "stale");
  EXPECT_EQ(resolve("8", mutationFreshness), std::nullopt);
  EXPECT_EQ(resolve("8", std::nullopt), std::nullopt);
}

TEST_F(ItemCacheTest, FallsBackToTheRecordAsItWasWhenAsked) {
  cache.store({entry("7", "before")});
  Captured<std::optional<Entry>> answer;
  cache.resolve("7", mutationFreshness, answer.completion());
  scheduler.runUntilIdle();
  cache.forget("7");
  loading.tasks().back()->reply(reply("", 500));
  scheduler.runUntilIdle();
  EXPECT_EQ(answer.value()->name, "before");
  EXPECT_EQ(cache.get("7"), std::nullopt);
}

TEST_F(ItemCacheTest, IsUsedFromManyThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this, t] {
      for (int i = 0; i < 500; ++i) {
        const std::string id = std::to_string((i + t) % 7);
        Entry made;
        made.id = id;
        made.name = "name of " + id;
        cache.store({made});
        EXPECT_EQ(cache.get(id).value_or(made).name, "name of " + id);
        cache.forget(std::to_string(i % 5));
      }
    });
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace vondle
