#include "items/working_set_enumerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "testing/items_rig.h"
#include "testing/scripted_manager.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

using End = RecordingChangeObserver::End;

struct WorkingSetTest : testing::Test, ItemsRig {
  std::shared_ptr<ScriptedManager> manager = std::make_shared<ScriptedManager>(scheduler.global());
  WorkingSetEnumerator enumerator{services, {"domain", "Vondle"}, [this](const Domain& domain) {
                                    EXPECT_EQ(domain.identifier, "domain");
                                    return manager;
                                  }};

  std::shared_ptr<RecordingChangeObserver> start(SyncAnchor from = "1") {
    auto observer = std::make_shared<RecordingChangeObserver>();
    enumerator.enumerateChanges(observer, std::move(from));
    return observer;
  }
  std::shared_ptr<RecordingChangeObserver> changes(SyncAnchor from = "1") {
    auto observer = start(std::move(from));
    scheduler.runUntilIdle();
    return observer;
  }
  void answerItem(const std::string& id, const std::string& name) {
    answer("item?id=" + id, json::serialize(json::Object{{"id", id}, {"name", name}}));
  }
  // A server with nothing new, at this position.
  void answerNothingNew(std::int64_t seq) {
    cursor.save(seq);
    answer("changes", json::serialize(json::Object{{"changes", json::Array()}, {"seq", seq}, {"head", seq}}));
  }
  std::vector<std::string> logOf(LogLevel level) { return log.messages(level); }
};

TEST_F(WorkingSetTest, ListsNothing) {
  const auto observer = std::make_shared<RecordingEnumerationObserver>();
  enumerator.enumerateItems(observer, "any");
  EXPECT_EQ(observer->pages, 1);
  EXPECT_THAT(observer->items, IsEmpty());
  EXPECT_TRUE(observer->finished);
  EXPECT_EQ(observer->next, std::nullopt);
  EXPECT_THAT(requests(), IsEmpty());
  enumerator.invalidate();
}

TEST_F(WorkingSetTest, AnchorsAtTheCursor) {
  Captured<std::optional<SyncAnchor>> before;
  enumerator.currentSyncAnchor(before.completion());
  EXPECT_EQ(before.value(), "0");
  cursor.save(4711);
  Captured<std::optional<SyncAnchor>> after;
  enumerator.currentSyncAnchor(after.completion());
  EXPECT_EQ(after.value(), "4711");
}

// The server's changes.

TEST_F(WorkingSetTest, StartsColdAtTheServersHeadAndReportsNothing) {
  answer("changes", R"({"changes":[],"seq":0,"head":4711,"more":true})");
  const auto observer = changes();
  EXPECT_THAT(requests(), ElementsAre("changes?since=0&limit=0"));
  EXPECT_THAT(observer->calls, ElementsAre("finish 4711"));
  EXPECT_EQ(cursor.load(), 4711);
  EXPECT_THAT(logOf(LogLevel::standard), ElementsAre("cold start: cursor set to head 4711"));
}

TEST_F(WorkingSetTest, FinishesAColdStartThatFailsWithTheAnchorItGot) {
  answer("changes", "", 500);
  EXPECT_THAT(changes("the service's own")->calls, ElementsAre("finish the service's own"));
  EXPECT_EQ(cursor.load(), 0);
  EXPECT_THAT(logOf(LogLevel::standard), IsEmpty());
}

TEST_F(WorkingSetTest, ReportsAPageOfChanges) {
  cursor.save(10);
  cache.store({entry("4", "gone"), entry("5", "gone too"), entry("6", "stays")});
  answer("changes", R"({"changes":[{"id":"1","name":"a"},{"id":"4","deleted":true},{"id":"2","name":"b"},
    {"id":"5","deleted":true},{"id":"3","name":"c"}],"seq":15,"head":15})");
  const auto observer = changes("ignored");
  EXPECT_THAT(requests(), ElementsAre("changes?since=10&limit=1000"));
  EXPECT_THAT(observer->calls, ElementsAre("update 1 2 3", "delete 4 5", "finish 15"));
  EXPECT_EQ(cursor.load(), 15);
  EXPECT_THAT(logOf(LogLevel::standard), ElementsAre("changes since 10: 3 updated, 2 deleted (now at 15)"));
  EXPECT_EQ(cache.get("2")->name, "b");
  EXPECT_EQ(cache.get("4"), std::nullopt);
  EXPECT_EQ(cache.get("5"), std::nullopt);
  EXPECT_EQ(cache.get("6")->name, "stays");
}

TEST_F(WorkingSetTest, SaysWhenMoreIsComingAndReadsOnFromTheCursor) {
  cursor.save(10);
  answer("changes?since=10", R"({"changes":[{"id":"1","name":"a"}],"seq":1010,"head":1015,"more":true})");
  answer("changes?since=1010", R"({"changes":[{"id":"2","name":"b"}],"seq":1015,"head":1015,"more":false})");
  EXPECT_THAT(changes()->calls, ElementsAre("update 1", "finish 1010 more"));
  EXPECT_THAT(changes()->calls, ElementsAre("update 2", "finish 1015"));
  EXPECT_EQ(cursor.load(), 1015);
}

TEST_F(WorkingSetTest, CallsTheObserverForNothingElseWhenAPageIsEmpty) {
  answerNothingNew(10);
  EXPECT_THAT(changes()->calls, ElementsAre("finish 10"));
  EXPECT_THAT(logOf(LogLevel::standard), ElementsAre("changes since 10: 0 updated, 0 deleted (now at 10)"));
}

TEST_F(WorkingSetTest, ReportsTheDeletedRootAsTheRootContainer) {
  cursor.save(10);
  answer("changes", R"({"changes":[{"id":"root","deleted":true},{"id":"shared","deleted":true}],"seq":11})");
  EXPECT_THAT(changes()->calls, ElementsAre("delete NSFileProviderRootContainerItemIdentifier shared", "finish 11"));
}

TEST_F(WorkingSetTest, ReportsAFailedPageAndRepeatsIt) {
  cursor.save(10);
  answer("changes", "", 503);
  const auto observer = changes();
  EXPECT_THAT(observer->calls, ElementsAre("error"));
  EXPECT_EQ(observer->error, Error(APIError::badResponse(503)));
  EXPECT_EQ(cursor.load(), 10);
  changes();
  EXPECT_THAT(requests(), ElementsAre("changes?since=10&limit=1000", "changes?since=10&limit=1000"));
}

TEST_F(WorkingSetTest, LeavesNoTimerBehind) {
  answerNothingNew(10);
  Captured<Result<ChangeSet>> plain;
  api.changes(10, 1000, plain.completion());
  scheduler.runUntilIdle();
  const std::size_t timersOfOneRequest = scheduler.timerCount();
  changes();
  EXPECT_EQ(scheduler.timerCount(), 2 * timersOfOneRequest);
}

// Pins.

TEST_F(WorkingSetTest, AppliesPinRequestsOfOtherProcessesBeforeTheServersChanges) {
  answerNothingNew(10);
  answerItem("a", "A");
  manager->place("a", "/home/tester/Vondle/A");
  leavePending(R"([{"id":"a","pin":true}])");
  const auto observer = changes();
  EXPECT_TRUE(pins.contains("a"));
  EXPECT_THAT(observer->calls, ElementsAre("update a", "finish 10"));
  EXPECT_EQ(observer->updated[0].contentPolicy, ContentPolicy::downloadEagerlyAndKeepDownloaded);
  EXPECT_EQ(cache.get("a")->name, "A");
  EXPECT_THAT(requests(), ElementsAre("item?id=a", "changes?since=10&limit=1000"));
  EXPECT_THAT(logOf(LogLevel::standard), ElementsAre("applied 1 pin request(s)", "announced 1 pin change(s)",
                                                     "changes since 10: 0 updated, 0 deleted (now at 10)"));
  EXPECT_THAT(manager->evicted(), IsEmpty());
  EXPECT_EQ(files.contents(pins.pendingURL()), std::nullopt);
}

TEST_F(WorkingSetTest, PinsTheIdentifierThatTheServiceNames) {
  answerNothingNew(10);
  manager->place("old", "/v/A", "new");
  leavePending(R"([{"id":"old","pin":true}])");
  changes();
  EXPECT_TRUE(pins.contains("new"));
  EXPECT_FALSE(pins.contains("old"));
}

TEST_F(WorkingSetTest, SkipsRequestsForItemsWithoutAPlace) {
  answerNothingNew(10);
  manager->place("b", "/v/B");
  manager->forgetPath("/v/B");
  leavePending(R"([{"id":"a","pin":true},{"id":"b","pin":true}])");
  EXPECT_THAT(changes()->calls, ElementsAre("finish 10"));
  EXPECT_FALSE(pins.contains("a"));
  EXPECT_FALSE(pins.contains("b"));
  EXPECT_THAT(logOf(LogLevel::standard), Contains("applied 0 pin request(s)"));
  EXPECT_THAT(logOf(LogLevel::standard), Not(Contains("announced 0 pin change(s)")));
}

TEST_F(WorkingSetTest, DropsRequestsWhenTheDomainIsNotServed) {
  answerNothingNew(10);
  answerItem("b", "B");
  manager = nullptr;
  leavePending(R"([{"id":"a","pin":true}])");
  leaveDirty(R"(["b"])");
  EXPECT_THAT(changes()->calls, ElementsAre("update b", "finish 10"));
  EXPECT_FALSE(pins.contains("a"));
  EXPECT_EQ(files.contents(pins.pendingURL()), std::nullopt);
  EXPECT_THAT(logOf(LogLevel::standard), Not(Contains("applied 0 pin request(s)")));
}

TEST_F(WorkingSetTest, AnnouncesAnItemOnceThatIsBothAppliedAndDirty) {
  answerNothingNew(10);
  answerItem("a", "A");
  answerItem("b", "B");
  manager->place("a", "/v/A");
  leavePending(R"([{"id":"a","pin":true}])");
  leaveDirty(R"(["a","b","b"])");
  const auto observer = changes();
  EXPECT_EQ(observer->updated.size(), 2u);
  EXPECT_THAT(requests(), UnorderedElementsAre("item?id=a", "item?id=b", "changes?since=10&limit=1000"));
  EXPECT_THAT(logOf(LogLevel::standard), Contains("announced 2 pin change(s)"));
}

TEST_F(WorkingSetTest, SkipsItemsThatTheServerDoesNotGive) {
  answerNothingNew(10);
  answer("item?id=gone", "", 404);
  leaveDirty(R"(["gone"])");
  EXPECT_THAT(changes()->calls, ElementsAre("finish 10"));
  EXPECT_THAT(logOf(LogLevel::standard), Contains("announced 0 pin change(s)"));
}

TEST_F(WorkingSetTest, EvictsWhatIsNoLongerPinned) {
  answerNothingNew(10);
  for (const char* id : {"a", "b", "c"}) answerItem(id, id);
  pins.set("a", true);
  pins.set("b", true);
  manager->place("a", "/v/A");
  leavePending(R"([{"id":"a","pin":false}])");
  leaveDirty(R"(["b","c"])");
  const auto observer = changes();
  EXPECT_THAT(manager->evicted(), ElementsAre("a", "c"));
  ASSERT_EQ(observer->updated.size(), 3u);
  EXPECT_FALSE(pins.contains("a"));
}

TEST_F(WorkingSetTest, LogsAnEvictionThatTheServiceRefuses) {
  answerNothingNew(10);
  answerItem("a", "A");
  manager->refuseEvictions({COCOA_ERROR_DOMAIN, 1, "it is being edited"});
  leaveDirty(R"(["a"])");
  changes();
  EXPECT_THAT(logOf(LogLevel::info), ElementsAre("evict a: it is being edited"));
}

TEST_F(WorkingSetTest, DoesNotWaitForEvictions) {
  answerNothingNew(10);
  answerItem("a", "A");
  manager->setDelay(seconds(60));
  leaveDirty(R"(["a"])");
  EXPECT_THAT(changes()->calls, ElementsAre("update a", "finish 10"));
  scheduler.advance(seconds(60));
}

TEST_F(WorkingSetTest, GoesOnWithoutPinWorkThatTakesTooLong) {
  answerNothingNew(10);
  answerItem("a", "A");
  manager->place("a", "/v/A");
  manager->setDelay(seconds(10));  // twice: 20 s
  leavePending(R"([{"id":"a","pin":true}])");
  const auto observer = start();
  scheduler.advance(seconds(14.9));
  EXPECT_THAT(observer->calls, IsEmpty());
  scheduler.advance(seconds(0.1));
  EXPECT_THAT(logOf(LogLevel::error), ElementsAre("pin work exceeded 15s, continuing without it"));
  EXPECT_THAT(observer->calls, ElementsAre("finish 10"));
  scheduler.advance(seconds(5));
  EXPECT_THAT(observer->calls, ElementsAre("finish 10", "update a"));
  EXPECT_TRUE(pins.contains("a"));
  EXPECT_EQ(requests().size(), 2u);
}

TEST_F(WorkingSetTest, OutlivesItsEnumerator) {
  answerNothingNew(10);
  const auto observer = std::make_shared<RecordingChangeObserver>();
  {
    WorkingSetEnumerator shortLived(services, {"domain", "Vondle"}, [](const Domain&) { return nullptr; });
    shortLived.enumerateChanges(observer, "1");
  }
  scheduler.runUntilIdle();
  EXPECT_THAT(observer->calls, ElementsAre("finish 10"));
}

}  // namespace
}  // namespace vondle
