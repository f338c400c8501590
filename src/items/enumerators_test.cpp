#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "items/empty_enumerator.h"
#include "items/trash_enumerator.h"
#include "items/vondle_enumerator.h"
#include "testing/items_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> namesOf(const std::vector<Item>& items) {
  std::vector<std::string> names;
  for (const Item& item : items) names.push_back(item.filename);
  return names;
}

struct EnumeratorsTest : testing::Test, ItemsRig {
  std::shared_ptr<RecordingEnumerationObserver> list(Enumerator& enumerator, Page page = "") {
    auto observer = std::make_shared<RecordingEnumerationObserver>();
    enumerator.enumerateItems(observer, std::move(page));
    scheduler.runUntilIdle();
    return observer;
  }
  std::shared_ptr<RecordingChangeObserver> changes(Enumerator& enumerator, SyncAnchor from) {
    auto observer = std::make_shared<RecordingChangeObserver>();
    enumerator.enumerateChanges(observer, std::move(from));
    return observer;
  }
  std::optional<SyncAnchor> anchor(Enumerator& enumerator) {
    Captured<std::optional<SyncAnchor>> answer;
    enumerator.currentSyncAnchor(answer.completion());
    return answer.value();
  }
  VondleEnumerator folder(std::string id, bool urgent = false) { return {services, {std::move(id)}, urgent}; }
};

// Folders.

TEST_F(EnumeratorsTest, AFolderIsListedWholeInOnePage) {
  answer("browse", R"({"subpath":"d","folders":[{"id":"2","name":"z"}],
                       "files":[{"id":"4","name":"b","parent_id":"9"},{"id":"3","name":"a"}]})");
  auto enumerator = folder("9");
  const auto observer = list(enumerator, "any page");
  EXPECT_THAT(requests(), ElementsAre("browse?id=9&lite=1"));
  EXPECT_EQ(observer->pages, 1);
  EXPECT_THAT(namesOf(observer->items), ElementsAre("z", "b", "a"));
  EXPECT_EQ(observer->items[1].parentItemIdentifier, ItemIdentifier{"9"});
  EXPECT_TRUE(observer->finished);
  EXPECT_EQ(observer->next, std::nullopt);
  EXPECT_EQ(cache.get("4")->path, "d/b");
  EXPECT_EQ(cache.get("2")->isFolder, true);
}

TEST_F(EnumeratorsTest, TheRootIsListedByItsServerId) {
  answer("browse", R"({"folders":[],"files":[]})");
  auto root = VondleEnumerator(services, ROOT_CONTAINER, true);
  list(root);
  auto shared = folder("shared");
  list(shared);
  EXPECT_THAT(requests(), ElementsAre("browse?id=root&lite=1", "browse?id=shared&lite=1"));
}

TEST_F(EnumeratorsTest, AnEmptyFolderIsOneEmptyPage) {
  answer("browse", R"({"folders":[],"files":[]})");
  auto enumerator = folder("9");
  const auto observer = list(enumerator);
  EXPECT_EQ(observer->pages, 1);
  EXPECT_THAT(observer->items, IsEmpty());
  EXPECT_TRUE(observer->finished);
}

TEST_F(EnumeratorsTest, AFailedListingPassesTheErrorUnchanged) {
  const struct {
    std::function<void()> arrange;
    Error expected;
  } cases[] = {
      {[&] { answer("browse", "", 404); }, APIError::badResponse(404)},
      {[&] { answer("browse", "{}"); }, APIError::malformed()},
      {[&] { fail("browse", {URL_ERROR_DOMAIN, URL_TIMED_OUT, "late"}); }, {URL_ERROR_DOMAIN, URL_TIMED_OUT, "late"}},
      {[&] { (void)files.remove(configPath); }, APIError::notConfigured()},
  };
  for (const auto& c : cases) {
    c.arrange();
    auto enumerator = folder("9");
    const auto observer = list(enumerator);
    EXPECT_EQ(observer->error, c.expected);
    EXPECT_EQ(observer->pages, 0);
  }
}

TEST_F(EnumeratorsTest, AtMostFourFoldersAreListedAtOnce) {
  std::vector<std::shared_ptr<RecordingEnumerationObserver>> observers;
  for (const char* id : {"1", "2", "3", "4", "5", "6"}) {
    auto enumerator = folder(id);
    observers.push_back(list(enumerator));
  }
  auto urgent = folder("7", true);
  observers.push_back(list(urgent));
  EXPECT_THAT(requests(),
              ElementsAre("browse?id=1&lite=1", "browse?id=2&lite=1", "browse?id=3&lite=1", "browse?id=4&lite=1"));

  loading.task("id=2").reply(reply("", 500));  // a failure gives its slot back too
  scheduler.runUntilIdle();
  EXPECT_TRUE(observers[1]->error);
  EXPECT_EQ(requests().back(), "browse?id=7&lite=1");

  loading.task("id=1").reply(reply(R"({"folders":[],"files":[]})"));
  scheduler.runUntilIdle();
  EXPECT_EQ(requests().back(), "browse?id=5&lite=1");
  EXPECT_EQ(requests().size(), 6u);

  answer("", R"({"folders":[],"files":[]})");
  for (const auto& task : loading.running()) task->reply(reply(R"({"folders":[],"files":[]})"));
  scheduler.runUntilIdle();
  for (const auto& observer : observers) EXPECT_FALSE(observer->isOpen());
}

TEST_F(EnumeratorsTest, AThousandListingsThatFailAtOnceAllEnd) {
  std::vector<std::shared_ptr<RecordingEnumerationObserver>> observers;
  for (int i = 0; i < 1000; ++i) {
    auto enumerator = folder(std::to_string(i));
    observers.push_back(list(enumerator));
  }
  ASSERT_TRUE(files.remove(configPath));
  for (const auto& task : loading.running()) task->reply(reply("", 500));
  scheduler.runUntilIdle();
  for (const auto& observer : observers) EXPECT_TRUE(observer->error);
}

TEST_F(EnumeratorsTest, AFolderReportsNoChangesOfItsOwn) {
  auto enumerator = folder("9");
  EXPECT_THAT(changes(enumerator, "12")->calls, ElementsAre("finish 12"));
  EXPECT_THAT(requests(), IsEmpty());
  enumerator.invalidate();
}

TEST_F(EnumeratorsTest, TheAnchorsOfFoldersAndTrashFollowTheCursor) {
  auto enumerator = folder("9");
  TrashEnumerator trash(services);
  EXPECT_EQ(anchor(enumerator), "0");
  EXPECT_EQ(anchor(trash), "0");
  cursor.save(4711);
  EXPECT_EQ(anchor(enumerator), "4711");
  EXPECT_EQ(anchor(trash), "4711");
}

// The trash.

TEST_F(EnumeratorsTest, TheTrashIsListedInOneRequest) {
  answer("trash", R"({"items":[{"id":"2","name":"b","restore_path":"d/b"},{"id":"1","name":"a"}]})");
  TrashEnumerator trash(services);
  const auto observer = list(trash, "any page");
  EXPECT_EQ(observer->pages, 1);
  EXPECT_THAT(namesOf(observer->items), ElementsAre("b", "a"));
  for (const Item& item : observer->items) EXPECT_EQ(item.parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_TRUE(observer->finished);
  EXPECT_EQ(observer->next, std::nullopt);
  EXPECT_EQ(cache.get("2")->path, "d/b");
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("trash: 2 item(s)"));
}

TEST_F(EnumeratorsTest, AnEmptyTrashIsOneEmptyPage) {
  answer("trash", R"({"items":[]})");
  TrashEnumerator trash(services);
  const auto observer = list(trash);
  EXPECT_EQ(observer->pages, 1);
  EXPECT_THAT(observer->items, IsEmpty());
  EXPECT_TRUE(observer->finished);
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("trash: 0 item(s)"));
}

TEST_F(EnumeratorsTest, AFailedTrashLeavesTheCacheAsItWas) {
  cache.store({entry("1", "before")});
  answer("trash", R"({"items":[{"id":"1","name":"after"},"broken"]})");
  TrashEnumerator trash(services);
  const auto observer = list(trash);
  EXPECT_EQ(observer->error, Error(APIError::malformed()));
  EXPECT_EQ(observer->pages, 0);
  EXPECT_EQ(cache.get("1")->name, "before");
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EnumeratorsTest, TheTrashWaitsForNoSlot) {
  std::vector<std::shared_ptr<RecordingEnumerationObserver>> observers;
  for (const char* id : {"1", "2", "3", "4"}) {
    auto enumerator = folder(id);
    observers.push_back(list(enumerator));
  }
  TrashEnumerator trash(services);
  list(trash);
  EXPECT_EQ(requests().back(), "trash");
  for (const auto& task : loading.running()) task->reply(reply("", 500));
  scheduler.runUntilIdle();
}

TEST_F(EnumeratorsTest, TheTrashReportsNoChanges) {
  cursor.save(20);
  TrashEnumerator trash(services);
  EXPECT_THAT(changes(trash, "12")->calls, ElementsAre("finish 12"));
  trash.invalidate();
}

// The one that never has anything to tell.

TEST_F(EnumeratorsTest, TheEmptyEnumeratorTellsNothing) {
  cursor.save(20);
  EmptyEnumerator empty;
  const auto observer = list(empty);
  EXPECT_EQ(observer->pages, 1);
  EXPECT_THAT(observer->items, IsEmpty());
  EXPECT_TRUE(observer->finished);
  EXPECT_EQ(observer->next, std::nullopt);
  EXPECT_THAT(changes(empty, "12")->calls, ElementsAre("finish 12"));
  EXPECT_EQ(anchor(empty), "1");
  empty.invalidate();
}

}  // namespace
}  // namespace vondle
