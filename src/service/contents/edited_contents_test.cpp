#include "service/contents/edited_contents.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "testing/captured_log.h"
#include "testing/fake_extension.h"
#include "testing/simulated_random.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string ROOT = ROOT_CONTAINER.text;
constexpr Request VIEWER{.isFileViewerRequest = true};
using FileAnswer = Result<std::shared_ptr<EditedFile>>;

std::string textOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class EditedContentsTest : public testing::Test {
 protected:
  EditedContentsTest() {
    extension_.addFile("11", ROOT, "a.txt", "contents");
    start();
    tree_->applyListing(ROOT_INODE, {extension_.addFile("11", ROOT, "a.txt", "contents")}, [](const Result<void>&) {});
    scheduler_.runUntilIdle();
    inode_ = *replica_->inodeOf({"11"});
  }
  ~EditedContentsTest() override {
    stop();
    std::filesystem::remove_all(folder_);
  }

  static std::string makeFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-edits-XXXXXX").native();
    const std::string folder = ::mkdtemp(pattern.data());
    std::filesystem::create_directory(folder + "/fetched");
    return folder;
  }

  void start() {
    replica_ = *Replica::open(folder_ + "/replica.sqlite");
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    edits_ = *LocalEdits::open(folder_ + "/edits.sqlite", *tree_, scheduler_, random_);
    store_ = *ContentStore::open(folder_ + "/contents", *tree_, extension_, errors_, scheduler_, scheduler_);
    tree_->subscribe([this](const auto& changes) { store_->apply(changes); });
    edited_ = *EditedContents::open(folder_ + "/edits", store_, edits_, *tree_, scheduler_, scheduler_);
    scheduler_.runUntilIdle();
  }
  void stop() {
    store_->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
    extension_.letAnswersGo();
    scheduler_.advance(seconds(10));
    edited_.reset();
    edits_.reset();
    store_.reset();
    tree_.reset();
    replica_.reset();
  }

  std::shared_ptr<std::optional<FileAnswer>> require(bool keepsContents = true,
                                                     const std::shared_ptr<Progress>& wait = nullptr) {
    auto answer = std::make_shared<std::optional<FileAnswer>>();
    edited_->require(inode_, keepsContents, VIEWER, wait, [answer](const FileAnswer& result) { *answer = result; });
    scheduler_.runUntilIdle();
    return answer;
  }
  std::shared_ptr<EditedFile> get(bool keepsContents = true) {
    const auto answer = require(keepsContents);
    EXPECT_TRUE(*answer && **answer);
    return *answer && **answer ? ***answer : nullptr;
  }
  void write(EditedFile& file, std::string_view text) {
    const EditedFile::Lease lease(file);
    ASSERT_TRUE(lease);
    ASSERT_EQ(::pwrite(file.descriptor(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    file.noteUse(scheduler_.monotonic(), true);
  }
  // The edit as it is sent, and its file.
  Edit beginEdit() {
    std::optional<Edit> sent;
    edits_->beginSending(edits_->ofItem(inode_)->id, [&](std::optional<Edit> now) { sent = std::move(now); });
    scheduler_.runUntilIdle();
    return *sent;
  }
  EditedContents::Outgoing beginSending(std::int64_t number, const std::string& filename = "a.txt") {
    edited_->tellOfChange(inode_);
    scheduler_.runUntilIdle();
    return *edited_->beginSending(number, filename);
  }
  LocalEdits::Outcome succeed(const Edit& sent, const Item& item, bool hasTheseBytes = true) {
    LocalEdits::Outcome outcome;
    edits_->succeeded(sent, EDIT_CONTENTS, {.item = item, .hasGivenContents = hasTheseBytes},
                      [&](const LocalEdits::Outcome& result) { outcome = result; });
    scheduler_.runUntilIdle();
    return outcome;
  }
  void announce(const Item& item) {
    tree_->applyUpdates({item}, [] {});
    scheduler_.runUntilIdle();
  }
  std::vector<std::string> files(const std::string& folder = "/edits") {
    std::vector<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(folder_ + folder))
      if (file.is_regular_file()) names.push_back(file.path().filename());
    return names;
  }

  const std::string folder_ = makeFolder();
  VirtualScheduler scheduler_;
  SimulatedRandom random_;
  FakeExtension extension_{folder_ + "/fetched"};
  LastErrors errors_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<LocalEdits> edits_;
  std::shared_ptr<ContentStore> store_;
  std::shared_ptr<EditedContents> edited_;
  Inode inode_ = 0;
};

TEST_F(EditedContentsTest, WhatIsNotHereIsFetchedAndBecomesThePrivateFile) {
  const auto file = get();
  ASSERT_TRUE(file);
  EXPECT_EQ(textOf(file->path()), "contents");
  EXPECT_EQ(edited_->find(inode_), file);
  EXPECT_EQ(store_->state(inode_), ContentState::edited);
  EXPECT_THAT(files("/contents"), IsEmpty()) << "without copying";
  EXPECT_EQ(edits_->ofItem(inode_)->contents, file->number());
  EXPECT_EQ(get(), file) << "once it is there it stays";
  EXPECT_EQ(extension_.fetchesOf("11"), 1);
}

TEST_F(EditedContentsTest, WhatIsNotNeededIsNotFetched) {
  const auto file = get(false);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->size(), 0);
  EXPECT_EQ(extension_.fetchesOf("11"), 0);
}

TEST_F(EditedContentsTest, AllWhoWriteShareOneEdit) {
  extension_.holdAnswers();
  const auto one = require(), other = require();
  EXPECT_FALSE(*one);
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(***one, ***other);
  EXPECT_EQ(edits_->pendingCount(), 1U);
}

TEST_F(EditedContentsTest, WhenNobodyWaitsTheDownloadIsCancelledAndNothingIsEdited) {
  extension_.holdAnswers();
  const auto wait = Progress::make();
  const auto answer = require(true, wait);
  wait->cancel();
  scheduler_.runUntilIdle();
  ASSERT_TRUE(*answer);
  EXPECT_TRUE((*answer)->error().is(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_EQ(extension_.cancelledFetches(), 1);
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(textOf(get()->path()), "contents") << "and can be later";
}

TEST_F(EditedContentsTest, ADownloadThatFailsIsTheAnswer) {
  extension_.failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  const auto answer = require();
  ASSERT_TRUE(*answer);
  EXPECT_TRUE((*answer)->error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  EXPECT_EQ(edited_->find(inode_), nullptr);
}

TEST_F(EditedContentsTest, ContentsThatChangeOnTheServerMeanwhileAreFetchedAgain) {
  extension_.holdAnswers();
  const auto answer = require();
  extension_.letOneGo();
  // The news comes between the file's becoming private and the edit's being recorded, whatever the steps are.
  announce(extension_.addFile("11", ROOT, "a.txt", "newer contents", 2));
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  ASSERT_TRUE(*answer && **answer);
  const auto text = textOf((***answer)->path());
  const auto base = edits_->ofItem(inode_)->baseVersion.contentVersion;
  EXPECT_EQ(text, base.starts_with("2-") ? "newer contents" : "contents") << base;
}

TEST_F(EditedContentsTest, EditedContentsAreNeitherEvictedNorFetchedOver) {
  write(*get(), "CONTENTS");
  EXPECT_TRUE(store_->evict(inode_)->is(POSIX_ERROR_DOMAIN, EBUSY));
  announce(extension_.addFile("11", ROOT, "a.txt", "from elsewhere", 2));
  EXPECT_EQ(textOf(edited_->find(inode_)->path()), "CONTENTS");
  std::optional<std::int64_t> size;
  store_->require(inode_, VIEWER, nullptr, [&](const auto& result) { size = (*result)->size(); });
  scheduler_.runUntilIdle();
  EXPECT_EQ(size, 8);
  EXPECT_EQ(extension_.fetchesOf("11"), 1);
}

TEST_F(EditedContentsTest, WhatWasSentBecomesTheDownloadedCopy) {
  const auto file = get();
  write(*file, "CONTENTS");
  std::vector<std::optional<std::uint64_t>> settled;
  edited_->onSettled([&](Inode, std::optional<std::uint64_t> tag) { settled.push_back(tag); });
  const auto outgoing = beginSending(file->number());
  const auto sent = beginEdit();
  EXPECT_TRUE(outgoing.path.ends_with(".txt"));
  EXPECT_EQ(store_->state(inode_), ContentState::uploading);
  const auto outcome = succeed(sent, extension_.addFile("11", ROOT, "a.txt", "CONTENTS", 2));
  edited_->endSending(outgoing, outcome, true);
  scheduler_.runUntilIdle();
  EXPECT_EQ(edited_->find(inode_), nullptr);
  EXPECT_EQ(store_->state(inode_), ContentState::clean);
  ASSERT_TRUE(store_->current(inode_));
  EXPECT_THAT(settled, ElementsAre(std::optional(store_->current(inode_)->tag())));
  scheduler_.advance(EditedContents::REMOVAL_DELAY);
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_EQ(textOf(get()->path()), "CONTENTS");
  EXPECT_EQ(extension_.fetchesOf("11"), 1);
}

TEST_F(EditedContentsTest, WhereTheServerHasOthersTheyAreFetchedAnew) {
  const auto file = get();
  write(*file, "CONTENTS");
  std::vector<std::optional<std::uint64_t>> settled;
  edited_->onSettled([&](Inode, std::optional<std::uint64_t> tag) { settled.push_back(tag); });
  const auto outgoing = beginSending(file->number());
  const auto sent = beginEdit();
  const auto outcome = succeed(sent, extension_.addFile("11", ROOT, "a.txt", "somebody else's", 2), false);
  edited_->endSending(outgoing, outcome, false);
  scheduler_.runUntilIdle();
  EXPECT_EQ(edited_->find(inode_), nullptr);
  EXPECT_EQ(store_->state(inode_), ContentState::absent);
  EXPECT_THAT(settled, ElementsAre(std::nullopt));
  EXPECT_EQ(textOf(get()->path()), "somebody else's");
}

TEST_F(EditedContentsTest, AFileThatIsBeingSentIsCopiedForWhoWrites) {
  const auto file = get();
  write(*file, "CONTENTS");
  const auto outgoing = beginSending(file->number());
  const auto sent = beginEdit();
  const auto copy = get();
  ASSERT_NE(copy, file);
  EXPECT_EQ(textOf(copy->path()), "CONTENTS");
  write(*copy, "written");
  EXPECT_EQ(textOf(outgoing.path), "CONTENTS");
  EXPECT_EQ(edits_->ofItem(inode_)->contents, copy->number());
  const auto outcome = succeed(sent, extension_.addFile("11", ROOT, "a.txt", "CONTENTS", 2));
  EXPECT_TRUE(outcome.isContentsDone);
  edited_->endSending(outgoing, outcome, true);
  scheduler_.advance(EditedContents::REMOVAL_DELAY);
  EXPECT_EQ(edited_->find(inode_), copy) << "which is still to be sent";
  EXPECT_EQ(store_->state(inode_), ContentState::edited);
  EXPECT_THAT(files(), ElementsAre(std::to_string(copy->number())));
}

TEST_F(EditedContentsTest, AFileThatCouldNotBeSentIsWrittenToAgain) {
  const auto file = get();
  const auto outgoing = beginSending(file->number());
  EXPECT_FALSE(EditedFile::Lease(*file));
  edited_->endSending(outgoing, {}, false);
  EXPECT_EQ(get(), file);
  EXPECT_EQ(store_->state(inode_), ContentState::edited);
  EXPECT_FALSE(std::filesystem::exists(outgoing.path));
}

TEST_F(EditedContentsTest, AFileThatMayHaveArrivedStaysAsItWasSent) {
  for (const bool restarts : {false, true}) {
    auto file = get();
    write(*file, restarts ? "AGAINxxx" : "CONTENTS");
    const auto sentText = textOf(file->path());
    auto outgoing = beginSending(file->number());
    const auto sent = beginEdit();
    edits_->noteAttempt(sent.id, {sent.place, sent.contents, sent.generation},
                        [](const Result<void>& noted) { EXPECT_TRUE(noted); });
    scheduler_.runUntilIdle();
    if (restarts) {
      file.reset();
      stop();
      start();
      EXPECT_TRUE(edited_->find(inode_)->isFrozen());
    } else {
      edited_->suspendSending(outgoing);
      edits_->abandonSending(sent.id);
    }
    EXPECT_FALSE(std::filesystem::exists(outgoing.path));
    EXPECT_EQ(store_->state(inode_), ContentState::edited);
    const auto copy = get();
    EXPECT_NE(copy->number(), sent.contents);
    write(*copy, "written");
    scheduler_.advance(EditedContents::REMOVAL_DELAY);
    outgoing = *edited_->beginSending(sent.contents, "a.txt");
    EXPECT_EQ(textOf(outgoing.path), sentText);
    const auto outcome = succeed(sent, extension_.addFile("11", ROOT, "a.txt", sentText, restarts ? 3 : 2));
    edited_->endSending(outgoing, outcome, true);
    scheduler_.advance(EditedContents::REMOVAL_DELAY);
    EXPECT_EQ(edited_->find(inode_), copy) << "which is still to be sent";
    EXPECT_THAT(files(), ElementsAre(std::to_string(copy->number())));
  }
}

TEST_F(EditedContentsTest, AFileThatMayHaveArrivedGoesWhenNobodyWillAskAfterIt) {
  auto file = get();
  write(*file, "CONTENTS");
  const auto outgoing = beginSending(file->number());
  const auto sent = beginEdit();
  edits_->noteAttempt(sent.id, {sent.place, sent.contents, sent.generation},
                      [](const Result<void>& noted) { EXPECT_TRUE(noted); });
  scheduler_.runUntilIdle();
  edited_->suspendSending(outgoing);
  edits_->abandonSending(sent.id);
  const auto number = file->number();
  file.reset();
  edits_->removeFile(ROOT_INODE, "a.txt", [](const Result<void>& removed) { EXPECT_TRUE(removed); });
  scheduler_.runUntilIdle();
  EXPECT_THAT(files(), ElementsAre(std::to_string(number))) << "while it may have to be compared";
  edits_->deleted(*edits_->find(sent.id), [](const Result<void>&) {});
  scheduler_.runUntilIdle();
  edited_->dropUnasked();
  scheduler_.advance(EditedContents::REMOVAL_DELAY);
  EXPECT_THAT(files(), ElementsAre());
}

TEST_F(EditedContentsTest, WhatWasToBeEmptiedStaysWhenThatIsInterrupted) {
  const auto wait = Progress::make();
  std::optional<Error> refused;
  edited_->require(inode_, false, {}, wait, [&](const Result<std::shared_ptr<EditedFile>>& result) {
    ASSERT_FALSE(result);
    refused = result.error();
  });
  wait->cancel();
  scheduler_.runUntilIdle();
  EXPECT_TRUE(refused);
  EXPECT_EQ(edited_->find(inode_), nullptr);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_THAT(files(), ElementsAre());
}

TEST_F(EditedContentsTest, WhatIsWrittenToOrMissingIsNotSent) {
  const auto file = get();
  {
    const EditedFile::Lease lease(*file);
    EXPECT_TRUE(edited_->beginSending(file->number(), "a").error().is(POSIX_ERROR_DOMAIN, EBUSY));
  }
  write(*file, "x");
  EXPECT_TRUE(edited_->beginSending(file->number(), "a").error().is(POSIX_ERROR_DOMAIN, EBUSY))
      << "the queue has not heard of it";
  EXPECT_TRUE(edited_->beginSending(file->number(), "a")) << "but has now";
  const auto made = *edited_->makeEmpty();
  EXPECT_TRUE(edited_->beginSending(made->number(), "a").error().is(POSIX_ERROR_DOMAIN, EBUSY)) << "not told of yet";
  EXPECT_TRUE(edited_->beginSending(1, "a").error().is(POSIX_ERROR_DOMAIN, ENOENT));
}

TEST_F(EditedContentsTest, AFileSettlesSoonerWhenItIsClosed) {
  const auto file = get();
  scheduler_.advance(seconds(100));
  EXPECT_EQ(edited_->busyUntil(inode_, seconds(1), seconds(30)), std::nullopt);
  edited_->openedForWriting(inode_);
  EXPECT_EQ(edited_->busyUntil(inode_, seconds(1), seconds(30)), std::nullopt) << "opening is not writing";
  write(*file, "x");
  const auto now = scheduler_.now().secondsSince1970;
  EXPECT_EQ(edited_->busyUntil(inode_, seconds(1), seconds(30)), Timestamp{now + 30});
  edited_->closedForWriting(inode_);
  EXPECT_EQ(edited_->busyUntil(inode_, seconds(1), seconds(30)), Timestamp{now + 1});
  scheduler_.advance(seconds(1));
  EXPECT_EQ(edited_->busyUntil(inode_, seconds(1), seconds(30)), std::nullopt);
}

TEST_F(EditedContentsTest, AfterARestartTheFilesAreThereAndWhatWasLeftOverIsNot) {
  write(*get(), "CONTENTS");
  const auto number = edited_->find(inode_)->number();
  stop();
  std::ofstream(folder_ + "/edits/12") << "left over";
  std::filesystem::permissions(folder_ + "/edits/12", std::filesystem::perms::owner_all);
  std::ofstream(folder_ + "/edits/13.part") << "left over";
  std::ofstream(folder_ + "/edits/14");
  start();
  ASSERT_TRUE(edited_->find(inode_));
  EXPECT_EQ(textOf(edited_->find(inode_)->path()), "CONTENTS");
  EXPECT_THAT(files(), ElementsAre(std::to_string(number)));
  EXPECT_EQ(store_->state(inode_), ContentState::edited);
  EXPECT_GT((*edited_->makeEmpty())->number(), number);
}

TEST_F(EditedContentsTest, WithoutTheReplicaTheFilesStayUntilTheirItemsAreSeen) {
  const auto other = extension_.addFile("12", ROOT, "b.txt", "contents");
  announce(other);
  write(*get(), "CONTENT1");
  const auto number = edits_->ofItem(inode_)->contents;
  inode_ = *replica_->inodeOf({"12"});
  write(*get(), "CONTENT2");
  const auto otherNumber = edits_->ofItem(inode_)->contents;
  stop();
  for (const auto* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(folder_ + "/replica.sqlite" + suffix);
  start();
  scheduler_.advance(seconds(100));
  EXPECT_THAT(files(), testing::UnorderedElementsAre(std::to_string(number), std::to_string(otherNumber)));
  const auto outgoing = edited_->beginSending(number, "a.txt");
  ASSERT_TRUE(outgoing) << "the queue needs no folder to be looked into";
  EXPECT_EQ(textOf(outgoing->path), "CONTENT1");
  tree_->applyListing(ROOT_INODE, {extension_.addFile("11", ROOT, "a.txt", "contents"), other},
                      [](const Result<void>&) {});
  scheduler_.runUntilIdle();
  const auto inode = *replica_->inodeOf({"11"});
  ASSERT_TRUE(edited_->find(inode));
  EXPECT_EQ(textOf(edited_->find(inode)->path()), "CONTENT1");
  EXPECT_EQ(store_->state(inode), ContentState::uploading);
  edited_->endSending(*outgoing, {}, false);
  EXPECT_EQ(store_->state(inode), ContentState::edited);
  inode_ = *replica_->inodeOf({"12"});
  EXPECT_EQ(textOf(get()->path()), "CONTENT2");
  EXPECT_EQ(get()->number(), otherNumber);
}

TEST_F(EditedContentsTest, WithoutTheReplicaWhatIsSentIsDoneWith) {
  write(*get(), "CONTENTS");
  const auto edit = *edits_->ofItem(inode_);
  stop();
  for (const auto* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(folder_ + "/replica.sqlite" + suffix);
  start();
  const auto outgoing = *edited_->beginSending(edit.contents, "a.txt");
  const auto outcome = succeed(edit, extension_.addFile("11", ROOT, "a.txt", "CONTENTS", 2));
  EXPECT_TRUE(outcome.isContentsDone);
  edited_->endSending(outgoing, outcome, true);
  scheduler_.advance(EditedContents::REMOVAL_DELAY);
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(EditedContentsTest, WhatTheQueueDoesNotRememberIsKeptAndCanBeHadBack) {
  write(*get(), "CONTENTS");
  const auto name = std::to_string(edited_->find(inode_)->number());
  stop();
  for (const char* suffix : {"", "-wal", "-shm"})
    if (std::filesystem::exists(folder_ + "/edits.sqlite" + suffix))
      std::filesystem::rename(folder_ + "/edits.sqlite" + suffix, folder_ + "/away" + suffix);
  CapturedLog log;
  start();
  EXPECT_EQ(edited_->find(inode_), nullptr);
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(files("/edits/lost+found"), ElementsAre(name));
  EXPECT_EQ(textOf(folder_ + "/edits/lost+found/" + name), "CONTENTS");
  EXPECT_THAT(log.messages(LogLevel::error), Contains("1 file(s) of changes that the queue does not know are kept in " +
                                                      folder_ + "/edits/lost+found"));
  scheduler_.setWallClock({0});
  stop();
  start();
  EXPECT_THAT(files("/edits/lost+found"), ElementsAre(name)) << "also at the next start";
  EXPECT_GT((*edited_->makeEmpty())->number(), std::stoll(name)) << "and no other file is named so";
  stop();

  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::filesystem::remove(folder_ + "/edits.sqlite" + suffix);
    if (std::filesystem::exists(folder_ + "/away" + suffix))
      std::filesystem::rename(folder_ + "/away" + suffix, folder_ + "/edits.sqlite" + suffix);
  }
  start();
  ASSERT_TRUE(edited_->find(inode_));
  EXPECT_EQ(textOf(edited_->find(inode_)->path()), "CONTENTS");
  EXPECT_THAT(files("/edits/lost+found"), IsEmpty());
}

// Whatever the process was killed at: what the queue is done with is not what it has forgotten.
TEST_F(EditedContentsTest, WhatIsDoneWithIsMarkedBeforeItGoes) {
  const auto isMarked = [&](const std::shared_ptr<EditedFile>& file) { return EditedFile::isDoneWith(file->path()); };
  const auto sent = get();
  write(*sent, "CONTENTS");
  EXPECT_FALSE(isMarked(sent));
  const auto outgoing = beginSending(sent->number());
  const auto edit = beginEdit();
  EXPECT_FALSE(isMarked(sent));
  const auto copy = get();
  EXPECT_TRUE(isMarked(sent)) << "the copy is the item's contents";
  EXPECT_FALSE(isMarked(copy));
  edited_->endSending(outgoing, succeed(edit, extension_.addFile("11", ROOT, "a.txt", "CONTENTS", 2)), true);

  write(*copy, "THEIRS AND MINE");
  const auto again = beginSending(copy->number());
  const auto secondEdit = beginEdit();
  const auto outcome = succeed(secondEdit, extension_.addFile("11", ROOT, "a.txt", "THEIRS AND MINE", 3));
  EXPECT_FALSE(isMarked(copy));
  edited_->endSending(again, outcome, true);
  EXPECT_TRUE(isMarked(copy)) << "the server has it";
  scheduler_.runUntilIdle();

  const auto removed = get();
  EXPECT_FALSE(isMarked(removed));
  edits_->removeFile(ROOT_INODE, "a.txt", [](const Result<void>& done) { EXPECT_TRUE(done); });
  scheduler_.runUntilIdle();
  EXPECT_TRUE(isMarked(removed));
}

// Both names are of one file: the downloaded copy that the first became is made into the second.
TEST_F(EditedContentsTest, WhatIsWrittenToRightAfterItWasSentIsNotLeftOverOfTheFormer) {
  const auto former = get();
  write(*former, "CONTENTS");
  const auto outgoing = beginSending(former->number());
  const auto edit = beginEdit();
  edited_->endSending(outgoing, succeed(edit, extension_.addFile("11", ROOT, "a.txt", "CONTENTS", 2)), true);
  scheduler_.runUntilIdle();
  write(*get(), "AGAIN");
  ASSERT_EQ(files().size(), 2U) << "the former is about to be removed";

  edited_ = *EditedContents::open(folder_ + "/edits", store_, edits_, *tree_, scheduler_, scheduler_);
  EXPECT_EQ(files(), std::vector{std::to_string(edited_->find(inode_)->number())});
  EXPECT_EQ(textOf(edited_->find(inode_)->path()), "AGAINNTS");
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/edits/lost+found"));
}

TEST_F(EditedContentsTest, WhatWasChangedAfterItWasSentIsNotDoneWith) {
  const auto file = get();
  write(*file, "CONTENTS");
  const auto outgoing = beginSending(file->number());
  edited_->noteSent(outgoing);
  EXPECT_TRUE(EditedFile::isDoneWith(file->path()));
  edited_->endSending(outgoing, {.inode = inode_, .isContentsDone = false, .contentTag = 0}, true);
  EXPECT_FALSE(EditedFile::isDoneWith(file->path()));
}

TEST_F(EditedContentsTest, AMissingFileIsSurvived) {
  get();
  const auto path = edited_->find(inode_)->path();
  stop();
  std::filesystem::remove(path);
  start();
  EXPECT_EQ(edited_->find(inode_), nullptr);
}

TEST_F(EditedContentsTest, ThePrivateFileOfWhatIsRemovedGoesWhenTheQueueIsSureToKnow) {
  get();
  edits_->removeFile(ROOT_INODE, "a.txt", [](const Result<void>& done) { EXPECT_TRUE(done); });
  scheduler_.runUntilIdle();
  EXPECT_EQ(edited_->find(inode_), nullptr);
  EXPECT_EQ(files().size(), 1U);
  scheduler_.advance(EditedContents::REMOVAL_DELAY);
  EXPECT_THAT(files(), IsEmpty());
}

}  // namespace
}  // namespace vondle
