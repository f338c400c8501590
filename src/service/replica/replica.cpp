#include "service/replica/replica.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "fileprovider/error_codes.h"
#include "platform/log.h"
#include "service/replica/replica_loading.h"
#include "service/replica/tree_edit.h"

namespace vondle {
namespace {

using Slot = ItemIndex::Slot;
constexpr Slot NONE = ItemIndex::NONE;

}  // namespace

Replica::Replica(ReplicaStore store) : store_(std::move(store)), nextInode_(store_.firstFreeInode()) {}

Replica::~Replica() = default;

Result<std::unique_ptr<Replica>> Replica::open(const std::string& databasePath) {
  for (int attempt = 0;; ++attempt) {
    auto store = ReplicaStore::open(databasePath);
    if (!store) return std::unexpected(store.error());
    std::unique_ptr<Replica> replica(new Replica(std::move(*store)));
    const auto loaded = replica->load();
    if (loaded) return replica;
    if (attempt > 0) return std::unexpected(loaded.error());
    replica->store_.giveUp(loaded.error());
  }
}

Result<void> Replica::load() {
  MutexLock hold(lock_);
  return loadTree(store_, state_);
}

std::optional<ItemAttributes> Replica::attributes(Inode inode) const {
  MutexLock hold(lock_);
  const Slot slot = state_.index.find(inode);
  return slot == NONE ? std::nullopt : std::optional(state_.attributesOf(slot));
}

std::optional<ItemAttributes> Replica::lookup(Inode folder, std::string_view localName) const {
  MutexLock hold(lock_);
  const Slot parent = state_.index.find(folder);
  if (parent == NONE) return std::nullopt;
  const Slot slot = state_.index.findChild(parent, localName);
  return slot == NONE ? std::nullopt : std::optional(state_.attributesOf(slot));
}

bool Replica::isListed(Inode folder) const {
  MutexLock hold(lock_);
  const Slot slot = state_.index.find(folder);
  return slot != NONE && state_.index.facts(slot).isListed;
}

bool Replica::isEmptyFolder(Inode folder) const {
  MutexLock hold(lock_);
  const Slot slot = state_.index.find(folder);
  if (slot == NONE || !state_.index.facts(slot).isListed || state_.index.firstChild(slot) != NONE) return false;
  for (const EditID id : state_.edits.placedIn(state_.index.identifier(slot)))
    if (!isHidden(state_.edits.find(id)->fields)) return false;
  return true;
}

std::vector<Inode> Replica::children(Inode folder) const {
  MutexLock hold(lock_);
  std::vector<Inode> inodes;
  const Slot slot = state_.index.find(folder);
  if (slot == NONE) return inodes;
  for (Slot child = state_.index.firstChild(slot); child != NONE; child = state_.index.nextSibling(child))
    inodes.push_back(state_.index.inode(child));
  return inodes;
}

std::vector<DirectoryEntry> Replica::entries(Inode folder, std::span<const Inode> inodes) const {
  std::vector<DirectoryEntry> entries;
  entries.reserve(inodes.size());
  MutexLock hold(lock_);
  const Slot parent = state_.index.find(folder);
  for (const Inode inode : inodes) {
    const Slot slot = state_.index.find(inode);
    if (slot != NONE && parent != NONE && state_.index.parent(slot) == parent)
      entries.push_back({std::string(state_.index.name(slot)), state_.attributesOf(slot)});
  }
  return entries;
}

std::optional<Inode> Replica::inodeOf(const ItemIdentifier& identifier) const {
  MutexLock hold(lock_);
  const Slot slot = state_.index.findIdentifier(identifier.text);
  return slot == NONE ? std::nullopt : std::optional(state_.index.inode(slot));
}

std::optional<ItemIdentifier> Replica::identifierOf(Inode inode) const {
  MutexLock hold(lock_);
  const Slot slot = state_.index.find(inode);
  return slot == NONE ? std::nullopt : std::optional(ItemIdentifier{std::string(state_.index.identifier(slot))});
}

std::string Replica::nameOf(Inode inode) const {
  MutexLock hold(lock_);
  const Slot slot = state_.index.find(inode);
  return slot == NONE ? "" : std::string(state_.index.name(slot));
}

std::optional<std::string> Replica::pathOf(Inode inode) const {
  MutexLock hold(lock_);
  Slot slot = state_.index.find(inode);
  if (slot == NONE) return std::nullopt;
  std::vector<std::string_view> names;
  for (; state_.index.parent(slot) != NONE; slot = state_.index.parent(slot)) names.push_back(state_.index.name(slot));
  if (names.empty()) return "/";
  std::string path;
  for (auto name = names.rbegin(); name != names.rend(); ++name) path.append("/").append(*name);
  return path;
}

std::optional<Inode> Replica::inodeAtPath(std::string_view path) const {
  MutexLock hold(lock_);
  Slot slot = state_.index.find(ROOT_INODE);
  while (!path.empty() && slot != NONE) {
    const auto slash = std::min(path.find('/'), path.size());
    if (const auto name = path.substr(0, slash); !name.empty())
      slot = state_.index.facts(slot).isListed ? state_.index.findChild(slot, name) : NONE;
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return slot == NONE ? std::nullopt : std::optional(state_.index.inode(slot));
}

Result<Item> Replica::item(Inode inode) const {
  auto item = ReplicaStore::readItem(store_.path(), inode);
  if (!item) return item;
  MutexLock hold(lock_);
  const Slot slot = state_.index.find(inode);
  if (slot == NONE) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  const Slot parent = state_.index.parent(slot);
  if (!state_.edits.isEmpty() && state_.edits.ofItem(state_.index.identifier(slot))) {
    const auto shown = state_.itemOf(slot);
    item->documentSize = shown.documentSize;
    item->contentModificationDate = shown.contentModificationDate;
  }
  item->parentItemIdentifier =
      parent == NONE ? ROOT_CONTAINER : ItemIdentifier{std::string(state_.index.identifier(parent))};
  return item;
}

bool Replica::isAtOrAbove(Inode candidate, Inode inode) const {
  MutexLock hold(lock_);
  const Slot above = state_.index.find(candidate), slot = state_.index.find(inode);
  return above != NONE && slot != NONE && state_.index.isAtOrAbove(above, slot);
}

std::optional<Inode> Replica::keptBy(Inode inode) const {
  MutexLock hold(lock_);
  if (state_.kept.empty()) return std::nullopt;
  for (Slot slot = state_.index.find(inode); slot != NONE; slot = state_.index.parent(slot))
    if (state_.index.facts(slot).keepDownloaded) return state_.index.inode(slot);
  return std::nullopt;
}

std::vector<Inode> Replica::keptItems() const {
  MutexLock hold(lock_);
  return {state_.kept.begin(), state_.kept.end()};
}

std::size_t Replica::keptCount() const {
  MutexLock hold(lock_);
  return state_.kept.size();
}

std::optional<Place> Replica::placeOf(Inode inode) const {
  MutexLock hold(lock_);
  const Slot slot = state_.index.find(inode);
  if (slot == NONE || state_.index.parent(slot) == NONE) return std::nullopt;
  return state_.placeOf(slot);
}

std::vector<Edit> Replica::edits() const {
  MutexLock hold(lock_);
  std::vector<Edit> edits;
  edits.reserve(state_.edits.all().size());
  for (const auto& [id, edit] : state_.edits.all()) edits.push_back(edit);
  return edits;
}

std::size_t Replica::editCount() const {
  MutexLock hold(lock_);
  return state_.edits.all().size();
}

std::optional<Edit> Replica::edit(EditID id) const {
  MutexLock hold(lock_);
  const Edit* edit = state_.edits.find(id);
  return edit ? std::optional(*edit) : std::nullopt;
}

std::optional<Edit> Replica::editOf(const ItemIdentifier& identifier) const {
  MutexLock hold(lock_);
  const Edit* edit = state_.edits.ofItem(identifier.text);
  return edit ? std::optional(*edit) : std::nullopt;
}

std::vector<Edit> Replica::editsOnServerAt(const Place& place) const {
  MutexLock hold(lock_);
  std::vector<Edit> edits;
  for (const EditID id : state_.edits.onServerAt(place)) edits.push_back(*state_.edits.find(id));
  return edits;
}

std::vector<Edit> Replica::editsPlacedIn(const ItemIdentifier& folder) const {
  MutexLock hold(lock_);
  std::vector<Edit> edits;
  for (const EditID id : state_.edits.placedIn(folder.text)) edits.push_back(*state_.edits.find(id));
  return edits;
}

bool Replica::isSending(EditID id) const {
  MutexLock hold(lock_);
  return state_.edits.isSending(id);
}

void Replica::setSending(EditID id, bool isSending) {
  MutexLock hold(lock_);
  state_.edits.setSending(id, isSending);
}

std::optional<LocalAttributes> Replica::localAttributesOf(const ItemIdentifier& identifier) const {
  MutexLock hold(lock_);
  const auto* attributes = state_.edits.attributesOf(identifier.text);
  return attributes ? std::optional(*attributes) : std::nullopt;
}

std::vector<NamedDifferently> Replica::problems() const {
  MutexLock hold(lock_);
  std::vector<NamedDifferently> problems;
  for (const auto& [inode, odd] : state_.oddNames)
    problems.push_back({inode, odd.serverName, std::string(state_.index.name(state_.index.find(inode))), odd.problem});
  std::sort(problems.begin(), problems.end(), [](const auto& a, const auto& b) { return a.inode < b.inode; });
  return problems;
}

std::size_t Replica::itemCount() const {
  MutexLock hold(lock_);
  return state_.index.size() - 1;
}

void Replica::beginListing(Inode folder) {
  MutexLock hold(lock_);
  listings_[folder] = {};
}

void Replica::abandonListing(Inode folder) {
  MutexLock hold(lock_);
  listings_.erase(folder);
}

void Replica::rememberNews(const std::vector<Item>& updates, const std::vector<ItemIdentifier>& deletions) {
  for (auto& [folder, listing] : listings_) {
    listing.count += updates.size() + deletions.size();
    if (listing.count <= MAX_NEWS)
      listing.news.push_back({updates, deletions});
    else
      listing.news.clear();
  }
}

Result<std::vector<ReplicaChange>> Replica::applyListing(Inode folder, const std::vector<Item>& items) {
  reserveInodesFor(items.size() + MAX_NEWS + editCount());
  Listing listing;
  std::vector<ReplicaChange> changes;
  ReplicaStore::Batch batch;
  EditBatch edits;
  {
    MutexLock hold(lock_);
    if (const auto found = listings_.find(folder); found != listings_.end()) {
      listing = std::move(found->second);
      listings_.erase(found);
    }
    const Slot slot = state_.index.find(folder);
    if (slot == NONE || !state_.index.facts(slot).isFolder) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
    if (listing.count > MAX_NEWS)
      return failure({COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN, "The folder changed too often while it was listed."});
    std::set<std::string> spared;
    for (const auto& news : listing.news)
      for (const Item& item : news.updates) spared.insert(item.itemIdentifier.text);
    TreeEdit edit(state_, nextInode_);
    edit.takeListing(slot, items, spared);
    for (const auto& [updates, deletions] : listing.news) {
      for (const Item& item : updates) edit.takeUpdate(item);
      for (const auto& identifier : deletions) edit.takeDeletion(identifier);
    }
    changes = edit.finish(batch, edits);
  }
  write(batch, edits, false);
  return changes;
}

std::vector<ReplicaChange> Replica::applyNews(const std::vector<Item>& updates,
                                              const std::vector<ItemIdentifier>& deletions) {
  return applyNews(updates, deletions, {});
}

void Replica::beginPage() {
  MutexLock hold(lock_);
  answered_.clear();
}

std::vector<ReplicaChange> Replica::applyPage(const std::vector<Item>& updates,
                                              const std::vector<ItemIdentifier>& deletions) {
  std::unordered_set<std::string> answered;
  {
    MutexLock hold(lock_);
    answered = answered_;
  }
  return applyNews(updates, deletions, answered);
}

std::vector<ReplicaChange> Replica::applyNews(const std::vector<Item>& updates,
                                              const std::vector<ItemIdentifier>& deletions,
                                              const std::unordered_set<std::string>& answered) {
  reserveInodesFor(updates.size() + editCount());
  std::vector<ReplicaChange> changes;
  ReplicaStore::Batch batch;
  EditBatch edits;
  {
    MutexLock hold(lock_);
    rememberNews(updates, deletions);
    TreeEdit edit(state_, nextInode_);
    for (const Item& item : updates)
      answered.contains(item.itemIdentifier.text) ? edit.takeEarlierUpdate(item) : edit.takeUpdate(item);
    for (const auto& identifier : deletions) edit.takeDeletion(identifier);
    changes = edit.finish(batch, edits);
  }
  // The server tells news once; a listing can be had again.
  write(batch, edits, true);
  return changes;
}

std::vector<ReplicaChange> Replica::change(const std::function<void(TreeEdit&)>& make, FirstWritten first) {
  reserveInodesFor(editCount() + 1);
  std::vector<ReplicaChange> changes;
  ReplicaStore::Batch batch;
  EditBatch edits;
  {
    MutexLock hold(lock_);
    TreeEdit edit(state_, nextInode_);
    make(edit);
    changes = edit.finish(batch, edits);
  }
  first == FirstWritten::edits ? write(batch, edits, false) : writeTreeFirst(batch, edits);
  return changes;
}

// The edits first: an item of this machine that no edit tells of is removed at the next start, while an edit whose item
// is not there shows it again.
void Replica::write(const ReplicaStore::Batch& batch, const EditBatch& edits, bool isNews) {
  if (keepEdits_ && (!edits.isEmpty() || (isNews && !batch.isEmpty()))) keepEdits_(edits);
  isNews ? store_.writeDurably(batch) : store_.write(batch);
}

// What the server has by now, and no edit tells of any more, is in the tree then. An edit that is left over finds out
// at the next start what became of it.
void Replica::writeTreeFirst(const ReplicaStore::Batch& batch, const EditBatch& edits) {
  store_.write(batch);
  if (keepEdits_ && !edits.isEmpty()) keepEdits_(edits);
}

void Replica::noteNews(const std::vector<Item>& updates, const std::vector<ItemIdentifier>& deletions) {
  MutexLock hold(lock_);
  rememberNews(updates, deletions);
  for (const Item& item : updates) answered_.insert(item.itemIdentifier.text);
}

void Replica::keepEdits(EditKeeper keeper, std::function<Edit()> newEdit) {
  keepEdits_ = std::move(keeper);
  MutexLock hold(lock_);
  state_.edits.newEdit = std::move(newEdit);
}

void Replica::restoreEdits(const EditBatch& edits) {
  const auto localItems = store_.localItems();
  change([&](TreeEdit& edit) {
    edit.takeWritten(edits);
    edit.restore(localItems);
  });
}

Result<Item> Replica::storedItem(Inode inode) {
  return store_.item(inode);
}

void Replica::reserveInodesFor(std::size_t items) {
  store_.reserveInodes(nextInode_ + items);
}

}  // namespace vondle
