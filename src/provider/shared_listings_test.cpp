#include "provider/shared_listings.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "state/item_cache.h"
#include "testing/api_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct SharedListingsTest : testing::Test, ApiRig {
  // Adds "CALLER:" and the first name of the listing, or nothing, to the answers.
  void list(const std::string& folder, const std::string& caller) {
    listings.list(folder, [this, caller](const SharedListings::Entries& entries) {
      answers.push_back(caller + ":" + (entries ? entries->front().name : ""));
    });
  }
  // The server answers the oldest request that waits.
  void serve(const std::string& name) {
    const auto task = loading.running().front();
    task->reply(reply(fmt::format(R"({{"folders":[],"files":[{{"id":"1","name":"{}"}}]}})", name)));
    scheduler.runUntilIdle();
  }

  ItemCache cache{api, scheduler};
  SharedListings listings{api, cache};
  std::vector<std::string> answers;
};

TEST_F(SharedListingsTest, ShareTheNextListingAmongAllWhoComeDuringOne) {
  list("9", "a");
  for (const auto* caller : {"b", "c", "d"}) list("9", caller);
  scheduler.runUntilIdle();
  EXPECT_THAT(requests(), ElementsAre("browse?id=9&lite=1"));
  serve("old");
  EXPECT_THAT(answers, ElementsAre("a:old"));
  EXPECT_EQ(requests().size(), 2U);
  serve("new");
  EXPECT_THAT(answers, ElementsAre("a:old", "b:new", "c:new", "d:new"));
  EXPECT_EQ(requests().size(), 2U);
}

TEST_F(SharedListingsTest, GiveNobodyAListingThatWasAskedForBeforeHeCame) {
  list("9", "a");
  list("9", "b");
  scheduler.runUntilIdle();
  serve("first");
  // The one for b is on its way.
  list("9", "c");
  scheduler.runUntilIdle();
  EXPECT_EQ(requests().size(), 2U);
  serve("second");
  EXPECT_THAT(answers, ElementsAre("a:first", "b:second"));
  serve("third");
  EXPECT_THAT(answers, ElementsAre("a:first", "b:second", "c:third"));

  list("9", "d");
  scheduler.runUntilIdle();
  EXPECT_EQ(requests().size(), 4U);
  serve("fourth");
  EXPECT_EQ(answers.back(), "d:fourth");
}

TEST_F(SharedListingsTest, GoToWhoComesFromAnAnswerOnlyWhenAskedForAfterwards) {
  listings.list("9", [this](const SharedListings::Entries&) { list("9", "b"); });
  scheduler.runUntilIdle();
  serve("first");
  EXPECT_THAT(answers, IsEmpty());
  serve("second");
  EXPECT_THAT(answers, ElementsAre("b:second"));
}

TEST_F(SharedListingsTest, OfSeveralFoldersRunSideBySide) {
  list("8", "a");
  list("9", "b");
  scheduler.runUntilIdle();
  EXPECT_THAT(requests(), ElementsAre("browse?id=8&lite=1", "browse?id=9&lite=1"));
  serve("x");
  serve("y");
  EXPECT_THAT(answers, ElementsAre("a:x", "b:y"));
}

TEST_F(SharedListingsTest, ThatFailKeepNobodyWaiting) {
  list("9", "a");
  list("9", "b");
  scheduler.runUntilIdle();
  loading.running().front()->reply(reply("", 500));
  scheduler.runUntilIdle();
  EXPECT_THAT(answers, ElementsAre("a:"));
  serve("x");
  EXPECT_THAT(answers, ElementsAre("a:", "b:x"));

  // Without a configuration no request goes out at all.
  files.put(configPath, "");
  list("9", "c");
  list("9", "d");
  EXPECT_THAT(answers, ElementsAre("a:", "b:x", "c:", "d:"));
}

TEST_F(SharedListingsTest, AreKnownFromThenOn) {
  list("9", "a");
  scheduler.runUntilIdle();
  serve("x");
  ASSERT_TRUE(cache.get("1"));
  EXPECT_EQ(cache.get("1")->name, "x");
}

}  // namespace
}  // namespace vondle
