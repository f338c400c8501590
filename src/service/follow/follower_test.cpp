#include "service/follow/follower.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "platform/content_types.h"
#include "service/replica/replica.h"
#include "testing/captured_log.h"
#include "testing/read_only_extension.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

const ItemIdentifier FOLDER{"folder"};

Item makeItem(const std::string& identifier, const std::string& name) {
  Item item;
  item.itemIdentifier = {identifier};
  item.parentItemIdentifier = ROOT_CONTAINER;
  item.filename = name;
  item.contentType = "text/plain";
  item.documentSize = 3;
  item.itemVersion = {.contentVersion = "1", .metadataVersion = "1"};
  return item;
}

const Error UNREACHABLE(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST, "no server");

// An extension whose working set says what the test lays out, page by page; like the real one it reads on from its own
// anchor, whatever the service passes.
class FeedExtension : public ReadOnlyExtension {
 public:
  struct Page {
    std::vector<Item> updates;
    std::vector<ItemIdentifier> deletions;
    SyncAnchor anchor;
    bool moreComing = false;
    std::optional<Error> error;
  };

  SyncAnchor current = "0";
  std::deque<Page> pages;          // when empty, an empty page at the current anchor
  std::function<Page()> endless;   // in place of them
  std::vector<SyncAnchor> passed;  // anchors that the service passed
  bool isHeld = false;             // keeps the finish back
  std::vector<std::function<void()>> held;
  std::shared_ptr<ChangeObserver> lastObserver;

  void invalidate() override {}
  std::shared_ptr<Progress> itemForIdentifier(ItemIdentifier, Request, Completion<Result<Item>> completion) override {
    std::move(completion)(failure(Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM)));
    return Progress::make();
  }
  std::shared_ptr<Progress> fetchContents(ItemIdentifier, std::optional<ItemVersion>, Request,
                                          Completion<Result<FetchedContents>> completion) override {
    std::move(completion)(failure(Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM)));
    return Progress::make();
  }
  std::shared_ptr<Enumerator> enumeratorForContainer(ItemIdentifier container, Request request) override {
    EXPECT_EQ(container, WORKING_SET_CONTAINER);
    EXPECT_TRUE(request.isSystemRequest);
    return std::make_shared<Feed>(*this);
  }

 private:
  class Feed : public Enumerator {
   public:
    explicit Feed(FeedExtension& extension) : extension_(extension) {}
    void enumerateItems(std::shared_ptr<EnumerationObserver> observer, vondle::Page) override {
      observer->finishEnumeratingUpToPage(std::nullopt);
    }
    void enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) override {
      extension_.read(std::move(observer), std::move(from));
    }
    void currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) override {
      std::move(completion)(extension_.current);
    }
    void invalidate() override {}

   private:
    FeedExtension& extension_;
  };

  void read(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) {
    passed.push_back(std::move(from));
    lastObserver = observer;
    Page page{.updates = {}, .deletions = {}, .anchor = current, .error = {}};
    if (endless)
      page = endless();
    else if (!pages.empty()) {
      page = pages.front();
      pages.pop_front();
    }
    auto finish = [this, observer, page] {
      if (page.error) return observer->finishEnumeratingWithError(*page.error);
      if (!page.updates.empty()) observer->didUpdateItems(page.updates);
      if (!page.deletions.empty()) observer->didDeleteItemsWithIdentifiers(page.deletions);
      current = page.anchor;
      observer->finishEnumeratingChangesUpToSyncAnchor(page.anchor, page.moreComing);
    };
    if (isHeld)
      held.push_back(finish);
    else
      finish();
  }
};

class FollowerTest : public testing::Test {
 protected:
  FollowerTest() {
    char pattern[] = "/tmp/vondle-follower-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    openReplica();
  }
  ~FollowerTest() override {
    if (follower_) {
      follower_->stop();
      scheduler_.runUntilIdle();
    }
    follower_.reset();
    tree_.reset();
    replica_.reset();
    std::filesystem::remove_all(folder_);
  }

  void openReplica() {
    auto replica = Replica::open(folder_ + "/replica.db");
    ASSERT_TRUE(replica) << replica.error().localizedDescription();
    replica_ = std::move(*replica);
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
  }

  // The root folder holds these.
  void listRoot(std::vector<Item> items) {
    replica_->beginListing(ROOT_INODE);
    tree_->applyListing(ROOT_INODE, std::move(items), [](const auto& result) { EXPECT_TRUE(result); });
    scheduler_.runUntilIdle();
  }

  void start() {
    follower_ = std::make_shared<Follower>(extension_, *tree_, scheduler_, scheduler_, files_, ANCHOR_PATH,
                                           [this] { return lastUse_; });
    follower_->start();
    scheduler_.runUntilIdle();
  }

  void restart() {
    follower_->stop();
    scheduler_.runUntilIdle();
    start();
  }

  // A follower that has caught up at the anchor, with one file in the root folder.
  void startAt(const SyncAnchor& anchor) {
    extension_.current = anchor;
    ASSERT_TRUE(saveAnchor(files_, ANCHOR_PATH, {.anchor = anchor, .hasMoved = true}));
    listRoot({makeItem("a", "a.txt")});
    start();
    ASSERT_TRUE(replica_->isListed(ROOT_INODE));
  }

  std::vector<std::string> names() {
    std::vector<std::string> result;
    const auto inodes = replica_->children(ROOT_INODE);
    for (const auto& entry : replica_->entries(ROOT_INODE, inodes)) result.push_back(entry.name);
    std::ranges::sort(result);
    return result;
  }

  std::size_t reads() const { return extension_.passed.size(); }

  // "ok", the error's text, or "waits".
  std::string sync() {
    auto answer = std::make_shared<std::string>("waits");
    follower_->sync([answer](const std::optional<Error>& error) { *answer = error ? error->description : "ok"; });
    scheduler_.runUntilIdle();
    return *answer;
  }

  static constexpr const char* ENDLESS = "the server announces more changes but sends none";
  static constexpr const char* ANCHOR_PATH = "/home/tester/anchor.json";

  CapturedLog log_;
  std::string folder_;
  VirtualScheduler scheduler_;
  SimulatedFiles files_{scheduler_};
  FeedExtension extension_;
  MonotonicTime lastUse_{-seconds(3600)};
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<Follower> follower_;
};

TEST_F(FollowerTest, TakesOverUpdatesAndDeletionsOfAPageTogether) {
  startAt("10");
  // The new item has the name of the one that goes: it keeps that name.
  extension_.pages.push_back(
      {.updates = {makeItem("b", "a.txt"), makeItem("c", "c.txt")}, .deletions = {{"a"}}, .anchor = "15", .error = {}});
  follower_->signal();
  scheduler_.runUntilIdle();
  EXPECT_THAT(names(), ElementsAre("a.txt", "c.txt"));
  EXPECT_EQ(replica_->identifierOf(replica_->lookup(ROOT_INODE, "a.txt")->inode), ItemIdentifier{"b"});
  const auto status = follower_->status();
  EXPECT_EQ(status.anchor, "15");
  EXPECT_EQ(status.updates, 2);
  EXPECT_EQ(status.deletions, 1);
  EXPECT_TRUE(status.lastSuccess);
  EXPECT_FALSE(status.lastError);
}

TEST_F(FollowerTest, PagesFollowWithoutPauseWhileMoreIsComing) {
  startAt("1");
  const auto before = reads();
  const auto when = scheduler_.monotonic();
  for (int i = 2; i <= 5; ++i) {
    extension_.pages.push_back({.updates = {makeItem(std::to_string(i), std::to_string(i))},
                                .deletions = {},
                                .anchor = std::to_string(i),
                                .moreComing = i < 5,
                                .error = {}});
  }
  EXPECT_EQ(sync(), "ok");
  EXPECT_EQ(reads() - before, 4u);
  EXPECT_EQ(scheduler_.monotonic(), when);
  EXPECT_THAT(names(), ElementsAre("2", "3", "4", "5", "a.txt"));
}

TEST_F(FollowerTest, LooksEveryThirtySecondsInUseAndEveryFiveMinutesOtherwise) {
  startAt("1");
  const auto before = reads();
  scheduler_.advance(seconds(299.9));
  EXPECT_EQ(reads(), before);
  lastUse_ = scheduler_.monotonic();
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(reads(), before + 1);
  scheduler_.advance(seconds(29.9));  // used 30 s ago: still in use
  EXPECT_EQ(reads(), before + 1);
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(reads(), before + 2);
  scheduler_.advance(seconds(299.9));  // last used more than 30 s ago
  EXPECT_EQ(reads(), before + 2);
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(reads(), before + 3);
}

TEST_F(FollowerTest, UseAfterARestLooksAsSoonAsItWouldHaveInUse) {
  startAt("1");
  auto before = reads();
  scheduler_.advance(seconds(10));
  lastUse_ = scheduler_.monotonic();
  follower_->noteUse();
  scheduler_.advance(seconds(19.9));
  EXPECT_EQ(reads(), before);
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(reads(), before + 1);

  lastUse_ = scheduler_.monotonic() + seconds(-31);
  scheduler_.advance(seconds(30));
  before = reads();
  scheduler_.advance(seconds(200));
  lastUse_ = scheduler_.monotonic();
  follower_->noteUse();
  scheduler_.runUntilIdle();
  EXPECT_EQ(reads(), before + 1) << "the rest was longer than the interval in use: at once";
  follower_->noteUse();
  scheduler_.runUntilIdle();
  EXPECT_EQ(reads(), before + 1);
}

TEST_F(FollowerTest, NothingButTheNextLookIsPending) {
  startAt("1");
  EXPECT_EQ(scheduler_.timerCount(), 1u);
  EXPECT_EQ(scheduler_.readyCount(), 0u);
}

TEST_F(FollowerTest, FailuresAreTriedAgainAfterDelaysThatDouble) {
  startAt("1");
  const auto fail = [&] {
    extension_.pages.push_back({.updates = {}, .deletions = {}, .anchor = {}, .error = UNREACHABLE});
  };
  fail();
  follower_->signal();
  scheduler_.runUntilIdle();
  EXPECT_EQ(follower_->status().lastError, UNREACHABLE);
  for (const double delay : {2.0, 4.0, 8.0, 16.0, 32.0, 64.0, 128.0, 256.0, 300.0, 300.0}) {
    const auto before = reads();
    EXPECT_EQ(follower_->status().nextIn, seconds(delay));
    fail();
    scheduler_.advance(seconds(delay - 0.1));
    EXPECT_EQ(reads(), before) << delay;
    scheduler_.advance(seconds(0.1));
    EXPECT_EQ(reads(), before + 1) << delay;
  }
  scheduler_.advance(seconds(300));
  EXPECT_FALSE(follower_->status().lastError);
  fail();
  scheduler_.advance(seconds(300));
  EXPECT_EQ(follower_->status().nextIn, seconds(2)) << "a success begins the delays anew";
}

TEST_F(FollowerTest, SyncLooksAtOnceAndBeginsTheDelaysAnew) {
  startAt("1");
  extension_.endless = [] {
    return FeedExtension::Page{.updates = {}, .deletions = {}, .anchor = {}, .error = UNREACHABLE};
  };
  follower_->signal();
  scheduler_.advance(seconds(100));
  EXPECT_GT(*follower_->status().nextIn, seconds(2));
  EXPECT_EQ(sync(), "no server");
  EXPECT_EQ(follower_->status().nextIn, seconds(2));
}

TEST_F(FollowerTest, SyncWaitsForARunThatBeganAfterIt) {
  startAt("1");
  extension_.isHeld = true;
  follower_->signal();
  scheduler_.runUntilIdle();
  ASSERT_EQ(extension_.held.size(), 1u);  // this run may have asked before the change was made
  EXPECT_EQ(sync(), "waits");
  extension_.pages.push_back({.updates = {makeItem("b", "b.txt")}, .deletions = {}, .anchor = "2", .error = {}});
  extension_.isHeld = false;
  extension_.held[0]();
  std::optional<Error> answer = UNREACHABLE;
  follower_->sync([&](std::optional<Error> error) { answer = std::move(error); });
  scheduler_.runUntilIdle();
  EXPECT_EQ(answer, std::nullopt);
  EXPECT_THAT(names(), ElementsAre("a.txt", "b.txt"));
}

TEST_F(FollowerTest, AFeedThatPromisesMoreWithoutProgressBacksOff) {
  const struct {
    const char* name;
    std::vector<SyncAnchor> anchors;  // over and over
    std::size_t reads;
  } cases[] = {{"the same page again", {"1"}, 1},
               {"a later page again", {"2", "2"}, 2},
               {"round in a circle", {"2", "3", "1"}, 3}};
  for (const auto& each : cases) {
    extension_ = {};
    startAt("1");
    std::size_t next = 0;
    extension_.endless = [&] {
      return FeedExtension::Page{.updates = {},
                                 .deletions = {},
                                 .anchor = each.anchors[next++ % each.anchors.size()],
                                 .moreComing = true,
                                 .error = {}};
    };
    const auto before = reads();
    EXPECT_EQ(sync(), ENDLESS) << each.name;
    EXPECT_EQ(reads() - before, each.reads) << each.name;
    EXPECT_EQ(follower_->status().nextIn, seconds(2)) << each.name;
  }
}

TEST_F(FollowerTest, AFeedWithoutEndIsLeftAloneForAWhile) {
  startAt("0");
  int next = 0;
  extension_.endless = [&] {
    return FeedExtension::Page{
        .updates = {}, .deletions = {}, .anchor = std::to_string(++next), .moreComing = true, .error = {}};
  };
  EXPECT_EQ(sync(), ENDLESS);
  EXPECT_LE(static_cast<std::size_t>(next), Follower::MAX_PAGES);
  EXPECT_EQ(follower_->status().nextIn, seconds(2));
}

TEST_F(FollowerTest, ASecondFinishIsIgnored) {
  startAt("1");
  extension_.pages.push_back({.updates = {}, .deletions = {}, .anchor = "2", .error = {}});
  EXPECT_EQ(sync(), "ok");
  const auto before = reads();
  extension_.lastObserver->finishEnumeratingChangesUpToSyncAnchor("3", true);
  extension_.lastObserver->finishEnumeratingWithError(UNREACHABLE);
  scheduler_.runUntilIdle();
  EXPECT_EQ(reads(), before);
  EXPECT_EQ(follower_->status().anchor, "2");
}

TEST_F(FollowerTest, UpdatesAfterTheFinishAreTakenOver) {
  startAt("1");
  EXPECT_EQ(sync(), "ok");
  extension_.lastObserver->didUpdateItems({makeItem("b", "b.txt")});
  extension_.lastObserver->didDeleteItemsWithIdentifiers({{"a"}});
  scheduler_.runUntilIdle();
  EXPECT_THAT(names(), ElementsAre("b.txt"));
}

TEST_F(FollowerTest, GoesOnFromTheSameAnchorAfterARestart) {
  startAt("1");
  extension_.pages.push_back({.updates = {makeItem("b", "b.txt")}, .deletions = {}, .anchor = "7", .error = {}});
  EXPECT_EQ(sync(), "ok");
  EXPECT_EQ(loadAnchor(files_, ANCHOR_PATH), (FollowedAnchor{"7", true}));
  restart();
  EXPECT_EQ(extension_.passed.back(), "7");
  EXPECT_TRUE(replica_->isListed(ROOT_INODE));
}

TEST_F(FollowerTest, WhatWasListedBeforeTheFirstAnchorIsListedAgain) {
  listRoot({makeItem("a", "a.txt")});
  extension_.pages.push_back({.updates = {}, .deletions = {}, .anchor = "40", .error = {}});  // starts at the newest
  start();
  EXPECT_FALSE(replica_->isListed(ROOT_INODE));
  listRoot({makeItem("a", "a.txt")});
  EXPECT_EQ(sync(), "ok");
  EXPECT_TRUE(replica_->isListed(ROOT_INODE)) << "once is enough";
}

TEST_F(FollowerTest, AnAnchorThatLeapsFromTheStartWithoutNewsHasSkippedSome) {
  extension_.current = "0";
  start();  // the server's feed is still empty
  listRoot({makeItem("a", "a.txt")});
  extension_.pages.push_back({.updates = {}, .deletions = {}, .anchor = "5", .error = {}});
  EXPECT_EQ(sync(), "ok");
  EXPECT_FALSE(replica_->isListed(ROOT_INODE));
}

TEST_F(FollowerTest, AnAnchorThatMovesWithoutNewsLaterHasSkippedNothing) {
  startAt("5");
  extension_.pages.push_back({.updates = {}, .deletions = {}, .anchor = "9", .error = {}});
  EXPECT_EQ(sync(), "ok");
  EXPECT_TRUE(replica_->isListed(ROOT_INODE));
}

TEST_F(FollowerTest, AReaderThatIsElsewhereThanTheTreeMakesItListAgain) {
  for (const bool forgot : {false, true}) {
    startAt("5");
    extension_.current = forgot ? "0" : "9";  // it lost its file, or we were killed between its page and ours
    if (forgot) extension_.pages.push_back({.updates = {}, .deletions = {}, .anchor = "12", .error = {}});
    restart();
    EXPECT_FALSE(replica_->isListed(ROOT_INODE)) << forgot;
    EXPECT_EQ(loadAnchor(files_, ANCHOR_PATH)->anchor, forgot ? "12" : "9");
  }
}

TEST_F(FollowerTest, NothingIsListedAgainBeforeTheServerAnswers) {
  startAt("5");
  extension_.current = "9";
  extension_.pages.push_back({.updates = {}, .deletions = {}, .anchor = {}, .error = UNREACHABLE});
  restart();
  EXPECT_TRUE(replica_->isListed(ROOT_INODE)) << "without a server the folder must stay readable";
  scheduler_.advance(seconds(2));
  EXPECT_FALSE(replica_->isListed(ROOT_INODE));
}

TEST_F(FollowerTest, ABrokenAnchorFileCountsAsNone) {
  for (const auto* text : {"", "[]", "{}", R"({"anchor":"35"})", R"({"anchor":"3","moved":true})",
                           R"({"anchor":"zz","moved":true})", R"({"anchor":35,"moved":true})"}) {
    files_.put(ANCHOR_PATH, text);
    EXPECT_EQ(loadAnchor(files_, ANCHOR_PATH), std::nullopt) << text;
  }
  files_.put(ANCHOR_PATH, R"({"anchor":"3500ff","moved":false})");
  EXPECT_EQ(loadAnchor(files_, ANCHOR_PATH), (FollowedAnchor{std::string("5\0\xff", 3), false}));
}

TEST_F(FollowerTest, StoppingAnswersWhoeverWaitsAndReadsNoMore) {
  startAt("1");
  extension_.isHeld = true;
  std::optional<Error> first;
  std::optional<Error> second;
  follower_->sync([&](std::optional<Error> error) { first = std::move(error); });
  scheduler_.runUntilIdle();
  follower_->sync([&](std::optional<Error> error) { second = std::move(error); });
  scheduler_.runUntilIdle();
  follower_->stop();
  scheduler_.runUntilIdle();
  for (const auto* answer : {&first, &second}) {
    ASSERT_TRUE(*answer);
    EXPECT_TRUE((*answer)->is(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  }
  const auto before = reads();
  extension_.held[0]();
  follower_->signal();
  scheduler_.advance(seconds(1000));
  EXPECT_EQ(reads(), before);
  EXPECT_EQ(sync(), "") << "cancelled";
}

TEST_F(FollowerTest, AnAnchorFileThatIsCutAnywhereCountsAsNone) {
  startAt("5");
  const auto whole = *files_.contents(ANCHOR_PATH);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    files_.put(ANCHOR_PATH, whole.substr(0, length));
    restart();
    EXPECT_FALSE(replica_->isListed(ROOT_INODE)) << length;
    EXPECT_EQ(sync(), "ok");
    listRoot({makeItem("a", "a.txt")});
    EXPECT_EQ(sync(), "ok");
    EXPECT_THAT(names(), ElementsAre("a.txt")) << length;
  }
  restart();
  EXPECT_TRUE(replica_->isListed(ROOT_INODE)) << "the file is whole again";
}

TEST_F(FollowerTest, ChangesThatWereMissedMakeEveryFolderBeListedAgainAtAnyDepth) {
  startAt("5");
  auto folder = makeItem("f", "f");
  folder.contentType = FOLDER_CONTENT_TYPE;
  listRoot({folder});
  const auto inode = *replica_->inodeOf({"f"});
  auto inner = makeItem("x", "x.txt");
  inner.parentItemIdentifier = {"f"};
  tree_->applyListing(inode, {inner}, [](const Result<void>&) {});
  scheduler_.runUntilIdle();
  ASSERT_TRUE(replica_->isListed(inode));
  extension_.current = "9";  // we were killed between its page and ours
  restart();
  EXPECT_FALSE(replica_->isListed(inode));
  listRoot({folder});
  EXPECT_FALSE(replica_->isListed(inode));
  EXPECT_EQ(replica_->inodeOf({"f"}), inode);
}

TEST_F(FollowerTest, TakesNoNoticeOfAWallClockThatIsSetBack) {
  startAt("1");
  const auto before = reads();
  scheduler_.advance(seconds(100));
  scheduler_.setWallClock({scheduler_.now().secondsSince1970 - 3600});
  EXPECT_EQ(follower_->status().nextIn, seconds(200));
  scheduler_.advance(seconds(199.9));
  EXPECT_EQ(reads(), before);
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(reads(), before + 1);
  EXPECT_EQ(follower_->status().lastSuccess, scheduler_.now());
}

TEST_F(FollowerTest, APageThatTakesEverythingAwayCanBeFollowedByOneThatBringsItBack) {
  startAt("1");
  extension_.pages.push_back({.updates = {}, .deletions = {{"a"}, ROOT_CONTAINER}, .anchor = "2", .error = {}});
  EXPECT_EQ(sync(), "ok");
  EXPECT_EQ(replica_->itemCount(), 0u);
  listRoot({makeItem("a", "a.txt")});
  EXPECT_THAT(names(), ElementsAre("a.txt"));
}

}  // namespace
}  // namespace vondle
