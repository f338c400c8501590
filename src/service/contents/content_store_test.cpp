#include "service/contents/content_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "testing/fake_extension.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

const std::string ROOT = ROOT_CONTAINER.text;
constexpr Request VIEWER{.isFileViewerRequest = true};
constexpr Request SYSTEM{.isSystemRequest = true};
using Answer = Result<std::shared_ptr<const ContentFile>>;

std::string textOf(const std::shared_ptr<const ContentFile>& file) {
  std::string text(static_cast<std::size_t>(file->size()), '\0');
  EXPECT_EQ(::pread(file->descriptor(), text.data(), text.size(), 0), file->size());
  return text;
}

class ContentStoreTest : public testing::Test {
 protected:
  ContentStoreTest() {
    item_ = extension_.addFile("11", ROOT, "a", "contents");
    other_ = extension_.addFile("12", ROOT, "b", "other");
    start();
    tree_->applyListing(ROOT_INODE, {item_, other_, FakeExtension::folder("10", ROOT, "f")},
                        [](const Result<void>&) {});
    scheduler_.runUntilIdle();
    inode_ = *replica_->inodeOf({"11"});
  }
  ~ContentStoreTest() override {
    stop();
    std::filesystem::remove_all(folder_);
  }

  static std::string makeFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-contents-XXXXXX").native();
    const std::string folder = ::mkdtemp(pattern.data());
    std::filesystem::create_directory(folder + "/fetched");
    return folder;
  }

  void start() {
    replica_ = *Replica::open(folder_ + "/replica.sqlite");
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    store_ = *ContentStore::open(folder_ + "/contents", *tree_, extension_, errors_, scheduler_, scheduler_);
    tree_->subscribe([this](const auto& changes) { store_->apply(changes); });
  }
  void stop() {
    store_->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
    extension_.letAnswersGo();
    scheduler_.runUntilIdle();
    store_.reset();
    tree_.reset();
    replica_.reset();
  }

  // The answer is set when it has come.
  std::shared_ptr<std::optional<Answer>> require(Request request = VIEWER,
                                                 const std::shared_ptr<Progress>& wait = nullptr) {
    auto answer = std::make_shared<std::optional<Answer>>();
    store_->require(inode_, request, wait, [answer](const Answer& result) { *answer = result; });
    scheduler_.runUntilIdle();  // the fetch begins on another thread
    return answer;
  }
  Answer get(Request request = VIEWER) {
    const auto answer = require(request);
    scheduler_.runUntilIdle();
    EXPECT_TRUE(*answer);
    return answer->value_or(Answer(nullptr));
  }
  void announce(const std::vector<Item>& items, const std::vector<ItemIdentifier>& deletions = {}) {
    tree_->applyNews(items, deletions, [] {});
    scheduler_.runUntilIdle();
  }
  std::vector<std::string> filesHere() {
    std::vector<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(folder_ + "/contents"))
      names.push_back(file.path().filename());
    return names;
  }

  const std::string folder_ = makeFolder();
  VirtualScheduler scheduler_;
  FakeExtension extension_{folder_ + "/fetched"};
  LastErrors errors_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<ContentStore> store_;
  Item item_, other_;
  Inode inode_ = 0;
};

TEST_F(ContentStoreTest, ContentsAreFetchedOnceAndKept) {
  EXPECT_EQ(store_->state(inode_), ContentState::absent);
  EXPECT_EQ(store_->current(inode_), nullptr);
  EXPECT_EQ(textOf(*get()), "contents");
  EXPECT_EQ(store_->state(inode_), ContentState::clean);
  EXPECT_EQ(textOf(*get()), "contents");
  EXPECT_EQ(textOf(store_->current(inode_)), "contents");
  EXPECT_EQ(extension_.fetchesOf("11"), 1);
  EXPECT_EQ(store_->bytesHere(), 8);
  EXPECT_EQ(store_->filesHere(), 1U);
  EXPECT_TRUE(std::filesystem::is_empty(folder_ + "/fetched")) << "the file was taken over";
}

TEST_F(ContentStoreTest, TheFileIsPrivateAndNamedWithoutTheServersTexts) {
  get();
  ASSERT_THAT(filesHere(), SizeIs(1));
  const auto name = filesHere()[0];
  EXPECT_TRUE(name.starts_with(fmt::format("{}-", inode_))) << name;
  EXPECT_EQ(name.find_first_not_of("0123456789abcdef-"), std::string::npos);
  struct stat status{};
  ::stat((folder_ + "/contents/" + name).c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  ::stat((folder_ + "/contents").c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
}

TEST_F(ContentStoreTest, ThoseWhoWantTheSameShareOneFetch) {
  extension_.holdAnswers();
  const auto first = require();
  const auto second = require(SYSTEM);
  EXPECT_EQ(store_->state(inode_), ContentState::fetching);
  EXPECT_EQ(store_->waitersFor(inode_), 2U);
  ASSERT_THAT(store_->transfers(), SizeIs(1));
  EXPECT_TRUE(store_->transfers()[0].isWaitedFor);
  EXPECT_NE(store_->progressOf(inode_), nullptr);
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(first->value().value(), second->value().value());
  EXPECT_EQ(extension_.fetchesOf("11"), 1);
  EXPECT_THAT(store_->transfers(), IsEmpty());
}

TEST_F(ContentStoreTest, AWaitThatIsCancelledEndsAndTheLastOneCancelsTheFetch) {
  extension_.holdAnswers();
  const auto wait = Progress::make();
  const auto otherWait = Progress::make();
  const auto first = require(VIEWER, wait);
  const auto second = require(VIEWER, otherWait);
  wait->cancel();
  EXPECT_EQ(first->value().error(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_FALSE(*second);
  EXPECT_EQ(extension_.cancelledFetches(), 0);
  otherWait->cancel();
  EXPECT_EQ(second->value().error().code, USER_CANCELLED);
  EXPECT_EQ(extension_.cancelledFetches(), 1);
  scheduler_.runUntilIdle();
  EXPECT_EQ(store_->state(inode_), ContentState::absent);
  EXPECT_FALSE(errors_.of(inode_)) << "giving up is no failure";
}

TEST_F(ContentStoreTest, AWaitThatIsCancelledBeforeItBeginsCancelsTheFetch) {
  extension_.holdAnswers();
  const auto wait = Progress::make();
  wait->cancel();
  const auto answer = require(VIEWER, wait);
  EXPECT_EQ(answer->value().error().code, USER_CANCELLED);
  scheduler_.runUntilIdle();
  EXPECT_EQ(store_->state(inode_), ContentState::absent);
  extension_.letAnswersGo();
  EXPECT_EQ(textOf(*get()), "contents");
}

TEST_F(ContentStoreTest, WhoComesAfterTheLastHasGoneGetsTheContents) {
  extension_.holdAnswers();
  const auto wait = Progress::make();
  std::shared_ptr<std::optional<Answer>> late;
  // The fetch that nobody waits for is not given up yet when somebody else comes.
  store_->require(inode_, VIEWER, wait, [&](const Answer& result) {
    EXPECT_EQ(result.error().code, USER_CANCELLED);
    late = require();
  });
  wait->cancel();
  EXPECT_EQ(extension_.cancelledFetches(), 1);
  scheduler_.runUntilIdle();
  EXPECT_FALSE(*late);
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(textOf(late->value().value()), "contents");
  EXPECT_EQ(extension_.fetchesOf("11"), 2);
}

TEST_F(ContentStoreTest, AProgramDoesNotWaitBehindABackgroundFetch) {
  extension_.holdAnswers();
  const auto background = require(SYSTEM);
  EXPECT_TRUE(extension_.lastRequest().isSystemRequest);
  const auto program = require(VIEWER);
  scheduler_.runUntilIdle();
  EXPECT_TRUE(extension_.lastRequest().isFileViewerRequest);
  EXPECT_EQ(extension_.cancelledFetches(), 1);
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(textOf(background->value().value()), "contents");
  EXPECT_EQ(textOf(program->value().value()), "contents");
}

TEST_F(ContentStoreTest, AFailureReachesThoseWhoWaitAndIsRemembered) {
  const Error unreachable(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no network");
  extension_.failFetches(unreachable);
  EXPECT_EQ(get().error(), unreachable);
  EXPECT_EQ(store_->state(inode_), ContentState::absent);
  EXPECT_EQ(errors_.of(inode_)->error, unreachable);
  extension_.failFetches(std::nullopt);
  EXPECT_TRUE(get());
  EXPECT_FALSE(errors_.of(inode_));
}

TEST_F(ContentStoreTest, AnItemThatTheServerCouldNotBeAskedForIsNotSaidToBeMissing) {
  const Error missing(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM);
  const Error unreachable(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST, "no network");
  std::optional<Error> server = unreachable;
  store_->checkServerWith([&](Completion<std::optional<Error>> completion) { std::move(completion)(server); });
  extension_.failFetches(missing);
  EXPECT_EQ(get().error(), unreachable);
  EXPECT_EQ(errors_.of(inode_)->error, unreachable);
  server.reset();
  EXPECT_EQ(get().error(), missing);
}

TEST_F(ContentStoreTest, ContentsOfAnotherSizeThanToldAreRefused) {
  extension_.cutContents(true);
  EXPECT_FALSE(get());
  EXPECT_THAT(filesHere(), IsEmpty());
  EXPECT_TRUE(std::filesystem::is_empty(folder_ + "/fetched"));
}

TEST_F(ContentStoreTest, UnknownItemsAndFoldersHaveNoContents) {
  for (const Inode inode : {Inode{999}, ROOT_INODE, *replica_->inodeOf({"10"})}) {
    inode_ = inode;
    EXPECT_EQ(get().error().code, NO_SUCH_ITEM);
  }
}

TEST_F(ContentStoreTest, ANewVersionDropsTheOldContents) {
  const auto old = *get();
  announce({extension_.addFile("11", ROOT, "a", "second", 2)});
  EXPECT_EQ(store_->state(inode_), ContentState::absent);
  EXPECT_THAT(filesHere(), IsEmpty());
  EXPECT_EQ(store_->bytesHere(), 0);
  EXPECT_EQ(textOf(old), "contents") << "an open file stays as it was";
  EXPECT_EQ(textOf(*get()), "second");
}

TEST_F(ContentStoreTest, OtherNewsLeavesTheContentsAlone) {
  get();
  announce({extension_.addFile("11", ROOT, "renamed", "contents", 1)});
  EXPECT_EQ(store_->state(inode_), ContentState::clean);
  EXPECT_NE(store_->current(inode_), nullptr);
}

TEST_F(ContentStoreTest, AVersionThatTheReplicaHasNotHeardOfIsPassedOnToIt) {
  extension_.addFile("11", ROOT, "a", "newer contents", 2);
  EXPECT_EQ(textOf(*get()), "newer contents");
  EXPECT_EQ(replica_->attributes(inode_)->size, 14);
  EXPECT_EQ(store_->state(inode_), ContentState::clean);
  EXPECT_EQ(extension_.fetchesOf("11"), 1);
}

TEST_F(ContentStoreTest, ContentsThatChangeDuringTheFetchAreFetchedAgain) {
  const auto newest = FakeExtension::file("11", ROOT, "a", "newest", 3);
  extension_.beforeFetchAnswer([&] {
    if (extension_.fetchesOf("11") > 1) return;
    extension_.add(newest, "newest");
    replica_->applyNews({newest}, {});
  });
  EXPECT_EQ(textOf(*get()), "newest");
  EXPECT_EQ(extension_.fetchesOf("11"), 2);
  EXPECT_THAT(filesHere(), SizeIs(1));
}

TEST_F(ContentStoreTest, ContentsThatNeverHoldStillFail) {
  int version = 10;
  extension_.beforeFetchAnswer(
      [&] { replica_->applyNews({FakeExtension::file("11", ROOT, "a", "x", ++version)}, {}); });
  EXPECT_FALSE(get());
  EXPECT_EQ(extension_.fetchesOf("11"), ContentStore::MAX_ATTEMPTS);
  EXPECT_THAT(filesHere(), IsEmpty());
}

TEST_F(ContentStoreTest, AnItemThatGoesDuringTheFetchIsNoLongerThere) {
  extension_.holdAnswers();
  const auto answer = require();
  announce({}, {{"11"}});
  EXPECT_EQ(extension_.cancelledFetches(), 1) << "nobody needs it";
  EXPECT_EQ(answer->value().error().code, NO_SUCH_ITEM);
  EXPECT_EQ(store_->state(inode_), ContentState::absent);
}

TEST_F(ContentStoreTest, EvictingGivesTheRoomBackButNotDuringAFetch) {
  EXPECT_FALSE(store_->evict(inode_)) << "nothing to do";
  const auto open = *get();
  EXPECT_FALSE(store_->evict(inode_));
  scheduler_.runUntilIdle();
  EXPECT_THAT(filesHere(), IsEmpty());
  EXPECT_EQ(store_->bytesHere(), 0);
  EXPECT_EQ(textOf(open), "contents");
  extension_.holdAnswers();
  require();
  EXPECT_EQ(store_->evict(inode_)->code, EBUSY);
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(store_->state(inode_), ContentState::clean);
  EXPECT_EQ(extension_.fetchesOf("11"), 2);
}

TEST_F(ContentStoreTest, ContentsThatSomebodyRemovedAreFetchedAgain) {
  for (const bool folderToo : {false, true}) {
    EXPECT_EQ(textOf(*get()), "contents");
    for (const auto& name : filesHere()) std::filesystem::remove(folder_ + "/contents/" + name);
    if (folderToo) std::filesystem::remove(folder_ + "/contents");
    EXPECT_EQ(textOf(*get()), "contents") << folderToo;
    EXPECT_EQ(store_->bytesHere(), 8) << folderToo;
    EXPECT_THAT(filesHere(), SizeIs(1)) << folderToo;
  }
  EXPECT_EQ(extension_.fetchesOf("11"), 3);
  struct stat status{};
  ::stat((folder_ + "/contents").c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
}

TEST_F(ContentStoreTest, AfterARestartWhatIsHereCountsAndTheRestGoes) {
  get();
  inode_ = *replica_->inodeOf({"12"});
  get();
  const Inode other = inode_;
  inode_ = *replica_->inodeOf({"11"});
  const auto otherFile = fmt::format("{}/contents/{}-{:016x}", folder_, other, replica_->attributes(other)->contentTag);
  stop();
  std::filesystem::resize_file(otherFile, 2);  // as after power loss
  for (const auto* name : {"999-0123456789abcdef", "11-0123456789abcdef", "5-0123456789abcdef.part"})
    std::ofstream(folder_ + "/contents/" + name) << "left over";
  extension_.failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  start();
  EXPECT_EQ(textOf(*get()), "contents");
  EXPECT_EQ(store_->state(other), ContentState::absent);
  EXPECT_THAT(filesHere(), SizeIs(1));
  EXPECT_EQ(store_->bytesHere(), 8);
}

TEST_F(ContentStoreTest, AVersionThatChangedWhileTheServiceWasDownIsNotServed) {
  get();
  stop();
  extension_.addFile("11", ROOT, "a", "CONTENTS", 2);
  {
    const auto replica = *Replica::open(folder_ + "/replica.sqlite");
    replica->applyNews({FakeExtension::file("11", ROOT, "a", "CONTENTS", 2)}, {});
  }
  start();
  EXPECT_EQ(textOf(*get()), "CONTENTS");
}

TEST_F(ContentStoreTest, AFileThatSomebodyDeletedIsFetchedAgain) {
  get();
  std::filesystem::remove(folder_ + "/contents/" + filesHere()[0]);
  EXPECT_EQ(textOf(*get()), "contents");
  EXPECT_EQ(extension_.fetchesOf("11"), 2);
}

TEST_F(ContentStoreTest, ClosingEndsEveryWait) {
  extension_.holdAnswers();
  const auto answer = require();
  const Error closing("Test", 1);
  store_->close(closing);
  EXPECT_EQ(answer->value().error(), closing);
  EXPECT_EQ(extension_.cancelledFetches(), 1);
  EXPECT_EQ(get().error(), closing);
}

}  // namespace
}  // namespace vondle
