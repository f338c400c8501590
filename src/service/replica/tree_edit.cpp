#include "service/replica/tree_edit.h"

#include <algorithm>

#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "replica");

constexpr auto NONE = ItemIndex::NONE;

bool lookTheSame(const ItemIndex::Facts& a, const ItemIndex::Facts& b) {
  return a.size == b.size && a.modified == b.modified && a.capabilities == b.capabilities &&
         a.fileSystemFlags == b.fileSystemFlags && a.keepDownloaded == b.keepDownloaded;
}

// Containers are not items, and an identifier must fit.
bool isUsable(const ItemIdentifier& identifier) {
  return !identifier.text.empty() && identifier.text.size() <= ItemIndex::MAX_IDENTIFIER &&
         identifier != ROOT_CONTAINER && identifier != TRASH_CONTAINER && identifier != WORKING_SET_CONTAINER;
}

}  // namespace

void TreeEdit::takeListing(Slot folder, const std::vector<Item>& items) {
  std::set<Inode> unseen;
  for (Slot child = index().firstChild(folder); child != NONE; child = index().nextSibling(child))
    unseen.insert(index().inode(child));
  // The kernel can have cached nothing of a folder that was never listed, so its names need no announcing.
  const bool wasListed = state_.listedBefore.erase(index().inode(folder)) > 0;
  if (wasListed || index().inode(folder) == ROOT_INODE) setListed(folder, true);
  for (const Item& item : items) {
    if (!isUsable(item.itemIdentifier) || item.parentItemIdentifier == TRASH_CONTAINER) continue;
    if (const Slot same = index().findIdentifier(item.itemIdentifier.text);
        same != NONE && index().isAtOrAbove(same, folder)) {
      slog.error("the server lists %{public}@ within itself", item.itemIdentifier.text);
      continue;
    }
    unseen.erase(index().inode(put(withKindOf(item), folder, item)));
  }
  for (const Inode inode : unseen)
    if (const Slot child = index().find(inode); child != NONE && index().parent(child) == folder) removeTree(child);
  setListed(folder, true);
}

void TreeEdit::takeUpdate(const Item& item) {
  if (!isUsable(item.itemIdentifier)) return;
  const Slot known = withKindOf(item);
  if (item.parentItemIdentifier == TRASH_CONTAINER) {
    if (known != NONE) removeTree(known);
    return;
  }
  const Slot folder = index().findIdentifier(item.parentItemIdentifier.text);
  if (known == NONE) {
    if (folder != NONE && index().facts(folder).isListed) put(NONE, folder, item);
    return;
  }
  if (folder == NONE || !index().facts(folder).isFolder || index().isAtOrAbove(known, folder)) {
    // Perhaps the rest of the news explains it.
    takeFacts(known, item);
    detachForNow(known, item);
    return;
  }
  homeless_.erase(index().inode(known));
  put(known, folder, item);
}

void TreeEdit::takeDeletion(const ItemIdentifier& identifier) {
  const Slot slot = index().findIdentifier(identifier.text);
  if (slot == NONE) return;
  if (index().inode(slot) != ROOT_INODE) return removeTree(slot);
  // Everything may have changed, at every depth.
  for (const Slot folder : index().subtree(slot)) {
    if (!index().facts(folder).isListed) continue;
    setListed(folder, false);
    state_.listedBefore.insert(index().inode(folder));
    for (Slot child = index().firstChild(folder); child != NONE; child = index().nextSibling(child))
      say({ReplicaChange::Kind::entryRemoved, index().inode(folder), std::string(index().name(child)),
           index().inode(child)});
  }
}

std::vector<ReplicaChange> TreeEdit::finish(ReplicaStore::Batch& batch) {
  while (!homeless_.empty()) settle(homeless_.begin()->first);
  handOutFreedNames();
  for (const auto& [inode, item] : items_) {
    const Slot slot = index().find(inode);
    if (slot == NONE || index().parent(slot) == NONE) continue;
    batch.upserts.push_back({inode, index().inode(index().parent(slot)), std::string(index().name(slot)),
                             static_cast<bool>(index().facts(slot).isListed), item});
  }
  for (const Inode inode : moved_) {
    const Slot slot = index().find(inode);
    if (slot != NONE && !items_.contains(inode))
      batch.moves.push_back({inode, index().inode(index().parent(slot)), std::string(index().name(slot))});
  }
  for (const Inode inode : listedChanged_)
    if (const Slot slot = index().find(inode); slot != NONE && !items_.contains(inode))
      batch.listed.emplace_back(inode, static_cast<bool>(index().facts(slot).isListed));
  batch.removals = std::move(removed_);
  return std::move(changes_);
}

// The node of the item, if there is one of the same kind; one of the other kind goes.
ItemIndex::Slot TreeEdit::withKindOf(const Item& item) {
  const Slot known = index().findIdentifier(item.itemIdentifier.text);
  if (known == NONE || index().facts(known).isFolder == item.isFolder()) return known;
  homeless_.erase(index().inode(known));
  removeTree(known);
  return NONE;
}

void TreeEdit::setListed(Slot folder, bool isListed) {
  index().facts(folder).isListed = isListed;
  listedChanged_.insert(index().inode(folder));
}

// Brings the item, known or new, into the folder.
ItemIndex::Slot TreeEdit::put(Slot known, Slot folder, const Item& item) {
  if (known == NONE) {
    const Inode inode = nextInode_++;
    const Slot slot =
        index().insert(inode, item.itemIdentifier.text, chosenName(folder, item.filename, item.itemIdentifier.text),
                       TreeState::factsOf(item));
    items_[inode] = &item;
    attach(slot, folder, item.filename);
    return slot;
  }
  takeFacts(known, item);
  if (index().parent(known) == folder && state_.serverNameOf(known) == item.filename) return known;
  detach(known);
  attach(known, folder, item.filename);
  return known;
}

void TreeEdit::takeFacts(Slot slot, const Item& item) {
  const Inode inode = index().inode(slot);
  const auto before = index().facts(slot);
  auto& facts = index().facts(slot);
  facts = TreeState::factsOf(item);
  facts.isListed = before.isListed;
  facts.isNamedDifferently = before.isNamedDifferently;
  items_[inode] = &item;
  if (!lookTheSame(before, facts)) say({ReplicaChange::Kind::attributesChanged, 0, {}, inode});
  if (!facts.isFolder && before.contentTag != facts.contentTag)
    say({ReplicaChange::Kind::contentsChanged, 0, {}, inode});
}

// A local name for the server name that no other item of the folder has.
std::string TreeEdit::chosenName(Slot folder, std::string_view serverName, std::string_view identifier) {
  auto name = localName(serverName, identifier);
  for (unsigned attempt = 0;; ++attempt) {
    if (index().findChild(folder, name) == NONE) return name;
    name = distinctLocalName(serverName, identifier, attempt);
  }
}

void TreeEdit::attach(Slot slot, Slot folder, std::string_view serverName) {
  const auto name = chosenName(folder, serverName, index().identifier(slot));
  index().attach(slot, folder, name);
  state_.noteNames(slot, serverName);
  moved_.insert(index().inode(slot));
  if (index().facts(folder).isListed)
    say({ReplicaChange::Kind::entryAdded, index().inode(folder), name, index().inode(slot)});
}

void TreeEdit::detach(Slot slot) {
  const Slot folder = index().parent(slot);
  if (folder == NONE) return;
  const std::string name(index().name(slot));
  if (index().facts(folder).isListed)
    say({ReplicaChange::Kind::entryRemoved, index().inode(folder), name, index().inode(slot)});
  freed_.insert({index().inode(folder), name});
  state_.forgetNames(slot);
  index().detach(slot);
}

void TreeEdit::detachForNow(Slot slot, const Item& item) {
  const Inode inode = index().inode(slot);
  const Slot folder = index().parent(slot);
  auto [place, isNew] = homeless_.try_emplace(inode);
  if (isNew) place->second.oldParent = folder == NONE ? 0 : index().inode(folder);
  place->second.wanted = item.parentItemIdentifier;
  place->second.serverName = item.filename;
  detach(slot);
}

// Attaches a detached node below its wanted parent, after those above it; what cannot be reached goes back to where
// it was, or away.
void TreeEdit::settle(Inode first) {
  std::vector<Inode> chain{first};
  while (!chain.empty()) {
    const Inode inode = chain.back();
    const Slot slot = index().find(inode);
    const auto& [wanted, oldParent, serverName] = homeless_.at(inode);
    const Slot folder = index().findIdentifier(wanted.text);
    if (folder == NONE || !index().facts(folder).isFolder) {
      const auto gone = index().inode(slot);
      homeless_.erase(gone);
      removeTree(slot);
      chain.pop_back();
      continue;
    }
    const Inode top = index().inode(index().topmost(folder));
    if (top == ROOT_INODE) {
      attach(slot, folder, serverName);
      homeless_.erase(inode);
      chain.pop_back();
    } else if (std::find(chain.begin(), chain.end(), top) == chain.end()) {
      chain.push_back(top);
    } else {
      slog.error("the server has %{public}@ within itself", index().identifier(slot));
      return breakCycle(chain);
    }
  }
}

// One of the chain goes back to where it was; when none can, the last goes away.
void TreeEdit::breakCycle(const std::vector<Inode>& chain) {
  for (const Inode inode : chain) {
    const auto& [wanted, oldParent, serverName] = homeless_.at(inode);
    const Slot old = oldParent == 0 ? NONE : index().find(oldParent);
    if (old == NONE || index().inode(index().topmost(old)) != ROOT_INODE) continue;
    attach(index().find(inode), old, serverName);
    homeless_.erase(inode);
    return;
  }
  removeTree(index().find(chain.back()));
}

void TreeEdit::removeTree(Slot top) {
  const Slot folder = index().parent(top);
  for (const Slot slot : index().subtree(top)) {
    const Inode inode = index().inode(slot);
    ReplicaChange change{ReplicaChange::Kind::itemRemoved, 0, {}, inode};
    if (slot == top && folder != NONE) {
      change.parent = index().inode(folder);
      change.name = index().name(slot);
      freed_.insert({change.parent, change.name});
    }
    state_.forgetNames(slot);
    state_.listedBefore.erase(inode);
    index().remove(slot);
    items_.erase(inode);
    homeless_.erase(inode);
    removed_.push_back(inode);
    say(std::move(change));
  }
}

void TreeEdit::handOutFreedNames() {
  // Handing one out frees none that somebody waits for: those who wait have names of their own.
  for (const auto& [inode, name] : std::exchange(freed_, {})) {
    const Slot folder = index().find(inode);
    const auto waiting = state_.wanted.find({inode, name});
    if (folder == NONE || waiting == state_.wanted.end() || index().findChild(folder, name) != NONE) continue;
    const Slot slot = index().find(*waiting->second.begin());
    const auto serverName = state_.serverNameOf(slot);
    detach(slot);
    attach(slot, folder, serverName);
  }
}

}  // namespace vondle
