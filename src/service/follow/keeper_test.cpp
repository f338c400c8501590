#include "service/follow/keeper.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "service/contents/eviction.h"
#include "service/manager/service_manager.h"
#include "testing/captured_log.h"
#include "testing/fake_extension.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string ROOT = ROOT_CONTAINER.text;

class KeeperTest : public testing::Test {
 protected:
  KeeperTest() {
    char pattern[] = "/tmp/vondle-keeper-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    std::filesystem::create_directory(folder_ + "/temporary");
    extension_ = std::make_unique<FakeExtension>(folder_ + "/temporary");
    extension_->addFile("a", ROOT, "a", "hello");
    extension_->addFile("b", ROOT, "b", "world");
    extension_->addFolder("docs", ROOT, "docs");
    extension_->addFile("letter", "docs", "letter", "dear");
    extension_->addFolder("old", "docs", "old");
    extension_->addFile("diary", "old", "diary", "today");
    start();
  }
  ~KeeperTest() override {
    end();
    std::filesystem::remove_all(folder_);
  }

  void start() {
    replica_ = Replica::open(folder_ + "/replica.db").value();
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    contents_ = ContentStore::open(folder_ + "/contents", *tree_, *extension_, errors_, scheduler_, scheduler_).value();
    tree_->subscribe([this](const auto& changes) { contents_->apply(changes); });
    listing_ = std::make_shared<FolderListing>(*tree_, *extension_, errors_, scheduler_, scheduler_);
    keeper_ = std::make_shared<Keeper>(*tree_, contents_, listing_, scheduler_);
    tree_->subscribe([this](const auto& changes) { keeper_->apply(changes); });
    contents_->onAbandoned([this](Inode inode) { keeper_->noteMissing(inode); });
    keeper_->start();
    listing_->require(ROOT_INODE, {}, nullptr, [](const std::optional<Error>& error) { EXPECT_FALSE(error); });
    scheduler_.runUntilIdle();
  }
  void end() {
    extension_->letAnswersGo();
    keeper_->stop();
    contents_->close(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
    listing_->close(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
    scheduler_.runUntilIdle();
    EXPECT_EQ(scheduler_.timerCount(), 0u);
    keeper_.reset();
    listing_.reset();
    contents_.reset();
    tree_.reset();
    replica_.reset();
  }

  // The item's policy changes, on the server and here.
  void setKept(const std::string& identifier, bool isKept) {
    const auto action = isKept ? "test.keepDownloaded" : "test.dontKeepDownloaded";
    extension_->performAction(action, {{identifier}}, [](const std::optional<Error>& error) { EXPECT_FALSE(error); });
    update(identifier);
  }
  // The item is on the server as it is now, which the tree hears.
  void update(const std::string& identifier) {
    extension_->itemForIdentifier({identifier}, {},
                                  [this](Result<Item> item) { tree_->applyUpdates({std::move(item.value())}, [] {}); });
    scheduler_.runUntilIdle();
  }
  void addFile(const std::string& identifier, const std::string& parent, const std::string& contents, int version = 1) {
    tree_->applyUpdates({extension_->addFile(identifier, parent, identifier, contents, version)}, [] {});
    scheduler_.runUntilIdle();
  }

  [[nodiscard]] Inode inode(const std::string& identifier) const { return replica_->inodeOf({identifier}).value_or(0); }
  // Of all files, the identifiers of those that are here.
  [[nodiscard]] std::vector<std::string> here() const {
    std::vector<std::string> identifiers;
    for (const std::string identifier : {"a", "b", "c", "diary", "letter"})
      if (const auto found = inode(identifier); found && contents_->current(found)) identifiers.push_back(identifier);
    return identifiers;
  }

  CapturedLog log_;
  std::string folder_;
  VirtualScheduler scheduler_;
  LastErrors errors_;
  std::unique_ptr<FakeExtension> extension_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<ContentStore> contents_;
  std::shared_ptr<FolderListing> listing_;
  std::shared_ptr<Keeper> keeper_;
};

TEST_F(KeeperTest, FetchesNothingThatIsNotToBeKept) {
  addFile("c", ROOT, "new");
  EXPECT_THAT(here(), IsEmpty());
  EXPECT_EQ(keeper_->status().items, 0u);
  EXPECT_EQ(scheduler_.timerCount(), 0u);
}

TEST_F(KeeperTest, FetchesAFileWhosePolicySaysSoInTheBackground) {
  setKept("a", true);
  EXPECT_THAT(here(), ElementsAre("a"));
  EXPECT_TRUE(extension_->lastRequest().isSystemRequest);
  EXPECT_FALSE(extension_->lastRequest().isFileViewerRequest);
  EXPECT_EQ(keeper_->status().items, 1u);
  EXPECT_EQ(keeper_->status().waiting, 0u);
  EXPECT_EQ(scheduler_.timerCount(), 0u);
}

TEST_F(KeeperTest, FetchesAFileAgainWhenItsContentsChange) {
  setKept("a", true);
  addFile("a", ROOT, "hello again", 2);
  setKept("a", true);
  EXPECT_THAT(here(), ElementsAre("a"));
  EXPECT_EQ(contents_->bytesHere(), 11);
  EXPECT_EQ(extension_->fetchesOf("a"), 2);
}

TEST_F(KeeperTest, FetchesAChangedFileOnceMoreWhenItChangedDuringTheFetch) {
  extension_->holdAnswers();
  setKept("a", true);
  auto changed = extension_->addFile("a", ROOT, "a", "hello again", 2);
  changed.contentPolicy = ContentPolicy::downloadEagerlyAndKeepDownloaded;
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  extension_->add(changed, "hello again");
  tree_->applyUpdates({changed}, [] {});
  scheduler_.runUntilIdle();
  EXPECT_EQ(contents_->bytesHere(), 11);
}

TEST_F(KeeperTest, FetchesWhatTheServerHasInThePlaceOfWhatAProgramWrote) {
  setKept("a", true);
  contents_->noteEdited(inode("a"), folder_ + "/private");
  update("a");
  EXPECT_THAT(here(), IsEmpty());
  contents_->noteAbandoned(inode("a"));
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), ElementsAre("a"));
}

TEST_F(KeeperTest, FetchesWhatTurnsOutToBeKeptWhenItsFolderIsListed) {
  extension_->performAction("test.keepDownloaded", {{"letter"}}, [](const std::optional<Error>&) {});
  listing_->require(inode("docs"), {}, nullptr, [](const std::optional<Error>& error) { EXPECT_FALSE(error); });
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), ElementsAre("letter"));
}

TEST_F(KeeperTest, KeepsEverythingInAFolderAlsoInThoseNeverListed) {
  setKept("docs", true);
  EXPECT_THAT(here(), ElementsAre("diary", "letter"));
  EXPECT_EQ(extension_->listingsOf("old"), 1);
  EXPECT_EQ(keeper_->status().items, 1u);
}

TEST_F(KeeperTest, WhatAppearsInAKeptFolderIsKeptToo) {
  setKept("docs", true);
  addFile("c", "old", "new");
  EXPECT_THAT(here(), ElementsAre("c", "diary", "letter"));
}

TEST_F(KeeperTest, WhatMovesIntoAKeptFolderIsKeptToo) {
  setKept("docs", true);
  tree_->applyUpdates({extension_->addFile("a", "old", "a", "hello")}, [] {});
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), ElementsAre("a", "diary", "letter"));
}

TEST_F(KeeperTest, ListsAKeptFolderAgainWhenChangesMayHaveBeenMissed) {
  setKept("docs", true);
  extension_->addFile("c", "old", "c", "unheard of");
  tree_->applyDeletions({ROOT_CONTAINER}, [] {});
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), ElementsAre("c", "diary", "letter"));
}

TEST_F(KeeperTest, ListsAKeptFolderThatIsEmptyAgain) {
  extension_->addFolder("empty", ROOT, "empty");
  setKept("empty", true);
  extension_->addFile("c", "empty", "c", "unheard of");
  tree_->applyDeletions({ROOT_CONTAINER}, [] {});
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), ElementsAre("c"));
}

TEST_F(KeeperTest, GoesOnAfterARestart) {
  extension_->holdAnswers();
  setKept("docs", true);
  end();
  extension_->letAnswersGo();
  EXPECT_THAT(std::filesystem::is_empty(folder_ + "/contents"), true);
  start();
  EXPECT_EQ(keeper_->status().items, 1u);
  EXPECT_THAT(here(), ElementsAre("diary", "letter"));
}

TEST_F(KeeperTest, FetchesWhatIsHereNotAgain) {
  setKept("docs", true);
  update("docs");
  update("letter");
  end();
  start();
  EXPECT_EQ(extension_->fetchesOf("letter"), 1);
  EXPECT_EQ(extension_->listingsOf("docs"), 1);
}

TEST_F(KeeperTest, HasAFewUnderWayAtATime) {
  for (int i = 0; i < 20; ++i) {
    const auto name = "file" + std::to_string(i);
    extension_->addFile(name, "docs", name, "x");
  }
  setKept("docs", true);
  update("docs");
  EXPECT_EQ(contents_->filesHere(), 22u);
  setKept("docs", false);
  EXPECT_FALSE(evictAll(*replica_, *contents_, inode("docs")));
  scheduler_.runUntilIdle();
  extension_->holdAnswers();
  setKept("docs", true);
  EXPECT_EQ(extension_->heldCount(), Keeper::AT_ONCE);
  const auto share = keeper_->shareOf({inode("docs")});
  EXPECT_EQ(share.files, 22u);
  EXPECT_EQ(share.filesHere, 0u);
  EXPECT_EQ(share.pending, 22u);
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(keeper_->shareOf({inode("docs")}).pending, 0u);
  EXPECT_EQ(contents_->filesHere(), 22u);
}

TEST_F(KeeperTest, TriesAgainLessAndLessOften) {
  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  setKept("a", true);
  EXPECT_EQ(keeper_->status().failing, 1u);
  EXPECT_EQ(keeper_->shareOf({inode("a")}).failures.at(inode("a")).localizedDescription(), "no server");
  EXPECT_EQ(keeper_->shareOf({inode("a")}).pending, 0u);
  int fetches = 1;
  for (const int delay : {5, 10, 20, 40, 80, 160, 300, 300}) {
    EXPECT_EQ(extension_->fetchesOf("a"), fetches);
    scheduler_.advance(seconds(delay - 1));
    EXPECT_EQ(extension_->fetchesOf("a"), fetches) << delay;
    scheduler_.advance(seconds(1));
    EXPECT_EQ(extension_->fetchesOf("a"), ++fetches) << delay;
  }
  extension_->failFetches(std::nullopt);
  scheduler_.advance(seconds(300));
  EXPECT_THAT(here(), ElementsAre("a"));
  EXPECT_EQ(keeper_->status().failing, 0u);
  EXPECT_EQ(scheduler_.timerCount(), 0u);

  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  setKept("b", true);
  extension_->failFetches(std::nullopt);
  scheduler_.advance(seconds(5));
  EXPECT_THAT(here(), ElementsAre("a", "b")) << "the delay begins anew after a success";
}

TEST_F(KeeperTest, TriesAllThatFailedAgainTogether) {
  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  setKept("docs", true);
  EXPECT_EQ(keeper_->status().failing, 2u);
  EXPECT_EQ(scheduler_.timerCount(), 1u);
  extension_->failFetches(std::nullopt);
  scheduler_.advance(seconds(5));
  EXPECT_THAT(here(), ElementsAre("diary", "letter"));
}

TEST_F(KeeperTest, TriesAtOnceWhenAsked) {
  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  setKept("a", true);
  extension_->failFetches(std::nullopt);
  keeper_->retryNow();
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), ElementsAre("a"));
  EXPECT_EQ(scheduler_.timerCount(), 0u);
}

TEST_F(KeeperTest, TriesAFolderAgainThatCouldNotBeListed) {
  extension_->failListings(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  setKept("docs", true);
  EXPECT_EQ(keeper_->shareOf({inode("docs")}).failures.size(), 1u);
  extension_->failListings(std::nullopt);
  scheduler_.advance(seconds(5));
  EXPECT_THAT(here(), ElementsAre("diary", "letter"));
}

TEST_F(KeeperTest, ForgetsTheFailureOfWhatIsKeptNoMore) {
  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  setKept("a", true);
  setKept("a", false);
  scheduler_.advance(seconds(5));
  EXPECT_EQ(keeper_->status().failing, 0u);
  EXPECT_EQ(extension_->fetchesOf("a"), 1);
  EXPECT_EQ(scheduler_.timerCount(), 0u);
}

TEST_F(KeeperTest, CancelsTheFetchOfWhatIsKeptNoMore) {
  extension_->holdAnswers();
  setKept("docs", true);
  extension_->letOneGo();  // the listing
  scheduler_.runUntilIdle();
  ASSERT_GT(extension_->heldCount(), 0u);
  extension_->performAction("test.dontKeepDownloaded", {{"docs"}}, [](const std::optional<Error>&) {});
  auto docs = FakeExtension::folder("docs", ROOT, "docs");
  tree_->applyUpdates({docs}, [] {});
  scheduler_.runUntilIdle();
  EXPECT_EQ(extension_->cancelledFetches(), 1);
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), IsEmpty());
  EXPECT_EQ(keeper_->status().waiting, 0u);
}

TEST_F(KeeperTest, LeavesAFileToAProgramThatWaitsForItWhenItIsKeptNoMore) {
  extension_->holdAnswers();
  setKept("a", true);
  bool isAnswered = false;
  contents_->require(inode("a"), {.isFileViewerRequest = true}, nullptr, [&](const auto& result) {
    isAnswered = true;
    EXPECT_TRUE(result);
  });
  tree_->applyUpdates({FakeExtension::file("a", ROOT, "a", "hello")}, [] {});
  scheduler_.runUntilIdle();
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_TRUE(isAnswered);
}

TEST_F(KeeperTest, ForgetsWhatIsGone) {
  setKept("a", true);
  tree_->applyDeletions({{"a"}}, [] {});
  scheduler_.runUntilIdle();
  EXPECT_EQ(keeper_->status().items, 0u);
}

// Eviction.

TEST_F(KeeperTest, EvictingAFolderDropsWhatIsInItButForWhatIsKeptByItself) {
  setKept("docs", true);
  setKept("diary", true);
  setKept("docs", false);
  EXPECT_THAT(here(), ElementsAre("diary", "letter"));
  EXPECT_EQ(evictAll(*replica_, *contents_, inode("docs")), std::nullopt);
  scheduler_.runUntilIdle();
  EXPECT_THAT(here(), ElementsAre("diary"));
}

TEST_F(KeeperTest, EvictingWhatAFolderAboveKeepsIsRefused) {
  setKept("docs", true);
  const auto error = evictAll(*replica_, *contents_, inode("diary"));
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(POSIX_ERROR_DOMAIN, EBUSY));
  EXPECT_THAT(here(), ElementsAre("diary", "letter"));
}

TEST_F(KeeperTest, TheExtensionEvictsAnItemWhosePinItHasJustRemoved) {
  setKept("docs", true);
  SimulatedFiles files(scheduler_);
  const auto follower = std::make_shared<Follower>(*extension_, *tree_, scheduler_, scheduler_, files, "/anchor",
                                                   [] { return MonotonicTime{}; });
  ServiceManager manager("/home/ann/Vondle", *tree_, contents_, follower, scheduler_);
  bool isDone = false;
  manager.evictItem({"docs"}, [&](const std::optional<Error>& error) {
    isDone = true;
    EXPECT_FALSE(error);
  });
  scheduler_.runUntilIdle();
  EXPECT_TRUE(isDone);
  EXPECT_THAT(here(), IsEmpty());
}

}  // namespace
}  // namespace vondle
