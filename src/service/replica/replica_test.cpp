#include "service/replica/replica.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "fileprovider/error_codes.h"
#include "platform/content_types.h"
#include "testing/fake_extension.h"

// Stands in for the C library's, which SQLite calls.
std::atomic<int> syncs = 0;
extern "C" int fdatasync(int descriptor) {
  ++syncs;
  return static_cast<int>(::syscall(SYS_fdatasync, descriptor));
}

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using Kind = ReplicaChange::Kind;

const std::string ROOT = ROOT_CONTAINER.text;

Item folder(const std::string& id, const std::string& parent, const std::string& name) {
  return FakeExtension::folder(id, parent, name);
}
Item file(const std::string& id, const std::string& parent, const std::string& name, int version = 1) {
  return FakeExtension::file(id, parent, name, "contents", version);
}
Item trashed(Item item) {
  item.parentItemIdentifier = TRASH_CONTAINER;
  return item;
}

class ReplicaTest : public testing::Test {
 protected:
  ReplicaTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-replica-XXXXXX").native();
    folder_ = ::mkdtemp(pattern.data());
    open();
  }
  ~ReplicaTest() override {
    replica_.reset();
    std::filesystem::remove_all(folder_);
  }

  [[nodiscard]] std::string path() const { return folder_ + "/replica.sqlite"; }
  void open() {
    replica_.reset();
    auto opened = Replica::open(path());
    ASSERT_TRUE(opened) << opened.error().localizedDescription();
    replica_ = std::move(*opened);
  }
  std::vector<ReplicaChange> list(const std::string& id, const std::vector<Item>& items) {
    return *replica_->applyListing(inode(id), items);
  }
  std::vector<ReplicaChange> update(const std::vector<Item>& items) { return replica_->applyNews(items, {}); }
  Inode inode(const std::string& id) { return replica_->inodeOf({id}).value_or(0); }
  std::string pathOf(const std::string& id) { return replica_->pathOf(inode(id)).value_or("none"); }
  // Names of all children, as listed.
  std::vector<std::string> names(const std::string& id) {
    std::vector<std::string> names;
    for (const auto& entry : replica_->entries(inode(id), replica_->children(inode(id)))) names.push_back(entry.name);
    return names;
  }
  // Root listed with folders a and b, both listed, and a file in each.
  void buildTree() {
    list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
    list("a", {file("x", "a", "x.txt")});
    list("b", {file("y", "b", "y.txt")});
  }

  std::string folder_;
  std::unique_ptr<Replica> replica_;
};

TEST_F(ReplicaTest, APageThatWasAskedForBeforeAnAnswerDoesNotUndoIt) {
  buildTree();
  replica_->beginPage();
  const auto answer = file("x", "b", "renamed.txt");
  update({answer});
  replica_->noteNews({answer}, {});
  replica_->applyPage({file("x", "a", "x.txt"), file("y", "b", "other.txt")}, {});
  EXPECT_EQ(pathOf("x"), "/B/renamed.txt");
  EXPECT_EQ(pathOf("y"), "/B/other.txt") << "of which nobody was answered";
  EXPECT_FALSE(replica_->isListed(inode("b"))) << "it may have been the page that was newer";
}

TEST_F(ReplicaTest, APageThatAgreesWithTheAnswersOrWasAskedForAfterThemIsTaken) {
  buildTree();
  replica_->beginPage();
  replica_->noteNews({file("x", "a", "x.txt")}, {});
  replica_->applyPage({file("x", "a", "x.txt", 2)}, {});
  EXPECT_TRUE(replica_->isListed(inode("a")));
  EXPECT_EQ(replica_->storedItem(inode("x"))->itemVersion, file("x", "a", "x.txt", 2).itemVersion);
  replica_->beginPage();
  replica_->applyPage({file("x", "b", "x.txt")}, {});
  EXPECT_EQ(pathOf("x"), "/B/x.txt");
}

TEST_F(ReplicaTest, StartsWithTheRootThatIsNotListed) {
  EXPECT_EQ(replica_->inodeOf(ROOT_CONTAINER), ROOT_INODE);
  EXPECT_EQ(replica_->pathOf(ROOT_INODE), "/");
  EXPECT_FALSE(replica_->isListed(ROOT_INODE));
  EXPECT_TRUE(replica_->attributes(ROOT_INODE)->isFolder);
  EXPECT_EQ(replica_->itemCount(), 0U);
  EXPECT_EQ(replica_->item(ROOT_INODE)->capabilities, 3U);
}

TEST_F(ReplicaTest, AListingGivesTheFolderItsChildren) {
  buildTree();
  EXPECT_THAT(names(ROOT), UnorderedElementsAre("A", "B"));
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
  EXPECT_EQ(replica_->inodeAtPath("/A/x.txt"), inode("x"));
  EXPECT_EQ(replica_->inodeAtPath("A//x.txt/"), inode("x"));
  EXPECT_EQ(replica_->inodeAtPath("/"), ROOT_INODE);
  EXPECT_EQ(replica_->inodeAtPath("/A/none"), std::nullopt);
  const auto attributes = *replica_->lookup(inode("a"), "x.txt");
  EXPECT_EQ(attributes.inode, inode("x"));
  EXPECT_EQ(attributes.parent, inode("a"));
  EXPECT_EQ(attributes.size, 8);
  EXPECT_FALSE(attributes.isFolder);
  EXPECT_FALSE(replica_->lookup(inode("a"), "y.txt"));
  EXPECT_EQ(replica_->itemCount(), 4U);
}

TEST_F(ReplicaTest, AnEmptyListingIsAListing) {
  list(ROOT, {});
  EXPECT_TRUE(replica_->isListed(ROOT_INODE));
}

TEST_F(ReplicaTest, AListingTakesAwayWhatItDoesNotName) {
  buildTree();
  EXPECT_THAT(list(ROOT, {folder("b", ROOT, "B")}), Contains(ReplicaChange{Kind::itemRemoved, ROOT_INODE, "A", 2}));
  EXPECT_EQ(inode("a"), 0U);
  EXPECT_EQ(inode("x"), 0U);
  EXPECT_NE(inode("y"), 0U);
}

TEST_F(ReplicaTest, InodesAndEverythingElseSurviveARestart) {
  auto item = file("z", ROOT, "z.txt");
  item.isShared = item.isSharedByCurrentUser = true;
  item.ownerNameComponents.emplace();
  item.ownerNameComponents->givenName = item.ownerNameComponents->nickname = "Ann";
  item.decorations = {"badge"};
  item.creationDate = Timestamp{12.5};
  item.contentPolicy = ContentPolicy::downloadEagerlyAndKeepDownloaded;
  buildTree();
  update({item});
  const std::vector<Inode> before = {inode("a"), inode("b"), inode("x"), inode("y"), inode("z")};
  const auto attributes = *replica_->attributes(inode("z"));
  open();
  EXPECT_EQ((std::vector<Inode>{inode("a"), inode("b"), inode("x"), inode("y"), inode("z")}), before);
  EXPECT_TRUE(replica_->isListed(inode("a")));
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
  EXPECT_EQ(replica_->attributes(inode("z"))->contentTag, attributes.contentTag);
  EXPECT_TRUE(replica_->attributes(inode("z"))->keepDownloaded);
  const auto kept = *replica_->item(inode("z"));
  EXPECT_EQ(kept.itemIdentifier, item.itemIdentifier);
  EXPECT_EQ(kept.parentItemIdentifier, item.parentItemIdentifier);
  EXPECT_EQ(kept.filename, item.filename);
  EXPECT_EQ(kept.contentType, item.contentType);
  EXPECT_EQ(kept.capabilities, item.capabilities);
  EXPECT_EQ(kept.fileSystemFlags, item.fileSystemFlags);
  EXPECT_EQ(kept.documentSize, item.documentSize);
  EXPECT_TRUE(kept.isShared && kept.isSharedByCurrentUser);
  EXPECT_EQ(kept.ownerNameComponents, item.ownerNameComponents);
  EXPECT_EQ(kept.creationDate, item.creationDate);
  EXPECT_EQ(kept.contentModificationDate, item.contentModificationDate);
  EXPECT_EQ(kept.contentPolicy, item.contentPolicy);
  EXPECT_EQ(kept.itemVersion, item.itemVersion);
  EXPECT_EQ(kept.decorations, item.decorations);
  EXPECT_EQ(replica_->item(9999).error().code, NO_SUCH_ITEM);
}

TEST_F(ReplicaTest, AFilesTimeOnTheServerIsShownInWholeSeconds) {
  buildTree();
  const auto modified = [this](const char* id) { return replica_->attributes(inode(id))->modified.secondsSince1970; };
  auto item = file("x", "a", "x.txt");
  item.contentModificationDate = Timestamp{5.75};
  auto parent = folder("b", ROOT, "B");
  parent.contentModificationDate = Timestamp{6.75};
  update({item, parent});
  EXPECT_EQ(modified("x"), 5);
  EXPECT_EQ(modified("b"), 6.75);
  open();
  EXPECT_EQ(modified("x"), 5);
  EXPECT_EQ(modified("b"), 6.75);
  EXPECT_EQ(replica_->item(inode("x"))->contentModificationDate, Timestamp{5.75});
}

TEST_F(ReplicaTest, NoInodeIsGivenTwiceEvenAfterARestart) {
  buildTree();
  std::set<Inode> used = {inode("a"), inode("b"), inode("x"), inode("y")};
  replica_->applyNews({}, {{"y"}, {"x"}});
  open();
  update({file("new", "a", "new"), file("y", "b", "y.txt")});
  EXPECT_FALSE(used.contains(inode("new")));
  EXPECT_FALSE(used.contains(inode("y")));
}

TEST_F(ReplicaTest, NewsOfFoldersThatWereNeverListedIsLeftOut) {
  list(ROOT, {folder("a", ROOT, "A")});
  EXPECT_THAT(update({file("x", "a", "x.txt"), file("o", "nowhere", "orphan")}), IsEmpty());
  EXPECT_EQ(replica_->itemCount(), 1U);
}

TEST_F(ReplicaTest, AnUpdateSaysWhatChanged) {
  buildTree();
  const Inode x = inode("x");
  auto item = file("x", "a", "x.txt");
  EXPECT_THAT(update({item}), IsEmpty());
  item.contentModificationDate = Timestamp{5};
  EXPECT_THAT(update({item}), ElementsAre(ReplicaChange{Kind::attributesChanged, 0, "", x}));
  item.itemVersion.contentVersion = "2-8";
  EXPECT_THAT(update({item}), ElementsAre(ReplicaChange{Kind::contentsChanged, 0, "", x}));
  item.contentPolicy = ContentPolicy::downloadEagerlyAndKeepDownloaded;
  EXPECT_THAT(update({item}), ElementsAre(ReplicaChange{Kind::attributesChanged, 0, "", x}));
  item.filename = "z.txt";
  EXPECT_THAT(update({item}), ElementsAre(ReplicaChange{Kind::entryRemoved, inode("a"), "x.txt", x},
                                          ReplicaChange{Kind::entryAdded, inode("a"), "z.txt", x}));
  item.parentItemIdentifier = {"b"};
  EXPECT_THAT(update({item}), ElementsAre(ReplicaChange{Kind::entryRemoved, inode("a"), "z.txt", x},
                                          ReplicaChange{Kind::entryAdded, inode("b"), "z.txt", x}));
  EXPECT_THAT(update({trashed(item)}), ElementsAre(ReplicaChange{Kind::itemRemoved, inode("b"), "z.txt", x}));
  const auto added = update({file("n", "b", "new")});
  EXPECT_THAT(added, ElementsAre(ReplicaChange{Kind::entryAdded, inode("b"), "new", inode("n")}));
}

TEST_F(ReplicaTest, AFolderThatGoesTakesEverythingWithIt) {
  buildTree();
  const Inode a = inode("a");
  const Inode x = inode("x");
  EXPECT_THAT(
      replica_->applyNews({}, {{"a"}, {"unknown"}}),
      ElementsAre(ReplicaChange{Kind::itemRemoved, 0, "", x}, ReplicaChange{Kind::itemRemoved, ROOT_INODE, "A", a}));
  open();
  EXPECT_EQ(inode("x"), 0U);
}

TEST_F(ReplicaTest, AnItemThatMovesToAnUnlistedFolderIsThereWhenThatIsListed) {
  buildTree();
  update({folder("c", ROOT, "C")});
  const Inode x = inode("x");
  EXPECT_THAT(update({file("x", "c", "x.txt")}),
              ElementsAre(ReplicaChange{Kind::entryRemoved, inode("a"), "x.txt", x}));
  EXPECT_THAT(names("a"), IsEmpty());
  EXPECT_FALSE(replica_->isListed(inode("c")));
  open();
  EXPECT_EQ(inode("x"), x);
  list("c", {file("x", "c", "x.txt")});
  EXPECT_EQ(replica_->lookup(inode("c"), "x.txt")->inode, x);
}

TEST_F(ReplicaTest, AnItemThatMovesOutOfWhatIsKnownIsGone) {
  buildTree();
  update({file("x", "somewhere else", "x.txt")});
  EXPECT_EQ(inode("x"), 0U);
}

TEST_F(ReplicaTest, ParentsMayComeAfterTheirChildren) {
  buildTree();
  const Inode x = inode("x");
  update({file("x", "new", "x.txt"), folder("new", ROOT, "New")});
  EXPECT_EQ(pathOf("x"), "/New/x.txt");
  EXPECT_EQ(inode("x"), x);
}

TEST_F(ReplicaTest, FoldersMayChangePlaces) {
  list(ROOT, {folder("a", ROOT, "A")});
  list("a", {folder("b", "a", "B")});
  list("b", {file("x", "b", "x")});
  update({folder("a", "b", "A"), folder("b", ROOT, "B")});
  EXPECT_EQ(pathOf("a"), "/B/A");
  EXPECT_EQ(pathOf("x"), "/B/x");
  open();
  EXPECT_EQ(pathOf("a"), "/B/A");
}

TEST_F(ReplicaTest, NothingCanBecomeItsOwnAncestor) {
  list(ROOT, {folder("a", ROOT, "A")});
  list("a", {folder("b", "a", "B")});
  list("b", {folder("c", "b", "C")});
  update({folder("a", "c", "A")});
  EXPECT_EQ(pathOf("c"), "/A/B/C");
  update({folder("a", "a", "A2")});
  EXPECT_EQ(pathOf("c"), "/A2/B/C");
  update({folder("a", "b", "A"), folder("b", "c", "B"), folder("c", "a", "C")});
  EXPECT_EQ(pathOf("a"), "/A");
  EXPECT_EQ(replica_->itemCount(), 3U);
  list("c", {folder("a", "c", "A"), folder("c", "c", "C"), file("a", "c", "a file now"), file("z", "c", "z")});
  EXPECT_THAT(names("c"), ElementsAre("z"));
  open();
  EXPECT_NE(inode("z"), 0U);
}

TEST_F(ReplicaTest, AnItemThatTurnsFromFileToFolderIsAnother) {
  buildTree();
  const Inode x = inode("x");
  EXPECT_THAT(update({folder("x", "a", "x.txt")}), Contains(ReplicaChange{Kind::itemRemoved, inode("a"), "x.txt", x}));
  EXPECT_TRUE(replica_->attributes(inode("x"))->isFolder);
  EXPECT_NE(inode("x"), x);
  update({file("a", ROOT, "A")});
  EXPECT_EQ(inode("x"), 0U);
  EXPECT_FALSE(replica_->attributes(inode("a"))->isFolder);
  EXPECT_FALSE(replica_->applyListing(inode("a"), {})) << "a file is not listed";
  update({file("q", "a", "in a file")});
  EXPECT_EQ(inode("q"), 0U);
}

TEST_F(ReplicaTest, ContainersAndNamelessItemsAreNotTaken) {
  list(ROOT, {folder(ROOT, ROOT, "root"), folder(TRASH_CONTAINER.text, ROOT, "trash"),
              folder(WORKING_SET_CONTAINER.text, ROOT, "set"), file("", ROOT, "no identifier"),
              file(std::string(70'000, 'i'), ROOT, "long identifier"), trashed(file("t", ROOT, "trashed"))});
  EXPECT_THAT(names(ROOT), IsEmpty());
  update({folder(ROOT, ROOT, "root"), file("", ROOT, "x")});
  EXPECT_EQ(replica_->itemCount(), 0U);
}

TEST_F(ReplicaTest, TheSameNameTwiceIsShownUnderTwoNamesAndReported) {
  list(ROOT, {file("1", ROOT, "same"), file("2", ROOT, "same"), file("3", ROOT, "..")});
  EXPECT_EQ(replica_->lookup(ROOT_INODE, "same")->inode, inode("1"));
  EXPECT_EQ(names(ROOT).size(), 3U);
  auto problems = replica_->problems();
  ASSERT_EQ(problems.size(), 2U);
  EXPECT_EQ(problems[0].inode, inode("2"));
  EXPECT_EQ(problems[0].problem, NameProblem::duplicate);
  EXPECT_EQ(problems[0].serverName, "same");
  EXPECT_EQ(problems[1].problem, NameProblem::dots);
  EXPECT_EQ(problems[1].localName, "%=..");
  const auto shown = names(ROOT);
  open();
  EXPECT_THAT(names(ROOT), testing::UnorderedElementsAreArray(shown));
  EXPECT_EQ(replica_->problems().size(), 2U);
  EXPECT_EQ(replica_->lookup(ROOT_INODE, "same")->inode, inode("1"));
  // Whoever waits for a name gets it when it becomes free.
  replica_->applyNews({}, {{"1"}});
  EXPECT_EQ(replica_->lookup(ROOT_INODE, "same")->inode, inode("2"));
  EXPECT_EQ(replica_->problems().size(), 1U);
  open();
  EXPECT_EQ(pathOf("2"), "/same");
}

TEST_F(ReplicaTest, OneItemCanTakeTheNameOfAnotherInOneBreath) {
  list(ROOT, {file("1", ROOT, "a"), file("2", ROOT, "b")});
  update({file("1", ROOT, "b"), file("2", ROOT, "a")});
  EXPECT_EQ(pathOf("1"), "/b");
  EXPECT_EQ(pathOf("2"), "/a");
  replica_->applyNews({file("3", ROOT, "a")}, {{"2"}});
  EXPECT_EQ(pathOf("3"), "/a");
  EXPECT_THAT(replica_->problems(), IsEmpty());
  list(ROOT, {file("4", ROOT, "a"), file("5", ROOT, "b")});
  EXPECT_EQ(pathOf("4"), "/a");
  EXPECT_EQ(pathOf("5"), "/b");
}

TEST_F(ReplicaTest, NewsDuringAListingIsAppliedOnTopOfIt) {
  buildTree();
  update({folder("c", ROOT, "C"), folder("d", ROOT, "D")});
  replica_->beginListing(inode("c"));
  // While the listing travels: one item comes, one goes, one moves away, one changes.
  update({file("new", "c", "new"), file("moved", "b", "moved"), file("changed", "c", "changed", 7)});
  replica_->applyNews({}, {{"gone"}});
  list("c", {file("gone", "c", "gone"), file("moved", "c", "moved"), file("changed", "c", "changed", 6)});
  EXPECT_THAT(names("c"), UnorderedElementsAre("new", "changed"));
  EXPECT_EQ(pathOf("moved"), "/B/moved");
  EXPECT_EQ(replica_->item(inode("changed"))->itemVersion.contentVersion, "7-8");
  // Not for the next listing.
  replica_->beginListing(inode("d"));
  replica_->abandonListing(inode("d"));
  update({file("late", "d", "late")});
  list("d", {});
  EXPECT_THAT(names("d"), IsEmpty());
}

TEST_F(ReplicaTest, AListingOfAFolderThatHasGoneFails) {
  buildTree();
  const Inode a = inode("a");
  replica_->beginListing(a);
  replica_->applyNews({}, {{"a"}});
  EXPECT_EQ(replica_->applyListing(a, {}).error().code, NO_SUCH_ITEM);
}

TEST_F(ReplicaTest, DeletingTheRootMakesEveryFolderBeListedAgain) {
  buildTree();
  const Inode x = inode("x");
  const std::string A = "a", B = "b";
  const auto changes = replica_->applyNews({}, {ROOT_CONTAINER});
  EXPECT_THAT(changes, UnorderedElementsAre(ReplicaChange{Kind::entryRemoved, ROOT_INODE, "A", inode("a")},
                                            ReplicaChange{Kind::entryRemoved, ROOT_INODE, "B", inode("b")},
                                            ReplicaChange{Kind::entryRemoved, inode("a"), "x.txt", x},
                                            ReplicaChange{Kind::entryRemoved, inode("b"), "y.txt", inode("y")}));
  for (const auto* id : {&ROOT, &A, &B}) EXPECT_FALSE(replica_->isListed(inode(*id))) << *id;
  open();
  for (const auto* id : {&ROOT, &A, &B}) EXPECT_FALSE(replica_->isListed(inode(*id))) << *id << " after a restart";
  const auto listed = list(ROOT, {folder("a", ROOT, "A"), file("new", ROOT, "new")});
  EXPECT_THAT(listed, Contains(ReplicaChange{Kind::entryAdded, ROOT_INODE, "new", inode("new")}));
  EXPECT_EQ(inode("x"), x);
  EXPECT_EQ(inode("b"), 0U);
}

TEST_F(ReplicaTest, AFolderThatIsListedAgainAnnouncesWhatIsNewToTheKernel) {
  buildTree();
  replica_->applyNews({}, {ROOT_CONTAINER});
  EXPECT_THAT(names("a"), ElementsAre("x.txt")) << "still answers whoever came before";
  list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
  EXPECT_FALSE(replica_->isListed(inode("a")));
  const auto changes = list("a", {file("z", "a", "z.txt")});
  EXPECT_THAT(changes, Contains(ReplicaChange{Kind::entryAdded, inode("a"), "z.txt", inode("z")}));
  EXPECT_THAT(names("a"), ElementsAre("z.txt"));
}

TEST_F(ReplicaTest, AListingDuringWhichTheRootGoesShowsWhatItBroughtAndIsMadeAgain) {
  buildTree();
  replica_->beginListing(inode("a"));
  replica_->applyNews({}, {ROOT_CONTAINER});
  list("a", {file("x", "a", "x.txt"), file("z", "a", "z.txt")});
  EXPECT_THAT(names("a"), UnorderedElementsAre("x.txt", "z.txt"));
  EXPECT_FALSE(replica_->isListed(inode("a")));
}

TEST_F(ReplicaTest, NewsSurvivesPowerLossWithAllThatCameBefore) {
  const auto syncsOf = [](const std::function<void()>& action) {
    const int before = syncs;
    action();
    return syncs - before;
  };
  list(ROOT, {folder("a", ROOT, "A")});
  EXPECT_EQ(syncsOf([&] { list("a", {file("x", "a", "x.txt")}); }), 0) << "a listing can be had again";
  EXPECT_GE(syncsOf([&] { update({file("x", "a", "renamed.txt")}); }), 1);
  EXPECT_GE(syncsOf([&] { replica_->applyNews({}, {{"x"}}); }), 1);
  EXPECT_EQ(syncsOf([&] { list("a", {file("y", "a", "y.txt")}); }), 0);
  EXPECT_EQ(syncsOf([&] { update({file("n", "nowhere", "n.txt")}); }), 0) << "no news";
}

TEST_F(ReplicaTest, ADamagedDatabaseIsMadeAnew) {
  buildTree();
  replica_.reset();
  std::ofstream(path()) << "this is not a database, and long enough to be sure of it";
  open();
  EXPECT_FALSE(replica_->isListed(ROOT_INODE));
  buildTree();
  open();
  EXPECT_EQ(pathOf("x"), "/A/x.txt");
}

TEST_F(ReplicaTest, ADatabaseWithItemsThatNothingLeadsToIsMadeAnew) {
  for (const auto* damage : {"UPDATE item SET parent = 4 WHERE id = 2", "UPDATE item SET parent = 77 WHERE id = 3",
                             "UPDATE item SET name = 'B' WHERE id = 2", "UPDATE item SET identifier = 'a'",
                             "PRAGMA user_version = 9", "DELETE FROM reserved"}) {
    std::filesystem::remove(path());
    open();
    list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
    list("a", {folder("c", "a", "C")});
    replica_.reset();
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, damage, nullptr, nullptr, nullptr), SQLITE_OK) << damage;
    sqlite3_close(database);
    open();
    EXPECT_EQ(replica_->itemCount(), 0U) << damage;
    EXPECT_FALSE(replica_->isListed(ROOT_INODE));
    replica_.reset();
  }
}

TEST_F(ReplicaTest, ADatabaseThatIsCutAnywhereIsUsedOrMadeAnewButNeverBelievedInPart) {
  list(ROOT, {folder("a", ROOT, "A")});
  std::vector<Item> files;
  for (int i = 0; i < 300; ++i) files.push_back(file(fmt::format("f{}", i), "a", fmt::format("{} of many.txt", i)));
  list("a", files);
  replica_.reset();
  const auto whole = [&] {
    std::ifstream bytes(path(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(bytes), {});
  }();
  ASSERT_GT(whole.size(), 16'384U);
  std::set<std::size_t> lengths = {0, 1, 15, 16, 99, 100, whole.size() - 1};
  for (std::size_t length = 0; length < whole.size(); length += 4096)
    lengths.insert({length, length + 1, length + 2047, length + 4095});
  for (const auto length : lengths) {
    if (length >= whole.size()) continue;
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << whole.substr(0, length);
    open();
    // SQLite does not miss bytes that it had not used.
    const bool isUsed = replica_->isListed(ROOT_INODE);
    EXPECT_EQ(replica_->itemCount(), isUsed ? files.size() + 1 : 0U) << length;
    EXPECT_TRUE(!isUsed || length == whole.size() - 1) << length;
    buildTree();
    open();
    EXPECT_EQ(pathOf("x"), "/A/x.txt") << length;
    replica_.reset();
    for (const auto* suffix : {"-wal", "-shm"}) std::filesystem::remove(path() + suffix);
  }
}

TEST_F(ReplicaTest, ATreeOfTenThousandLevelsIsKeptMovedAndRemoved) {
  constexpr int LEVELS = 10'000;
  const auto id = [](int level) { return level == 0 ? ROOT : fmt::format("{}", level); };
  for (int level = 0; level < LEVELS; ++level) list(id(level), {folder(id(level + 1), id(level), "d")});
  list(id(LEVELS), {file("x", id(LEVELS), "x.txt")});
  EXPECT_EQ(pathOf("x").size(), 2 * LEVELS + 6U);
  open();
  EXPECT_EQ(pathOf("x").size(), 2 * LEVELS + 6U);
  EXPECT_EQ(replica_->inodeAtPath(pathOf("x")), inode("x"));
  update({folder("1", id(LEVELS), "round in a circle")});
  EXPECT_EQ(replica_->itemCount(), LEVELS + 1U);
  update({folder("2", ROOT, "moved")});
  EXPECT_EQ(pathOf("x").size(), 2 * (LEVELS - 2) + 12U);
  replica_->applyNews({}, {{"2"}});
  EXPECT_EQ(replica_->itemCount(), 1U);
}

// What the server says is random and mostly nonsense; the tree must stay a tree and be the same after a restart.
TEST_F(ReplicaTest, StaysATreeWhateverTheServerSays) {
  std::mt19937 random(4711);
  const auto id = [&] {
    const auto number = random() % 30;
    return number == 0 ? ROOT : number == 1 ? TRASH_CONTAINER.text : fmt::format("{}", number);
  };
  const auto item = [&] {
    const auto name = random() % 8 == 0 ? std::string("..") : fmt::format("n{}", random() % 6);
    auto made = random() % 3 == 0 ? file(id(), id(), name, static_cast<int>(random() % 3)) : folder(id(), id(), name);
    return made;
  };
  const auto items = [&] {
    std::vector<Item> some(random() % 12);
    for (auto& one : some) one = item();
    return some;
  };
  for (int step = 0; step < 4'000; ++step) {
    const auto known = replica_->inodeOf({id()});
    switch (random() % 5) {
      case 0:
        if (known) replica_->beginListing(*known);
        break;
      case 1:
      case 2:
        if (known) (void)replica_->applyListing(*known, items());
        break;
      default:
        replica_->applyNews(items(),
                            random() % 3 == 0 ? std::vector<ItemIdentifier>{{id()}} : std::vector<ItemIdentifier>{});
    }
    if (step % 500 != 499) continue;
    std::map<std::string, std::pair<Inode, std::string>> before;
    for (int number = 0; number < 30; ++number)
      if (const auto inode = replica_->inodeOf({fmt::format("{}", number)})) {
        ASSERT_TRUE(replica_->pathOf(*inode)->starts_with("/"));
        before[fmt::format("{}", number)] = {*inode, *replica_->pathOf(*inode)};
      }
    EXPECT_EQ(before.size(), replica_->itemCount());
    const auto problems = replica_->problems().size();
    open();
    EXPECT_EQ(before.size(), replica_->itemCount());
    EXPECT_EQ(problems, replica_->problems().size());
    for (const auto& [number, place] : before) {
      EXPECT_EQ(replica_->inodeOf({number}), place.first);
      EXPECT_EQ(replica_->pathOf(place.first), place.second);
    }
  }
}

}  // namespace
}  // namespace vondle
