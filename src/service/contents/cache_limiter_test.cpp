#include "service/contents/cache_limiter.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service/follow/keeper.h"
#include "service/listing/folder_listing.h"
#include "testing/captured_log.h"
#include "testing/fake_extension.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const std::string ROOT = ROOT_CONTAINER.text;
using File = std::shared_ptr<const ContentFile>;

// Files a to f of ten bytes each, and "docs" with ten more, on a disk of 1000 bytes.
class CacheLimiterTest : public testing::Test {
 protected:
  static constexpr std::int64_t DISK = 1000;

  CacheLimiterTest() {
    char pattern[] = "/tmp/vondle-cache-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    std::filesystem::create_directory(folder_ + "/temporary");
    extension_ = std::make_unique<FakeExtension>(folder_ + "/temporary");
    for (const char* name : {"a", "b", "c", "d", "e", "f"}) extension_->addFile(name, ROOT, name, "0123456789");
    extension_->addFolder("docs", ROOT, "docs");
    for (int i = 0; i < 10; ++i) {
      const auto name = "doc" + std::to_string(i);
      extension_->addFile(name, "docs", name, "0123456789");
    }
  }
  ~CacheLimiterTest() override {
    stop();
    std::filesystem::remove_all(folder_);
  }

  void start(CacheLimits limits) {
    replica_ = Replica::open(folder_ + "/replica.db").value();
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    contents_ = ContentStore::open(folder_ + "/contents", *tree_, *extension_, errors_, scheduler_, scheduler_).value();
    tree_->subscribe([this](const auto& changes) { contents_->apply(changes); });
    limiter_ = std::make_shared<CacheLimiter>(limits, *replica_, contents_, files_);
    contents_->reserveWith(
        [this](Inode inode, std::int64_t bytes, auto answer) { limiter_->reserve(inode, bytes, std::move(answer)); });
    files_.put(contents_->folder() + "/there", "");
    files_.setDiskSize(DISK);
    listing_ = std::make_shared<FolderListing>(*tree_, *extension_, errors_, scheduler_, scheduler_);
    keeper_ = std::make_shared<Keeper>(*tree_, contents_, listing_, scheduler_);
    tree_->subscribe([this](const auto& changes) { keeper_->apply(changes); });
    keeper_->start();
    listing_->require(ROOT_INODE, {}, nullptr, [](const std::optional<Error>& error) { EXPECT_FALSE(error); });
    run();
  }
  void stop() {
    if (!contents_) return;
    extension_->letAnswersGo();
    keeper_->stop();
    contents_->close(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
    listing_->close(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
    run();
    keeper_.reset();
    listing_.reset();
    contents_->reserveWith(nullptr);
    limiter_.reset();
    contents_.reset();
    tree_.reset();
    replica_.reset();
  }

  // What the others on the disk and the downloaded files leave.
  void updateDisk() {
    std::int64_t used = others_;
    for (const auto& file : std::filesystem::directory_iterator(folder_ + "/contents"))
      used += static_cast<std::int64_t>(file.file_size());
    files_.setFreeSpace(DISK - used);
  }
  void run() {
    do updateDisk();
    while (scheduler_.runNext());
  }
  void pass(Duration time) {
    updateDisk();
    scheduler_.advance(time);
    run();
  }

  [[nodiscard]] Inode inode(const std::string& identifier) const { return replica_->inodeOf({identifier}).value(); }
  // Begins to fetch; the answer is set when it has come.
  std::shared_ptr<std::optional<Result<File>>> begin(const std::string& identifier) {
    auto answer = std::make_shared<std::optional<Result<File>>>();
    contents_->require(inode(identifier), {.isFileViewerRequest = true}, nullptr,
                       [answer](const Result<File>& result) { *answer = result; });
    run();
    return answer;
  }
  // A program opens it and reads, at a time of its own. It is open as long as the answer lives.
  Result<File> read(const std::string& identifier) {
    scheduler_.advance(seconds(0.01));
    const auto answer = begin(identifier);
    if (!*answer) pass(CacheLimiter::CLOSING_TIME);
    EXPECT_TRUE(*answer);
    return answer->value_or(Result<File>(nullptr));
  }
  void readAll(const std::vector<std::string>& identifiers) {
    for (const auto& each : identifiers) EXPECT_TRUE(read(each)) << each;
  }
  void keep(const std::string& identifier) {
    extension_->performAction("test.keepDownloaded", {{identifier}}, [](const std::optional<Error>&) {});
    extension_->itemForIdentifier({identifier}, {},
                                  [this](Result<Item> item) { tree_->applyUpdates({std::move(item.value())}, [] {}); });
    run();
  }
  // The identifiers of the files that are here; looking at them does not use them.
  std::vector<std::string> here() {
    std::vector<std::string> identifiers;
    for (const auto& file : contents_->cachedFiles()) identifiers.push_back(replica_->identifierOf(file.inode)->text);
    std::ranges::sort(identifiers);
    return identifiers;
  }
  std::size_t filesOnDisk() {
    run();
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& file : std::filesystem::directory_iterator(folder_ + "/contents")) ++count;
    return count;
  }

  CapturedLog log_;
  std::string folder_;
  VirtualScheduler scheduler_;
  SimulatedFiles files_{scheduler_};
  LastErrors errors_;
  std::unique_ptr<FakeExtension> extension_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<ContentStore> contents_;
  std::shared_ptr<CacheLimiter> limiter_;
  std::shared_ptr<FolderListing> listing_;
  std::shared_ptr<Keeper> keeper_;
  std::int64_t others_ = 0;
};

TEST_F(CacheLimiterTest, ReadingMoreThanTheLimitDropsWhatWasUsedLeastRecently) {
  start({.limit = 30, .reserve = 0});
  readAll({"a", "b", "c"});
  EXPECT_THAT(here(), ElementsAre("a", "b", "c"));
  readAll({"a", "d"});
  EXPECT_THAT(here(), ElementsAre("a", "c", "d"));
  readAll({"e"});
  EXPECT_THAT(here(), ElementsAre("a", "d", "e"));
  EXPECT_EQ(filesOnDisk(), 3u);
  EXPECT_EQ(contents_->bytesHere(), 30);
}

TEST_F(CacheLimiterTest, WhatIsOpenStays) {
  start({.limit = 30, .reserve = 0});
  const auto open = read("a");
  readAll({"b", "c", "d", "e"});
  EXPECT_THAT(here(), ElementsAre("a", "d", "e"));
}

TEST_F(CacheLimiterTest, WhatWasEditedStaysAndDoesNotCount) {
  start({.limit = 30, .reserve = 0});
  readAll({"a"});
  std::ofstream(folder_ + "/edited") << "what was written, which is longer than the limit allows";
  contents_->noteEdited(inode("a"), folder_ + "/edited");
  readAll({"b", "c", "d", "e"});
  EXPECT_EQ(contents_->state(inode("a")), ContentState::edited);
  EXPECT_TRUE(std::filesystem::exists(folder_ + "/edited"));
  EXPECT_THAT(here(), ElementsAre("c", "d", "e"));
}

TEST_F(CacheLimiterTest, WhatIsKeptDownloadedStaysAndDoesNotCount) {
  start({.limit = 30, .reserve = 0});
  keep("docs");
  keep("a");
  EXPECT_EQ(keeper_->status().failing, 0u);
  EXPECT_EQ(contents_->bytesHere(), 110) << "beyond the limit";
  readAll({"b", "c", "d", "e"});
  pass(CacheLimiter::LOOK_DELAY);
  EXPECT_EQ(contents_->bytesHere(), 140);
  EXPECT_EQ(contents_->state(inode("b")), ContentState::absent);
  const auto status = limiter_->status();
  EXPECT_EQ(status.bytes, 140);
  EXPECT_EQ(status.keptBytes, 110);
  EXPECT_EQ(status.limit, 30);
  EXPECT_EQ(status.reserve, 0);
  EXPECT_EQ(status.diskFree, DISK - 140);
}

TEST_F(CacheLimiterTest, WhatIsBeingFetchedStaysAndCounts) {
  start({.limit = 15, .reserve = 0});
  extension_->holdAnswers();
  const auto first = begin("a");
  const auto second = read("b");
  ASSERT_FALSE(second);
  EXPECT_TRUE(second.error().is(POSIX_ERROR_DOMAIN, ENOSPC));
  EXPECT_EQ(extension_->fetchesOf("b"), 0);
  EXPECT_FALSE(*first);
  extension_->letAnswersGo();
  run();
  EXPECT_TRUE(first->value());
  EXPECT_FALSE(read("b")) << "a is open";
  first->reset();
  EXPECT_TRUE(read("b"));
  EXPECT_THAT(here(), ElementsAre("b"));
}

TEST_F(CacheLimiterTest, AFileThatIsJustBeingClosedMakesRoom) {
  start({.limit = 10, .reserve = 0});
  auto open = read("a");
  const auto answer = begin("b");
  EXPECT_FALSE(*answer);
  open = File();
  pass(CacheLimiter::CLOSING_TIME);
  ASSERT_TRUE(*answer);
  EXPECT_TRUE(answer->value());
  EXPECT_THAT(here(), ElementsAre("b"));
}

TEST_F(CacheLimiterTest, AFetchThatEndsWithoutContentsGivesItsRoomBack) {
  start({.limit = 10, .reserve = 0});
  extension_->failFetches(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_FALSE(read("a"));
  extension_->failFetches(std::nullopt);
  EXPECT_TRUE(read("b"));
}

TEST_F(CacheLimiterTest, WhatCannotFitFailsAndDropsNothing) {
  start({.limit = 30, .reserve = 0});
  extension_->addFile("big", ROOT, "big", std::string(31, 'x'));
  listing_->require(ROOT_INODE, {}, nullptr, [](const std::optional<Error>&) {});
  tree_->applyUpdates({FakeExtension::file("big", ROOT, "big", std::string(31, 'x'))}, [] {});
  run();
  readAll({"a", "b"});
  const auto big = read("big");
  ASSERT_FALSE(big);
  EXPECT_TRUE(big.error().is(POSIX_ERROR_DOMAIN, ENOSPC));
  EXPECT_THAT(big.error().description, HasSubstr("cache_limit"));
  EXPECT_EQ(extension_->fetchesOf("big"), 0);
  EXPECT_THAT(here(), ElementsAre("a", "b"));
}

TEST_F(CacheLimiterTest, DownloadingLeavesTheReserveFree) {
  start({.limit = DISK, .reserve = 100});
  readAll({"a", "b"});
  others_ = DISK - 100 - 20;
  readAll({"c", "d"});
  EXPECT_THAT(here(), ElementsAre("c", "d"));
  others_ = DISK - 100 - 5;
  const auto none = read("e");
  ASSERT_FALSE(none);
  EXPECT_TRUE(none.error().is(POSIX_ERROR_DOMAIN, ENOSPC));
  EXPECT_THAT(none.error().description, HasSubstr("disk_reserve"));
  others_ = 0;
  EXPECT_TRUE(read("e"));
}

TEST_F(CacheLimiterTest, WhatOthersPutOnTheDiskDrivesOutWhatIsHere) {
  start({.limit = DISK, .reserve = 100});
  readAll({"a", "b", "c"});
  pass(CacheLimiter::LOOK_DELAY);
  EXPECT_EQ(scheduler_.timerCount(), 0u) << "idle costs nothing";
  others_ = DISK - 100 - 15;
  pass(CacheLimiter::LOOK_AGAIN_DELAY);
  EXPECT_THAT(here(), SizeIs(3)) << "nobody used it";
  limiter_->noteUse();
  limiter_->noteUse();
  EXPECT_EQ(scheduler_.timerCount(), 1u);
  pass(CacheLimiter::LOOK_DELAY);
  EXPECT_LE(contents_->bytesHere(), 15);
  EXPECT_EQ(scheduler_.timerCount(), 0u);
}

TEST_F(CacheLimiterTest, WhatIsTooMuchAndOpenGoesWhenItIsClosed) {
  start({.limit = 100, .reserve = 0});
  auto a = read("a");
  auto b = read("b");
  stop();
  start({.limit = 10, .reserve = 0});
  a = File(contents_->current(inode("a")));
  b = File(contents_->current(inode("b")));
  limiter_->noteUse();
  pass(CacheLimiter::LOOK_DELAY);
  EXPECT_THAT(here(), ElementsAre("a", "b"));
  EXPECT_EQ(scheduler_.timerCount(), 1u);
  a = File();
  pass(CacheLimiter::LOOK_AGAIN_DELAY);
  EXPECT_THAT(here(), ElementsAre("b"));
  EXPECT_EQ(scheduler_.timerCount(), 0u);
}

TEST_F(CacheLimiterTest, WhatWasUsedLastIsKnownAfterARestart) {
  start({.limit = 30, .reserve = 0});
  readAll({"a", "b", "c"});
  for (const char* name : {"b", "c", "a"}) {
    pass(2 * ContentStore::USE_ACCURACY);
    readAll({name});
  }
  stop();
  start({.limit = 30, .reserve = 0});
  EXPECT_THAT(here(), ElementsAre("a", "b", "c"));
  pass(2 * ContentStore::USE_ACCURACY);
  readAll({"d"});
  EXPECT_THAT(here(), ElementsAre("a", "c", "d"));
  readAll({"e"});
  EXPECT_THAT(here(), ElementsAre("a", "d", "e"));
}

TEST_F(CacheLimiterTest, AKeptFolderThatIsLargerThanTheDiskFillsItUpToTheReserveAndSaysWhy) {
  start({.limit = DISK, .reserve = 100});
  readAll({"a", "b"});
  others_ = DISK - 100 - 55;
  keep("docs");
  pass(seconds(1));
  EXPECT_EQ(contents_->bytesHere(), 50) << "what was only read has gone";
  EXPECT_EQ(contents_->state(inode("a")), ContentState::absent);
  EXPECT_EQ(keeper_->status().failing, 5u);
  EXPECT_EQ(keeper_->status().waiting, 0u);
  const auto share = keeper_->shareOf({inode("docs")});
  EXPECT_EQ(share.pending, 0u) << "whoever waits for it hears";
  for (const auto& [file, error] : share.failures) {
    EXPECT_TRUE(error.is(POSIX_ERROR_DOMAIN, ENOSPC));
    EXPECT_THAT(error.description, HasSubstr("disk_reserve"));
  }
  const auto before = here();
  pass(seconds(3600));
  EXPECT_EQ(here(), before) << "nothing goes, and comes back, in a loop";
  others_ = 0;
  pass(Keeper::LAST_RETRY);
  EXPECT_EQ(keeper_->status().failing, 0u);
  EXPECT_EQ(contents_->bytesHere(), 100);
}

}  // namespace
}  // namespace vondle
