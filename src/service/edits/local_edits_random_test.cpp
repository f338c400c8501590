#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/content_types.h"
#include "testing/local_edits_rig.h"

namespace vondle {
namespace {

// Programs, a server that others change, too, its news, the sending of edits, and restarts, in any order. Every piece
// of contents has a number of its own, by which it is followed: one that a program wrote must be in the queue or on the
// server until a program or somebody else replaced or deleted it. VONDLE_SEEDS seeds from VONDLE_SEED on are run.
class LocalEditsRandomTest : public LocalEditsRig, public testing::WithParamInterface<std::uint64_t> {
 protected:
  struct Stored {
    std::string parent;
    std::string name;
    bool isFolder = false;
    int version = 1;
    std::int64_t contents = 0;
  };

  unsigned below(std::size_t end) { return static_cast<unsigned>(random_engine_() % std::max<std::size_t>(end, 1)); }
  bool oneIn(unsigned chance) { return below(chance) == 0; }
  template <class Container>
  auto anyOf(const Container& container) {
    return *std::next(container.begin(), below(container.size()));
  }

  // --- The server ---

  [[nodiscard]] Item itemOf(const std::string& id) const {
    const auto& stored = server_.at(id);
    if (stored.isFolder) return folder(id, stored.parent, stored.name);
    auto item =
        FakeExtension::file(id, stored.parent, stored.name, std::string(stored.contents % 7, 'c'), stored.version);
    item.itemVersion.contentVersion = fmt::format("{}-{}", stored.contents, stored.version);
    return item;
  }
  [[nodiscard]] std::vector<std::string> serverChildren(const std::string& parent) const {
    std::vector<std::string> children;
    for (const auto& [id, stored] : server_)
      if (stored.parent == parent) children.push_back(id);
    return children;
  }
  [[nodiscard]] std::string serverItemAt(const std::string& parent, const std::string& name) const {
    for (const auto& [id, stored] : server_)
      if (stored.parent == parent && stored.name == name) return id;
    return {};
  }
  [[nodiscard]] bool hasFolder(const std::string& id) const {
    return id == ROOT || (server_.contains(id) && server_.at(id).isFolder);
  }
  [[nodiscard]] bool isBelow(std::string id, const std::string& folder) const {
    while (id != ROOT && id != folder) id = server_.at(id).parent;
    return id == folder;
  }
  std::string serverAdd(Stored stored) {
    const auto id = fmt::format("s{}", ++lastServerID_);
    server_[id] = std::move(stored);
    feed_.push_back(id);
    return id;
  }
  void serverRemove(std::string id) {  // NOLINT(performance-unnecessary-value-param): it may be named by what goes
    for (const auto& child : serverChildren(id)) serverRemove(child);
    live_.erase(server_.at(id).contents);
    server_.erase(id);
    feed_.push_back(id);
  }
  std::string anyServerFolder() {
    std::vector<std::string> folders{ROOT};
    for (const auto& [id, stored] : server_)
      if (stored.isFolder) folders.push_back(id);
    return anyOf(folders);
  }
  void somebodyElse() {
    const auto parent = anyServerFolder();
    const auto name = fmt::format("n{}", below(12));
    if (server_.empty() || oneIn(3)) {
      if (!serverItemAt(parent, name).empty() || server_.size() > 60) return;
      serverAdd({parent, name, oneIn(3), 1, ++contents_});
      return;
    }
    const auto id = anyOf(server_).first;
    auto& stored = server_.at(id);
    switch (below(4)) {
      case 0:
        if (oneIn(3)) serverRemove(id);
        return;
      case 1:
        if (stored.isFolder) return;
        live_.erase(stored.contents);
        stored.contents = ++contents_;
        ++stored.version;
        break;
      default:
        if (isBelow(parent, id)) return;
        if (!serverItemAt(parent, name).empty()) return;
        stored.parent = parent;
        stored.name = name;
    }
    feed_.push_back(id);
  }
  void readNews(std::size_t count) {
    std::vector<Item> updates;
    std::vector<ItemIdentifier> deletions;
    std::set<std::string> told;
    for (; count > 0 && !feed_.empty(); --count) {
      const auto id = feed_.front();
      feed_.erase(feed_.begin());
      if (!told.insert(id).second) continue;
      if (server_.contains(id))
        updates.push_back(itemOf(id));
      else
        deletions.push_back({id});
    }
    if (oneIn(50)) deletions.push_back(ROOT_CONTAINER);
    news(std::move(updates), std::move(deletions));
  }
  void listFolder(Inode item) {
    const auto id = replica_->identifierOf(item)->text;
    if (replica_->isListed(item) || !hasFolder(id)) return;
    std::vector<Item> items;
    for (const auto& child : serverChildren(id)) items.push_back(itemOf(child));
    list(id, std::move(items));
  }

  // --- Programs ---

  // Always in the same order, unlike the tree's.
  [[nodiscard]] std::vector<DirectoryEntry> entriesOf(Inode at) const {
    auto entries = replica_->entries(at, replica_->children(at));
    std::ranges::sort(entries, {}, &DirectoryEntry::name);
    return entries;
  }
  // A folder that can be looked into, some way down.
  Inode someFolder() {
    Inode at = ROOT_INODE;
    for (;;) {
      listFolder(at);
      std::vector<Inode> folders;
      for (const auto& entry : entriesOf(at))
        if (entry.attributes.isFolder) folders.push_back(entry.attributes.inode);
      if (folders.empty() || oneIn(3) || !replica_->isListed(at)) return at;
      at = anyOf(folders);
    }
  }
  // The number of the contents that the user sees.
  [[nodiscard]] std::int64_t contentsOf(Inode item) const {
    if (const auto edit = edits_->ofItem(item); edit && edit->contents != 0) return edit->contents;
    const auto stored = server_.find(replica_->identifierOf(item).value_or(ItemIdentifier()).text);
    return stored == server_.end() ? 0 : stored->second.contents;
  }
  void program() {
    const Inode from = someFolder(), to = someFolder();
    if (!replica_->isListed(from) || !replica_->isListed(to)) return;
    const auto id = replica_->identifierOf(from)->text, toID = replica_->identifierOf(to)->text;
    const auto entries = entriesOf(from);
    const auto name = fmt::format("n{}", below(12));
    const auto entry = entries.empty() ? DirectoryEntry{name, {}} : anyOf(entries);
    switch (below(8)) {
      case 0:
      case 1:
        if (createFile(id, name, ++contents_) != 0) return;
        EXPECT_TRUE(replica_->lookup(from, name));
        live_.insert(contents_);
        return;
      case 2:
        EXPECT_TRUE(createFolder(id, name) != 0 || replica_->lookup(from, name)->isListed);
        return;
      case 3:
      case 4: {
        const auto replaced = replica_->lookup(to, name);
        const auto former = replaced ? contentsOf(replaced->inode) : 0;
        if (rename(id, entry.name, toID, name, oneIn(2)) != 0) return;
        EXPECT_EQ(replica_->attributes(entry.attributes.inode)->parent, to);
        if (replaced && replaced->inode != entry.attributes.inode) live_.erase(former);
        return;
      }
      case 5: {
        const auto former = contentsOf(entry.attributes.inode);
        if (removeFile(id, entry.name) == 0) live_.erase(former);
        return;
      }
      case 6:
        removeFolder(id, entry.name);
        return;
      default: {
        const auto former = contentsOf(entry.attributes.inode);
        if (editContents(entry.attributes.inode, ++contents_) != 0) return;
        live_.erase(former);
        live_.insert(contents_);
        touch(entry.attributes.inode, below(100), 5);
      }
    }
  }

  // --- Sending ---

  // Those whose places others wait for go first.
  bool holdsPlace(const std::string& id) const {
    const auto edit = editOf(id);
    return edit && (edit->fields & (EDIT_PLACED | EDIT_DELETED));
  }
  void meanwhile() {
    if (isQuiet_) return;
    for (unsigned i = below(3); i > 0; --i) program();
    if (oneIn(3)) readNews(below(10));
    if (oneIn(3)) somebodyElse();
  }
  void sendOne(EditID id) {
    const auto begun = beginSending(id);
    if (!begun) return;
    if (!isQuiet_ && oneIn(10)) {
      failed(*begun, "no", std::nullopt);
      return;
    }
    if (begun->attempt && (isLocal(begun->item) || begun->fields & EDIT_CONTENTS)) return findOut(*begun);
    if (begun->fields & EDIT_DELETED) return sendDeletion(*begun);
    if (begun->fields & EDIT_CONTENTS) return sendContents(*begun);
    if (isLocal(begun->place.folder)) return edits_->abandonSending(id);
    if (begun->fields & EDIT_CREATED) return sendNew(*begun);
    sendPlace(*begun);
  }
  // Something that may have arrived at the place, or in the folder, is waited for.
  template <class IsMeant>
  [[nodiscard]] bool isUncertain(const IsMeant& isMeant, EditID except = 0) const {
    return std::ranges::any_of(edits_->pending(), [&](const Edit& edit) {
      return edit.id != except && edit.attempt && isLocal(edit.item) && isMeant(edit.attempt->place);
    });
  }
  // The server has it, but nobody hears of that.
  bool losesAnswer(const Edit& sent) {
    if (isQuiet_ || !oneIn(4)) return false;
    failed(sent, "lost", std::nullopt);
    if (oneIn(2)) restart();
    return true;
  }
  void findOut(const Edit& begun) {
    auto sent = begun;
    sent.place = begun.attempt->place;
    sent.contents = begun.attempt->contents;
    sent.generation = begun.attempt->generation;
    const auto id =
        isLocal(begun.item) ? serverItemAt(sent.place.folder.text, sent.place.name) : std::string(begun.item.text);
    meanwhile();
    if (!server_.contains(id) || server_.at(id).isFolder != begun.isFolder ||
        (!begun.isFolder && server_.at(id).contents != sent.contents)) {
      forgetAttempt(begun.id);
      return;
    }
    succeeded(sent, isLocal(begun.item) ? EDIT_CREATED | EDIT_PLACED | EDIT_CONTENTS : EDIT_CONTENTS,
              saved(itemOf(id)));
    if (begun.isFolder) edits_->listAgain({id});
  }
  void sendDeletion(const Edit& begun) {
    const auto id = begun.item.text;
    const auto found = server_.find(id);
    if (isLocal(begun.item)) return edits_->abandonSending(begun.id);
    meanwhile();
    if (!server_.contains(id)) {
      deleted(begun);
      return;
    }
    for (const auto& child : serverChildren(id))
      if (holdsPlace(child)) return edits_->abandonSending(begun.id);
    if (isUncertain([&](const Place& place) { return place.folder.text == id; }))
      return edits_->abandonSending(begun.id);
    const bool isChanged = !begun.isFolder && itemOf(id).itemVersion.contentVersion != begun.baseVersion.contentVersion;
    if (!serverChildren(id).empty() || isChanged) {
      undelete(begun);
      return;
    }
    serverRemove(found->first);
    if (!isQuiet_ && oneIn(3)) readNews(5);
    deleted(begun);
  }
  void sendNew(const Edit& begun) {
    if (isUncertain([&](const Place& place) { return place == begun.place; }, begun.id))
      return edits_->abandonSending(begun.id);
    noteAttempt(begun);
    meanwhile();
    if (!hasFolder(begun.place.folder.text)) {
      itemVanished(begun);
      return;
    }
    auto sent = begun;
    if (const auto holder = serverItemAt(begun.place.folder.text, begun.place.name); !holder.empty()) {
      if (!holdsPlace(holder)) {
        renameAside(begun);
        return;
      }
      // Perhaps that one waits for this.
      if (!oneIn(5)) return edits_->abandonSending(begun.id);
      sent.place.name = fmt::format(".aside-{}", begun.id);
      noteAttempt(sent);
    }
    const auto id = serverAdd({sent.place.folder.text, sent.place.name, begun.isFolder, 1, begun.contents});
    if (losesAnswer(sent)) return;
    const auto answer = saved(itemOf(id));
    meanwhile();
    succeeded(sent, EDIT_CREATED | EDIT_PLACED | EDIT_CONTENTS, answer);
  }
  void sendContents(const Edit& begun) {
    const auto id = begun.item.text;
    noteAttempt(begun);
    meanwhile();
    if (!server_.contains(id) || server_.at(id).isFolder) {
      itemVanished(begun);
      return;
    }
    auto& stored = server_.at(id);
    const bool isConflict = itemOf(id).itemVersion.contentVersion != begun.baseVersion.contentVersion;
    if (isConflict) {
      serverAdd({stored.parent, fmt::format("copy {}", begun.contents), false, 1, begun.contents});
    } else {
      stored.contents = begun.contents;
      ++stored.version;
      feed_.push_back(id);
      if (losesAnswer(begun)) return;
    }
    const auto answer = saved(itemOf(id), !isConflict);
    meanwhile();
    succeeded(begun, EDIT_CONTENTS, answer);
  }
  void sendPlace(const Edit& begun) {
    const auto id = begun.item.text;
    noteAttempt(begun);
    meanwhile();
    if (!server_.contains(id)) {
      itemVanished(begun);
      return;
    }
    const auto folder = begun.place.folder.text;
    if (!hasFolder(folder)) {
      failed(begun, "no", std::nullopt);
      return;
    }
    if (isBelow(folder, id)) {
      undoMove(begun);
      return;
    }
    auto sent = begun;
    if (const auto holder = serverItemAt(folder, begun.place.name); !holder.empty() && holder != id) {
      if (!holdsPlace(holder)) {
        renameAside(begun);
        return;
      }
      // Perhaps that one waits for this.
      if (!oneIn(5)) return edits_->abandonSending(begun.id);
      sent.place.name = fmt::format(".aside-{}", begun.id);
    }
    server_.at(id).parent = folder;
    server_.at(id).name = sent.place.name;
    feed_.push_back(id);
    if (losesAnswer(sent)) return;
    const auto answer = saved(itemOf(id));
    meanwhile();
    succeeded(sent, EDIT_PLACED, answer);
  }

  // --- What must always be so ---

  void collect(Inode at, const std::string& path, std::map<std::string, std::string>& into) const {
    for (const auto& entry : replica_->entries(at, replica_->children(at))) {
      const auto here = path + "/" + entry.name;
      into[here] = fmt::format("{} {} {}", entry.attributes.inode, replica_->identifierOf(entry.attributes.inode)->text,
                               entry.attributes.isFolder);
      collect(entry.attributes.inode, here, into);
    }
  }
  [[nodiscard]] std::map<std::string, std::string> everything() const {
    std::map<std::string, std::string> items;
    collect(ROOT_INODE, "", items);
    return items;
  }
  void check() const {
    std::set<std::int64_t> safe;
    for (const auto& [id, stored] : server_) safe.insert(stored.contents);
    for (const auto& edit : edits_->pending()) {
      if (!(edit.fields & EDIT_DELETED)) safe.insert(edit.contents);
      const Inode item = inode(edit.item.text), folder = inode(edit.place.folder.text);
      if (edit.fields & EDIT_DELETED) {
        EXPECT_EQ(item, 0U) << edit.item.text;
        continue;
      }
      EXPECT_NE(edit.fields, 0U);
      if (folder == 0 || !(edit.fields & (EDIT_CREATED | EDIT_PLACED))) continue;
      EXPECT_TRUE(item != 0 || !(edit.fields & EDIT_CREATED)) << edit.item.text;
      if (item == 0 || replica_->isAtOrAbove(item, folder)) continue;
      EXPECT_EQ(replica_->placeOf(item), edit.place) << edit.item.text;
    }
    for (const auto number : live_) EXPECT_TRUE(safe.contains(number)) << "contents " << number << " are lost";
    const auto items = everything();
    EXPECT_EQ(items.size(), replica_->itemCount());
    for (const auto& [path, text] : items) {
      const auto id = identifierAtAnyPath(path);
      EXPECT_TRUE(editOf(id) || !isLocal({id})) << path;
    }
  }
  [[nodiscard]] std::string identifierAtAnyPath(const std::string& path) const {
    Inode at = ROOT_INODE;
    std::size_t begin = 1;
    while (begin <= path.size()) {
      const auto end = std::min(path.find('/', begin), path.size());
      at = replica_->lookup(at, path.substr(begin, end - begin))->inode;
      begin = end + 1;
    }
    return replica_->identifierOf(at)->text;
  }

  void step() {
    switch (below(10)) {
      case 0:
      case 1:
        return somebodyElse();
      case 2:
        return readNews(below(20));
      case 3:
      case 4:
      case 5:
        if (const auto pending = edits_->pending(); !pending.empty()) sendOne(anyOf(pending).id);
        return;
      default:
        return program();
    }
  }

  // Nobody changes anything any more: everything goes to the server and everything comes from it.
  void comeToRest() {
    isQuiet_ = true;
    for (int round = 0; round < 300 && (edits_->pendingCount() > 0 || !feed_.empty()); ++round) {
      readNews(1000);
      for (const auto& edit : edits_->pending()) sendOne(edit.id);
    }
    readNews(1000);
    listAll(ROOT_INODE);
  }
  void listAll(Inode at) {
    listFolder(at);
    for (const auto& entry : entriesOf(at))
      if (entry.attributes.isFolder) listAll(entry.attributes.inode);
  }

  std::mt19937_64 random_engine_{GetParam()};
  std::map<std::string, Stored> server_;
  std::vector<std::string> feed_;
  std::set<std::int64_t> live_;
  int lastServerID_ = 0;
  bool isQuiet_ = false;
};

TEST_P(LocalEditsRandomTest, NoAcknowledgedEditIsLostAndAllComesToRest) {
  for (int i = 0; i < 20; ++i) somebodyElse();
  for (int i = 0; i < 1500 && !HasFailure(); ++i) {
    SCOPED_TRACE(fmt::format("step {}", i));
    step();
    if (i % 5 == 0) check();
    if (oneIn(60)) {
      const auto before = everything();
      restart();
      EXPECT_EQ(everything(), before);
    }
    if (oneIn(300)) {
      restartWithoutReplica();
      listFolder(ROOT_INODE);
    }
  }
  comeToRest();
  check();
  for (const auto& edit : edits_->pending())
    ADD_FAILURE() << edit.item.text << " " << edit.fields << " to " << edit.place.folder.text << "/" << edit.place.name
                  << " from " << edit.serverPlace.value_or(Place()).folder.text << ": " << edit.lastError;
  EXPECT_EQ(replica_->itemCount(), server_.size());
  for (const auto& [id, stored] : server_) {
    const auto place = replica_->placeOf(inode(id)).value_or(Place());
    EXPECT_EQ(place.folder.text + "/" + place.name, stored.parent + "/" + stored.name) << id;
    if (stored.isFolder) continue;
    EXPECT_EQ(attributes(inode(id)).contentTag, TreeState::contentTag(id, itemOf(id).itemVersion.contentVersion)) << id;
  }
}

std::uint64_t numberFromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

const std::uint64_t FIRST_SEED = numberFromEnvironment("VONDLE_SEED", 1);
const std::uint64_t SEED_COUNT = numberFromEnvironment("VONDLE_SEEDS", 6);

INSTANTIATE_TEST_SUITE_P(Seeds, LocalEditsRandomTest, testing::Range(FIRST_SEED, FIRST_SEED + SEED_COUNT),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace vondle
