#include "provider/perform_action.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "testing/captured.h"
#include "testing/provider_rig.h"

namespace vondle {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;

const std::string KEEP = "com.ferrow.vondle.keepDownloaded";
const std::string UNKEEP = "com.ferrow.vondle.dontKeepDownloaded";

// A service whose evictions end when the test says so, and whose signals fail.
class SlowManager final : public Manager {
 public:
  void signalEnumerator(ItemIdentifier, Completion<std::optional<Error>> completion) override {
    std::move(completion)(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no signal"));
  }
  void evictItem(ItemIdentifier, Completion<std::optional<Error>> completion) override {
    evictions.push_back(std::move(completion));
  }
  void getUserVisibleURL(ItemIdentifier, Completion<Result<std::string>> completion) override {
    std::move(completion)("");
  }
  void getIdentifierForUserVisibleFile(std::string, Completion<Result<ItemIdentifier>> completion) override {
    std::move(completion)(ItemIdentifier{});
  }

  std::vector<Completion<std::optional<Error>>> evictions;
};

struct PerformActionTest : testing::Test, ProviderRig {
  using Answer = Captured<std::optional<Error>>;

  static std::vector<ItemIdentifier> items(const std::vector<std::string>& ids) {
    std::vector<ItemIdentifier> identifiers;
    for (const auto& id : ids) identifiers.push_back({id});
    return identifiers;
  }
  std::optional<Error> perform(const std::string& action, const std::vector<std::string>& ids) {
    Answer answer;
    extension().performAction(action, items(ids), answer.completion());
    scheduler.runUntilIdle();
    return answer.value();
  }
  std::optional<std::string> pinnedFile() { return machine.files.contents(pinnedPath); }
  Item item(const std::string& id) {
    Captured<Result<Item>> answer;
    extension().itemForIdentifier({id}, {}, answer.completion());
    scheduler.runUntilIdle();
    return answer.value().value();
  }

  const std::string pinnedPath = Paths(machine.users).folder() + "/pinned.json";
};

TEST_F(PerformActionTest, KeepsItemsAndLeavesTheirDownloadToTheService) {
  Answer answer;
  const auto progress = extension().performAction(KEEP, items({"c", "a", "b"}), answer.completion());
  ASSERT_TRUE(answer.hasValue());  // at once
  EXPECT_EQ(answer.value(), std::nullopt);
  EXPECT_EQ(pinnedFile(), R"(["a","b","c"])");
  EXPECT_EQ(progress->totalUnitCount(), 3);
  EXPECT_EQ(progress->completedUnitCount(), 3);
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("keep downloaded: 3 item(s)"));
  EXPECT_THAT(manager->signalled(), ElementsAre(WORKING_SET_CONTAINER.text));
  scheduler.runUntilIdle();
  EXPECT_THAT(manager->evicted(), IsEmpty());
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(PerformActionTest, StopsKeepingItemsAndCompletesWhenAllEvictionsHaveAnswered) {
  ASSERT_EQ(perform(KEEP, {"a", "b", "c"}), std::nullopt);
  const auto slow = std::make_shared<SlowManager>();
  const auto slowed = process.makeExtension({"domain", "Ann's files"}, [slow](const Domain&) { return slow; });
  log.clear();
  Answer answer;
  const auto progress = slowed->performAction(UNKEEP, items({"a", "c"}), answer.completion());
  scheduler.runUntilIdle();
  EXPECT_EQ(pinnedFile(), R"(["b"])");
  EXPECT_EQ(progress->totalUnitCount(), 2);
  EXPECT_EQ(progress->completedUnitCount(), 2);
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("stop keeping: 2 item(s)"));

  ASSERT_EQ(slow->evictions.size(), 2u);
  EXPECT_FALSE(answer.hasValue());
  for (auto& eviction : slow->evictions) std::move(eviction)(std::nullopt);
  EXPECT_FALSE(answer.hasValue());  // on the queue
  scheduler.runUntilIdle();
  ASSERT_TRUE(answer.hasValue());
  EXPECT_EQ(answer.value(), std::nullopt);
}

TEST_F(PerformActionTest, WaitsForTheLastEvictionWhicheverItIs) {
  for (const std::size_t last : {0, 1}) {
    const auto slow = std::make_shared<SlowManager>();
    const auto slowed = process.makeExtension({"domain", "Ann's files"}, [slow](const Domain&) { return slow; });
    Answer answer;
    slowed->performAction(UNKEEP, items({"a", "c"}), answer.completion());
    std::move(slow->evictions.at(1 - last))(std::nullopt);
    scheduler.runUntilIdle();
    EXPECT_FALSE(answer.hasValue());
    std::move(slow->evictions.at(last))(std::nullopt);
    scheduler.runUntilIdle();
    EXPECT_TRUE(answer.hasValue());
  }
}

TEST_F(PerformActionTest, EvictsWhatIsKeptNoMoreAndSignalsTheWorkingSetOnce) {
  EXPECT_EQ(perform(UNKEEP, {"b", "a"}), std::nullopt);
  EXPECT_THAT(manager->evicted(), ElementsAre("b", "a"));
  EXPECT_THAT(manager->signalled(), ElementsAre(WORKING_SET_CONTAINER.text));
}

TEST_F(PerformActionTest, SucceedsThoughEvictionsFail) {
  manager->refuseEvictions(Error::posix(EBUSY, "the file is open"));
  EXPECT_EQ(perform(UNKEEP, {"a", "b"}), std::nullopt);
  EXPECT_THAT(log.messages(LogLevel::info), AllOf(Contains(testing::StartsWith("evict a: the file is open")),
                                                  Contains(testing::StartsWith("evict b: the file is open"))));
}

TEST_F(PerformActionTest, SaysNothingOfEvictionsThatSucceed) {
  EXPECT_EQ(perform(UNKEEP, {"a"}), std::nullopt);
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("evict"))));
}

TEST_F(PerformActionTest, SucceedsThoughTheSignalFails) {
  const auto slow = std::make_shared<SlowManager>();
  const auto slowed = process.makeExtension({"domain", "Ann's files"}, [slow](const Domain&) { return slow; });
  Answer answer;
  slowed->performAction(KEEP, items({"a"}), answer.completion());
  EXPECT_EQ(answer.value(), std::nullopt);
  EXPECT_THAT(log.messages(LogLevel::error), ElementsAre("signal after pin change failed: no signal"));
}

TEST_F(PerformActionTest, PinsAlsoWhenTheServiceServesTheDomainNoMore) {
  manager = nullptr;
  EXPECT_EQ(perform(KEEP, {"a", "b"}), std::nullopt);
  EXPECT_EQ(pinnedFile(), R"(["a","b"])");
  Answer answer;
  extension().performAction(UNKEEP, items({"a"}), answer.completion());
  ASSERT_TRUE(answer.hasValue());  // at once
  EXPECT_EQ(answer.value(), std::nullopt);
  EXPECT_EQ(pinnedFile(), R"(["b"])");
}

TEST_F(PerformActionTest, DoesNotKnowActionsOfOtherNames) {
  for (const std::string action : {"com.ferrow.vondle.keepdownloaded", "com.ferrow.vondle.KeepDownloaded",
                                   "com.ferrow.vondle.dontkeepDownloaded", "com.ferrow.vondle.keepDownloaded ", ""}) {
    log.clear();
    Answer answer;
    const auto progress = extension().performAction(action, items({"a", "b"}), answer.completion());
    ASSERT_TRUE(answer.hasValue()) << action;
    EXPECT_EQ(answer.value(), Error(FILE_PROVIDER_ERROR_DOMAIN, -1005)) << action;
    EXPECT_THAT(log.messages(LogLevel::error), Contains("unknown action " + action));
    EXPECT_EQ(progress->totalUnitCount(), 2);
    EXPECT_EQ(progress->completedUnitCount(), 0);
  }
  scheduler.runUntilIdle();
  EXPECT_EQ(pinnedFile(), std::nullopt);
  EXPECT_THAT(manager->signalled(), IsEmpty());
  EXPECT_THAT(manager->evicted(), IsEmpty());
}

TEST_F(PerformActionTest, NotesWhatIsKeptAlreadyOnce) {
  machine.files.put(pinnedPath, R"(["a"])");
  EXPECT_EQ(perform(KEEP, {"a", "a"}), std::nullopt);
  EXPECT_EQ(pinnedFile(), R"(["a"])");
}

TEST_F(PerformActionTest, NotesIdentifiersAsTheyAre) {
  EXPECT_EQ(perform(KEEP, {ROOT_CONTAINER.text, "shared"}), std::nullopt);
  EXPECT_EQ(pinnedFile(), R"(["NSFileProviderRootContainerItemIdentifier","shared"])");
}

TEST_F(PerformActionTest, TakesAnEmptyChoice) {
  EXPECT_EQ(perform(KEEP, {}), std::nullopt);
  EXPECT_THAT(log.messages(LogLevel::info), Contains("keep downloaded: 0 item(s)"));
  EXPECT_EQ(perform(UNKEEP, {}), std::nullopt);
  EXPECT_THAT(log.messages(LogLevel::info), Contains("stop keeping: 0 item(s)"));
}

TEST_F(PerformActionTest, SucceedsThoughThePinsCannotBeWritten) {
  machine.files.fail(FileOperation::write, pinnedPath, ENOSPC);
  EXPECT_EQ(perform(KEEP, {"a"}), std::nullopt);
  answerAPI("item", R"({"id":"a","name":"a.txt"})");
  EXPECT_EQ(item("a").contentPolicy, ContentPolicy::downloadEagerlyAndKeepDownloaded);
}

TEST_F(PerformActionTest, ShowsInThePolicyAndTheMetadataVersionOfTheItems) {
  answerAPI("item", R"({"id":"a","name":"a.txt","version":3,"size":5})");
  const auto before = item("a");
  EXPECT_EQ(before.contentPolicy, ContentPolicy::downloadLazily);
  ASSERT_EQ(perform(KEEP, {"a"}), std::nullopt);
  const auto kept = item("a");
  EXPECT_EQ(kept.contentPolicy, ContentPolicy::downloadEagerlyAndKeepDownloaded);
  EXPECT_EQ(kept.itemVersion.contentVersion, before.itemVersion.contentVersion);
  EXPECT_NE(kept.itemVersion.metadataVersion, before.itemVersion.metadataVersion);
  ASSERT_EQ(perform(UNKEEP, {"a"}), std::nullopt);
  EXPECT_EQ(item("a").itemVersion, before.itemVersion);
}

}  // namespace
}  // namespace vondle
