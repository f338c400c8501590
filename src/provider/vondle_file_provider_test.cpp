#include "provider/vondle_file_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/extension_restart.h"
#include "fileprovider/error_codes.h"
#include "items/trash_enumerator.h"
#include "items/vondle_enumerator.h"
#include "items/working_set_enumerator.h"
#include "testing/captured.h"
#include "testing/provider_rig.h"
#include "testing/recording_observers.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

struct VondleFileProviderTest : testing::Test, ProviderRig {
  Result<Item> item(const ItemIdentifier& identifier) {
    Captured<Result<Item>> answer;
    const auto progress = extension().itemForIdentifier(identifier, {}, answer.completion());
    EXPECT_TRUE(progress);
    EXPECT_EQ(progress->totalUnitCount(), 0);
    scheduler.runUntilIdle();
    return answer.value();
  }
  std::optional<std::string> parentPath(const std::string& id) {
    Captured<std::optional<std::string>> answer;
    extension().parentPath(id, answer.completion());
    scheduler.runUntilIdle();
    return answer.value();
  }
  std::optional<Entry> findChild(const std::string& name, const std::string& folderID) {
    Captured<std::optional<Entry>> answer;
    extension().findChild(name, folderID, answer.completion());
    scheduler.runUntilIdle();
    return answer.value();
  }
  std::shared_ptr<Enumerator> enumerator(const ItemIdentifier& container, bool isFileViewerRequest = false) {
    return extension().enumeratorForContainer(container, {.isFileViewerRequest = isFileViewerRequest});
  }
};

TEST_F(VondleFileProviderTest, SaysWhereItStartsAndListensForRestarts) {
  Cursor(machine.files).save(4711);
  extension();
  EXPECT_THAT(log.messages(LogLevel::standard), ElementsAre("provider started for domain Ann's files (cursor 4711)"));
  EXPECT_THAT(requests(), IsEmpty());
  machine.notifyCentre.post(ExtensionRestart::note);
  EXPECT_THAT(machine.process.exits(), ElementsAre(0));
}

TEST_F(VondleFileProviderTest, ListensOnceForAllItsDomains) {
  extension();
  const auto other = process.makeExtension({"other", "Other"}, [](const Domain&) { return nullptr; });
  EXPECT_EQ(machine.notifyCentre.observerCount(std::string(ExtensionRestart::note)), 1u);
}

TEST_F(VondleFileProviderTest, DoesNothingWhenInvalidated) {
  extension().invalidate();
  EXPECT_TRUE(item(ROOT_CONTAINER));
}

// Item lookup.

TEST_F(VondleFileProviderTest, AnswersTheRootFromNothing) {
  Captured<Result<Item>> answer;
  extension().itemForIdentifier(ROOT_CONTAINER, {}, answer.completion());
  ASSERT_TRUE(answer.hasValue());  // at once
  EXPECT_EQ(answer.value()->filename, "Vondle");
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(VondleFileProviderTest, AsksTheServerForAnItemOnlyOnce) {
  answerAPI("item", R"({"id":"7","name":"a.txt","parent_id":"3"})");
  const auto first = item({"7"});
  ASSERT_TRUE(first);
  EXPECT_EQ(first->filename, "a.txt");
  EXPECT_EQ(first->parentItemIdentifier, ItemIdentifier{"3"});
  scheduler.advance(std::chrono::hours(24));
  Captured<Result<Item>> again;
  extension().itemForIdentifier({"7"}, {}, again.completion());
  ASSERT_TRUE(again.hasValue());  // at once
  EXPECT_EQ(again.value()->filename, "a.txt");
  EXPECT_THAT(requests(), ElementsAre("item?id=7"));
}

TEST_F(VondleFileProviderTest, TrustsTheCacheUntilTheChangeFeedSaysOtherwise) {
  answerAPI("item", R"({"id":"7","name":"a.txt"})");
  ASSERT_TRUE(item({"7"}));
  answerAPI("item", "", 404);
  EXPECT_TRUE(item({"7"}));

  Cursor(machine.files).save(10);
  answerAPI("changes", R"({"changes":[{"id":"7","deleted":true}],"seq":11,"head":11})");
  enumerator(WORKING_SET_CONTAINER)->enumerateChanges(std::make_shared<RecordingChangeObserver>(), "10");
  scheduler.runUntilIdle();
  EXPECT_FALSE(item({"7"}));
}

TEST_F(VondleFileProviderTest, AnswersEveryFailureWithNoSuchItem) {
  const auto expectNoSuchItem = [&] {
    const auto answer = item({"7"});
    ASSERT_FALSE(answer);
    EXPECT_EQ(answer.error(), Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
    EXPECT_FALSE(answer.error().underlying);
  };
  for (const int status : {401, 404, 500}) {
    answerAPI("item", "", status);
    expectNoSuchItem();
  }
  answerAPI("item", "{}");
  expectNoSuchItem();
  machine.urlLoading.onRequest([](const URLRequest&) {
    ScriptedReply none = reply("", 0);
    none.error = Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST);
    return none;
  });
  expectNoSuchItem();
  ASSERT_TRUE(machine.files.remove(Paths(machine.users).config()));
  expectNoSuchItem();
}

// Enumerators.

TEST_F(VondleFileProviderTest, GivesEachContainerItsEnumerator) {
  EXPECT_TRUE(std::dynamic_pointer_cast<WorkingSetEnumerator>(enumerator(WORKING_SET_CONTAINER)));
  EXPECT_TRUE(std::dynamic_pointer_cast<TrashEnumerator>(enumerator(TRASH_CONTAINER)));
  const struct {
    ItemIdentifier container;
    const char* id;
  } folders[] = {{ROOT_CONTAINER, "root"}, {{"shared"}, "shared"}, {{"4711"}, "4711"}};
  for (const auto& folder : folders) {
    for (const bool urgent : {false, true}) {
      const auto made = std::dynamic_pointer_cast<VondleEnumerator>(enumerator(folder.container, urgent));
      ASSERT_TRUE(made) << folder.id;
      EXPECT_EQ(made->containerID(), folder.id);
      EXPECT_EQ(made->urgent(), urgent);
    }
  }
}

TEST_F(VondleFileProviderTest, ListsAFolderThatTheServerDoesNotKnowAsAFailure) {
  answerAPI("browse", "", 404);
  const auto observer = std::make_shared<RecordingEnumerationObserver>();
  enumerator({"nothing"})->enumerateItems(observer, "");
  scheduler.runUntilIdle();
  EXPECT_TRUE(observer->error);
}

// What other operations look up.

TEST_F(VondleFileProviderTest, KnowsThePathOfTheRootWithoutAsking) {
  Captured<std::optional<std::string>> answer;
  extension().parentPath("root", answer.completion());
  EXPECT_EQ(answer.value(), "");
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(VondleFileProviderTest, AsksAfreshForThePathOfAFolder) {
  answerAPI("item", R"({"id":"7","name":"b","path":"a/b"})");
  EXPECT_EQ(parentPath("7"), "a/b");
  answerAPI("item", R"({"id":"7","name":"b","path":"c/b"})");
  EXPECT_EQ(parentPath("7"), "c/b");
  answerAPI("item", "", 500);
  EXPECT_EQ(parentPath("7"), "c/b");
  EXPECT_EQ(parentPath("8"), std::nullopt);
  EXPECT_EQ(requests().size(), 4u);
}

TEST_F(VondleFileProviderTest, FindsTheFirstChildOfExactlyTheName) {
  answerAPI("browse", R"({"folders":[{"id":"1","name":"A"},{"id":"2","name":"a"}],
                          "files":[{"id":"3","name":"a"},{"id":"4","name":"á"}]})");
  EXPECT_EQ(findChild("a", "9")->id, "2");
  EXPECT_EQ(findChild("A", "9")->id, "1");
  EXPECT_EQ(findChild("a\xCC\x81", "9"), std::nullopt);
  EXPECT_EQ(findChild("b", "9"), std::nullopt);
  EXPECT_THAT(requests(), Contains("browse?id=9&lite=1").Times(4));
  EXPECT_TRUE(item({"3"}));  // the listing is in the cache
  EXPECT_EQ(requests().size(), 4u);
}

TEST_F(VondleFileProviderTest, FindsNoChildInAnEmptyFolderOrOneThatCannotBeListed) {
  answerAPI("browse", R"({"folders":[],"files":[]})");
  EXPECT_EQ(findChild("a", "9"), std::nullopt);
  answerAPI("browse", "", 500);
  EXPECT_EQ(findChild("a", "9"), std::nullopt);
}

TEST(VondleFileProvider, SaysThatItCannotWrite) {
  EXPECT_EQ(VondleFileProvider::noWrites(),
            Error("NSCocoaErrorDomain", 3328, "Vondle cannot upload file contents yet."));
}

TEST(VondleFileProvider, NamesItsActions) {
  EXPECT_EQ(VondleFileProvider::keepAction, "com.ferrow.vondle.keepDownloaded");
  EXPECT_EQ(VondleFileProvider::unkeepAction, "com.ferrow.vondle.dontKeepDownloaded");
}

}  // namespace
}  // namespace vondle
