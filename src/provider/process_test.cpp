#include "provider/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/captured.h"
#include "testing/provider_rig.h"
#include "testing/recording_observers.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct ProcessTest : testing::Test, ProviderRig {};

TEST_F(ProcessTest, IsWhereSharedInstancesAreFound) {
  ItemCache* const cache = &ItemCache::shared();
  EXPECT_EQ(&ThrottledTransfer::shared(), &process.transfers());
  {
    SimulatedPlatform otherMachine;
    const Process other(otherMachine.platform());
    EXPECT_NE(&ItemCache::shared(), cache);
  }
  EXPECT_EQ(&ItemCache::shared(), cache);
}

TEST_F(ProcessTest, AnswersWhatStillRunsWhenItEnds) {
  SimulatedPlatform otherMachine;
  otherMachine.files.put(Paths(otherMachine.users).config(), R"({"server":"https://api.example","api_key":"k"})");
  Captured<Result<Item>> item;
  Captured<Result<FetchedContents>> contents;
  const auto listing = std::make_shared<RecordingEnumerationObserver>();
  {
    Process other(otherMachine.platform());
    const auto extension = other.makeExtension({"domain", "Vondle"}, [](const Domain&) { return nullptr; });
    extension->itemForIdentifier({"7"}, {}, item.completion());
    extension->fetchContents({"7"}, std::nullopt, {}, contents.completion());
    extension->enumeratorForContainer(ROOT_CONTAINER, {})->enumerateItems(listing, "");
    otherMachine.scheduler.runUntilIdle();
    EXPECT_FALSE(item.hasValue());
  }
  EXPECT_TRUE(item.hasValue());
  EXPECT_TRUE(contents.hasValue());
  EXPECT_TRUE(listing->error);
}

TEST_F(ProcessTest, WalksFromAnEmptyMachineToAFileThatFollowsTheServer) {
  answerAPI("browse?id=root",
            R"({"subpath":"","folders":[{"id":"d","name":"docs","parent_id":"root"}],
                "files":[{"id":"f","filename":"thesis.txt","parent_id":"root","size":5,"version":1}]})");
  answerAPI("item?id=f", R"({"id":"f","name":"thesis.txt","size":5,"version":1,
                             "download_url":"https://store.example/f1"})");
  answer("https://store.example/f1", "draft");

  // Nothing is known yet: the feed is joined at its head.
  answerAPI("changes?since=0", R"({"changes":[],"seq":0,"head":100})");
  const auto workingSet = extension().enumeratorForContainer(WORKING_SET_CONTAINER, {});
  const auto coldStart = std::make_shared<RecordingChangeObserver>();
  workingSet->enumerateChanges(coldStart, "0");
  scheduler.runUntilIdle();
  EXPECT_THAT(coldStart->calls, ElementsAre("finish 100"));

  // The root is listed, and its items are known without asking again.
  const auto root = std::make_shared<RecordingEnumerationObserver>();
  extension().enumeratorForContainer(ROOT_CONTAINER, {.isFileViewerRequest = true})->enumerateItems(root, "");
  scheduler.runUntilIdle();
  ASSERT_EQ(root->items.size(), 2u);
  EXPECT_TRUE(root->items[0].isFolder());
  EXPECT_EQ(root->items[1].filename, "thesis.txt");
  EXPECT_EQ(root->items[1].parentItemIdentifier, ROOT_CONTAINER);
  const std::size_t asked = requests().size();
  Captured<Result<Item>> item;
  extension().itemForIdentifier({"f"}, {}, item.completion());
  EXPECT_EQ(item.value()->documentSize, 5);
  EXPECT_EQ(requests().size(), asked);

  // Its contents are fetched to a file.
  Captured<Result<FetchedContents>> contents;
  extension().fetchContents({"f"}, item.value()->itemVersion, {.isFileViewerRequest = true}, contents.completion());
  scheduler.runUntilIdle();
  ASSERT_TRUE(contents.value());
  EXPECT_EQ(machine.files.contents(contents.value()->path), "draft");
  EXPECT_EQ(contents.value()->item.itemVersion, item.value()->itemVersion);

  // Somebody changes the file and removes the folder.
  answerAPI("changes?since=100", R"({"changes":[{"id":"f","name":"thesis.txt","size":6,"version":2},
                                     {"id":"d","deleted":true}],"seq":102,"head":102})");
  const auto changes = std::make_shared<RecordingChangeObserver>();
  workingSet->enumerateChanges(changes, "100");
  scheduler.runUntilIdle();
  EXPECT_THAT(changes->calls, ElementsAre("update f", "delete d", "finish 102"));
  EXPECT_EQ(changes->updated[0].itemVersion.contentVersion, "2-6");
  Captured<std::optional<SyncAnchor>> anchor;
  workingSet->currentSyncAnchor(anchor.completion());
  EXPECT_EQ(anchor.value(), "102");

  EXPECT_THAT(log.messages(),
              ElementsAre("provider started for domain Ann's files (cursor 0)", "cold start: cursor set to head 100",
                          "browse / -> 2 items", "fetchContents thesis.txt (5 bytes) [finder]",
                          "bandwidth limits: down unlimited, up unlimited", "materialised thesis.txt",
                          "changes since 100: 1 updated, 1 deleted (now at 102)"));
  EXPECT_THAT(log.messages(LogLevel::error), IsEmpty());
}

}  // namespace
}  // namespace vondle
