#include "service/edits/local_edits.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "platform/content_types.h"
#include "testing/local_edits_rig.h"

// How often SQLite has asked for what it wrote to be on disk; see replica_test.cpp.
extern std::atomic<int> syncs;

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using Kind = ReplicaChange::Kind;

constexpr std::uint32_t NEW_FILE = EDIT_CREATED | EDIT_PLACED | EDIT_CONTENTS;

using LocalEditsTest = LocalEditsRig;

// --- What programs do ---

TEST_F(LocalEditsTest, ANewFileIsShownAndWaitsToBeSent) {
  buildTree();
  EXPECT_EQ(createFile("a", "new.txt", 7), 0);
  const auto item = attributes(at("/A/new.txt"));
  EXPECT_FALSE(item.isFolder);
  EXPECT_EQ(item.size, 0);
  EXPECT_EQ(item.modified, scheduler_.now());
  const auto waiting = edit("/A/new.txt");
  EXPECT_TRUE(isLocal(waiting.item));
  EXPECT_EQ(waiting.fields, EDIT_CREATED);
  EXPECT_EQ(waiting.place, (Place{{"a"}, "new.txt"}));
  EXPECT_EQ(waiting.serverPlace, std::nullopt);
  EXPECT_EQ(waiting.contents, 7);
  EXPECT_THAT(forKernel(), Not(Contains(Field(&ReplicaChange::inode, item.inode))));
}

TEST_F(LocalEditsTest, AnExecutableFileStaysExecutable) {
  buildTree();
  errorOf([&](auto answer) { edits_->createFile(inode("a"), "run", 7, 0750, std::move(answer)); });
  EXPECT_EQ(attributes(at("/A/run")).permissions, 0750U);
  restart();
  EXPECT_EQ(attributes(at("/A/run")).permissions, 0750U);
}

TEST_F(LocalEditsTest, NewFoldersHoldNewFilesAtOnce) {
  buildTree();
  EXPECT_EQ(createFolder("b", "new"), 0);
  EXPECT_TRUE(attributes(at("/B/new")).isListed);
  EXPECT_EQ(createFile(identifierAt("/B/new"), "f"), 0);
  EXPECT_EQ(edit("/B/new/f").place.folder.text, identifierAt("/B/new"));
  EXPECT_LT(edit("/B/new").id, edit("/B/new/f").id);
}

TEST_F(LocalEditsTest, WhatCannotBeMadeSaysWhy) {
  auto closed = folder("c", ROOT, "closed");
  closed.capabilities &= ~std::uint32_t{ALLOWS_WRITING};
  list(ROOT, {folder("a", ROOT, "A"), file("x", ROOT, "x"), closed});
  list("a", {});
  list("c", {});
  EXPECT_EQ(createFile(ROOT, "x"), EEXIST);
  EXPECT_EQ(createFile("x", "f"), ENOTDIR);
  EXPECT_EQ(createFile("c", "f"), EACCES);
  EXPECT_EQ(createFolder("c", "f"), EACCES);
  EXPECT_EQ(errorOf([&](auto answer) { edits_->createFile(9999, "f", 1, 0600, std::move(answer)); }), ENOENT);
  EXPECT_EQ(createFile(ROOT, std::string(256, 'n')), ENAMETOOLONG);
  EXPECT_EQ(createFile(ROOT, std::string(255, 'n')), 0);
  EXPECT_EQ(createFile(ROOT, "%=plain"), EINVAL);
  EXPECT_EQ(createFile(ROOT, "\xff"), EINVAL);
  EXPECT_EQ(edits_->pendingCount(), 1U);
}

TEST_F(LocalEditsTest, ALocalNameThatStandsForAnotherIsSentAsThat) {
  buildTree();
  EXPECT_EQ(createFile("a", "%=a%2Fb"), 0);
  EXPECT_EQ(edit("/A/%=a%2Fb").place.name, "a/b");
}

TEST_F(LocalEditsTest, ARenamedItemKeepsItsInodeAndSaysWhereTheServerHasIt) {
  buildTree();
  const Inode x = inode("x");
  EXPECT_EQ(rename("a", "x.txt", "b", "z.txt"), 0);
  EXPECT_EQ(at("/B/z.txt"), x);
  const auto waiting = edit("/B/z.txt");
  EXPECT_EQ(waiting.item.text, "x");
  EXPECT_EQ(waiting.fields, EDIT_PLACED);
  EXPECT_EQ(waiting.place, (Place{{"b"}, "z.txt"}));
  EXPECT_EQ(waiting.serverPlace, (Place{{"a"}, "x.txt"}));
  EXPECT_EQ(waiting.baseVersion, file("x", "a", "x.txt").itemVersion);
  EXPECT_THAT(forKernel(), Not(Contains(Field(&ReplicaChange::name, "z.txt"))));
}

TEST_F(LocalEditsTest, ManyRenamingsAreOneAndOneBackIsNone) {
  buildTree();
  rename("a", "x.txt", "a", "1");
  rename("a", "1", "b", "2");
  EXPECT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(edit("/B/2").generation, 2);
  rename("b", "2", "a", "x.txt");
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
  restart();
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
}

TEST_F(LocalEditsTest, ANewItemThatGoesLeavesNoEdit) {
  buildTree();
  createFile("a", "f");
  createFolder("a", "g");
  EXPECT_EQ(removeFile("a", "f"), 0);
  EXPECT_EQ(removeFolder("a", "g"), 0);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
}

TEST_F(LocalEditsTest, ADeletedItemOfTheServersIsRemembered) {
  buildTree();
  const Inode x = inode("x");
  changes_.clear();
  EXPECT_EQ(removeFile("a", "x.txt"), 0);
  EXPECT_THAT(changes_, ElementsAre(ReplicaChange{Kind::itemRemoved, inode("a"), "x.txt", x, true}));
  EXPECT_EQ(inode("x"), 0U);
  const auto waiting = *editOf("x");
  EXPECT_EQ(waiting.fields, EDIT_DELETED);
  EXPECT_EQ(waiting.serverPlace, (Place{{"a"}, "x.txt"}));
  EXPECT_EQ(waiting.baseVersion, file("x", "a", "x.txt").itemVersion);
}

TEST_F(LocalEditsTest, DeletingSaysWhatIsInTheWay) {
  buildTree();
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B"), folder("u", ROOT, "unlisted")});
  auto kept = file("x", "a", "x.txt");
  kept.capabilities &= ~std::uint32_t{ALLOWS_DELETING};
  news({kept});
  EXPECT_EQ(removeFile("a", "none"), ENOENT);
  EXPECT_EQ(removeFile(ROOT, "A"), EISDIR);
  EXPECT_EQ(removeFolder("a", "x.txt"), ENOTDIR);
  EXPECT_EQ(removeFolder(ROOT, "A"), ENOTEMPTY);
  EXPECT_EQ(removeFolder(ROOT, "unlisted"), ENOTEMPTY);
  EXPECT_EQ(removeFile("a", "x.txt"), EACCES);
  EXPECT_EQ(removeFile("b", "y.txt"), 0);
  EXPECT_EQ(removeFolder(ROOT, "B"), 0);
}

TEST_F(LocalEditsTest, RenamingSaysWhatIsInTheWay) {
  buildTree();
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B"), folder("e", ROOT, "empty"), file("f", ROOT, "f")});
  list("e", {});
  EXPECT_EQ(rename("a", "none", "b", "z"), ENOENT);
  EXPECT_EQ(rename("a", "x.txt", "b", "y.txt", false), EEXIST);
  EXPECT_EQ(rename(ROOT, "A", "a", "z"), EINVAL);
  EXPECT_EQ(rename(ROOT, "A", ROOT, "f"), ENOTDIR);
  EXPECT_EQ(rename(ROOT, "f", ROOT, "A"), EISDIR);
  EXPECT_EQ(rename(ROOT, "empty", ROOT, "A"), ENOTEMPTY);
  EXPECT_EQ(rename("a", "x.txt", "a", std::string(256, 'n')), ENAMETOOLONG);
  EXPECT_EQ(rename("a", "x.txt", "a", "x.txt"), 0);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(rename(ROOT, "A", ROOT, "empty"), 0);
  EXPECT_EQ(pathOf("x"), "/empty/x.txt");
  EXPECT_EQ(editOf("e")->fields, EDIT_DELETED);
}

TEST_F(LocalEditsTest, WhatTheServerForbidsIsNotDone) {
  auto fixed = file("x", "a", "x.txt");
  const auto without = [&](std::uint32_t capability) {
    fixed.capabilities = 63 & ~capability;
    news({fixed});
  };
  buildTree();
  without(ALLOWS_RENAMING);
  EXPECT_EQ(rename("a", "x.txt", "a", "z"), EACCES);
  EXPECT_EQ(rename("a", "x.txt", "b", "x.txt"), 0);
  rename("b", "x.txt", "a", "x.txt");
  without(ALLOWS_REPARENTING);
  EXPECT_EQ(rename("a", "x.txt", "b", "x.txt"), EACCES);
  without(ALLOWS_WRITING);
  EXPECT_EQ(editContents(inode("x"), 7), EACCES);
  createFile("a", "temporary");
  EXPECT_EQ(rename("a", "temporary", "a", "x.txt"), EACCES);
  without(ALLOWS_DELETING);
  EXPECT_EQ(rename("b", "y.txt", "a", "x.txt"), EACCES);
}

TEST_F(LocalEditsTest, NewContentsAreMadeFromThoseThatWereSeen) {
  buildTree();
  const auto before = attributes(inode("x"));
  EXPECT_EQ(editContents(inode("x"), 7, before.contentTag + 1), ESTALE);
  EXPECT_EQ(editContents(inode("x"), 7, before.contentTag), 0);
  const auto waiting = edit("/A/x.txt");
  EXPECT_EQ(waiting.fields, EDIT_CONTENTS);
  EXPECT_EQ(waiting.contents, 7);
  EXPECT_EQ(waiting.baseVersion, file("x", "a", "x.txt").itemVersion);
  EXPECT_EQ(attributes(inode("x")).size, before.size);
  EXPECT_NE(attributes(inode("x")).contentTag, before.contentTag);
  touch(inode("x"), 20, 5);
  EXPECT_EQ(attributes(inode("x")).size, 20);
  EXPECT_EQ(attributes(inode("x")).modified.secondsSince1970, 5);
  EXPECT_GT(edit("/A/x.txt").generation, waiting.generation);
  EXPECT_EQ(editContents(inode("a"), 7), EISDIR);
  EXPECT_EQ(editContents(9999, 7), ENOENT);
}

TEST_F(LocalEditsTest, TimesAndPermissionsThatTheServerDoesNotKeepAreKeptHere) {
  buildTree();
  errorOf([&](auto answer) { edits_->setModified(inode("x"), {5}, std::move(answer)); });
  errorOf([&](auto answer) { edits_->setPermissions(inode("x"), 0554, std::move(answer)); });
  restart();
  news({file("x", "a", "x.txt")});
  EXPECT_EQ(attributes(inode("x")).modified.secondsSince1970, 5);
  EXPECT_EQ(attributes(inode("x")).permissions, 0554U);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  auto newer = file("x", "a", "x.txt", 2);
  newer.contentModificationDate = Timestamp{77};
  news({newer});
  EXPECT_EQ(attributes(inode("x")).modified.secondsSince1970, 77);
  EXPECT_EQ(attributes(inode("x")).permissions, 0554U);
  EXPECT_EQ(errorOf([&](auto answer) { edits_->setModified(ROOT_INODE, {5}, std::move(answer)); }), 0);
  EXPECT_EQ(errorOf([&](auto answer) { edits_->setPermissions(ROOT_INODE, 0755, std::move(answer)); }), 0);
  restart();
  EXPECT_EQ(attributes(ROOT_INODE).modified.secondsSince1970, 5);
  EXPECT_EQ(attributes(ROOT_INODE).permissions, 0755U);
  EXPECT_EQ(errorOf([&](auto answer) { edits_->setModified(9999, {5}, std::move(answer)); }), ENOENT);
}

TEST_F(LocalEditsTest, AFileMadeWhereOneWasDeletedHasItsOwnPermissions) {
  buildTree();
  errorOf([&](auto answer) { edits_->setPermissions(inode("x"), 0644, std::move(answer)); });
  removeFile("a", "x.txt");
  createFile("a", "x.txt", 7);
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
  EXPECT_EQ(attributes(inode("x")).permissions, 0600U);
  restart();
  EXPECT_EQ(attributes(inode("x")).permissions, 0600U);
}

TEST_F(LocalEditsTest, AFileThatReplacesAnotherBringsItsPermissions) {
  buildTree();
  errorOf([&](auto answer) { edits_->setPermissions(inode("x"), 0644, std::move(answer)); });
  createFile("a", "temporary", 7);
  rename("a", "temporary", "a", "x.txt");
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
  EXPECT_EQ(attributes(inode("x")).permissions, 0600U);
  restart();
  EXPECT_EQ(attributes(inode("x")).permissions, 0600U);
}

// --- Identity ---

TEST_F(LocalEditsTest, AFileRenamedOverAnotherIsItsNewContents) {
  buildTree();
  createFile("a", "temporary", 7);
  touch(at("/A/temporary"), 20, 5);
  const Inode temporary = at("/A/temporary");
  EXPECT_EQ(rename("a", "temporary", "a", "x.txt"), 0);
  EXPECT_EQ(at("/A/x.txt"), temporary);
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
  EXPECT_EQ(edits_->pendingCount(), 1U);
  const auto waiting = edit("/A/x.txt");
  EXPECT_EQ(waiting.fields, EDIT_CONTENTS);
  EXPECT_EQ(waiting.contents, 7);
  EXPECT_EQ(waiting.baseVersion, file("x", "a", "x.txt").itemVersion);
  EXPECT_EQ(attributes(temporary).size, 20);
  restart();
  EXPECT_EQ(at("/A/x.txt"), temporary);
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
}

TEST_F(LocalEditsTest, AFileRenamedOverOneThatMovedKeepsTheMove) {
  buildTree();
  rename("a", "x.txt", "b", "z");
  createFile("b", "temporary", 7);
  EXPECT_EQ(rename("b", "temporary", "b", "z"), 0);
  EXPECT_EQ(identifierAt("/B/z"), "x");
  EXPECT_EQ(edit("/B/z").fields, EDIT_CONTENTS | EDIT_PLACED);
  EXPECT_EQ(edit("/B/z").serverPlace, (Place{{"a"}, "x.txt"}));
}

TEST_F(LocalEditsTest, AnEditorThatMovesTheOldFileAwayAndDeletesItKeepsTheItem) {
  buildTree();
  rename("a", "x.txt", "a", "x.txt~");
  createFile("a", "x.txt", 7);
  EXPECT_EQ(edits_->pendingCount(), 2U);
  EXPECT_EQ(removeFile("a", "x.txt~"), 0);
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
  EXPECT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CONTENTS);
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
}

TEST_F(LocalEditsTest, AFileDeletedAndMadeAgainKeepsTheItem) {
  buildTree();
  removeFile("a", "x.txt");
  createFile("a", "x.txt", 7);
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
  EXPECT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CONTENTS);
  EXPECT_EQ(edit("/A/x.txt").baseVersion, file("x", "a", "x.txt").itemVersion);
  restart();
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
}

TEST_F(LocalEditsTest, ANewFileRenamedToWhereOneWasDeletedKeepsTheItem) {
  buildTree();
  createFile("b", "temporary", 7);
  removeFile("a", "x.txt");
  rename("b", "temporary", "a", "x.txt");
  EXPECT_EQ(identifierAt("/A/x.txt"), "x");
  EXPECT_EQ(edits_->pendingCount(), 1U);
}

TEST_F(LocalEditsTest, AFolderMadeAgainIsAnother) {
  buildTree();
  removeFile("a", "x.txt");
  removeFolder(ROOT, "A");
  EXPECT_EQ(createFolder(ROOT, "A"), 0);
  EXPECT_TRUE(isLocal({identifierAt("/A")}));
  EXPECT_EQ(editOf("a")->fields, EDIT_DELETED);
}

TEST_F(LocalEditsTest, WhatIsKnownToTheServerReplacesByDeleting) {
  buildTree();
  const Inode y = inode("y");
  EXPECT_EQ(rename("b", "y.txt", "a", "x.txt"), 0);
  EXPECT_EQ(at("/A/x.txt"), y);
  EXPECT_EQ(editOf("x")->fields, EDIT_DELETED);
  EXPECT_EQ(editOf("y")->fields, EDIT_PLACED);
}

TEST_F(LocalEditsTest, WhatIsBeingSentTakesNoIdentityOver) {
  buildTree();
  createFile("a", "temporary", 7);
  const auto sent = beginSending("/A/temporary");
  rename("a", "temporary", "a", "x.txt");
  EXPECT_EQ(editOf("x")->fields, EDIT_DELETED);
  EXPECT_TRUE(isLocal({identifierAt("/A/x.txt")}));
  const auto outcome = succeeded(sent, NEW_FILE, saved(file("n", "a", "temporary")));
  EXPECT_EQ(outcome.inode, at("/A/x.txt"));
  EXPECT_EQ(identifierAt("/A/x.txt"), "n");
  EXPECT_EQ(editOf("n")->fields, EDIT_PLACED);
  EXPECT_EQ(editOf("n")->serverPlace, (Place{{"a"}, "temporary"}));
}

// --- The server's news against edits ---

TEST_F(LocalEditsTest, APlacedItemStaysWhereTheUserPutIt) {
  buildTree();
  rename("a", "x.txt", "b", "mine");
  auto moved = file("x", ROOT, "theirs");
  news({moved});
  EXPECT_EQ(pathOf("x"), "/B/mine");
  EXPECT_EQ(editOf("x")->serverPlace, (Place{ROOT_CONTAINER, "theirs"}));
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B"), moved});
  EXPECT_EQ(pathOf("x"), "/B/mine");
  news({file("x", "b", "mine")});
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(pathOf("x"), "/B/mine");
}

TEST_F(LocalEditsTest, AnEditedItemFollowsTheServersMoveAndKeepsItsContents) {
  buildTree();
  editContents(inode("x"), 7);
  touch(inode("x"), 20, 5);
  const auto before = attributes(inode("x"));
  news({file("x", "b", "theirs", 2)});
  EXPECT_EQ(pathOf("x"), "/B/theirs");
  const auto after = attributes(inode("x"));
  EXPECT_EQ(after.size, 20);
  EXPECT_EQ(after.modified, before.modified);
  EXPECT_EQ(after.contentTag, before.contentTag);
  EXPECT_EQ(edit("/B/theirs").place, (Place{{"b"}, "theirs"}));
  EXPECT_EQ(edit("/B/theirs").baseVersion, file("x", "a", "x.txt").itemVersion);
}

TEST_F(LocalEditsTest, AnEditedItemWhoseNewFolderIsUnknownStays) {
  buildTree();
  editContents(inode("x"), 7);
  news({file("x", "unknown", "x.txt")});
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
  news({file("y", "unknown", "y.txt")});
  EXPECT_EQ(inode("y"), 0U);
}

TEST_F(LocalEditsTest, ADeletedItemStaysHidden) {
  buildTree();
  removeFile("a", "x.txt");
  news({file("x", "b", "moved", 2)});
  EXPECT_EQ(inode("x"), 0U);
  EXPECT_EQ(editOf("x")->serverPlace, (Place{{"b"}, "moved"}));
  list("b", {file("y", "b", "y.txt"), file("x", "b", "moved", 2)});
  EXPECT_THAT(names("b"), ElementsAre("y.txt"));
  EXPECT_EQ(editOf("x")->baseVersion, file("x", "a", "x.txt").itemVersion);
  news({}, {{"x"}});
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, AListingWithoutTheEditedItemsLeavesThem) {
  buildTree();
  createFile("a", "new");
  createFolder("a", "folder");
  rename("b", "y.txt", "a", "y.txt");
  list("a", {file("x", "a", "x.txt")});
  EXPECT_THAT(names("a"), UnorderedElementsAre("x.txt", "new", "folder", "y.txt"));
}

TEST_F(LocalEditsTest, AListingDoesNotTakeBackWhatWasMovedAway) {
  buildTree();
  rename("a", "x.txt", "b", "x.txt");
  list("a", {file("x", "a", "x.txt")});
  EXPECT_EQ(pathOf("x"), "/B/x.txt");
  EXPECT_THAT(names("a"), IsEmpty());
}

TEST_F(LocalEditsTest, AnEditedFileThatTheServerDeletesIsUploadedAsNew) {
  buildTree();
  editContents(inode("x"), 7);
  touch(inode("x"), 20, 5);
  const Inode x = inode("x");
  forKernel();
  news({}, {{"x"}});
  EXPECT_EQ(at("/A/x.txt"), x);
  const auto waiting = edit("/A/x.txt");
  EXPECT_TRUE(isLocal(waiting.item));
  EXPECT_EQ(waiting.fields, EDIT_CREATED);
  EXPECT_EQ(waiting.contents, 7);
  EXPECT_EQ(waiting.serverPlace, std::nullopt);
  EXPECT_EQ(waiting.baseVersion, ItemVersion());
  EXPECT_EQ(attributes(x).size, 20);
  EXPECT_THAT(forKernel(), Not(Contains(Field(&ReplicaChange::kind, Kind::itemRemoved))));
  restart();
  EXPECT_EQ(at("/A/x.txt"), x);
  EXPECT_EQ(edit("/A/x.txt").contents, 7);
}

TEST_F(LocalEditsTest, AnEditedFileMissingInAListingOrTrashedIsUploadedAsNew) {
  buildTree();
  editContents(inode("x"), 7);
  editContents(inode("y"), 8);
  list("a", {});
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CREATED);
  auto trashed = file("y", "b", "y.txt");
  trashed.parentItemIdentifier = TRASH_CONTAINER;
  news({trashed});
  EXPECT_EQ(edit("/B/y.txt").fields, EDIT_CREATED);
}

TEST_F(LocalEditsTest, PlacedItemsThatTheServerDeletesGo) {
  buildTree();
  rename("a", "x.txt", "b", "z");
  news({}, {{"x"}});
  EXPECT_EQ(at("/B/z"), 0U);
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, AnEditedFileDeepInADeletedFolderKeepsItsFolders) {
  list(ROOT, {folder("a", ROOT, "A")});
  list("a", {folder("b", "a", "B"), file("o", "a", "other")});
  list("b", {folder("c", "b", "C"), folder("d", "b", "D")});
  list("c", {file("x", "c", "x.txt")});
  list("d", {});
  editContents(inode("x"), 7);
  const Inode a = inode("a"), c = inode("c");
  news({}, {{"a"}});
  EXPECT_EQ(at("/A"), a);
  EXPECT_EQ(at("/A/B/C"), c);
  EXPECT_NE(at("/A/B/C/x.txt"), 0U);
  EXPECT_EQ(at("/A/other"), 0U);
  EXPECT_EQ(at("/A/B/D"), 0U);
  EXPECT_EQ(edits_->pendingCount(), 4U);
  EXPECT_EQ(edit("/A").place, (Place{ROOT_CONTAINER, "A"}));
  EXPECT_EQ(edit("/A/B").place.folder.text, identifierAt("/A"));
  EXPECT_EQ(edit("/A/B/C/x.txt").place.folder.text, identifierAt("/A/B/C"));
  for (const auto& waiting : edits_->pending()) EXPECT_EQ(waiting.fields, EDIT_CREATED);
  restartWithoutReplica();
  list(ROOT, {});
  EXPECT_NE(at("/A/B/C/x.txt"), 0U);
}

TEST_F(LocalEditsTest, AFolderWithNewItemsOutlivesItsDeletion) {
  buildTree();
  createFile("a", "new");
  news({}, {{"a"}});
  EXPECT_THAT(names(identifierAt("/A")), ElementsAre("new"));
  EXPECT_EQ(edit("/A").fields, EDIT_CREATED);
  EXPECT_EQ(edit("/A/new").place.folder.text, identifierAt("/A"));
}

TEST_F(LocalEditsTest, OfFoldersMovedIntoOneAnotherTheServersMoveCounts) {
  buildTree();
  ASSERT_EQ(rename(ROOT, "A", "b", "A"), 0);
  ASSERT_EQ(rename("a", "x.txt", "a", "mine.txt"), 0);
  news({folder("b", "a", "B")});
  EXPECT_EQ(pathOf("a"), "/A");
  EXPECT_EQ(pathOf("b"), "/A/B");
  EXPECT_EQ(pathOf("y"), "/A/B/y.txt");
  EXPECT_EQ(pathOf("x"), "/A/mine.txt");
  EXPECT_FALSE(editOf("a"));
  EXPECT_EQ(edits_->pendingCount(), 1U);
  restart();
  EXPECT_EQ(pathOf("b"), "/A/B");
  EXPECT_FALSE(editOf("a"));
}

TEST_F(LocalEditsTest, AFolderMovedIntoOneThatAListingHasInItGoesBack) {
  buildTree();
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B"), folder("c", ROOT, "C")});
  ASSERT_EQ(rename(ROOT, "C", "b", "C"), 0);
  list("c", {folder("b", "c", "B"), file("z", "c", "z.txt")});
  EXPECT_EQ(pathOf("c"), "/C");
  EXPECT_EQ(pathOf("b"), "/C/B");
  EXPECT_EQ(pathOf("z"), "/C/z.txt");
  EXPECT_EQ(pathOf("y"), "/C/B/y.txt");
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, AMoveThatTheServerCannotTakeIsUndone) {
  buildTree();
  ASSERT_EQ(rename(ROOT, "A", "b", "D"), 0);
  const auto sent = beginSending("/B/D");
  ASSERT_EQ(undoMove(sent), 0);
  EXPECT_EQ(pathOf("a"), "/A");
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, AMoveMadeWhileTheServerRefusedAnotherIsKept) {
  buildTree();
  ASSERT_EQ(rename(ROOT, "A", "b", "D"), 0);
  const auto sent = beginSending("/B/D");
  ASSERT_EQ(rename("b", "D", ROOT, "E"), 0);
  ASSERT_EQ(undoMove(sent), 0);
  EXPECT_EQ(pathOf("a"), "/E");
  EXPECT_EQ(editOf("a")->fields, EDIT_PLACED);
}

TEST_F(LocalEditsTest, AFolderThatOthersWereMovedToOutlivesItsDeletionWithThem) {
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
  list("a", {});
  list("b", {folder("c", "b", "C")});
  list("c", {file("x", "c", "x.txt")});
  rename("b", "C", "a", "C");
  news({}, {{"a"}});
  EXPECT_EQ(pathOf("c"), "/A/C");
  EXPECT_EQ(pathOf("x"), "/A/C/x.txt");
  EXPECT_EQ(editOf("c")->fields, EDIT_PLACED);
  EXPECT_EQ(editOf("c")->place.folder.text, identifierAt("/A"));
  EXPECT_EQ(edit("/A").fields, EDIT_CREATED);
}

TEST_F(LocalEditsTest, AnEditedFileThatBecomesAFolderStaysBesideIt) {
  buildTree();
  editContents(inode("x"), 7);
  news({folder("x", "a", "x.txt")});
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CREATED);
  EXPECT_TRUE(attributes(inode("x")).isFolder);
  EXPECT_THAT(names("a"), Contains("x.txt"));
  EXPECT_EQ(names("a").size(), 2U);
}

TEST_F(LocalEditsTest, APageThatEmptiesTheTreeLeavesWhatIsNotSent) {
  buildTree();
  createFile(ROOT, "new");
  createFile("a", "newer");
  editContents(inode("y"), 8);
  news({}, {{"a"}, {"b"}, {"x"}, {"y"}});
  EXPECT_THAT(names(ROOT), UnorderedElementsAre("A", "B", "new"));
  EXPECT_NE(at("/A/newer"), 0U);
  EXPECT_NE(at("/B/y.txt"), 0U);
  EXPECT_EQ(at("/A/x.txt"), 0U);
  EXPECT_EQ(edits_->pendingCount(), 5U);
}

TEST_F(LocalEditsTest, OneNameForALocalAndAServerItemShowsBoth) {
  buildTree();
  createFile("a", "same", 7);
  const Inode mine = at("/A/same");
  news({file("s", "a", "same")});
  EXPECT_EQ(at("/A/same"), mine);
  EXPECT_NE(inode("s"), 0U);
  EXPECT_NE(pathOf("s"), "/A/same");
  EXPECT_EQ(renameAside(beginSending("/A/same")), 0);
  EXPECT_EQ(pathOf("s"), "/A/same");
  EXPECT_EQ(at("/A/same (conflicted copy)"), mine);
}

TEST_F(LocalEditsTest, TheRootDeletedAndListedAgainKeepsLocalItems) {
  buildTree();
  createFile(ROOT, "new");
  createFolder(ROOT, "folder");
  createFile(identifierAt("/folder"), "in");
  editContents(inode("x"), 7);
  news({}, {ROOT_CONTAINER});
  EXPECT_FALSE(replica_->isListed(ROOT_INODE));
  list(ROOT, {folder("b", ROOT, "B")});
  EXPECT_THAT(names(ROOT), UnorderedElementsAre("A", "B", "new", "folder"));
  EXPECT_NE(at("/A/x.txt"), 0U);
  EXPECT_NE(at("/folder/in"), 0U);
}

TEST_F(LocalEditsTest, TheServerCannotNameItemsOfThisMachine) {
  buildTree();
  createFile("a", "new");
  auto forged = file(identifierAt("/A/new"), "b", "forged");
  news({forged});
  list("b", {forged});
  EXPECT_EQ(pathOf(forged.itemIdentifier.text), "/A/new");
  EXPECT_THAT(names("b"), IsEmpty());
  news({}, {{std::string(LOCAL_IDENTIFIER_PREFIX) + "unknown"}});
}

TEST_F(LocalEditsTest, ADeletedFolderThatSomebodyFillsShowsUpAgainWhenItIsLookedInto) {
  buildTree();
  removeFile("b", "y.txt");
  removeFolder(ROOT, "B");
  const auto deletion = *beginSending(editOf("b")->id);
  news({file("n", "b", "n")});
  EXPECT_TRUE(editOf("b"));
  undelete(deletion);
  EXPECT_FALSE(editOf("b"));
  EXPECT_FALSE(replica_->isListed(ROOT_INODE));
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
  list("b", {file("n", "b", "n"), file("y", "b", "y.txt")});
  EXPECT_THAT(names("b"), ElementsAre("n"));
}

TEST_F(LocalEditsTest, WhatSomebodyRestoresBeforeTheAnswerToItsDeletionComesShowsUpAgain) {
  buildTree();
  removeFile("b", "y.txt");
  const auto deletion = *beginSending(editOf("y")->id);
  news({file("y", "b", "y.txt")});
  EXPECT_THAT(names("b"), IsEmpty());
  deleted(deletion);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_FALSE(replica_->isListed(inode("b")));
  list("b", {file("y", "b", "y.txt")});
  EXPECT_THAT(names("b"), ElementsAre("y.txt"));
}

TEST_F(LocalEditsTest, AnAnswerToADeletionThatNewsHasToldOfDoesNotHideWhatSomebodyRestored) {
  buildTree();
  removeFile("b", "y.txt");
  const auto deletion = *beginSending(editOf("y")->id);
  news({}, {{"y"}});
  EXPECT_EQ(edits_->pendingCount(), 0U);
  news({file("y", "b", "y.txt")});
  EXPECT_THAT(names("b"), ElementsAre("y.txt"));
  deleted(deletion);
  EXPECT_THAT(names("b"), ElementsAre("y.txt"));
}

TEST_F(LocalEditsTest, NewsOlderThanADeletionDoesNotBringTheFolderBack) {
  buildTree();
  removeFile("b", "y.txt");
  removeFolder(ROOT, "B");
  deleted(*beginSending(editOf("y")->id));
  news({file("y", "b", "y.txt", 2)});
  EXPECT_EQ(editOf("b")->fields, EDIT_DELETED);
  EXPECT_THAT(names(ROOT), ElementsAre("A"));
}

TEST_F(LocalEditsTest, AListingOlderThanASuccessDoesNotUndoIt) {
  buildTree();
  createFile("a", "new", 7);
  const auto sent = beginSending("/A/new");
  const Inode made = at("/A/new");
  removeFile("b", "y.txt");
  const auto removed = *beginSending(editOf("y")->id);
  replica_->beginListing(inode("a"));
  replica_->beginListing(inode("b"));
  succeeded(sent, NEW_FILE, saved(file("n", "a", "new")));
  deleted(removed);
  list("a", {file("x", "a", "x.txt")});
  list("b", {file("y", "b", "y.txt")});
  EXPECT_EQ(inode("n"), made);
  EXPECT_EQ(at("/A/new"), made);
  EXPECT_EQ(inode("y"), 0U);
}

// --- What becomes of sending ---

TEST_F(LocalEditsTest, ATimeThatTheServerKeepsAsItWasSetIsShownWithItsFraction) {
  buildTree();
  createFile("a", "new", 7);
  const Inode made = at("/A/new");
  touch(made, 8, 5.75);
  EXPECT_EQ(attributes(made).modified.secondsSince1970, 5.75);
  auto item = file("n", "a", "new");
  item.contentModificationDate = Timestamp{5.75};
  succeeded(beginSending("/A/new"), NEW_FILE, saved(item));
  news({item});
  EXPECT_EQ(attributes(made).modified.secondsSince1970, 5.75);
  restart();
  EXPECT_EQ(attributes(made).modified.secondsSince1970, 5.75);
}

TEST_F(LocalEditsTest, ASentFileGetsItsIdentifierAndKeepsItsInodeAndTime) {
  buildTree();
  createFile("a", "new", 7);
  const Inode made = at("/A/new");
  touch(made, 8, 5);
  const auto sent = beginSending("/A/new");
  forKernel();
  auto item = file("n", "a", "new");
  item.contentModificationDate = Timestamp{99};
  const auto outcome = succeeded(sent, NEW_FILE, saved(item));
  EXPECT_EQ(outcome.inode, made);
  EXPECT_TRUE(outcome.isContentsDone);
  EXPECT_EQ(outcome.contentTag, TreeState::contentTag("n", item.itemVersion.contentVersion));
  EXPECT_EQ(attributes(made).contentTag, outcome.contentTag);
  EXPECT_EQ(identifierAt("/A/new"), "n");
  EXPECT_EQ(attributes(made).modified.secondsSince1970, 5);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  for (const auto& change : forKernel()) EXPECT_NE(change.kind, Kind::contentsChanged);
  news({item});
  EXPECT_EQ(attributes(made).modified.secondsSince1970, 5);
  restart();
  EXPECT_EQ(at("/A/new"), made);
  EXPECT_EQ(identifierAt("/A/new"), "n");
  EXPECT_EQ(attributes(made).modified.secondsSince1970, 5);
}

TEST_F(LocalEditsTest, ASentFolderTakesWhatIsInItAlong) {
  buildTree();
  createFolder("a", "new");
  const auto local = identifierAt("/A/new");
  createFile(local, "in", 7);
  rename("b", "y.txt", local, "y.txt");
  const Inode made = at("/A/new"), in = at("/A/new/in");
  const auto sent = beginSending("/A/new");
  succeeded(sent, EDIT_CREATED | EDIT_PLACED | EDIT_CONTENTS, saved(folder("n", "a", "new")));
  EXPECT_EQ(inode("n"), made);
  EXPECT_EQ(at("/A/new/in"), in);
  EXPECT_EQ(edit("/A/new/in").place.folder.text, "n");
  EXPECT_EQ(editOf("y")->place.folder.text, "n");
  EXPECT_TRUE(attributes(made).isListed);
  restart();
  EXPECT_EQ(at("/A/new/in"), in);
  EXPECT_EQ(edit("/A/new/in").place.folder.text, "n");
}

TEST_F(LocalEditsTest, ANewFolderKeepsItsTimeAndPermissionsWhenItIsOnTheServer) {
  buildTree();
  errorOf([&](auto answer) { edits_->createFolder(inode("a"), "new", 0750, std::move(answer)); });
  errorOf([&](auto answer) { edits_->setModified(at("/A/new"), {5}, std::move(answer)); });
  auto made = folder("n", "a", "new");
  made.contentModificationDate = Timestamp{77};
  succeeded(beginSending("/A/new"), EDIT_CREATED, saved(made));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(attributes(inode("n")).modified.secondsSince1970, 5);
    EXPECT_EQ(attributes(inode("n")).permissions, 0750U);
    news({made});
    restart();
  }
}

TEST_F(LocalEditsTest, NewsFasterThanTheAnswerLeavesNoTrace) {
  buildTree();
  createFile("a", "new", 7);
  createFolder("a", "folder");
  const Inode made = at("/A/new"), madeFolder = at("/A/folder");
  const auto sent = beginSending("/A/new"), sentFolder = beginSending("/A/folder");
  news({file("n", "a", "new"), folder("f", "a", "folder")});
  EXPECT_NE(inode("n"), made);
  succeeded(sent, NEW_FILE, saved(file("n", "a", "new")));
  succeeded(sentFolder, EDIT_CREATED, saved(folder("f", "a", "folder")));
  EXPECT_EQ(inode("n"), made);
  EXPECT_EQ(inode("f"), madeFolder);
  EXPECT_EQ(at("/A/folder"), madeFolder);
  EXPECT_THAT(names("a"), UnorderedElementsAre("x.txt", "new", "folder"));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, WhatWasWrittenMeanwhileStaysToBeSent) {
  buildTree();
  createFile("a", "new", 7);
  const auto sent = beginSending("/A/new");
  EXPECT_EQ(editContents(at("/A/new"), 8, attributes(at("/A/new")).contentTag), 0);
  touch(at("/A/new"), 30, 6);
  const auto outcome = succeeded(sent, NEW_FILE, saved(file("n", "a", "new")));
  EXPECT_TRUE(outcome.isContentsDone);
  const auto waiting = edit("/A/new");
  EXPECT_EQ(waiting.item.text, "n");
  EXPECT_EQ(waiting.fields, EDIT_CONTENTS);
  EXPECT_EQ(waiting.contents, 8);
  EXPECT_EQ(waiting.baseVersion, file("n", "a", "new").itemVersion);
  EXPECT_EQ(attributes(at("/A/new")).size, 30);
}

TEST_F(LocalEditsTest, WhatWasWrittenMeanwhileIsNoChangeOfWhatAnotherMadeOfTheNewFile) {
  buildTree();
  createFile("a", "new", 7);
  const auto sent = beginSending("/A/new");
  EXPECT_EQ(editContents(at("/A/new"), 8, attributes(at("/A/new")).contentTag), 0);
  succeeded(sent, NEW_FILE, saved(file("n", "a", "new", 2), false));
  EXPECT_EQ(edit("/A/new").fields, EDIT_CONTENTS);
  EXPECT_EQ(edit("/A/new").baseVersion, ItemVersion()) << "so that both are kept";
}

TEST_F(LocalEditsTest, TheSameFileWrittenToAgainStaysToBeSent) {
  buildTree();
  editContents(inode("x"), 7);
  const auto sent = beginSending("/A/x.txt");
  touch(inode("x"), 30, 6);
  const auto outcome = succeeded(sent, EDIT_CONTENTS, saved(file("x", "a", "x.txt", 2)));
  EXPECT_FALSE(outcome.isContentsDone);
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CONTENTS);
  EXPECT_EQ(edit("/A/x.txt").baseVersion, file("x", "a", "x.txt", 2).itemVersion);
}

TEST_F(LocalEditsTest, ContentsPutAsideByAConflictAreThoseOfTheServerFromThenOn) {
  buildTree();
  editContents(inode("x"), 7);
  const auto sent = beginSending("/A/x.txt");
  forKernel();
  const auto outcome = succeeded(sent, EDIT_CONTENTS, saved(file("x", "a", "x.txt", 3), false));
  EXPECT_TRUE(outcome.isContentsDone);
  EXPECT_THAT(forKernel(), Contains(ReplicaChange{Kind::contentsChanged, 0, "", inode("x")}));
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(attributes(inode("x")).size, 8);
}

TEST_F(LocalEditsTest, AnotherPlaceMeanwhileStaysToBeSent) {
  buildTree();
  rename("a", "x.txt", "a", "1");
  const auto sent = beginSending("/A/1");
  rename("a", "1", "b", "2");
  succeeded(sent, EDIT_PLACED, saved(file("x", "a", "1")));
  EXPECT_EQ(pathOf("x"), "/B/2");
  EXPECT_EQ(editOf("x")->fields, EDIT_PLACED);
  EXPECT_EQ(editOf("x")->serverPlace, (Place{{"a"}, "1"}));
  const auto again = beginSending("/B/2");
  rename("b", "2", "a", "1");
  succeeded(again, EDIT_PLACED, saved(file("x", "b", "2")));
  EXPECT_EQ(pathOf("x"), "/A/1");
  EXPECT_EQ(editOf("x")->serverPlace, (Place{{"b"}, "2"}));
}

TEST_F(LocalEditsTest, APlaceThatTheServerChoseIsTaken) {
  buildTree();
  rename("a", "x.txt", "b", "z");
  const auto sent = beginSending("/B/z");
  succeeded(sent, EDIT_PLACED, saved(file("x", "b", "z (2)")));
  EXPECT_EQ(pathOf("x"), "/B/z (2)");
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, FieldsAreSentOneAfterTheOther) {
  buildTree();
  rename("a", "x.txt", "b", "z");
  editContents(inode("x"), 7);
  const auto sent = beginSending("/B/z");
  const auto outcome = succeeded(sent, EDIT_PLACED, saved(file("x", "b", "z")));
  EXPECT_FALSE(outcome.isContentsDone);
  EXPECT_EQ(editOf("x")->fields, EDIT_CONTENTS);
  EXPECT_EQ(editOf("x")->contents, 7);
  auto pending = saved(file("x", "b", "z", 2));
  pending.stillPendingFields = FIELD_CONTENTS;
  succeeded(beginSending("/B/z"), EDIT_CONTENTS, pending);
  EXPECT_EQ(editOf("x")->fields, EDIT_CONTENTS);
  EXPECT_TRUE(succeeded(beginSending("/B/z"), EDIT_CONTENTS, saved(file("x", "b", "z", 2))).isContentsDone);
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, ANewFileDeletedWhileItIsSentIsDeletedThere) {
  buildTree();
  createFile("a", "new", 7);
  const auto sent = beginSending("/A/new");
  removeFile("a", "new");
  EXPECT_EQ(edits_->pendingCount(), 1U);
  news({file("n", "a", "new")});
  const auto outcome = succeeded(sent, NEW_FILE, saved(file("n", "a", "new")));
  EXPECT_EQ(outcome.inode, 0U);
  EXPECT_TRUE(outcome.isContentsDone);
  EXPECT_EQ(inode("n"), 0U);
  EXPECT_EQ(editOf("n")->fields, EDIT_DELETED);
  EXPECT_EQ(deleted(*beginSending(editOf("n")->id)), 0);
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(LocalEditsTest, ANewFileDeletedWhileItIsSentInVainIsForgotten) {
  buildTree();
  for (int way = 0; way < 3; ++way) {
    createFile("a", "new");
    const auto sent = beginSending("/A/new");
    removeFile("a", "new");
    if (way == 0) failed(sent, "no", std::nullopt);
    if (way == 1) edits_->abandonSending(sent.id);
    if (way == 2) restart();
    scheduler_.runUntilIdle();
    EXPECT_EQ(edits_->pendingCount(), 0U) << way;
  }
}

TEST_F(LocalEditsTest, AFileMadeAgainWhileTheFirstWasSentIsItsNewContents) {
  buildTree();
  createFile("a", "new", 7);
  const auto sent = beginSending("/A/new");
  removeFile("a", "new");
  createFile("a", "new", 8);
  const Inode second = at("/A/new");
  succeeded(sent, NEW_FILE, saved(file("n", "a", "new")));
  EXPECT_EQ(inode("n"), second);
  EXPECT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(editOf("n")->fields, EDIT_CONTENTS);
  EXPECT_EQ(editOf("n")->contents, 8);
}

TEST_F(LocalEditsTest, WhatAnotherMadeOfTheFirstIsNotWhatTheSecondIsAChangeOf) {
  buildTree();
  createFile("a", "new", 7);
  const auto sent = beginSending("/A/new");
  removeFile("a", "new");
  createFile("a", "new", 8);
  succeeded(sent, NEW_FILE, saved(file("n", "a", "new", 2), false));
  EXPECT_EQ(editOf("n")->contents, 8);
  EXPECT_EQ(editOf("n")->baseVersion, ItemVersion());
}

TEST_F(LocalEditsTest, WhatOthersTrashedWhileItWasSentIsMadeAnewWithWhatWasWrittenMeanwhile) {
  buildTree();
  for (const bool isSeen : {true, false}) {
    createFile("a", "new", 7);
    const auto sent = beginSending("/A/new");
    noteAttempt(sent);
    editContents(at("/A/new"), 8);
    if (!isSeen) restartWithoutReplica();
    succeeded(sent, NEW_FILE, saved(file("n", TRASH_CONTAINER.text, "new")));
    ASSERT_EQ(edits_->pendingCount(), 1U);
    const auto left = edits_->pending().front();
    EXPECT_EQ(left.fields, EDIT_CREATED);
    EXPECT_EQ(left.contents, 8);
    EXPECT_EQ(left.place, (Place{{"a"}, "new"}));
    if (isSeen) removeFile("a", "new");
  }
}

TEST_F(LocalEditsTest, AnItemDeletedWhileItsContentsAreSentIsStillDeleted) {
  buildTree();
  editContents(inode("x"), 7);
  const auto sent = beginSending("/A/x.txt");
  removeFile("a", "x.txt");
  const auto outcome = succeeded(sent, EDIT_CONTENTS, saved(file("x", "a", "x.txt", 2)));
  EXPECT_EQ(outcome.inode, 0U);
  EXPECT_TRUE(outcome.isContentsDone);
  EXPECT_EQ(editOf("x")->fields, EDIT_DELETED);
  EXPECT_EQ(editOf("x")->baseVersion, file("x", "a", "x.txt", 2).itemVersion);
  EXPECT_EQ(inode("x"), 0U);
}

TEST_F(LocalEditsTest, FailuresCountUntilAProgramChangesTheItem) {
  buildTree();
  createFile("a", "new", 7);
  auto sent = beginSending("/A/new");
  EXPECT_EQ(failed(sent, "no room", Timestamp{1000}), 0);
  sent = beginSending("/A/new");
  failed(sent, "no room", Timestamp{2000});
  restart();
  EXPECT_EQ(edit("/A/new").attempts, 2);
  EXPECT_EQ(edit("/A/new").nextTry, Timestamp{2000});
  EXPECT_EQ(edit("/A/new").lastError, "no room");
  sent = beginSending("/A/new");
  touch(at("/A/new"), 9, 5);
  EXPECT_EQ(edit("/A/new").attempts, 0);
  failed(sent, "no room", Timestamp{2000});
  EXPECT_EQ(edit("/A/new").attempts, 0);
  EXPECT_EQ(edit("/A/new").nextTry, std::nullopt);
  EXPECT_EQ(edit("/A/new").lastError, "no room");
}

TEST_F(LocalEditsTest, AnItemThatTheServerLostBecomesANewOne) {
  buildTree();
  editContents(inode("x"), 7);
  EXPECT_EQ(itemVanished(beginSending("/A/x.txt")), 0);
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CREATED);
  rename("b", "y.txt", "b", "z");
  itemVanished(beginSending("/B/z"));
  EXPECT_EQ(at("/B/z"), 0U);
  EXPECT_EQ(edits_->pendingCount(), 1U);
}

TEST_F(LocalEditsTest, AFolderThatTheServerLostIsMadeAgainForANewFile) {
  buildTree();
  createFile("a", "new", 7);
  itemVanished(beginSending("/A/new"));
  EXPECT_EQ(edit("/A").fields, EDIT_CREATED);
  EXPECT_EQ(edit("/A/new").place.folder.text, identifierAt("/A"));
  EXPECT_EQ(at("/A/x.txt"), 0U);
}

TEST_F(LocalEditsTest, AnItemIsRenamedAsideToANameThatNobodyHas) {
  list(ROOT, {file("1", ROOT, "f (conflicted copy).txt"), file("2", ROOT, "f (conflicted copy 2).txt"),
              file("3", ROOT, "f (conflicted copy 3).txt")});
  removeFile(ROOT, "f (conflicted copy 3).txt");
  createFile(ROOT, "f.txt", 7);
  const Inode made = at("/f.txt");
  forKernel();
  EXPECT_EQ(renameAside(beginSending("/f.txt")), 0);
  EXPECT_EQ(at("/f (conflicted copy 4).txt"), made);
  EXPECT_EQ(edit("/f (conflicted copy 4).txt").place.name, "f (conflicted copy 4).txt");
  EXPECT_EQ(edit("/f (conflicted copy 4).txt").fields, EDIT_CREATED);
  EXPECT_THAT(forKernel(), ElementsAre(ReplicaChange{Kind::entryRemoved, ROOT_INODE, "f.txt", made},
                                       ReplicaChange{Kind::entryAdded, ROOT_INODE, "f (conflicted copy 4).txt", made}));
}

TEST_F(LocalEditsTest, ADeletionTakenBackHasTheFolderListedAgain) {
  buildTree();
  removeFile("a", "x.txt");
  EXPECT_EQ(undelete(*beginSending(editOf("x")->id)), 0);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_FALSE(replica_->isListed(inode("a")));
  list("a", {file("x", "a", "x.txt")});
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
}

TEST_F(LocalEditsTest, WhatWasDeletedOnTheServerAfterItWasMadeAgainHereIsNew) {
  buildTree();
  removeFile("a", "x.txt");
  const auto sent = *beginSending(editOf("x")->id);
  createFile("a", "x.txt", 7);
  EXPECT_TRUE(isLocal({identifierAt("/A/x.txt")}));
  deleted(sent);
  EXPECT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CREATED);
}

TEST_F(LocalEditsTest, ChangesOfTheQueueAreTold) {
  buildTree();
  int count = 0;
  edits_->onChange([&] { ++count; });
  const auto told = [&] { return std::exchange(count, 0) > 0; };
  createFile("a", "new", 7);
  EXPECT_TRUE(told());
  touch(at("/A/new"), 1, 1);
  EXPECT_TRUE(told());
  editContents(inode("x"), 8);
  told();
  news({}, {{"x"}});
  EXPECT_TRUE(told());
  news({file("y", "b", "y.txt", 2)});
  EXPECT_FALSE(told());
}

TEST_F(LocalEditsTest, WhatIsRecordedIsOnDiskSoonOrWhenAsked) {
  buildTree();
  syncs = 0;
  createFile("a", "new", 7);
  EXPECT_EQ(syncs, 0);
  EXPECT_EQ(errorOf([&](auto answer) { edits_->makeDurable(std::move(answer)); }), 0);
  EXPECT_GT(syncs.exchange(0), 0);
  removeFile("b", "y.txt");
  EXPECT_EQ(syncs, 0);
  scheduler_.advance(seconds(5));
  EXPECT_GT(syncs.exchange(0), 0);
  scheduler_.advance(seconds(60));
  EXPECT_EQ(scheduler_.timerCount(), 0U);
  EXPECT_EQ(syncs, 0);
}

// --- Starting again ---

TEST_F(LocalEditsTest, EverythingIsThereAfterARestart) {
  buildTree();
  createFolder("b", "folder");
  createFile(identifierAt("/B/folder"), "in", 7);
  rename("a", "x.txt", "b", "moved");
  removeFile("b", "y.txt");
  const Inode in = at("/B/folder/in");
  const auto before = edits_->pending();
  restart();
  EXPECT_EQ(edits_->pending(), before);
  EXPECT_EQ(at("/B/folder/in"), in);
  EXPECT_EQ(pathOf("x"), "/B/moved");
  EXPECT_EQ(inode("y"), 0U);
}

TEST_F(LocalEditsTest, EverythingShowsUpInATreeMadeAnew) {
  buildTree();
  createFolder("b", "folder");
  createFile(identifierAt("/B/folder"), "in", 7);
  createFile(ROOT, "top", 8);
  rename("a", "x.txt", "b", "moved");
  removeFile("b", "y.txt");
  restartWithoutReplica();
  EXPECT_EQ(edits_->pendingCount(), 5U);
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
  EXPECT_THAT(names(ROOT), UnorderedElementsAre("A", "B", "top"));
  EXPECT_THAT(names("b"), ElementsAre("folder"));
  list("b", {file("y", "b", "y.txt")});
  EXPECT_NE(at("/B/folder/in"), 0U);
  list("a", {file("x", "a", "x.txt")});
  EXPECT_THAT(names("a"), IsEmpty());
  EXPECT_THAT(names("b"), UnorderedElementsAre("folder", "moved"));
  EXPECT_EQ(inode("y"), 0U);
}

TEST_F(LocalEditsTest, EditedContentsShowUpInATreeMadeAnewWithTheirSize) {
  buildTree();
  editContents(inode("x"), 7);
  touch(inode("x"), 20, 5);
  restartWithoutReplica();
  const auto waiting = *editOf("x");
  edits_->describeContents(waiting.id, 20, {5});
  list(ROOT, {folder("a", ROOT, "A")});
  list("a", {file("x", "a", "x.txt", 2)});
  EXPECT_EQ(attributes(inode("x")).size, 20);
  EXPECT_EQ(edit("/A/x.txt").generation, waiting.generation);
  EXPECT_EQ(edits_->inodeOf(waiting.id), inode("x"));
}

TEST_F(LocalEditsTest, AFolderIsNotEmptyWhileSomethingMovedThereIsNotHereYet) {
  buildTree();
  createFolder(ROOT, "folder");
  rename("a", "x.txt", identifierAt("/folder"), "x.txt");
  restartWithoutReplica();
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
  EXPECT_THAT(names(identifierAt("/folder")), IsEmpty());
  EXPECT_EQ(removeFolder(ROOT, "folder"), ENOTEMPTY);
  list("a", {file("x", "a", "x.txt")});
  EXPECT_EQ(pathOf("x"), "/folder/x.txt");
}

TEST_F(LocalEditsTest, NewsThatAFolderNotSeenYetIsGoneFreesWhatWasToBeInIt) {
  buildTree();
  createFile("b", "new", 7);
  rename("a", "x.txt", "b", "x.txt");
  restartWithoutReplica();
  list(ROOT, {folder("a", ROOT, "A")});
  list("a", {file("x", "a", "x.txt")});
  news({}, {{"b"}});
  EXPECT_NE(at("/new"), 0U);
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
  EXPECT_EQ(edits_->pendingCount(), 1U);
}

TEST_F(LocalEditsTest, WhatWasToGoToAFolderThatIsGoneForGoodStaysWhereTheServerHasIt) {
  buildTree();
  rename("a", "x.txt", "b", "x.txt");
  restartWithoutReplica();
  list(ROOT, {folder("a", ROOT, "A")});
  list("a", {file("x", "a", "x.txt")});
  const auto sent = *beginSending(editOf("x")->id);
  EXPECT_EQ(errorOf([&](auto answer) { edits_->folderVanished(sent, std::move(answer)); }), 0);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
}

TEST_F(LocalEditsTest, AFileWhoseFolderIsGoneForGoodComesToTheTop) {
  buildTree();
  createFile("b", "new", 7);
  restartWithoutReplica();
  list(ROOT, {});
  const auto waiting = edits_->pending().front();
  itemVanished(*beginSending(waiting.id));
  EXPECT_NE(at("/new"), 0U);
}

TEST_F(LocalEditsTest, AnOlderTreeIsBroughtInLineWithTheEdits) {
  buildTree();
  const auto old = copyOfReplica();
  createFolder(ROOT, "folder");
  createFile(identifierAt("/folder"), "in", 7);
  rename(ROOT, "A", identifierAt("/folder"), "A");
  rename("b", "y.txt", "a", "y.txt");
  editContents(inode("x"), 8);
  touch(inode("x"), 20, 5);
  removeFolder(ROOT, "B");
  edits_->setModified(inode("a"), {3}, [](const auto&) {});
  restartWith(old);
  EXPECT_THAT(names(ROOT), ElementsAre("folder"));
  EXPECT_NE(at("/folder/in"), 0U);
  EXPECT_EQ(pathOf("y"), "/folder/A/y.txt");
  EXPECT_EQ(edit("/folder/A/x.txt").contents, 8);
  EXPECT_EQ(inode("b"), 0U);
  EXPECT_EQ(attributes(inode("a")).modified.secondsSince1970, 3);
}

TEST_F(LocalEditsTest, AnOlderTreeShowsWhatReplacedAFileInItsPlace) {
  buildTree();
  rename("a", "x.txt", "a", "x.txt~");
  createFile("a", "x.txt", 7);
  const auto old = copyOfReplica();
  removeFile("a", "x.txt~");
  restartWith(old);
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
  EXPECT_EQ(edit("/A/x.txt").contents, 7);
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
}

TEST_F(LocalEditsTest, AnOlderTreeShowsWhatWasMadeAgain) {
  buildTree();
  removeFile("a", "x.txt");
  const auto old = copyOfReplica();
  createFile("a", "x.txt", 7);
  restartWith(old);
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
  EXPECT_EQ(edits_->ofItem(inode("x"))->contents, 7);
  EXPECT_FALSE(replica_->isListed(inode("a"))) << "so that all else of the item gets known";
  list("a", {file("x", "a", "x.txt")});
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
}

TEST_F(LocalEditsTest, ARenamingTakenBackIsInTheTreeBeforeTheEditGoes) {
  buildTree();
  rename("a", "x.txt", "a", "1");
  const auto waiting = edit("/A/1");
  std::vector<std::string> keptNames;
  keepsEditsWith([&](const EditBatch& batch) {
    EXPECT_THAT(batch.removals, ElementsAre(waiting.id));
    keptNames.push_back(ReplicaStore::readItem(replicaPath(), inode("x"))->filename);
  });
  rename("a", "1", "a", "x.txt");
  EXPECT_THAT(keptNames, ElementsAre("x.txt"));
  // The process ends before the edit has gone.
  restart();
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_PLACED);
  EXPECT_EQ(edit("/A/x.txt").place, (Place{{"a"}, "x.txt"}));
}

TEST_F(LocalEditsTest, ANewFileThatWasSentButNotKeptInTheTreeComesByNews) {
  buildTree();
  createFile("a", "new", 7);
  const auto old = copyOfReplica();
  succeeded(beginSending("/A/new"), NEW_FILE, saved(file("n", "a", "new")));
  restartWith(old);
  EXPECT_EQ(at("/A/new"), 0U);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  news({file("n", "a", "new")});
  EXPECT_EQ(pathOf("n"), "/A/new");
}

TEST_F(LocalEditsTest, WhatSendingBroughtAboutIsInTheTreeBeforeTheEditGoes) {
  buildTree();
  createFile("a", "new", 7);
  editContents(inode("x"), 8);
  const Inode node = at("/A/new"), x = inode("x");
  const auto made = beginSending("/A/new"), changed = beginSending("/A/x.txt");
  int kept = 0;
  keepsEditsWith([&](const EditBatch& batch) {
    ++kept;
    EXPECT_THAT(batch.removals, ElementsAre(kept == 1 ? made.id : changed.id));
    EXPECT_EQ(ReplicaStore::readItem(replicaPath(), node)->itemIdentifier.text, "n");
    EXPECT_EQ(ReplicaStore::readItem(replicaPath(), x)->itemVersion, file("x", "a", "x.txt", kept).itemVersion);
  });
  succeeded(made, NEW_FILE, saved(file("n", "a", "new")));
  succeeded(changed, EDIT_CONTENTS, saved(file("x", "a", "x.txt", 2)));
  EXPECT_EQ(kept, 2);
}

TEST_F(LocalEditsTest, AnEditLeftOverFindsOutAgainWhatTheTreeKnows) {
  buildTree();
  createFile("a", "new", 7);
  editContents(inode("x"), 8);
  createFolder("b", "folder");
  createFile(identifierAt("/B/folder"), "in", 9);
  const auto made = beginSending("/A/new"), changed = beginSending("/A/x.txt"), folderMade = beginSending("/B/folder");
  for (const auto& sent : {made, changed, folderMade}) noteAttempt(sent);
  endsBeforeTheEditsAreWritten([&] {
    succeeded(made, NEW_FILE, saved(file("n", "a", "new")));
    succeeded(changed, EDIT_CONTENTS, saved(file("x", "a", "x.txt", 2)));
    succeeded(folderMade, NEW_FILE, saved(folder("f", "b", "folder")));
  });
  // As it was, whatever the server is heard to have meanwhile.
  const auto isAsBefore = [&] {
    EXPECT_THAT(names("a"), UnorderedElementsAre("x.txt", "new"));
    EXPECT_EQ(edit("/A/new").attempt, (Attempt{made.place, 7, made.generation}));
    EXPECT_EQ(edit("/A/x.txt").contents, 8);
    EXPECT_THAT(names("b"), UnorderedElementsAre("y.txt", "folder"));
    EXPECT_EQ(edit("/B/folder/in").contents, 9);
  };
  isAsBefore();
  news({file("n", "a", "new"), file("x", "a", "x.txt", 2), folder("f", "b", "folder")});
  isAsBefore();
  succeeded(beginSending("/A/new"), NEW_FILE, saved(file("n", "a", "new")));
  succeeded(beginSending("/A/x.txt"), EDIT_CONTENTS, saved(file("x", "a", "x.txt", 2)));
  succeeded(beginSending("/B/folder"), NEW_FILE, saved(folder("f", "b", "folder")));
  EXPECT_THAT(names("a"), UnorderedElementsAre("x.txt", "new"));
  EXPECT_EQ(pathOf("n"), "/A/new");
  ASSERT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(edits_->pending().front().place, (Place{{"f"}, "in"}));
  EXPECT_THAT(names("f"), ElementsAre("in"));
}

TEST_F(LocalEditsTest, WhatAnEditLeftOverHidIsListedAgainWhenItIsAnothers) {
  buildTree();
  createFile("a", "new", 7);
  const auto made = beginSending("/A/new");
  noteAttempt(made);
  endsBeforeTheEditsAreWritten([&] { succeeded(made, NEW_FILE, saved(file("n", "a", "new"))); });
  removeFile("a", "new");
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
  forgetAttempt(made.id);
  EXPECT_EQ(edits_->pendingCount(), 0U);
  EXPECT_FALSE(replica_->isListed(inode("a")));
}

TEST_F(LocalEditsTest, WhatIsTakenBackIsInTheTreeBeforeTheEditGoes) {
  buildTree();
  rename("a", "x.txt", "b", "z.txt");
  removeFile("b", "y.txt");
  const auto moved = beginSending("/B/z.txt");
  const auto deletion = *beginSending(editOf("y")->id);
  keepsEditsWith(
      [&](const EditBatch&) { EXPECT_EQ(ReplicaStore::readItem(replicaPath(), inode("x"))->filename, "x.txt"); });
  undoMove(moved);
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
  undelete(deletion);
  // The process ends before the edits have gone.
  restart();
  EXPECT_EQ(edits_->pendingCount(), 2U);
  EXPECT_EQ(pathOf("x"), "/B/z.txt");
  EXPECT_FALSE(replica_->isListed(inode("b")));
}

TEST_F(LocalEditsTest, ChangesOfAnItemThatTurnsOutToBeOursBecomeAnItemOfTheirOwn) {
  buildTree();
  createFile("a", "new", 7);
  const auto made = beginSending("/A/new");
  news({file("n", "a", "new")});
  editContents(inode("n"), 8);
  restartWithoutReplica();
  noteAttempt(made);
  succeeded(made, NEW_FILE, saved(file("n", "a", "new")));
  ASSERT_EQ(edits_->pendingCount(), 1U);
  EXPECT_EQ(edits_->pending().front().contents, 8);
  EXPECT_EQ(edits_->pending().front().fields, EDIT_CREATED);
}

TEST_F(LocalEditsTest, AnEditedItemThatAnOlderTreeDoesNotKnowHasItsFolderListedAgain) {
  buildTree();
  const auto old = copyOfReplica();
  news({file("n", "a", "n")});
  editContents(inode("n"), 7);
  restartWith(old);
  EXPECT_FALSE(replica_->isListed(inode("a")));
  list("a", {file("x", "a", "x.txt"), file("n", "a", "n")});
  EXPECT_EQ(edit("/A/n").contents, 7);
}

TEST_F(LocalEditsTest, AConversionThatTheTreeMissedIsShownBesideTheItemUntilTheNewsComesAgain) {
  buildTree();
  editContents(inode("x"), 7);
  const auto old = copyOfReplica();
  news({}, {{"x"}});
  restartWith(old);
  EXPECT_EQ(edit("/A/x.txt").fields, EDIT_CREATED);
  EXPECT_EQ(edit("/A/x.txt").contents, 7);
  news({}, {{"x"}});
  EXPECT_THAT(names("a"), ElementsAre("x.txt"));
}

TEST_F(LocalEditsTest, AnUnreadableQueueIsNotMadeAnew) {
  createFile(ROOT, "new");
  close();
  std::filesystem::resize_file(editsPath(), 5000);
  for (const auto* suffix : {"-wal", "-shm"}) std::filesystem::remove(editsPath() + suffix);
  const auto size = std::filesystem::file_size(editsPath());
  auto replica = Replica::open(replicaPath());
  Tree tree(**replica, scheduler_);
  const auto opened = LocalEdits::open(editsPath(), tree, scheduler_, random_);
  ASSERT_FALSE(opened);
  EXPECT_THAT(opened.error().description, testing::HasSubstr(editsPath()));
  EXPECT_EQ(std::filesystem::file_size(editsPath()), size);
  std::filesystem::remove(editsPath());
}

}  // namespace
}  // namespace vondle
