#include "service/trash/trash.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service/error_number.h"
#include "testing/sending_rig.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

// The trash over a real queue, with programs played by calls.
class TrashTest : public SendingRig {
 protected:
  void beginWithTrash() {
    extension_->trashWholeFolders();
    begin();
    trash_ = Trash::make({.extension = *extension_,
                          .tree = *tree_,
                          .edits = edits_,
                          .contents = edited_,
                          .scheduler = scheduler_,
                          .clock = scheduler_,
                          .sendNow = [this] { sender_->sendNow(); }});
    scheduler_.runUntilIdle();
  }
  void endWithTrash() {
    trash_->close();
    scheduler_.runUntilIdle();
    trash_.reset();
    end();
  }
  ~TrashTest() override {
    if (trash_) endWithTrash();
  }

  // Calls and waits; the number for errno, 0 when it worked, -1 when there is no answer yet.
  template <class Call>
  int errorOf(Call call, Duration patience = seconds(0)) {
    const auto number = std::make_shared<int>(-1);
    trash_->perform([call, number] {
      call([number](const Result<void>& result) { *number = result ? 0 : errorNumber(result.error()); });
    });
    scheduler_.runUntilIdle();
    if (patience > Duration(0)) scheduler_.advance(patience);
    return *number;
  }
  int look() {
    return errorOf([this](auto done) { trash_->whenListed(std::move(done)); });
  }
  int put(const std::string& path, const std::string& name) {
    return errorOf(
        [this, path, name](auto done) { trash_->put(folderOf(path), nameIn(path), name, false, std::move(done)); });
  }
  int restore(const std::string& name, const std::string& path, Duration patience = seconds(0)) {
    return errorOf(
        [this, name, path](auto done) {
          const auto* item = trash_->find(false, name);
          if (!item) return std::move(done)(failure(Error::posix(ENOENT, "")));
          trash_->restore(item->number, folderOf(path), nameIn(path), true, std::move(done));
        },
        patience);
  }
  int purge(const std::string& name, Duration patience = seconds(0)) {
    return errorOf(
        [this, name](auto done) {
          const auto* item = trash_->find(false, name);
          if (!item) return std::move(done)(failure(Error::posix(ENOENT, "")));
          trash_->purge(item->number, std::move(done));
        },
        patience);
  }
  std::string read(const std::string& name) {
    std::string text;
    trash_->perform([&] {
      trash_->read(trash_->find(false, name)->number, [&](const Result<Trash::Contents>& contents) {
        if (!contents) return static_cast<void>(text = fmt::format("error {}", errorNumber(contents.error())));
        std::string bytes(100, '\0');
        const int file = contents->edited ? contents->edited->descriptor() : contents->fetched->descriptor();
        bytes.resize(static_cast<std::size_t>(::pread(file, bytes.data(), bytes.size(), 0)));
        text = bytes;
      });
    });
    scheduler_.runUntilIdle();
    return text;
  }
  // "name <- path" of each.
  std::vector<std::string> shown() {
    std::vector<std::string> lines;
    for (const auto number : trash_->list(false))
      lines.push_back(trash_->find(number)->name + " <- " + trash_->find(number)->path);
    return lines;
  }
  // Something goes from the tree elsewhere.
  void tellOfNews() {
    tree_->applyUpdates({extension_->addFile("news", ROOT, "news", "")}, [] {});
    extension_->remove("news");
    tree_->applyNews({}, {{"news"}}, [] {});
    scheduler_.runUntilIdle();
  }
  // What lists it takes so long.
  void lookSlowly(Duration duration) {
    extension_->holdListings();
    EXPECT_EQ(look(), -1);
    scheduler_.advance(duration);
    extension_->letAnswersGo();
    scheduler_.runUntilIdle();
  }
  void goOutOfReach() {
    extension_->failListings(unreachable());
    extension_->failChanges(unreachable());
    extension_->failLookups(unreachable());
    serverError_ = unreachable();
  }
  void comeBack() {
    extension_->failListings(std::nullopt);
    extension_->failChanges(std::nullopt);
    extension_->failLookups(std::nullopt);
    serverError_ = std::nullopt;
  }

  std::shared_ptr<Trash> trash_;
};

TEST_F(TrashTest, ShowsWhatTheServerHasInItsTrash) {
  auto deleted = extension_->file("1", TRASH_CONTAINER.text, "a.txt", "hello");
  deleted.restorePath = "docs/\xC3\xA4/a.txt";
  extension_->add(deleted, "hello");
  extension_->addFile("2", TRASH_CONTAINER.text, "a.txt", "other");
  extension_->addFolder("3", TRASH_CONTAINER.text, "x/y");
  beginWithTrash();
  EXPECT_THAT(shown(), IsEmpty()) << "nobody has looked";
  EXPECT_EQ(look(), 0);
  EXPECT_THAT(shown(), ElementsAre("a.txt <- docs/\xC3\xA4/a.txt", "a 2.txt <- a.txt", "%=x%2Fy <- %=x%2Fy"))
      << "where the path is not known it is the name in the top folder";
  const auto* item = trash_->find(false, "a.txt");
  EXPECT_EQ(item->size, 5);
  EXPECT_EQ(item->modified, Timestamp{1'700'000'000});
  EXPECT_EQ(item->deleted, scheduler_.now()) << "seen first; nothing is taken for older than it is";
  EXPECT_EQ(read("a.txt"), "hello");
}

TEST_F(TrashTest, LooksAgainWhenWhatItKnowsIsOldOrTheTreeHadNews) {
  beginWithTrash();
  look();
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 1);
  scheduler_.advance(Trash::MAX_AGE + seconds(0.001));
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 2);
  tree_->applyUpdates({extension_->addFile("1", ROOT, "new", "")}, [] {});
  scheduler_.runUntilIdle();
  look();
  create("by a program");
  move("by a program", "with another name");
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 2) << "none of that has to do with the trash";
  tree_->applyNews({}, {{"1"}}, [] {});
  scheduler_.runUntilIdle();
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 3) << "it may be there";
  extension_->addFile("2", TRASH_CONTAINER.text, "old", "");
  scheduler_.advance(Trash::MAX_AGE + seconds(0.001));
  look();
  tree_->applyUpdates({extension_->addFile("2", ROOT, "old", "")}, [] {});
  scheduler_.runUntilIdle();
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 5) << "it is not there any more";
  EXPECT_THAT(shown(), IsEmpty());
  EXPECT_EQ(scheduler_.timerCount(), 0U) << "nothing is listed by itself";
}

TEST_F(TrashTest, WhatProgramsRemoveIsThereWhenTheServerHasIt) {
  extension_->addFile("1", ROOT, "a.txt", "");
  beginWithTrash();
  look();
  remove("a.txt");
  look();
  EXPECT_THAT(shown(), IsEmpty());
  settle();
  look();
  EXPECT_THAT(shown(), ElementsAre("a.txt <- a.txt"));
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 3);
}

TEST_F(TrashTest, NamesStayWhileMountedAndWhatHasGoneGoes) {
  extension_->addFile("1", TRASH_CONTAINER.text, "a", "");
  extension_->addFile("2", TRASH_CONTAINER.text, "a", "");
  beginWithTrash();
  look();
  extension_->remove("1");
  extension_->addFile("0", TRASH_CONTAINER.text, "a", "");
  scheduler_.advance(Trash::MAX_AGE * 2);
  look();
  EXPECT_THAT(shown(), UnorderedElementsAre("a 2 <- a", "a 3 <- a"));
}

TEST_F(TrashTest, WhatIsPutThereIsThereAtOnceUnderTheNameGivenAndOnTheServerLater) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFile("1", "d", "a.txt", "hello");
  beginWithTrash();
  list("d");
  extension_->addFile("2", TRASH_CONTAINER.text, "a.2.txt", "");
  EXPECT_EQ(put("d/a.txt", "a.2.txt"), 0);
  EXPECT_EQ(at("d/a.txt"), 0U);
  EXPECT_THAT(shown(), ElementsAre("a.2.txt <- d/a.txt"));
  EXPECT_EQ(trash_->find(false, "a.2.txt")->size, 5);
  EXPECT_EQ(read("a.2.txt"), "hello");
  EXPECT_THAT(changes(), IsEmpty());
  settle();
  EXPECT_THAT(changes(), ElementsAre("trash a.txt"));
  look();
  EXPECT_THAT(shown(), ElementsAre("a.2.txt <- d/a.txt", "a.2 2.txt <- a.2.txt"))
      << "the others go round a name that a program chose";
  EXPECT_EQ(trash_->find(false, "a.2.txt")->edit, 0);
  EXPECT_EQ(put("nothing", "x"), ENOENT);
  EXPECT_EQ(put("d", "a.2.txt"), EEXIST);
}

TEST_F(TrashTest, PuttingThereWorksWithoutTheServerAndSurvivesTheEndOfTheProcess) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFile("1", "d", "a.txt", "hello");
  beginWithTrash();
  list("d");
  goOutOfReach();
  EXPECT_EQ(put("d/a.txt", "b.txt"), 0);
  EXPECT_EQ(look(), 0);
  EXPECT_THAT(shown(), ElementsAre("b.txt <- d/a.txt"));
  settle();
  comeBack();
  extension_->failChanges(unreachable());
  endWithTrash();
  beginWithTrash();
  EXPECT_EQ(at("d/a.txt"), 0U);
  EXPECT_THAT(shown(), ElementsAre("a.txt <- d/a.txt"));
  EXPECT_THAT(extension_->trash(), IsEmpty());
  comeBack();
  sender_->sendNow();
  settle();
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
  look();
  EXPECT_THAT(shown(), ElementsAre("a.txt <- d/a.txt"));
}

TEST_F(TrashTest, AFolderIsOneItemOnTheServerToo) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFolder("e", "d", "e");
  extension_->addFile("1", "e", "a.txt", "hello");
  beginWithTrash();
  list("d");
  list("e");
  EXPECT_EQ(put("d", "d"), 0);
  EXPECT_EQ(at("d"), 0U);
  settle();
  EXPECT_THAT(changes(), ElementsAre("trash d"));
  EXPECT_THAT(extension_->trash(), ElementsAre("d"));
  look();
  EXPECT_EQ(restore("d", "d"), 0);
  EXPECT_NE(at("d"), 0U);
  EXPECT_THAT(server(), ElementsAre("d/", "d/e/", "d/e/a.txt=hello"));
}

TEST_F(TrashTest, WhatTheServerDoesNotHaveYetGoesUpBeforeItsFolderIsTrashed) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFolder("e", "d", "e");
  extension_->addFile("1", "e", "old.txt", "old");
  extension_->addFile("2", "e", "gone.txt", "gone");
  extension_->addFile("3", "e", "moved.txt", "moved");
  beginWithTrash();
  list("d");
  list("e");
  create("d/e/new.txt", "new");
  makeFolder("d/e/f");
  create("d/e/f/deep.txt", "deep");
  create("d/e/f/.~lock.deep#", "temporary");
  write("d/e/old.txt", "written");
  remove("d/e/gone.txt");
  move("d/e/moved.txt", "moved.txt");
  EXPECT_EQ(put("d", "d"), 0);
  scheduler_.advance(seconds(20));
  EXPECT_EQ(edits_->pendingCount(), 0U) << onlyError();
  EXPECT_EQ(changes().back(), "trash d");
  EXPECT_THAT(extension_->trash(), ElementsAre("d", "gone.txt"));
  look();
  EXPECT_EQ(restore("d", "d"), 0);
  EXPECT_THAT(server(),
              UnorderedElementsAre("d/", "d/e/", "d/e/f/", "d/e/f/.~lock.deep#=temporary", "d/e/f/deep.txt=deep",
                                   "d/e/new.txt=new", "d/e/old.txt=written", "moved.txt=moved"));
}

TEST_F(TrashTest, WhatIsOnItsWayThroughADeathStillGoesUpWhole) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFolder("e", "d", "e");
  beginWithTrash();
  list("d");
  list("e");
  create("d/e/new.txt", "new");
  EXPECT_EQ(put("d", "d"), 0);
  extension_->failChanges(unreachable());
  endWithTrash();
  comeBack();
  beginWithTrash();
  EXPECT_EQ(at("d"), 0U);
  sender_->sendNow();
  scheduler_.advance(seconds(20));
  EXPECT_THAT(extension_->trash(), ElementsAre("d"));
  EXPECT_EQ(restore("d", "d"), 0) << "also when nobody has looked meanwhile";
  EXPECT_THAT(server(), ElementsAre("d/", "d/e/", "d/e/new.txt=new"));
}

TEST_F(TrashTest, ANewFileThatIsTrashedGoesUpAndToTheTrashThere) {
  beginWithTrash();
  create("a.txt", "first");
  EXPECT_EQ(put("a.txt", "a.txt"), 0);
  EXPECT_EQ(read("a.txt"), "first");
  create("a.txt", "second");
  EXPECT_EQ(put("a.txt", "a.2.txt"), 0);
  create("a.txt", "third");
  scheduler_.advance(seconds(10));
  EXPECT_THAT(server(), ElementsAre("a.txt=third"));
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt", "a.txt"));
  look();
  EXPECT_THAT(shown(), ElementsAre("a.txt <- a.txt", "a.2.txt <- a.txt")) << "each under its name";
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(TrashTest, WhatIsStillOnItsWayComesBackWithoutTheServer) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFile("1", "d", "a.txt", "hello");
  extension_->addFile("2", "d", "b.txt", "old");
  extension_->addFolder("o", ROOT, "other");
  beginWithTrash();
  list("d");
  list("o");
  create("d/new.txt", "new");
  write("d/b.txt", "written");
  goOutOfReach();
  EXPECT_EQ(put("d/a.txt", "a.txt"), 0);
  EXPECT_EQ(put("d/b.txt", "b.txt"), 0);
  EXPECT_EQ(put("d/new.txt", "new.txt"), 0);
  settle();
  EXPECT_EQ(read("b.txt"), "written");
  EXPECT_EQ(restore("a.txt", "d/a.txt"), 0);
  EXPECT_EQ(restore("b.txt", "other/c.txt"), 0);
  EXPECT_EQ(restore("new.txt", "d/new.txt"), 0);
  EXPECT_THAT(shown(), IsEmpty());
  EXPECT_NE(at("d/a.txt"), 0U);
  EXPECT_NE(at("other/c.txt"), 0U);
  EXPECT_NE(at("d/new.txt"), 0U);
  comeBack();
  sender_->sendNow();
  scheduler_.advance(seconds(10));
  EXPECT_THAT(server(), ElementsAre("d/", "d/a.txt=hello", "d/new.txt=new", "other/", "other/c.txt=written"));
  EXPECT_THAT(extension_->trash(), IsEmpty());
}

TEST_F(TrashTest, AFolderOnItsWayComesBackWithWhatWasNewInIt) {
  extension_->addFolder("d", ROOT, "d");
  beginWithTrash();
  list("d");
  create("d/new.txt", "new");
  goOutOfReach();
  EXPECT_EQ(put("d", "d"), 0);
  EXPECT_EQ(restore("d", "d"), 0);
  EXPECT_NE(at("d/new.txt"), 0U);
  EXPECT_TRUE(edited_->find(at("d/new.txt")));
  comeBack();
  sender_->sendNow();
  scheduler_.advance(seconds(10));
  EXPECT_THAT(server(), ElementsAre("d/", "d/new.txt=new"));
}

TEST_F(TrashTest, AfterAStartTheServerIsAskedWhatComesBack) {
  extension_->addFile("1", ROOT, "a.txt", "hello");
  beginWithTrash();
  EXPECT_EQ(put("a.txt", "a.txt"), 0);
  extension_->failChanges(unreachable());
  endWithTrash();
  beginWithTrash();
  goOutOfReach();
  EXPECT_EQ(restore("a.txt", "a.txt"), EHOSTUNREACH);
  EXPECT_THAT(shown(), ElementsAre("a.txt <- a.txt")) << "nothing changes";
  EXPECT_EQ(at("a.txt"), 0U);
  comeBack();
  EXPECT_EQ(restore("a.txt", "a.txt"), 0);
  EXPECT_NE(at("a.txt"), 0U);
  scheduler_.advance(seconds(10));
  EXPECT_THAT(server(), ElementsAre("a.txt=hello"));
}

TEST_F(TrashTest, WhatIsBeingSentIsRestoredWhenItHasArrived) {
  extension_->addFile("1", ROOT, "a.txt", "hello");
  beginWithTrash();
  EXPECT_EQ(put("a.txt", "a.txt"), 0);
  extension_->holdAnswers();
  settle();
  EXPECT_EQ(restore("a.txt", "a.txt"), -1);
  scheduler_.advance(seconds(1));
  extension_->letAnswersGo();
  scheduler_.advance(seconds(1));
  EXPECT_NE(at("a.txt"), 0U);
  EXPECT_THAT(server(), ElementsAre("a.txt=hello"));
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(TrashTest, RestoringPutsItWhereItWasOrWhereTheUserWishes) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFolder("o", ROOT, "other");
  extension_->addFile("1", "d", "a.txt", "a");
  extension_->addFile("2", "d", "b.txt", "b");
  beginWithTrash();
  list("d");
  list("o");
  put("d/a.txt", "a.txt");
  put("d/b.txt", "b.txt");
  settle();
  EXPECT_EQ(restore("a.txt", "d/a.txt"), 0);
  EXPECT_NE(at("d/a.txt"), 0U) << "at once";
  EXPECT_EQ(restore("b.txt", "other/c.txt"), 0);
  EXPECT_NE(at("other/c.txt"), 0U);
  scheduler_.advance(seconds(5));
  EXPECT_THAT(server(), ElementsAre("d/", "d/a.txt=a", "other/", "other/c.txt=b"));
}

TEST_F(TrashTest, RestoringToElsewhereWorksWhenNobodyHasLookedWhereItWas) {
  extension_->addFolder("d", ROOT, "d");
  extension_->addFile("1", "d", "a.txt", "a");
  beginWithTrash();
  list("d");
  put("d/a.txt", "a.txt");
  settle();
  edits_->listAgain({"d"});
  scheduler_.runUntilIdle();
  EXPECT_EQ(restore("a.txt", "here.txt"), 0);
  EXPECT_NE(at("here.txt"), 0U);
  EXPECT_THAT(server(), ElementsAre("d/", "here.txt=a"));
}

TEST_F(TrashTest, RestoringFailsClearlyAndChangesNothing) {
  extension_->addFile("1", ROOT, "a.txt", "a");
  beginWithTrash();
  put("a.txt", "a.txt");
  settle();
  look();
  goOutOfReach();
  scheduler_.advance(Trash::MAX_AGE * 2);
  EXPECT_EQ(restore("a.txt", "a.txt"), EHOSTUNREACH);
  EXPECT_THAT(shown(), ElementsAre("a.txt <- a.txt"));
  comeBack();
  extension_->addFile("2", ROOT, "a.txt", "other");
  EXPECT_EQ(restore("a.txt", "a.txt"), EEXIST);
  EXPECT_THAT(shown(), ElementsAre("a.txt <- a.txt"));
  EXPECT_THAT(server(), ElementsAre("a.txt=other"));
  extension_->remove("1");
  scheduler_.advance(Trash::MAX_AGE_FOR_CHANGES * 2);
  EXPECT_EQ(restore("a.txt", "b.txt"), ENOENT) << "somebody else has purged it";
}

TEST_F(TrashTest, RestoringToElsewhereWorksWhenTheOldNameIsTaken) {
  extension_->addFolder("c", ROOT, "another");
  extension_->addFolder("d", ROOT, "Für #1 (100%)?");
  extension_->addFolder("e", "d", "%=x");
  extension_->addFile("1", "e", "a.txt", "old");
  extension_->addFolder("o", ROOT, "other");
  beginWithTrash();
  list("d");
  list("e");
  list("o");
  put("Für #1 (100%)?/%=%25=x/a.txt", "a.txt");
  settle();
  look();
  extension_->addFile("2", "e", "a.txt", "new");
  extension_->addFile("3", "e", "a (conflicted copy).txt", "third");
  list("e");
  EXPECT_EQ(restore("a.txt", "other/a.txt"), 0);
  EXPECT_EQ(at("other/a.txt"), inode("1"));
  EXPECT_THAT(shown(), IsEmpty());
  EXPECT_THAT(server(),
              UnorderedElementsAre("another/", "Für #1 (100%)?/", "Für #1 (100%)?/%=x/", "Für #1 (100%)?/%=x/a.txt=new",
                                   "Für #1 (100%)?/%=x/a (conflicted copy).txt=third", "other/", "other/a.txt=old"));
  scheduler_.advance(seconds(10));
  EXPECT_EQ(at("Für #1 (100%)?/%=%25=x/a.txt"), inode("2"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(TrashTest, RestoringToANewFolderWaitsUntilTheServerHasItWhenTheOldNameIsTaken) {
  extension_->addFolder("1", ROOT, "a");
  extension_->addFile("i", "1", "inside", "i");
  beginWithTrash();
  list("1");
  put("a", "a");
  settle();
  look();
  makeFolder("a");
  settle();
  makeFolder("n");
  EXPECT_EQ(restore("a", "n/b", seconds(2)), 0);
  EXPECT_EQ(at("n/b"), inode("1"));
  EXPECT_THAT(server(), ElementsAre("a/", "n/", "n/b/", "n/b/inside=i"));
}

TEST_F(TrashTest, WhatCannotBeRestoredToElsewhereStaysAndTheOtherKeepsItsName) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  extension_->addFolder("o", ROOT, "other");
  beginWithTrash();
  list("o");
  put("a.txt", "a.txt");
  settle();
  look();
  extension_->addFile("2", ROOT, "a.txt", "new");
  extension_->addFile("3", "o", "taken.txt", "unseen");
  EXPECT_EQ(restore("a.txt", "other/taken.txt"), EEXIST);
  EXPECT_THAT(shown(), ElementsAre("a.txt <- a.txt"));
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
  EXPECT_THAT(server(), ElementsAre("a.txt=new", "other/", "other/taken.txt=unseen"));
  extension_->failNextChanges(1, Error(API_ERROR_DOMAIN, 409));
  extension_->failNextChanges(1, Error(API_ERROR_DOMAIN, 403));
  EXPECT_EQ(restore("a.txt", "other/b.txt"), EACCES) << "the other may not be renamed";
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
  EXPECT_THAT(server(), ElementsAre("a.txt=new", "other/", "other/taken.txt=unseen"));
  EXPECT_EQ(restore("a.txt", "other/b.txt"), 0);
  EXPECT_THAT(server(), ElementsAre("a.txt=new", "other/", "other/b.txt=old", "other/taken.txt=unseen"));
}

TEST_F(TrashTest, WhatTheServerDoesNotRestoreAfterAllLeavesTheOtherItsName) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  beginWithTrash();
  put("a.txt", "a.txt");
  settle();
  look();
  extension_->addFile("2", ROOT, "a.txt", "new");
  extension_->holdAnswers();
  EXPECT_EQ(restore("a.txt", "b.txt"), -1);
  while (changes().size() < 4) {
    ASSERT_TRUE(extension_->letOneGo());
    scheduler_.runUntilIdle();
  }
  EXPECT_EQ(changes()[2], "place a.txt -> a (conflicted copy).txt");
  extension_->failNextChanges(1, Error(API_ERROR_DOMAIN, 403));
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(server(), ElementsAre("a.txt=new"));
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
}

TEST_F(TrashTest, WhoRenamesWhatHadTheOldNameMeanwhileHasTheLastWord) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  beginWithTrash();
  put("a.txt", "a.txt");
  settle();
  look();
  auto other = extension_->addFile("2", ROOT, "a.txt", "new");
  extension_->holdAnswers();
  EXPECT_EQ(restore("a.txt", "b.txt"), -1);
  while (changes().back() != "place a.txt -> b.txt") {
    ASSERT_TRUE(extension_->letOneGo());
    scheduler_.runUntilIdle();
  }
  other.filename = "theirs.txt";
  extension_->add(other, "new");
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(server(), ElementsAre("b.txt=old", "theirs.txt=new"));
  EXPECT_EQ(at("theirs.txt"), inode("2"));
}

TEST_F(TrashTest, WhatIsAboutToGoOnTheServerIsNotInTheWay) {
  extension_->addFile("1", ROOT, "a.txt", "old");
  beginWithTrash();
  put("a.txt", "a.txt");
  settle();
  look();
  create("a.txt", "new");
  settle();
  move("a.txt", "b.txt");
  EXPECT_EQ(restore("a.txt", "a.txt", seconds(3)), 0);
  EXPECT_EQ(at("a.txt"), inode("1"));
  scheduler_.advance(seconds(10));
  EXPECT_THAT(server(), ElementsAre("a.txt=old", "b.txt=new"));
}

TEST_F(TrashTest, WhatIsRestoredWhileTheTrashIsListedIsRestoredByWhatIsThereNow) {
  extension_->addFile("1", TRASH_CONTAINER.text, "a.txt", "a");
  beginWithTrash();
  look();
  tellOfNews();
  extension_->holdListings();
  EXPECT_EQ(look(), -1);
  EXPECT_EQ(restore("a.txt", "a.txt"), -1) << "somebody may have purged it";
  EXPECT_THAT(changes(), IsEmpty());
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(server(), ElementsAre("a.txt=a"));
}

TEST_F(TrashTest, OnlyWhatIsInTheTrashNowIsPurged) {
  auto one = extension_->addFile("1", TRASH_CONTAINER.text, "a.txt", "a");
  extension_->addFile("2", TRASH_CONTAINER.text, "b.txt", "b");
  beginWithTrash();
  look();
  EXPECT_EQ(purge("b.txt"), 0);
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
  one.parentItemIdentifier.text = ROOT;
  extension_->add(one, "a");
  scheduler_.advance(Trash::MAX_AGE_FOR_CHANGES * 2);
  EXPECT_EQ(purge("a.txt"), 0) << "it has gone from there";
  EXPECT_THAT(changes(), ElementsAre("delete b.txt"));
  EXPECT_THAT(server(), ElementsAre("a.txt=a"));
}

TEST_F(TrashTest, PurgingManyListsOnlyNowAndThen) {
  for (int i = 0; i < 50; ++i)
    extension_->addFile(fmt::format("{}", i), TRASH_CONTAINER.text, fmt::format("{}", i), "");
  beginWithTrash();
  look();
  for (int i = 0; i < 50; ++i) EXPECT_EQ(purge(fmt::format("{}", i)), 0);
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 1);
  EXPECT_THAT(extension_->trash(), IsEmpty());
}

TEST_F(TrashTest, WhatTakesLongToListIsListedLessOften) {
  for (int i = 0; i < 10; ++i)
    extension_->addFile(fmt::format("{}", i), TRASH_CONTAINER.text, fmt::format("{}", i), "");
  beginWithTrash();
  const auto took = Trash::MAX_AGE;
  lookSlowly(took);
  const auto listings = [&] { return extension_->listingsOf(TRASH_CONTAINER.text); };
  EXPECT_EQ(purge("0"), 0);
  EXPECT_EQ(restore("1", "1"), 0);
  EXPECT_EQ(purge("2"), 0);
  EXPECT_EQ(listings(), 1) << "also after what we did ourselves";
  scheduler_.advance(took * (Trash::LISTING_SHARE - 1) - seconds(1));
  EXPECT_EQ(purge("3"), 0);
  tellOfNews();
  EXPECT_EQ(look(), 0);
  EXPECT_EQ(listings(), 1) << "who looks does without the latest news";
  EXPECT_EQ(purge("4"), 0);
  EXPECT_EQ(listings(), 2) << "a change does not";
}

TEST_F(TrashTest, AListingIsAsOldAsItsBeginning) {
  beginWithTrash();
  lookSlowly(seconds(0.5));
  scheduler_.advance(Trash::MAX_AGE - seconds(0.5));
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 1);
  scheduler_.advance(seconds(0.001));
  look();
  EXPECT_EQ(extension_->listingsOf(TRASH_CONTAINER.text), 2);
}

TEST_F(TrashTest, OneThingAtATimeIsDoneWithAnItem) {
  extension_->addFile("1", TRASH_CONTAINER.text, "a.txt", "a");
  beginWithTrash();
  look();
  extension_->holdAnswers();
  EXPECT_EQ(restore("a.txt", "a.txt"), -1);
  EXPECT_EQ(restore("a.txt", "b.txt"), EBUSY);
  EXPECT_EQ(purge("a.txt"), EBUSY);
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(server(), ElementsAre("a.txt=a"));
}

TEST_F(TrashTest, WhatIsOnItsWayIsNotTakenForAnotherOfItsName) {
  extension_->addFile("1", TRASH_CONTAINER.text, "a.txt", "theirs");
  beginWithTrash();
  create("a.txt", "ours");
  EXPECT_EQ(put("a.txt", "a.txt"), 0);
  look();
  EXPECT_THAT(shown(), ElementsAre("a.txt <- a.txt", "a 2.txt <- a.txt"));
  EXPECT_EQ(read("a.txt"), "ours");
  EXPECT_EQ(read("a 2.txt"), "theirs");
}

TEST_F(TrashTest, WhatTheServerHasWithoutOurHavingHeardIsStillOnItsWay) {
  extension_->addFile("1", ROOT, "a.txt", "a");
  beginWithTrash();
  EXPECT_EQ(put("a.txt", "a.txt"), 0);
  extension_->loseNextAnswer(unreachable());
  settle();
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
  look();
  EXPECT_NE(trash_->find(false, "a.txt")->edit, 0);
  sender_->sendNow();
  scheduler_.advance(seconds(20));
  look();
  EXPECT_EQ(trash_->find(false, "a.txt")->edit, 0);
  EXPECT_EQ(restore("a.txt", "a.txt"), 0);
  EXPECT_THAT(server(), ElementsAre("a.txt=a"));
}

TEST_F(TrashTest, WhatIsOnItsWayIsPurgedWhenItHasArrived) {
  extension_->addFile("1", ROOT, "a.txt", "a");
  beginWithTrash();
  put("a.txt", "a.txt");
  EXPECT_EQ(purge("a.txt", seconds(1)), 0);
  EXPECT_THAT(changes(), ElementsAre("trash a.txt", "delete a.txt"));
  EXPECT_THAT(extension_->trash(), IsEmpty());
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(TrashTest, PurgingWithoutTheServerIsRefused) {
  extension_->addFile("1", ROOT, "a.txt", "a");
  extension_->addFile("2", TRASH_CONTAINER.text, "b.txt", "b");
  beginWithTrash();
  look();
  put("a.txt", "a.txt");
  goOutOfReach();
  EXPECT_EQ(purge("a.txt", seconds(10)), EHOSTUNREACH);
  EXPECT_EQ(purge("b.txt"), EHOSTUNREACH);
  EXPECT_THAT(shown(), UnorderedElementsAre("a.txt <- a.txt", "b.txt <- b.txt"));
}

TEST_F(TrashTest, WhatTheServerHasNeverSeenIsPurgedHereAlone) {
  beginWithTrash();
  makeFolder("d");
  create("d/a.txt", "a");
  create("b.txt", "b");
  goOutOfReach();
  put("d", "d");
  put("b.txt", "b.txt");
  EXPECT_EQ(purge("d"), 0);
  EXPECT_EQ(purge("b.txt"), 0);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  scheduler_.advance(seconds(5));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_ + "/edits"), {}), 1) << "only `sending`";
  comeBack();
  EXPECT_THAT(server(), IsEmpty());
}

TEST_F(TrashTest, AFolderFromWhichSomethingWasTrashedCanGoItself) {
  beginWithTrash();
  makeFolder("d");
  create("d/a.txt", "a");
  goOutOfReach();
  put("d/a.txt", "a.txt");
  removeFolder("d");
  comeBack();
  sender_->sendNow();
  scheduler_.advance(seconds(10));
  EXPECT_THAT(server(), IsEmpty());
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
}

TEST_F(TrashTest, NothingIsKnownOnlyWhenNothingIs) {
  extension_->addFile("1", TRASH_CONTAINER.text, "a", "");
  beginWithTrash();
  goOutOfReach();
  EXPECT_EQ(look(), EHOSTUNREACH);
  comeBack();
  EXPECT_EQ(look(), 0);
  goOutOfReach();
  scheduler_.advance(Trash::MAX_AGE * 2);
  EXPECT_EQ(look(), 0) << "what was known before";
  EXPECT_THAT(shown(), ElementsAre("a <- a"));
}

TEST_F(TrashTest, AListingThatWasAskedForBeforeAnItemArrivedDoesNotTakeItAway) {
  extension_->addFile("1", ROOT, "a.txt", "a");
  beginWithTrash();
  put("a.txt", "a.txt");
  const auto number = trash_->find(false, "a.txt")->number;
  extension_->holdListings();
  EXPECT_EQ(look(), -1);
  settle();
  EXPECT_THAT(extension_->trash(), ElementsAre("a.txt"));
  EXPECT_EQ(look(), -1) << "which sees that it has arrived";
  ASSERT_TRUE(extension_->letOneGo());
  scheduler_.runUntilIdle();
  ASSERT_NE(trash_->find(number), nullptr);
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  ASSERT_NE(trash_->find(number), nullptr);
  EXPECT_EQ(trash_->find(number)->edit, 0);
}

TEST_F(TrashTest, AListingThatWasAskedForBeforeAnItemWasPurgedDoesNotBringItBack) {
  extension_->addFile("1", TRASH_CONTAINER.text, "a.txt", "a");
  beginWithTrash();
  look();
  extension_->holdAnswers();
  EXPECT_EQ(purge("a.txt"), -1);
  tellOfNews();
  extension_->holdListings();
  EXPECT_EQ(look(), -1);
  ASSERT_TRUE(extension_->letOneGo());
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), IsEmpty());
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(TrashTest, WhoAsksForOneNameWaitsOnlySoLong) {
  beginWithTrash();
  extension_->holdAnswers();
  bool isKnown = false;
  trash_->perform([&] { trash_->whenKnown([&] { isKnown = true; }); });
  scheduler_.advance(Trash::LOOKUP_PATIENCE - seconds(0.001));
  EXPECT_FALSE(isKnown);
  scheduler_.advance(seconds(0.002));
  EXPECT_TRUE(isKnown);
  isKnown = false;
  trash_->perform([&] { trash_->whenKnown([&] { isKnown = true; }); });
  scheduler_.runUntilIdle();
  EXPECT_TRUE(isKnown) << "it was in vain just now";
  extension_->letAnswersGo();
}

TEST_F(TrashTest, AProgramMayNameThingsDifferentlyAndPutThemOutOfSight) {
  extension_->addFile("1", TRASH_CONTAINER.text, "a", "");
  extension_->addFile("2", TRASH_CONTAINER.text, "b", "");
  beginWithTrash();
  look();
  const auto number = trash_->find(false, "a")->number;
  EXPECT_EQ(trash_->rename(number, false, "b").error().code, EEXIST);
  EXPECT_TRUE(trash_->rename(number, true, "12345"));
  EXPECT_EQ(trash_->find(false, "a"), nullptr);
  EXPECT_EQ(trash_->find(true, "12345")->number, number);
  scheduler_.advance(Trash::MAX_AGE * 2);
  look();
  EXPECT_THAT(shown(), ElementsAre("b <- b"));
  EXPECT_EQ(trash_->list(true).size(), 1U);
}

TEST_F(TrashTest, AHundredThousandItemsAreListed) {
  for (int i = 0; i < 100'000; ++i) extension_->addFile(fmt::format("i{}", i), TRASH_CONTAINER.text, "a.txt", "");
  beginWithTrash();
  EXPECT_EQ(look(), 0);
  EXPECT_EQ(trash_->list(false).size(), 100'000U);
  EXPECT_NE(trash_->find(false, "a 100000.txt"), nullptr);
}

}  // namespace
}  // namespace vondle
