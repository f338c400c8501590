#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service/edits/local_edits.h"
#include "service/replica/tree.h"
#include "testing/fake_extension.h"
#include "testing/simulated_random.h"
#include "testing/virtual_scheduler.h"

namespace vondle {

// The tree, its edits and their databases, in a folder of their own and in virtual time.
class LocalEditsRig : public testing::Test {
 protected:
  static inline const std::string ROOT = ROOT_CONTAINER.text;

  LocalEditsRig() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-edits-XXXXXX").native();
    folder_ = ::mkdtemp(pattern.data());
    open();
  }
  ~LocalEditsRig() override {
    close();
    std::filesystem::remove_all(folder_);
  }

  static Item folder(const std::string& id, const std::string& parent, const std::string& name) {
    return FakeExtension::folder(id, parent, name);
  }
  static Item file(const std::string& id, const std::string& parent, const std::string& name, int version = 1) {
    return FakeExtension::file(id, parent, name, "contents", version);
  }
  static SavedItem saved(Item item, bool hasGivenContents = true) {
    SavedItem answer;
    answer.item = std::move(item);
    answer.hasGivenContents = hasGivenContents;
    return answer;
  }

  [[nodiscard]] std::string replicaPath() const { return folder_ + "/replica.sqlite"; }
  [[nodiscard]] std::string editsPath() const { return folder_ + "/edits.sqlite"; }

  void open() {
    auto replica = Replica::open(replicaPath());
    ASSERT_TRUE(replica) << replica.error().localizedDescription();
    replica_ = std::move(*replica);
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    tree_->subscribe([this](const std::vector<ReplicaChange>& changes) {
      changes_.insert(changes_.end(), changes.begin(), changes.end());
    });
    auto edits = LocalEdits::open(editsPath(), *tree_, scheduler_, random_);
    ASSERT_TRUE(edits) << edits.error().localizedDescription();
    edits_ = std::move(*edits);
  }
  void close() {
    scheduler_.runUntilIdle();
    edits_.reset();
    tree_.reset();
    replica_.reset();
  }
  void restart() {
    close();
    open();
  }
  void restartWithoutReplica() {
    close();
    for (const auto* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(replicaPath() + suffix);
    open();
  }
  // The database of the tree as it is now, for restartWith. The process goes on.
  [[nodiscard]] std::string copyOfReplica() {
    close();
    const auto copy = folder_ + "/copy-" + std::to_string(++copies_);
    std::filesystem::copy_file(replicaPath(), copy);
    open();
    return copy;
  }
  void restartWith(const std::string& copy) {
    close();
    for (const auto* suffix : {"-wal", "-shm"}) std::filesystem::remove(replicaPath() + suffix);
    std::filesystem::copy_file(copy, replicaPath(), std::filesystem::copy_options::overwrite_existing);
    open();
  }

  // In place of the queue's database, of what follows from news and from sending.
  void keepsEditsWith(Replica::EditKeeper keeper) {
    replica_->keepEdits(std::move(keeper), [] { return Edit(); });
  }
  // What `make` does is written to the tree; then the process ends.
  template <class Make>
  void endsBeforeTheEditsAreWritten(Make make) {
    keepsEditsWith([](const EditBatch&) {});
    make();
    restart();
  }

  // Calls and waits; the number for errno, 0 when it worked.
  template <class Call>
  int errorOf(Call call) {
    std::optional<int> number;
    call([&](const auto& result) { number = result ? 0 : static_cast<int>(result.error().code); });
    scheduler_.runUntilIdle();
    return number.value_or(-1);
  }
  int createFile(const std::string& parent, const std::string& name, std::int64_t contents = 0) {
    return errorOf([&](auto answer) {
      edits_->createFile(inode(parent), name, contents ? contents : ++contents_, 0600, std::move(answer));
    });
  }
  int createFolder(const std::string& parent, const std::string& name) {
    return errorOf([&](auto answer) { edits_->createFolder(inode(parent), name, 0700, std::move(answer)); });
  }
  int rename(const std::string& from, const std::string& fromName, const std::string& to, const std::string& toName,
             bool mayReplace = true) {
    return errorOf(
        [&](auto answer) { edits_->rename(inode(from), fromName, inode(to), toName, mayReplace, std::move(answer)); });
  }
  int removeFile(const std::string& parent, const std::string& name) {
    return errorOf([&](auto answer) { edits_->removeFile(inode(parent), name, std::move(answer)); });
  }
  int removeFolder(const std::string& parent, const std::string& name) {
    return errorOf([&](auto answer) { edits_->removeFolder(inode(parent), name, std::move(answer)); });
  }
  int editContents(Inode item, std::int64_t contents, std::optional<std::uint64_t> madeFrom = std::nullopt) {
    return errorOf([&](auto answer) { edits_->editContents(item, contents, madeFrom, std::move(answer)); });
  }
  void touch(Inode item, std::int64_t size, double modified) {
    edits_->touchContents(item, size, {modified});
    scheduler_.runUntilIdle();
  }
  std::optional<Edit> beginSending(EditID id) {
    std::optional<Edit> begun;
    edits_->beginSending(id, [&](std::optional<Edit> edit) { begun = std::move(edit); });
    scheduler_.runUntilIdle();
    return begun;
  }
  int noteAttempt(const Edit& sent) {
    return errorOf([&](auto answer) {
      edits_->noteAttempt(sent.id, {sent.place, sent.contents, sent.generation}, std::move(answer));
    });
  }
  int forgetAttempt(EditID id) {
    return errorOf([&](auto answer) { edits_->forgetAttempt(id, std::move(answer)); });
  }
  // Of the item that is seen at the place.
  Edit beginSending(const std::string& path) { return beginSending(edit(path).id).value_or(Edit()); }
  LocalEdits::Outcome succeeded(const Edit& sent, std::uint32_t fields, SavedItem answer) {
    LocalEdits::Outcome outcome;
    edits_->succeeded(sent, fields, std::move(answer), [&](LocalEdits::Outcome one) { outcome = one; });
    scheduler_.runUntilIdle();
    return outcome;
  }
  int deleted(const Edit& sent) {
    return errorOf([&](auto answer) { edits_->deleted(sent, std::move(answer)); });
  }
  int failed(const Edit& sent, const std::string& text, std::optional<Timestamp> nextTry) {
    return errorOf([&](auto answer) { edits_->failed(sent, text, nextTry, std::move(answer)); });
  }
  int itemVanished(const Edit& sent) {
    return errorOf([&](auto answer) { edits_->itemVanished(sent, std::move(answer)); });
  }
  int renameAside(const Edit& sent) {
    return errorOf([&](auto answer) { edits_->renameAside(sent, std::move(answer)); });
  }
  int undoMove(const Edit& sent) {
    return errorOf([&](auto answer) { edits_->undoMove(sent, std::move(answer)); });
  }
  int undelete(const Edit& sent) {
    return errorOf([&](auto answer) { edits_->undelete(sent, std::move(answer)); });
  }

  void list(const std::string& id, std::vector<Item> items) {
    bool isDone = false;
    tree_->applyListing(inode(id), std::move(items), [&](const Result<void>& result) { isDone = result.has_value(); });
    scheduler_.runUntilIdle();
    EXPECT_TRUE(isDone);
  }
  void news(std::vector<Item> updates, std::vector<ItemIdentifier> deletions = {}) {
    tree_->applyNews(std::move(updates), std::move(deletions), [] {});
    scheduler_.runUntilIdle();
  }
  // Root with the folders A ("a") and B ("b"), both listed, and x.txt ("x") in A, y.txt ("y") in B.
  void buildTree() {
    list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
    list("a", {file("x", "a", "x.txt")});
    list("b", {file("y", "b", "y.txt")});
  }

  [[nodiscard]] Inode inode(const std::string& id) const { return replica_->inodeOf({id}).value_or(0); }
  [[nodiscard]] Inode at(const std::string& path) const { return replica_->inodeAtPath(path).value_or(0); }
  [[nodiscard]] std::string identifierAt(const std::string& path) const {
    const auto found = at(path);
    return found ? replica_->identifierOf(found)->text : "none";
  }
  [[nodiscard]] std::string pathOf(const std::string& id) const { return replica_->pathOf(inode(id)).value_or("none"); }
  [[nodiscard]] Edit edit(const std::string& path) const { return edits_->ofItem(at(path)).value_or(Edit()); }
  [[nodiscard]] std::optional<Edit> editOf(const std::string& id) const { return replica_->editOf({id}); }
  [[nodiscard]] std::vector<std::string> names(const std::string& id) const {
    std::vector<std::string> names;
    for (const auto& entry : replica_->entries(inode(id), replica_->children(inode(id)))) names.push_back(entry.name);
    return names;
  }
  [[nodiscard]] ItemAttributes attributes(Inode item) const {
    return replica_->attributes(item).value_or(ItemAttributes());
  }
  // What the kernel is told since the last time.
  std::vector<ReplicaChange> forKernel() {
    auto changes = std::exchange(changes_, {});
    std::erase_if(changes, [](const auto& change) { return change.byProgram; });
    return changes;
  }

  std::string folder_;
  VirtualScheduler scheduler_;
  SimulatedRandom random_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<LocalEdits> edits_;
  std::vector<ReplicaChange> changes_;
  std::int64_t contents_ = 100;
  int copies_ = 0;
};

}  // namespace vondle
