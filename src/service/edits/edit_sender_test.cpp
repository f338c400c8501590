#include "service/edits/edit_sender.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "service/follow/keep_action.h"
#include "service/listing/folder_listing.h"
#include "testing/captured_log.h"
#include "testing/sending_rig.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

const std::string ROOT = ROOT_CONTAINER.text;

Error full() {
  return {FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA, "Vondle is full."};
}

using EditSenderTest = SendingRig;

TEST_F(EditSenderTest, WhatProgramsMakeGoesUpWhenItHasComeToRest) {
  begin();
  makeFolder("d");
  create("d/a.txt", "hello");
  scheduler_.advance(seconds(0.9));
  EXPECT_THAT(changes(), IsEmpty());
  scheduler_.advance(seconds(0.2));
  EXPECT_THAT(changes(), ElementsAre("create d", "create a.txt"));
  EXPECT_THAT(server(), ElementsAre("d/", "d/a.txt=hello"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_TRUE(extension_->lastRequest().isSystemRequest);
  EXPECT_FALSE(extension_->lastRequest().isFileViewerRequest);
  scheduler_.advance(seconds(10));
  EXPECT_EQ(scheduler_.timerCount(), 0U) << "nothing runs when nothing waits";
}

TEST_F(EditSenderTest, ANewFilesContentsAreItsDownloadedCopyAfterwards) {
  begin();
  create("a.txt", "hello");
  settle();
  EXPECT_NE(contents_->current(at("a.txt")), nullptr);
  EXPECT_EQ(edited_->find(at("a.txt")), nullptr);
}

// The process may end right then.
TEST_F(EditSenderTest, WhatTheServerHasIsDoneWithBeforeTheQueueForgetsIt) {
  begin();
  create("a.txt", "hello");
  int files = 0;
  tree_->subscribe([&](const auto&) {
    if (edits_->pendingCount() > 0) return;
    for (const auto& file : std::filesystem::directory_iterator(folder_ + "/edits")) {
      if (!file.is_regular_file()) continue;
      EXPECT_TRUE(EditedFile::isDoneWith(file.path()));
      ++files;
    }
  });
  settle();
  EXPECT_GT(files, 0);
}

TEST_F(EditSenderTest, SavesInARowGoUpOnce) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  for (int i = 0; i < 10; ++i) {
    write("a.txt", fmt::format("save {}", i));
    scheduler_.advance(seconds(0.5));
  }
  EXPECT_THAT(changes(), IsEmpty());
  settle();
  EXPECT_THAT(changes(), ElementsAre("contents a.txt"));
  EXPECT_THAT(server(), ElementsAre("a.txt=save 9"));
}

TEST_F(EditSenderTest, ContentsGoBeforeTheNewNameOfTheSameItem) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "new");
  move("a.txt", "b.txt");
  settle();
  EXPECT_THAT(changes(), ElementsAre("contents a.txt", "place a.txt -> b.txt"));
  EXPECT_THAT(server(), ElementsAre("b.txt=new"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, AFileThatIsOpenForWritingWaitsUntilItIsClosedOrLeftAlone) {
  begin();
  create("a.txt", "half");
  edited_->openedForWriting(at("a.txt"));
  scheduler_.advance(seconds(20));
  EXPECT_THAT(changes(), IsEmpty());
  edited_->closedForWriting(at("a.txt"));
  create("b.txt", "left open");
  edited_->openedForWriting(at("b.txt"));
  settle();
  EXPECT_THAT(changes(), ElementsAre("create a.txt"));
  scheduler_.advance(seconds(32));
  EXPECT_THAT(changes(), ElementsAre("create a.txt", "create b.txt"));
}

TEST_F(EditSenderTest, AnEditOfWhatIsBeingSentGoesUpAfterwards) {
  begin();
  create("a.txt", "one");
  extension_->holdAnswers();
  settle();
  ASSERT_EQ(extension_->heldCount(), 1U);
  write("a.txt", "two");
  extension_->letAnswersGo();
  settle();
  settle();
  EXPECT_THAT(changes(), ElementsAre("create a.txt", "contents a.txt"));
  EXPECT_THAT(server(), ElementsAre("a.txt=two"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, ANewFileThatIsRenamedWhileItIsBeingSentIsRenamedThere) {
  begin();
  create("a.txt", "one");
  extension_->holdAnswers();
  settle();
  move("a.txt", "b.txt");
  extension_->letAnswersGo();
  settle();
  EXPECT_THAT(server(), ElementsAre("b.txt=one"));
}

TEST_F(EditSenderTest, ANewFileThatIsDeletedWhileItIsBeingSentIsDeletedThere) {
  begin();
  create("a.txt", "one");
  extension_->holdAnswers();
  settle();
  remove("a.txt");
  extension_->letAnswersGo();
  settle();
  EXPECT_THAT(server(), IsEmpty());
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, ItemsGoSideBySideButNotTooMany) {
  begin();
  const std::string large(EditSender::SMALL_BYTES + 1, 'x');
  for (int i = 0; i < 30; ++i) create(fmt::format("f{:02}", i), large);
  extension_->holdAnswers();
  settle();
  EXPECT_EQ(extension_->heldCount(), EditSender::AT_ONCE);
  extension_->letAnswersGo();
  settle();
  EXPECT_EQ(server().size(), 30U);
  EXPECT_EQ(extension_->mostChangesAtOnce(), EditSender::AT_ONCE);
}

TEST_F(EditSenderTest, MoreSmallOnesGoSideBySide) {
  begin();
  const std::string small(EditSender::SMALL_BYTES, 'x');
  for (int i = 0; i < 60; ++i) create(fmt::format("f{:02}", i), i % 2 == 0 ? small : "");
  extension_->holdAnswers();
  settle();
  EXPECT_EQ(extension_->heldCount(), EditSender::SMALL_AT_ONCE);
  extension_->letAnswersGo();
  settle();
  EXPECT_EQ(server().size(), 60U);
  EXPECT_EQ(extension_->mostChangesAtOnce(), EditSender::SMALL_AT_ONCE);
}

TEST_F(EditSenderTest, SmallOnesDoNotWaitForLargeOnes) {
  begin();
  const std::string large(EditSender::SMALL_BYTES + 1, 'x');
  for (std::size_t i = 0; i < EditSender::AT_ONCE + 2; ++i) create(fmt::format("large{:02}", i), large);
  create("small", "y");
  extension_->holdAnswers();
  settle();
  EXPECT_EQ(extension_->heldCount(), EditSender::AT_ONCE + 1);
  extension_->letAnswersGo();
  settle();
  EXPECT_EQ(server().size(), EditSender::AT_ONCE + 3);
}

TEST_F(EditSenderTest, ALongQueueGoesUpWhole) {
  begin();
  for (int i = 0; i < 400; ++i) create(fmt::format("f{:03}", i));
  scheduler_.advance(seconds(10));
  EXPECT_EQ(server().size(), 400U);
  EXPECT_EQ(changes().size(), 400U);
}

TEST_F(EditSenderTest, FilesOfTemporaryNamesStayUntilTheyAreRenamed) {
  begin();
  create(".a.odt.swp", "x");
  create("lu1.tmp", "new");
  scheduler_.advance(seconds(50));
  EXPECT_THAT(changes(), IsEmpty());
  EXPECT_EQ(sender_->report()[0].state, SendState::staysHere);
  move("lu1.tmp", "a.odt");
  settle();
  EXPECT_THAT(server(), ElementsAre("a.odt=new"));
  create("kept.tmp", "y");
  scheduler_.advance(seconds(58));
  EXPECT_EQ(server().size(), 1U);
  scheduler_.advance(seconds(4));
  EXPECT_THAT(server(), ElementsAre("a.odt=new", "kept.tmp=y"));
}

TEST_F(EditSenderTest, ADeletedFileGoesToTheTrash) {
  extension_->addFile("1", ROOT, "a.txt", "x");
  begin();
  remove("a.txt");
  settle();
  EXPECT_THAT(changes(), ElementsAre("trash a.txt"));
  EXPECT_EQ(extension_->itemNamed("a.txt")->parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, WhatSomebodyElseHasTrashedIsNotRemovedForGood) {
  extension_->addFile("1", ROOT, "a.txt", "x");
  begin();
  extension_->addFile("1", TRASH_CONTAINER.text, "a.txt", "x");
  remove("a.txt");
  settle();
  EXPECT_TRUE(extension_->itemNamed("a.txt"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, WhatTheServerHasNoMoreCountsAsDeleted) {
  extension_->addFile("1", ROOT, "a.txt", "x");
  begin();
  extension_->remove("1");
  remove("a.txt");
  settle();
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(syncs_, 1);
}

TEST_F(EditSenderTest, WhatIsToGoToAFolderThatHasGoneDoesNotWaitForItForEver) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFolder("e", ROOT, "e");
  extension_->addFile("1", ROOT, "a", "x");
  extension_->addFile("2", ROOT, "b", "y");
  begin();
  list("d");
  list("e");
  extension_->addFolder("d", TRASH_CONTAINER.text, "d");
  extension_->remove("e");
  extension_->failChanges(Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
  move("a", "d/a");
  move("b", "e/b");
  settle();
  // The move counts: it is made anew.
  EXPECT_TRUE(isLocal(*replica_->identifierOf(at("d"))));
  EXPECT_TRUE(isLocal(*replica_->identifierOf(at("e"))));
  EXPECT_NE(at("d/a"), 0U);
  EXPECT_NE(at("e/b"), 0U);
}

TEST_F(EditSenderTest, ADeletionIsNotTakenAsDoneWhileTheServerIsOutOfReach) {
  extension_->addFile("1", ROOT, "a.txt", "x");
  begin();
  extension_->failChanges(Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
  serverError_ = Error(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST, "no network");
  remove("a.txt");
  settle();
  EXPECT_EQ(onlyError(), "no network");
  extension_->failChanges(std::nullopt);
  serverError_ = std::nullopt;
  scheduler_.advance(seconds(6));
  EXPECT_THAT(server(), IsEmpty());
}

// What is known of the item then is not the server's word.
TEST_F(EditSenderTest, KeepingAnItemWhileTheServerIsOutOfReachDoesNotUndoItsMove) {
  extension_->addFile("1", ROOT, "a.txt", "x");
  begin();
  extension_->failChanges(unreachable());
  extension_->failLookups(unreachable());
  move("a.txt", "b.txt");
  std::optional<Error> error;
  KeepAction::start({*tree_, *extension_, contents_, scheduler_}, KeepAction::Kind::keep, at("b.txt"),
                    [&](std::optional<Error> result) { error = std::move(result); });
  scheduler_.runUntilIdle();
  EXPECT_FALSE(error);
  EXPECT_TRUE(replica_->keptBy(at("b.txt")));
  extension_->failChanges(std::nullopt);
  extension_->failLookups(std::nullopt);
  sender_->sendNow();
  scheduler_.advance(seconds(10));
  EXPECT_THAT(server(), ElementsAre("b.txt=x"));
}

TEST_F(EditSenderTest, AFolderIsDeletedAfterWhatWasInIt) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFile("1", "d", "a", "x");
  extension_->addFile("2", "d", "b", "y");
  begin();
  list("d");
  remove("d/a");
  move("d/b", "b");
  removeFolder("d");
  extension_->holdAnswers();
  settle();
  EXPECT_EQ(extension_->heldCount(), 2U);
  extension_->letAnswersGo();
  settle();
  EXPECT_THAT(server(), ElementsAre("b=y"));
  EXPECT_EQ(changes().back(), "trash d");
}

TEST_F(EditSenderTest, AFolderInWhichSomebodyElseHasPutSomethingIsNotDeleted) {
  extension_->addFolder("d", ROOT, "d");
  begin();
  list("d");
  removeFolder("d");
  extension_->addFile("9", "d", "theirs", "x");
  settle();
  EXPECT_THAT(server(), ElementsAre("d/", "d/theirs=x"));
  EXPECT_THAT(changes(), IsEmpty());
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, AFolderIsNotDeletedWhenItCannotBeListed) {
  extension_->addFolder("d", ROOT, "d");
  begin();
  list("d");
  removeFolder("d");
  extension_->failListings(Error(API_ERROR_DOMAIN, 500, "HTTP 500"));
  settle();
  EXPECT_THAT(changes(), IsEmpty());
  EXPECT_EQ(onlyError(), "HTTP 500");
  extension_->failListings(std::nullopt);
  scheduler_.advance(seconds(6));
  EXPECT_THAT(server(), IsEmpty());
}

TEST_F(EditSenderTest, SwappedNamesAreSwappedOnTheServer) {
  extension_->addFile("1", ROOT, "a", "one");
  extension_->addFile("2", ROOT, "b", "two");
  begin();
  move("a", "c");
  move("b", "a");
  move("c", "b");
  settle();
  EXPECT_THAT(server(), ElementsAre("a=two", "b=one"));
  EXPECT_EQ(extension_->itemNamed("a")->itemIdentifier.text, "2");
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, AFolderThatTakesThePlaceOfTheOneItsContentsCameFromArrivesThere) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFile("1", "d", "x", "one");
  begin();
  list("d");
  makeFolder("new");
  move("d/x", "new/x");
  removeFolder("d");
  move("new", "d");
  settle();
  settle();
  EXPECT_THAT(server(), ElementsAre("d/", "d/x=one"));
  EXPECT_EQ(extension_->itemNamed("x")->itemIdentifier.text, "1");
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_NE(at("d/x"), 0U);
}

TEST_F(EditSenderTest, AFailureIsTriedAgainWithGrowingDelaysForEver) {
  begin();
  create("a.txt", "x");
  extension_->failChanges(full());
  settle();
  EXPECT_EQ(onlyError(), "Vondle is full.");
  std::vector<double> delays;
  auto last = scheduler_.monotonic();
  for (std::size_t tries = 1; tries < 12; ++tries) {
    ASSERT_TRUE(scheduler_.runUntil([&] { return changes().size() > tries; }, seconds(400)));
    delays.push_back(std::round(inSeconds(scheduler_.monotonic() - last)));
    last = scheduler_.monotonic();
  }
  EXPECT_THAT(std::vector<double>(delays.begin() + 1, delays.end()),
              ElementsAre(10, 20, 40, 80, 160, 300, 300, 300, 300, 300));
  scheduler_.runUntilIdle();
  EXPECT_EQ(edits_->pending()[0].attempts, 12);
  EXPECT_EQ(sender_->report()[0].state, SendState::waitingToRetry);
  EXPECT_THAT(desktop_->shown, ElementsAre("Vondle is full."));
  EXPECT_EQ(desktop_->visible.size(), 1U);
  extension_->failChanges(std::nullopt);
  scheduler_.advance(seconds(301));
  EXPECT_THAT(server(), ElementsAre("a.txt=x"));
  EXPECT_THAT(desktop_->visible, IsEmpty());
}

TEST_F(EditSenderTest, TheDelaysAreFiveSecondsDoubledUpToFiveMinutes) {
  const std::pair<int, double> CASES[] = {{1, 5}, {2, 10}, {6, 160}, {7, 300}, {8, 300}, {1'000'000, 300}};
  for (const auto& [failures, delay] : CASES) EXPECT_EQ(EditSender::retryDelay(failures), seconds(delay)) << failures;
}

TEST_F(EditSenderTest, OneThatFailsDoesNotHoldUpTheOthers) {
  begin();
  extension_->failNextChanges(1, full());
  create("a", "x");
  create("b", "y");
  settle();
  EXPECT_THAT(server(), ElementsAre("b=y"));
}

TEST_F(EditSenderTest, AChangedEditStartsOver) {
  begin();
  create("a.txt", "x");
  extension_->failNextChanges(3, full());
  scheduler_.advance(seconds(20));
  ASSERT_EQ(edits_->pending()[0].attempts, 3);
  write("a.txt", "y");
  settle();
  EXPECT_THAT(server(), ElementsAre("a.txt=y"));
}

TEST_F(EditSenderTest, WhileTheServerIsOutOfReachOneEditAsksForAll) {
  begin();
  extension_->failChanges(unreachable());
  for (int i = 0; i < 1000; ++i) create(fmt::format("f{:03}", i));
  settle();
  const auto first = changes().size();
  EXPECT_LE(first, EditSender::SMALL_AT_ONCE);
  for (const double delay : {5, 10, 20, 40, 80, 160, 300, 300}) {
    const auto before = changes().size();
    scheduler_.advance(seconds(delay + 0.1));
    EXPECT_EQ(changes().size(), before + 1) << delay;
  }
  EXPECT_EQ(edits_->pendingCount(), 1000U);
  extension_->failChanges(std::nullopt);
  scheduler_.advance(seconds(301));
  scheduler_.advance(seconds(30));
  EXPECT_EQ(server().size(), 1000U) << "everything at once when it is over";
}

TEST_F(EditSenderTest, WhoIsNotSignedInWaitsLikewise) {
  begin();
  extension_->failChanges(Error(FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED, "sign in"));
  for (int i = 0; i < 100; ++i) create(fmt::format("f{}", i));
  scheduler_.advance(seconds(60));
  EXPECT_LE(changes().size(), EditSender::SMALL_AT_ONCE + 4);
}

TEST_F(EditSenderTest, AnotherFailureEndsTheOutage) {
  begin();
  extension_->failNextChanges(1, unreachable());
  create("a", "x");
  settle();
  create("b", "y");
  settle();
  EXPECT_EQ(changes().size(), 1U);
  extension_->failNextChanges(1, full());
  scheduler_.advance(seconds(4));
  EXPECT_THAT(server(), ElementsAre("b=y"));
}

TEST_F(EditSenderTest, SendNowEndsAllDelays) {
  begin();
  extension_->failNextChanges(1, full());
  create("a", "x");
  settle();
  extension_->failNextChanges(1, unreachable());
  create("b", "y");
  settle();
  create("c", "z");
  sender_->sendNow();
  scheduler_.advance(seconds(0.1));
  EXPECT_THAT(server(), ElementsAre("a=x", "b=y", "c=z"));
}

TEST_F(EditSenderTest, EditsOfAnEarlierRunGoUpAtOnceAfterTheStart) {
  begin();
  extension_->failChanges(unreachable());
  makeFolder("d");
  create("d/a.txt", "hello");
  scheduler_.advance(seconds(400));
  end();
  extension_->failChanges(std::nullopt);
  begin();
  settle();
  EXPECT_THAT(server(), ElementsAre("d/", "d/a.txt=hello"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, ACreationWhoseAnswerWasLostIsFoundAgain) {
  begin();
  makeFolder("d");
  create("a.txt", "hello");
  extension_->holdAnswers();
  settle();
  extension_->loseNextAnswer(Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
  ASSERT_TRUE(extension_->letOneGo());
  extension_->loseNextAnswer(Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
  ASSERT_TRUE(extension_->letOneGo());
  extension_->letAnswersGo();
  scheduler_.advance(seconds(7));
  EXPECT_THAT(server(), ElementsAre("a.txt=hello", "d/"));
  EXPECT_THAT(changes(), ElementsAre("create d", "create a.txt")) << "nothing is made twice";
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_NE(contents_->current(at("a.txt")), nullptr);
}

TEST_F(EditSenderTest, ACreationThatTheEndOfTheServiceCutOffIsFoundAgain) {
  begin();
  create("a.txt", "hello");
  extension_->failChanges(unreachable());
  settle();
  end();
  extension_->failChanges(std::nullopt);
  extension_->addFile("9", ROOT, "a.txt", "hello");
  begin();
  settle();
  EXPECT_THAT(server(), ElementsAre("a.txt=hello"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(replica_->children(ROOT_INODE).size(), 1U);
}

TEST_F(EditSenderTest, WhatMayHaveArrivedIsShownOnce) {
  begin();
  create("a.txt", "hello");
  makeFolder("d");
  loseAnswers({"a.txt", "d"}, true);
  EXPECT_THAT(server(), ElementsAre("a.txt=hello", "d/"));
  EXPECT_EQ(replica_->children(ROOT_INODE).size(), 2U) << "and what the server has is not shown beside it";
  const auto file = at("a.txt");
  expectOnlyOnServer({"a.txt=hello", "d/"});
  EXPECT_EQ(at("a.txt"), file);
  EXPECT_THAT(changes(), UnorderedElementsAre("create a.txt", "create d")) << "nothing is made twice";
}

// What programs did with it before anybody found out that it had arrived.
class UncertainEditTest : public EditSenderTest, public testing::WithParamInterface<bool> {};

TEST_P(UncertainEditTest, ANewFileThatIsWrittenToIsTheSameFile) {
  begin();
  create("a.txt", "hello");
  loseAnswers({"a.txt"}, GetParam());
  write("a.txt", "hello again");
  expectOnlyOnServer({"a.txt=hello again"});
  EXPECT_THAT(changes(), ElementsAre("create a.txt", "contents a.txt"));
}

TEST_P(UncertainEditTest, ANewFileThatIsRenamedIsRenamedThere) {
  begin();
  create("a.txt", "hello");
  loseAnswers({"a.txt"}, GetParam());
  move("a.txt", "b.txt");
  create("a.txt", "another");
  expectOnlyOnServer({"a.txt=another", "b.txt=hello"});
}

TEST_P(UncertainEditTest, ANewFileThatIsDeletedIsDeletedThere) {
  begin();
  create("a.txt", "hello");
  loseAnswers({"a.txt"}, GetParam());
  remove("a.txt");
  EXPECT_EQ(at("a.txt"), 0U);
  expectOnlyOnServer({});
}

TEST_P(UncertainEditTest, ANewFileThatIsDeletedAndMadeAgainIsTheSameFile) {
  begin();
  create("a.txt", "hello");
  loseAnswers({"a.txt"}, GetParam());
  remove("a.txt");
  create("a.txt", "again");
  expectOnlyOnServer({"a.txt=again"});
}

TEST_P(UncertainEditTest, ANewFileThatReplacesAnotherReplacesItThere) {
  extension_->addFile("1", ROOT, "b.txt", "old");
  begin();
  create("a.txt", "hello");
  loseAnswers({"a.txt"}, GetParam());
  move("a.txt", "b.txt");
  expectOnlyOnServer({"b.txt=hello"});
}

TEST_P(UncertainEditTest, ANewFolderThatIsRenamedIsRenamedThere) {
  begin();
  makeFolder("d");
  loseAnswers({"d"}, GetParam());
  move("d", "e");
  create("d", "a file");
  expectOnlyOnServer({"d=a file", "e/"});
}

TEST_P(UncertainEditTest, ANewFolderThatIsDeletedIsDeletedThere) {
  begin();
  makeFolder("d");
  loseAnswers({"d"}, GetParam());
  removeFolder("d");
  expectOnlyOnServer({});
}

TEST_P(UncertainEditTest, WhatOthersPutIntoTheNewFolderShowsUp) {
  begin();
  makeFolder("d");
  loseAnswers({"d"}, GetParam());
  extension_->addFile("9", extension_->itemNamed("d")->itemIdentifier.text, "theirs", "x");
  expectOnlyOnServer({"d/", "d/theirs=x"});
  list(extension_->itemNamed("d")->itemIdentifier.text);
  EXPECT_NE(at("d/theirs"), 0U);
}

TEST_P(UncertainEditTest, NewContentsDoNotClashWithEarlierOnesOfOurs) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "new contents");
  loseAnswers({"a.txt"}, GetParam());
  write("a.txt", "newer contents");
  expectOnlyOnServer({"a.txt=newer contents"});
  EXPECT_THAT(changes(), ElementsAre("contents a.txt", "contents a.txt"));
}

TEST_P(UncertainEditTest, NewContentsAndANewPlaceBothArrive) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "new contents");
  loseAnswers({"a.txt"}, GetParam());
  move("a.txt", "b.txt");
  expectOnlyOnServer({"b.txt=new contents"});
}

TEST_P(UncertainEditTest, AMoveThatIsTakenBackIsTakenBackThere) {
  extension_->addFile("1", ROOT, "a.txt", "x");
  begin();
  move("a.txt", "b.txt");
  loseAnswers({"b.txt"}, GetParam());
  move("b.txt", "a.txt");
  expectOnlyOnServer({"a.txt=x"});
}

TEST_P(UncertainEditTest, AnothersFileAtThatPlaceIsShownAndKept) {
  begin();
  create("a.txt", "hello");
  extension_->failNextChanges(1, unreachable());
  settle();
  extension_->addFile("9", ROOT, "a.txt", "theirs");
  if (GetParam()) {
    end();
    begin();
  }
  remove("a.txt");
  expectOnlyOnServer({"a.txt=theirs"});
  EXPECT_EQ(inode("9"), at("a.txt"));
}

TEST_P(UncertainEditTest, AnothersContentsStillClash) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "mine");
  loseAnswers({"a.txt"}, GetParam());
  extension_->addFile("1", ROOT, "a.txt", "them", 3);
  write("a.txt", "newer mine");
  expectOnlyOnServer({"a (conflicted copy).txt=newer mine", "a.txt=them"});
}

INSTANTIATE_TEST_SUITE_P(Restarts, UncertainEditTest, testing::Bool(),
                         [](const auto& each) { return each.param ? "AfterARestart" : "WithoutOne"; });

TEST_F(EditSenderTest, AFileThatIsTheSameThereIsTakenForOurs) {
  begin();
  create("a.txt", "hello");
  extension_->addFile("9", ROOT, "a.txt", "hello");
  settle();
  EXPECT_THAT(changes(), ElementsAre("create a.txt"));
  EXPECT_THAT(server(), ElementsAre("a.txt=hello"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(inode("9"), at("a.txt"));
}

TEST_F(EditSenderTest, AnotherFileOfThatNameKeepsItAndOursGetsAnother) {
  for (const auto* theirs : {"HELLO", "something else"}) {
    begin();
    create("a.txt", "hello");
    extension_->addFile("9", ROOT, "a.txt", theirs);
    settle();
    settle();
    EXPECT_THAT(server(), ElementsAre("a (conflicted copy).txt=hello", fmt::format("a.txt={}", theirs)));
    EXPECT_EQ(edits_->pendingCount(), 0U);
    EXPECT_NE(at("a (conflicted copy).txt"), 0U);
    remove("a (conflicted copy).txt");
    settle();
    extension_->remove("9");
    end();
    std::filesystem::remove(folder_ + "/replica.db");
  }
}

TEST_F(EditSenderTest, AFolderOfThatNameIsTakenForOurs) {
  begin();
  makeFolder("d");
  create("d/a", "x");
  extension_->addFolder("9", ROOT, "d");
  extension_->addFile("8", "9", "theirs", "y");
  settle();
  EXPECT_THAT(server(), ElementsAre("d/", "d/a=x", "d/theirs=y"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, AFolderWhereAFileWasToBeKeepsItsName) {
  begin();
  create("d", "x");
  extension_->addFolder("9", ROOT, "d");
  settle();
  settle();
  EXPECT_THAT(server(), ElementsAre("d (conflicted copy)=x", "d/"));
}

TEST_F(EditSenderTest, AMoveToANameThatIsTakenGetsAnother) {
  extension_->addFile("1", ROOT, "a.txt", "mine");
  begin();
  move("a.txt", "b.txt");
  extension_->addFile("9", ROOT, "b.txt", "theirs");
  settle();
  settle();
  EXPECT_THAT(server(), ElementsAre("b (conflicted copy).txt=mine", "b.txt=theirs"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, AClashWithNothingThereIsTriedAgain) {
  extension_->addFile("1", ROOT, "a.txt", "mine");
  begin();
  move("a.txt", "b.txt");
  extension_->failNextChanges(1, {API_ERROR_DOMAIN, 409, "HTTP 409"});
  settle();
  EXPECT_EQ(onlyError(), "HTTP 409");
  scheduler_.advance(seconds(6));
  EXPECT_THAT(server(), ElementsAre("b.txt=mine")) << "and not renamed again and again";
}

TEST_F(EditSenderTest, ContentsThatClashAreKeptBesideAndSeenAtOnce) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "mine");
  extension_->addFile("1", ROOT, "a.txt", "theirs", 2);
  settle();
  EXPECT_THAT(server(), ElementsAre("a (conflicted copy).txt=mine", "a.txt=theirs"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(syncs_, 1) << "so that both files are seen";
  ASSERT_TRUE(errors_.of(at("a.txt")));
  EXPECT_THAT(errors_.of(at("a.txt"))->error.description, HasSubstr("conflicted copy"));
  EXPECT_EQ(contents_->current(at("a.txt")), nullptr) << "ours is no copy of theirs";
  scheduler_.advance(Notices::GATHER_TIME);
  EXPECT_THAT(desktop_->shown, ElementsAre(HasSubstr("“a.txt” was changed on the server too")));
}

TEST_F(EditSenderTest, NewContentsWhoseAnswerWasLostDoNotClashWithThemselves) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "new contents");
  extension_->loseNextAnswer(Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
  scheduler_.advance(seconds(8));
  EXPECT_THAT(server(), ElementsAre("a.txt=new contents"));
  EXPECT_THAT(changes(), ElementsAre("contents a.txt"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_NE(contents_->current(at("a.txt")), nullptr);
}

TEST_F(EditSenderTest, ContentsThatFailedBeforeStillClashWithThoseOfOthers) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "ours!!");
  extension_->failNextChanges(1, full());
  settle();
  extension_->addFile("1", ROOT, "a.txt", "theirs", 2);
  scheduler_.advance(seconds(8));
  EXPECT_THAT(server(), ElementsAre("a (conflicted copy).txt=ours!!", "a.txt=theirs"));
}

TEST_F(EditSenderTest, NewContentsOfAFileThatIsGoneBecomeANewOne) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  write("a.txt", "mine");
  extension_->remove("1");
  settle();
  settle();
  EXPECT_THAT(server(), ElementsAre("a.txt=mine"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, AnItemThatCouldNotBeLookedUpHasNotVanished) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  move("a.txt", "b.txt");
  extension_->failNextChanges(1, {FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM, "no such item"});
  settle();
  EXPECT_EQ(onlyError(), "no such item");
  EXPECT_NE(at("b.txt"), 0U);
  scheduler_.advance(seconds(6));
  EXPECT_THAT(server(), ElementsAre("b.txt=old"));
}

TEST_F(EditSenderTest, AnItemWhoseLookupsAreLostHasNotVanished) {
  const Error lost{FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM, "no such item"};
  extension_->addFile("1", ROOT, "a.txt", "old");
  extension_->addFolder("d", ROOT, "d");
  begin();
  list("d");
  move("a.txt", "b.txt");
  move("d", "e");
  extension_->failChanges(lost);
  extension_->failLookups(lost);
  settle();
  EXPECT_EQ(edits_->pendingCount(), 2U);
  EXPECT_NE(at("b.txt"), 0U);
  EXPECT_NE(at("e"), 0U);
  extension_->failChanges(std::nullopt);
  extension_->failLookups(std::nullopt);
  scheduler_.advance(seconds(20));
  EXPECT_THAT(server(), ElementsAre("b.txt=old", "e/"));
}

TEST_F(EditSenderTest, AFolderThatWentWithTheOneAboveItCountsAsDeletedAlthoughItIsStillRemembered) {
  extension_->addFolder("d", ROOT, "d");
  begin();
  list("d");
  removeFolder("d");
  extension_->failListings(Error(API_ERROR_DOMAIN, 404, "HTTP 404"));
  settle();
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_THAT(changes(), IsEmpty());
}

TEST_F(EditSenderTest, AMoveOfWhatIsGoneIsDropped) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  begin();
  move("a.txt", "b.txt");
  extension_->remove("1");
  settle();
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(at("b.txt"), 0U);
}

TEST_F(EditSenderTest, TheFolderOfANewFileThatIsGoneIsMadeAnew) {
  extension_->addFolder("d", ROOT, "d");
  begin();
  list("d");
  create("d/a.txt", "mine");
  extension_->remove("d");
  scheduler_.advance(seconds(20));
  EXPECT_THAT(server(), ElementsAre("d/", "d/a.txt=mine"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(EditSenderTest, AFolderMovesWhenNothingIsSentBelowIt) {
  extension_->addFolder("d", ROOT, "d");
  begin();
  list("d");
  create("d/a", "x");
  extension_->holdAnswers();
  settle();
  move("d", "e");
  settle();
  EXPECT_EQ(extension_->heldCount(), 1U);
  extension_->letAnswersGo();
  settle();
  EXPECT_THAT(changes(), ElementsAre("create a", "place d -> e"));
  EXPECT_THAT(server(), ElementsAre("e/", "e/a=x"));
}

TEST_F(EditSenderTest, AFolderThatTheServerHasAboveItsNewPlaceStaysThere) {
  extension_->addFolder("a", ROOT, "a");
  extension_->addFolder("b", ROOT, "b");
  begin();
  list("b");
  move("a", "b/a");
  extension_->addFolder("c", "a", "c");
  extension_->addFolder("b", "c", "b");
  scheduler_.advance(seconds(20));
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_THAT(server(), ElementsAre("a/", "a/c/", "a/c/b/"));
  EXPECT_NE(at("a"), 0U);
  EXPECT_EQ(at("b/a"), 0U);
}

TEST_F(EditSenderTest, DrainingSendsEverythingWithoutWaiting) {
  begin();
  makeFolder("d");
  create("d/a", "x");
  std::optional<std::size_t> left;
  sender_->drain([&](std::size_t count) { left = count; });
  scheduler_.advance(seconds(0.5));
  EXPECT_EQ(left, 0U);
  EXPECT_THAT(server(), ElementsAre("d/", "d/a=x"));
}

TEST_F(EditSenderTest, DrainingAnEmptyQueueEndsAtOnce) {
  begin();
  std::optional<std::size_t> left;
  sender_->drain([&](std::size_t count) { left = count; });
  scheduler_.advance(seconds(0.01));
  EXPECT_EQ(left, 0U);
}

TEST_F(EditSenderTest, DrainingEndsWithWhatCannotBeSent) {
  begin();
  extension_->failNextChanges(1, full());
  create("a", "x");
  create("b", "y");
  create(".c.swp", "z");
  std::optional<std::size_t> left;
  sender_->drain([&](std::size_t count) { left = count; });
  scheduler_.advance(seconds(0.5));
  EXPECT_EQ(left, 1U) << "what stays here because of its name is not counted";
  EXPECT_THAT(server(), ElementsAre("b=y"));
}

TEST_F(EditSenderTest, DrainingTriesOnceWhenTheServerIsOutOfReach) {
  begin();
  extension_->failChanges(unreachable());
  for (int i = 0; i < 50; ++i) create(fmt::format("f{}", i));
  settle();
  const auto before = changes().size();
  std::optional<std::size_t> left;
  sender_->drain([&](std::size_t count) { left = count; });
  scheduler_.advance(seconds(0.5));
  EXPECT_EQ(left, 50U);
  EXPECT_EQ(changes().size(), before + 1);
}

TEST_F(EditSenderTest, DrainingWaitsForFilesThatAreBeingWritten) {
  begin();
  create("a", "x");
  edited_->openedForWriting(at("a"));
  std::optional<std::size_t> left;
  sender_->drain([&](std::size_t count) { left = count; });
  scheduler_.advance(seconds(5));
  EXPECT_EQ(left, std::nullopt);
  edited_->closedForWriting(at("a"));
  create("b", "y");
  scheduler_.advance(seconds(5));
  EXPECT_EQ(left, 0U);
  EXPECT_THAT(server(), ElementsAre("a=x", "b=y"));
}

TEST_F(EditSenderTest, StoppingCancelsWhatIsUnderWayAndTellsWhoeverWaits) {
  begin();
  create("a", "x");
  extension_->holdAnswers();
  settle();
  std::optional<std::size_t> left;
  sender_->drain([&](std::size_t count) { left = count; });
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(left, std::nullopt);
  sender_->stop();
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(left, 1U);
  EXPECT_EQ(extension_->heldCount(), 0U);
  ASSERT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(edits_->pending()[0].attempts, 0) << "that was no failure";
}

TEST_F(EditSenderTest, TheReportTellsWhatIsGoingOn) {
  begin();
  makeFolder("d");
  create("d/a", "x");
  create("b.swp", "y");
  create("c", "z");
  extension_->holdAnswers();
  scheduler_.advance(seconds(0.5));
  EXPECT_EQ(sender_->report()[0].state, SendState::settling);
  settle();
  const auto report = sender_->report();
  ASSERT_EQ(report.size(), 4U);
  EXPECT_EQ(report[0].state, SendState::sending);
  EXPECT_NE(report[0].progress, nullptr);
  EXPECT_EQ(report[1].state, SendState::waitingForOthers);
  EXPECT_EQ(report[1].waitsFor, report[0].edit.id);
  EXPECT_EQ(report[2].state, SendState::staysHere);
  EXPECT_EQ(report[3].state, SendState::sending);
}

}  // namespace
}  // namespace vondle
