#include "service/replica/tree_edit.h"

#include <algorithm>

#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "replica");

constexpr auto NONE = ItemIndex::NONE;

bool lookTheSame(const ItemIndex::Facts& a, const ItemIndex::Facts& b) {
  return a.size == b.size && a.modified == b.modified && a.capabilities == b.capabilities &&
         a.permissions == b.permissions && a.keepDownloaded == b.keepDownloaded;
}

// Containers are not items, an identifier must fit, and those of this machine are not the server's to give.
bool isUsable(const ItemIdentifier& identifier) {
  return !identifier.text.empty() && identifier.text.size() <= ItemIndex::MAX_IDENTIFIER && !isLocal(identifier) &&
         identifier != ROOT_CONTAINER && identifier != TRASH_CONTAINER && identifier != WORKING_SET_CONTAINER;
}

}  // namespace

void TreeEdit::takeListing(Slot folder, const std::vector<Item>& items, const std::set<std::string>& spared) {
  std::set<Inode> unseen;
  for (Slot child = index().firstChild(folder); child != NONE; child = index().nextSibling(child))
    if (!staysUnlisted(child, spared)) unseen.insert(index().inode(child));
  // The kernel can have cached nothing of a folder that was never listed, so its names need no announcing.
  const bool wasListed = state_.listedBefore.erase(index().inode(folder)) > 0;
  if (wasListed || index().inode(folder) == ROOT_INODE) setListed(folder, true);
  for (const Item& item : items) {
    if (!isUsable(item.itemIdentifier) || item.parentItemIdentifier == TRASH_CONTAINER) continue;
    const Place place{{std::string(index().identifier(folder))}, item.filename};
    if (const Slot same = index().findIdentifier(item.itemIdentifier.text);
        same != NONE && index().isAtOrAbove(same, folder)) {
      takeAbove(same, place, item);
      continue;
    }
    const Slot known = withKindOf(item);
    if (known == NONE && state_.edits.hides(place)) continue;
    if (known != NONE) unseen.erase(index().inode(known));
    if (!takeEdited(known, folder, place, item)) put(known, folder, item);
  }
  for (const Inode inode : unseen)
    if (const Slot child = index().find(inode); child != NONE && index().parent(child) == folder) removeTree(child);
  setListed(folder, true);
}

// A listing has what the folder is in here: a program moved it there, or the server talks nonsense.
void TreeEdit::takeAbove(Slot known, const Place& place, const Item& item) {
  if (!item.isFolder() || place.folder == item.itemIdentifier) {
    slog.error("the server lists %{public}@ within itself", item.itemIdentifier.text);
    return;
  }
  if (takeEdited(known, NONE, place, item)) return;
  takeFacts(known, item);
  detachForNow(known, place);
}

// Whether a listing of its folder that lacks the item says nothing about it.
bool TreeEdit::staysUnlisted(Slot child, const std::set<std::string>& spared) {
  const auto identifier = index().identifier(child);
  if (spared.contains(std::string(identifier))) return true;
  if (state_.edits.isEmpty()) return false;
  const Edit* edit = state_.edits.ofItem(identifier);
  if (!edit) return false;
  if (edit->fields & EDIT_CREATED) return true;
  return (edit->fields & EDIT_PLACED) != 0 &&
         (!edit->serverPlace || edit->serverPlace->folder.text != index().identifier(index().parent(child)));
}

void TreeEdit::takeUpdate(const Item& item) {
  if (!isUsable(item.itemIdentifier)) return;
  if (item.parentItemIdentifier == TRASH_CONTAINER) return takeDeletion(item.itemIdentifier);
  const Slot known = withKindOf(item);
  if (known == NONE && state_.edits.hides({item.parentItemIdentifier, item.filename})) return;
  const Slot folder = index().findIdentifier(item.parentItemIdentifier.text);
  const bool isKept = folder != NONE && index().facts(folder).isListed;
  if (takeEdited(known, isKept ? folder : NONE, {item.parentItemIdentifier, item.filename}, item)) return;
  if (known == NONE) {
    if (isKept) put(NONE, folder, item);
    return;
  }
  if (folder == NONE || !index().facts(folder).isFolder || index().isAtOrAbove(known, folder)) {
    // Perhaps the rest of the news explains it.
    takeFacts(known, item);
    detachForNow(known, {item.parentItemIdentifier, item.filename});
    return;
  }
  homeless_.erase(index().inode(known));
  put(known, folder, item);
}

void TreeEdit::takeEarlierUpdate(const Item& item) {
  const Slot known = index().findIdentifier(item.itemIdentifier.text);
  const Slot folder = known == NONE ? NONE : index().parent(known);
  if (folder == NONE || editOf(known) ||
      (index().identifier(folder) == item.parentItemIdentifier.text && state_.serverNameOf(known) == item.filename))
    return takeUpdate(item);
  relist({std::string(index().identifier(folder))});
}

// News of an item that the user deleted or placed: true when the place that the server gives it does not count. The
// folder is where it would be shown otherwise, or none.
bool TreeEdit::takeEdited(Slot known, Slot folder, const Place& serverPlace, const Item& item) {
  if (state_.edits.isEmpty()) return false;
  const Edit* found = state_.edits.ofItem(item.itemIdentifier.text);
  if (!found) return false;
  Edit edit = *found;
  edit.serverPlace = serverPlace;
  // Perhaps it was deleted there already, and somebody has restored it: that deletion is not all there is.
  if (isHidden(edit.fields) && state_.edits.isSending(edit.id)) ++edit.generation;
  if (edit.place == serverPlace && !state_.edits.isSending(edit.id)) edit.fields &= ~EDIT_PLACED;
  if ((edit.fields & ~EDIT_TRASHED) == EDIT_CONTENTS) edit.place = serverPlace;
  if (!(edit.fields & (EDIT_CONTENTS | EDIT_DELETED))) edit.baseVersion = item.itemVersion;
  if (edit.fields == 0)
    dropEdit(edit.id);
  else if (edit != *found)
    putEdit(edit);
  if (isHidden(edit.fields)) return true;
  if (!(edit.fields & EDIT_PLACED)) return false;
  if (known == NONE) {
    const Slot chosen = index().findIdentifier(edit.place.folder.text);
    const bool isChosen = isUsableFolder(chosen);
    if (!isChosen && folder == NONE) return true;
    known = insert(isChosen ? chosen : folder, isChosen ? edit.place.name : item.filename, item.itemIdentifier,
                   TreeState::factsOf(item), isChosen);
    items_[index().inode(known)] = &item;
    showPlacedIn(item.itemIdentifier);
    return true;
  }
  takeFacts(known, item);
  show(edit.id);
  return true;
}

void TreeEdit::takeDeletion(const ItemIdentifier& identifier) {
  const Slot slot = index().findIdentifier(identifier.text);
  if (slot == NONE) return takeDeletionOfUnseen(identifier);
  if (index().inode(slot) != ROOT_INODE) return removeTree(slot);
  // Everything may have changed, at every depth.
  for (const Slot folder : index().subtree(slot))
    if (index().facts(folder).isListed && !isLocal({std::string(index().identifier(folder))})) listAgain(folder);
}

// An item that is hidden, or whose folder is not known yet.
void TreeEdit::takeDeletionOfUnseen(const ItemIdentifier& identifier) {
  // Nobody knows where the folder was: what was to be in it goes to the top, or stays where the server has it.
  for (const EditID id : state_.edits.placedIn(identifier.text)) {
    Edit edit = *state_.edits.find(id);
    if (edit.fields & EDIT_CREATED) {
      edit.place.folder = ROOT_CONTAINER;
    } else {
      edit.fields &= ~EDIT_PLACED;
      edit.place = edit.serverPlace.value_or(edit.place);
    }
    edit.fields == 0 ? dropEdit(id) : putEdit(std::move(edit));
    show(id);
  }
  const Edit* edit = state_.edits.ofItem(identifier.text);
  if (!edit) return;
  if (edit->fields & EDIT_CONTENTS) return makeLocal(identifier);
  dropEdit(edit->id);
}

void TreeEdit::listAgain(Slot folder) {
  setListed(folder, false);
  state_.listedBefore.insert(index().inode(folder));
  // Whoever keeps the folder downloaded must hear of it, also when no name goes.
  if (!state_.kept.empty()) say({ReplicaChange::Kind::attributesChanged, 0, {}, index().inode(folder)});
  for (Slot child = index().firstChild(folder); child != NONE; child = index().nextSibling(child))
    say({ReplicaChange::Kind::entryRemoved, index().inode(folder), std::string(index().name(child)),
         index().inode(child)});
}

void TreeEdit::relist(const ItemIdentifier& folder) {
  if (isLocal(folder)) return;
  if (const Slot slot = index().findIdentifier(folder.text); isUsableFolder(slot) && index().facts(slot).isListed)
    listAgain(slot);
}

std::vector<ReplicaChange> TreeEdit::finish(ReplicaStore::Batch& batch, EditBatch& edits) {
  byProgram_ = false;
  while (!homeless_.empty()) settle(homeless_.begin()->first);
  for (const EditID id : state_.edits.takeBlocked()) show(id);
  handOutFreedNames();
  describe(batch);
  for (const EditID id : changedEdits_)
    if (const Edit* edit = state_.edits.find(id))
      edits.edits.push_back(*edit);
    else
      edits.removals.push_back(id);
  for (const auto& identifier : changedAttributes_)
    if (const auto* attributes = state_.edits.attributesOf(identifier))
      edits.attributes.push_back(*attributes);
    else
      edits.attributeRemovals.push_back({identifier});
  return std::move(changes_);
}

// Those that are edited are kept as the user sees them.
void TreeEdit::describe(ReplicaStore::Batch& batch) {
  const auto upsert = [&](Slot slot, const Item* item) {
    batch.upserts.push_back({index().inode(slot), index().inode(index().parent(slot)), std::string(index().name(slot)),
                             static_cast<bool>(index().facts(slot).isListed), item});
  };
  for (const auto& [inode, item] : items_) {
    const Slot slot = index().find(inode);
    if (slot == NONE || index().parent(slot) == NONE) continue;
    if (state_.edits.isEmpty() || !editOf(slot)) {
      upsert(slot, item);
      continue;
    }
    Item& shown = batch.made.emplace_back(*item);
    shown.filename = state_.serverNameOf(slot);
    upsert(slot, &shown);
  }
  for (const Inode inode : made_) {
    const Slot slot = index().find(inode);
    if (slot != NONE && index().parent(slot) != NONE && !items_.contains(inode))
      upsert(slot, &batch.made.emplace_back(state_.itemOf(slot)));
  }
  const auto isDescribed = [this](Inode inode) { return items_.contains(inode) || made_.contains(inode); };
  for (const Inode inode : moved_) {
    const Slot slot = index().find(inode);
    if (slot != NONE && !isDescribed(inode))
      batch.moves.push_back(
          {inode, index().inode(index().parent(slot)), std::string(index().name(slot)), state_.serverNameOf(slot)});
  }
  for (const Inode inode : listedChanged_)
    if (const Slot slot = index().find(inode); slot != NONE && !isDescribed(inode))
      batch.listed.emplace_back(inode, static_cast<bool>(index().facts(slot).isListed));
  batch.removals = std::move(removed_);
}

void TreeEdit::say(ReplicaChange change) {
  change.byProgram = byProgram_;
  changes_.push_back(std::move(change));
}

// The node of the item, if there is one of the same kind; one of the other kind goes.
ItemIndex::Slot TreeEdit::withKindOf(const Item& item) {
  const Slot known = index().findIdentifier(item.itemIdentifier.text);
  if (known == NONE || index().facts(known).isFolder == item.isFolder()) return known;
  removeTree(known);
  return NONE;
}

void TreeEdit::setListed(Slot folder, bool isListed) {
  index().facts(folder).isListed = isListed;
  listedChanged_.insert(index().inode(folder));
}

// Brings the item, known or new, into the folder.
void TreeEdit::put(Slot known, Slot folder, const Item& item) {
  if (known == NONE) {
    const Slot slot = insert(folder, item.filename, item.itemIdentifier, TreeState::factsOf(item), false);
    items_[index().inode(slot)] = &item;
    return showPlacedIn(item.itemIdentifier);
  }
  takeFacts(known, item);
  if (index().parent(known) == folder && state_.serverNameOf(known) == item.filename) return;
  detach(known);
  attach(known, folder, item.filename);
}

ItemIndex::Slot TreeEdit::insert(Slot folder, std::string_view serverName, const ItemIdentifier& identifier,
                                 ItemIndex::Facts facts, bool isFirst) {
  state_.applyEdits(identifier.text, facts);
  if (facts.keepDownloaded) state_.kept.insert(nextInode_);
  const Slot slot =
      index().insert(nextInode_++, identifier.text, chosenName(folder, serverName, identifier.text), facts);
  isFirst ? attachFirst(slot, folder, serverName) : attach(slot, folder, serverName);
  // Whoever keeps it downloaded must hear of it, also when it comes with the first listing of its folder.
  if (facts.keepDownloaded) say({ReplicaChange::Kind::attributesChanged, 0, {}, index().inode(slot)});
  return slot;
}

void TreeEdit::takeFacts(Slot slot, const Item& item) {
  items_[index().inode(slot)] = &item;
  auto facts = TreeState::factsOf(item);
  if (const auto* kept = state_.edits.attributesOf(item.itemIdentifier.text);
      kept && kept->modified && kept->contentTag != facts.contentTag) {
    auto current = *kept;
    current.modified.reset();
    current.permissions ? putAttributes(std::move(current)) : dropAttributes(item.itemIdentifier);
  }
  state_.applyEdits(item.itemIdentifier.text, facts);
  changeFacts(slot, facts);
}

void TreeEdit::changeFacts(Slot slot, ItemIndex::Facts changed) {
  const Inode inode = index().inode(slot);
  auto& facts = index().facts(slot);
  const auto before = facts;
  facts = changed;
  facts.isListed = before.isListed;
  facts.isNamedDifferently = before.isNamedDifferently;
  if (facts.keepDownloaded)
    state_.kept.insert(inode);
  else
    state_.kept.erase(inode);
  if (!lookTheSame(before, facts)) say({ReplicaChange::Kind::attributesChanged, 0, {}, inode});
  if (facts.isFolder || before.contentTag == facts.contentTag) return;
  say({ReplicaChange::Kind::contentsChanged, 0, {}, inode});
  if (known_.contains(inode)) changes_.back().byProgram = true;
}

// A local name for the server name that no other item of the folder has.
std::string TreeEdit::chosenName(Slot folder, std::string_view serverName, std::string_view identifier) {
  auto name = localName(serverName, identifier);
  const auto isFree = [&] {
    const bool isReserved = index().inode(folder) == ROOT_INODE && name == state_.reservedTopName;
    return !isReserved && index().findChild(folder, name) == NONE;
  };
  for (unsigned attempt = 0;; ++attempt) {
    if (isFree()) return name;
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

// As attach, but what has the name already, and is not there by a program's wish, makes way.
void TreeEdit::attachFirst(Slot slot, Slot folder, std::string_view serverName) {
  const Slot other = index().findChild(folder, localName(serverName, index().identifier(slot)));
  const Edit* edit = other == NONE ? nullptr : editOf(other);
  if (other == NONE || (edit && (edit->fields & (EDIT_CREATED | EDIT_PLACED)))) return attach(slot, folder, serverName);
  const auto otherName = state_.serverNameOf(other);
  const bool wasByProgram = std::exchange(byProgram_, false);
  detach(other);
  byProgram_ = wasByProgram;
  attach(slot, folder, serverName);
  byProgram_ = false;
  attach(other, folder, otherName);
  byProgram_ = wasByProgram;
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

void TreeEdit::detachForNow(Slot slot, const Place& wanted) {
  const Inode inode = index().inode(slot);
  const Slot folder = index().parent(slot);
  auto [place, isNew] = homeless_.try_emplace(inode);
  if (isNew) place->second.oldParent = folder == NONE ? 0 : index().inode(folder);
  place->second.wanted = wanted.folder;
  place->second.serverName = wanted.name;
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
      // What is edited must not go because its new folder has not been seen yet.
      if (!isEdited(slot) || !putBack(inode)) removeTree(slot);
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
      return breakCycle(chain);
    }
  }
}

// What a program moved to below a folder that the server has in it goes back to where the server has it. Otherwise one
// of the chain goes back to where it was; when none can, the last goes away.
void TreeEdit::breakCycle(const std::vector<Inode>& chain) {
  if (std::ranges::any_of(chain, [this](Inode inode) { return undoMoveAbove(inode); })) return;
  slog.error("the server has %{public}@ within itself", index().identifier(index().find(chain.back())));
  if (!std::ranges::any_of(chain, [this](Inode inode) { return putBack(inode); }))
    removeTree(index().find(chain.back()));
}

// False when no program has moved the folder that the homeless node is to be in, nor what that is in.
bool TreeEdit::undoMoveAbove(Inode inode) {
  Slot slot = index().findIdentifier(homeless_.at(inode).wanted.text);
  for (; slot != NONE && index().parent(slot) != NONE; slot = index().parent(slot)) {
    const Edit* edit = editOf(slot);
    if (!edit || !(edit->fields & EDIT_PLACED) || !edit->serverPlace) continue;
    undoMove(edit->id);
    return true;
  }
  return false;
}

// False when the folder where the homeless node was is not there any more.
bool TreeEdit::putBack(Inode inode) {
  const auto& [wanted, oldParent, serverName] = homeless_.at(inode);
  const Slot old = oldParent == 0 ? NONE : index().find(oldParent);
  if (old == NONE || index().inode(index().topmost(old)) != ROOT_INODE) return false;
  attach(index().find(inode), old, serverName);
  homeless_.erase(inode);
  return true;
}

bool TreeEdit::isEdited(Slot top) {
  return !state_.edits.isEmpty() &&
         std::ranges::any_of(index().subtree(top), [this](Slot slot) { return editOf(slot); });
}

// The server has these items no more. Those that an edit needs stay, with the folders that they are in.
void TreeEdit::removeTree(Slot top) {
  const auto doomed = index().subtree(top);
  const auto kept = survivors(top, doomed);
  if (kept.contains(index().inode(top))) giveHome(top);
  std::vector<Inode> lost;
  for (const Slot slot : doomed) {
    if (kept.contains(index().inode(slot))) {
      const Edit* edit = editOf(slot);
      if (!(edit && (edit->fields & EDIT_CREATED)) && isBelowOnServer(slot, top)) lost.push_back(index().inode(slot));
      continue;
    }
    if (const Edit* edit = editOf(slot)) dropEdit(edit->id);
    removeNode(slot, slot == top);
  }
  for (const Inode inode : lost) makeLocal({std::string(index().identifier(index().find(inode)))});
}

std::set<Inode> TreeEdit::survivors(Slot top, const std::vector<Slot>& doomed) {
  std::set<Inode> kept;
  if (state_.edits.isEmpty() || std::ranges::none_of(doomed, [this](Slot slot) { return editOf(slot); })) return kept;
  for (const Slot slot : doomed) {
    const Edit* edit = editOf(slot);
    const bool isNeeded = edit && (edit->fields & (EDIT_CREATED | EDIT_CONTENTS));
    if (!isNeeded && isBelowOnServer(slot, top)) continue;
    for (Slot one = slot; kept.insert(index().inode(one)).second && one != top;) one = index().parent(one);
  }
  return kept;
}

// Not so when programs have moved it, or what it is in, to here from elsewhere.
bool TreeEdit::isBelowOnServer(Slot slot, Slot top) {
  while (slot != top && slot != NONE) {
    const Edit* edit = editOf(slot);
    slot = edit && edit->serverPlace ? index().findIdentifier(edit->serverPlace->folder.text) : index().parent(slot);
  }
  return slot == top;
}

// A detached node that is needed goes back to where it was, or to the top.
void TreeEdit::giveHome(Slot top) {
  if (index().parent(top) != NONE) return;
  const Inode inode = index().inode(top);
  if (homeless_.contains(inode) && putBack(inode)) return;
  const auto found = homeless_.extract(inode);
  attach(top, index().find(ROOT_INODE), found ? found.mapped().serverName : std::string(index().name(top)));
}

// A node without children.
void TreeEdit::removeNode(Slot slot, bool isTop) {
  const Inode inode = index().inode(slot);
  const Slot folder = index().parent(slot);
  ReplicaChange change{ReplicaChange::Kind::itemRemoved, 0, {}, inode};
  if (isTop && folder != NONE) {
    change.parent = index().inode(folder);
    change.name = index().name(slot);
    freed_.insert({change.parent, change.name});
  }
  if (!state_.edits.isEmpty()) dropAttributes({std::string(index().identifier(slot))});
  state_.forgetNames(slot);
  state_.listedBefore.erase(inode);
  state_.kept.erase(inode);
  index().remove(slot);
  items_.erase(inode);
  homeless_.erase(inode);
  removed_.push_back(inode);
  say(std::move(change));
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

void TreeEdit::putEdit(Edit edit) {
  changedEdits_.insert(edit.id);
  state_.edits.put(std::move(edit));
}

void TreeEdit::dropEdit(EditID id) {
  changedEdits_.insert(id);
  state_.edits.remove(id);
}

void TreeEdit::putAttributes(LocalAttributes attributes) {
  changedAttributes_.insert(attributes.item.text);
  state_.edits.putAttributes(std::move(attributes));
}

void TreeEdit::dropAttributes(const ItemIdentifier& identifier) {
  if (!state_.edits.attributesOf(identifier.text)) return;
  changedAttributes_.insert(identifier.text);
  state_.edits.removeAttributes(identifier.text);
}

Inode TreeEdit::inodeOf(const ItemIdentifier& identifier) const {
  const Slot slot = state_.index.findIdentifier(identifier.text);
  return slot == NONE ? 0 : state_.index.inode(slot);
}

bool TreeEdit::show(EditID id, bool isMade) {
  const Edit* found = state_.edits.find(id);
  if (!found) return false;
  const Edit edit = *found;
  const Slot slot = index().findIdentifier(edit.item.text);
  if (isHidden(edit.fields)) {
    if (slot == NONE || index().inode(slot) == ROOT_INODE) return false;
    hide(index().inode(slot));
    return true;
  }
  const Slot folder = index().findIdentifier(edit.place.folder.text);
  if (slot == NONE) {
    if ((!(edit.fields & EDIT_CREATED) && !isMade) || !isUsableFolder(folder)) return false;
    made_.insert(index().inode(insert(folder, edit.place.name, edit.item, state_.factsOf(edit), true)));
    showPlacedIn(edit.item);
    return true;
  }
  refresh(index().inode(slot));
  return (edit.fields & (EDIT_CREATED | EDIT_PLACED)) != 0 && bring(slot, edit);
}

bool TreeEdit::bring(Slot slot, const Edit& edit) {
  const Slot folder = index().findIdentifier(edit.place.folder.text);
  if (!isUsableFolder(folder)) return false;
  if (index().parent(slot) == folder && state_.serverNameOf(slot) == edit.place.name) return false;
  if (index().isAtOrAbove(slot, folder)) {
    state_.edits.setBlocked(edit.id);
    return false;
  }
  homeless_.erase(index().inode(slot));
  detach(slot);
  attachFirst(slot, folder, edit.place.name);
  return true;
}

void TreeEdit::showPlacedIn(const ItemIdentifier& folder) {
  if (state_.edits.isEmpty()) return;
  for (const EditID id : state_.edits.placedIn(folder.text)) show(id);
}

void TreeEdit::move(Inode inode, const Place& place, const std::string& wished) {
  const Slot slot = index().find(inode);
  const Slot folder = index().findIdentifier(place.folder.text);
  if (slot == NONE || !isUsableFolder(folder)) return;
  if (index().parent(slot) != folder || index().name(slot) != wished || state_.serverNameOf(slot) != place.name) {
    detach(slot);
    attachFirst(slot, folder, place.name);
  }
  if (index().name(slot) == wished) return;
  const bool wasByProgram = std::exchange(byProgram_, false);
  say({ReplicaChange::Kind::entryRemoved, index().inode(folder), wished, inode});
  say({ReplicaChange::Kind::entryAdded, index().inode(folder), std::string(index().name(slot)), inode});
  byProgram_ = wasByProgram;
}

void TreeEdit::reserveTopName(const std::string& name) {
  state_.reservedTopName = name;
  const Slot root = index().find(ROOT_INODE);
  const Slot slot = index().findChild(root, name);
  if (slot == NONE) return;
  const auto serverName = state_.serverNameOf(slot);
  detach(slot);
  attach(slot, root, serverName);
}

void TreeEdit::undoMove(EditID id) {
  const Edit* found = state_.edits.find(id);
  if (!found || !(found->fields & EDIT_PLACED) || !found->serverPlace) return;
  Edit edit = *found;
  edit.fields &= ~EDIT_PLACED;
  edit.place = *edit.serverPlace;
  const Slot slot = index().findIdentifier(edit.item.text);
  slot == NONE ? relist(edit.place.folder) : detachForNow(slot, edit.place);
  edit.fields == 0 ? dropEdit(id) : putEdit(std::move(edit));
}

void TreeEdit::hide(Inode inode) {
  const Slot top = index().find(inode);
  if (top == NONE) return;
  for (const Slot slot : index().subtree(top)) removeNode(slot, slot == top);
}

void TreeEdit::identify(Inode inode, const ItemIdentifier& identifier) {
  const Slot old = index().find(inode);
  if (old == NONE) return;
  const ItemIdentifier former{std::string(index().identifier(old))};
  if (former == identifier) return;
  const std::string name(index().name(old)), serverName = state_.serverNameOf(old);
  const auto facts = index().facts(old);
  const Slot folder = index().parent(old);
  std::vector<std::pair<Slot, std::string>> children;
  for (Slot child = index().firstChild(old); child != NONE; child = index().nextSibling(child))
    children.emplace_back(child, index().name(child));
  for (const auto& [child, childName] : children) index().detach(child);
  state_.forgetNames(old);
  if (folder != NONE) index().detach(old);
  index().remove(old);
  const Slot slot = index().insert(inode, identifier.text, name, facts);
  index().facts(slot).isNamedDifferently = false;
  if (folder != NONE) {
    index().attach(slot, folder, name);
    state_.noteNames(slot, serverName);
  }
  for (const auto& [child, childName] : children) index().attach(child, slot, childName);
  made_.insert(inode);
  renameInEdits(former, identifier);
  showPlacedIn(identifier);
}

void TreeEdit::renameInEdits(const ItemIdentifier& former, const ItemIdentifier& identifier) {
  for (const EditID id : state_.edits.placedIn(former.text)) {
    Edit edit = *state_.edits.find(id);
    edit.place.folder = identifier;
    putEdit(std::move(edit));
  }
  if (const auto* attributes = state_.edits.attributesOf(former.text)) {
    auto moved = *attributes;
    dropAttributes(former);
    moved.item = identifier;
    putAttributes(std::move(moved));
  }
}

void TreeEdit::refresh(Inode inode) {
  const Slot slot = index().find(inode);
  if (slot == NONE) return;
  auto facts = index().facts(slot);
  state_.applyEdits(index().identifier(slot), facts);
  changeFacts(slot, facts);
}

void TreeEdit::makeLocal(const ItemIdentifier& identifier) {
  const Slot slot = index().findIdentifier(identifier.text);
  const Edit* known = state_.edits.ofItem(identifier.text);
  const Edit fresh = state_.edits.newEdit();
  Edit edit = known ? *known : fresh;
  edit.item = fresh.item;
  edit.fields = EDIT_CREATED | (edit.fields & EDIT_TRASHED);
  edit.serverPlace.reset();
  edit.baseVersion = {};
  edit.contentsGeneration = ++edit.generation;
  edit.changedAt = fresh.changedAt;
  edit.attempts = 0;
  edit.nextTry.reset();
  edit.lastError.clear();
  if (slot != NONE) {
    edit.isFolder = index().facts(slot).isFolder;
    edit.place = state_.placeOf(slot);
  }
  const auto item = edit.item;
  const auto facts = state_.factsOf(edit);
  putEdit(std::move(edit));
  if (slot == NONE) return renameInEdits(identifier, item), static_cast<void>(show(state_.edits.ofItem(item.text)->id));
  const Inode inode = index().inode(slot);
  identify(inode, item);
  items_.erase(inode);
  const Slot renamed = index().find(inode);
  auto changed = index().facts(renamed);
  changed.capabilities = facts.capabilities;
  changed.keepDownloaded = false;
  changeFacts(renamed, changed);
  refresh(inode);
  if (changed.isFolder) setListed(renamed, true);
}

void TreeEdit::merge(Inode from, Inode into) {
  const Slot source = index().find(from), target = index().find(into);
  if (source == NONE || target == NONE) return;
  const ItemIdentifier identifier{std::string(index().identifier(source))};
  const Edit* edit = editOf(source);
  if (edit && (edit->fields & EDIT_CONTENTS)) return makeLocal(identifier);
  if (edit) dropEdit(edit->id);
  if (index().facts(source).isFolder) {
    std::vector<Slot> children;
    for (Slot child = index().firstChild(source); child != NONE; child = index().nextSibling(child))
      children.push_back(child);
    for (const Slot child : children) {
      const auto name = state_.serverNameOf(child);
      detach(child);
      attach(child, target, name);
    }
    // What is in it on the server was not looked for here.
    listAgain(target);
  }
  removeNode(source, true);
}

void TreeEdit::restore(const std::vector<Inode>& localItems) {
  for (const Inode inode : localItems) {
    const Slot slot = index().find(inode);
    if (slot != NONE && !editOf(slot)) removeTree(slot);
  }
  std::vector<EditID> deletions, others, overtaken;
  for (const auto& [id, edit] : state_.edits.all()) {
    const bool isOut = isHidden(edit.fields);
    (isOut ? deletions : others).push_back(id);
    if (!isOut && edit.attempt && isLocal(edit.item) && inodeOf(edit.item) == 0) overtaken.push_back(id);
  }
  // One can be in the way of another: a folder that goes to below one that is in it so far.
  for (bool isMoving = true; isMoving;) {
    isMoving = false;
    for (const EditID id : others) isMoving = show(id) || isMoving;
  }
  for (const EditID id : others) showContents(id);
  for (const EditID id : overtaken) hideOvertaking(id);
  for (const EditID id : deletions) show(id);
  for (const EditID id : others)
    if (const Edit* edit = state_.edits.find(id); edit->serverPlace && inodeOf(edit->item) == 0)
      relist(edit->serverPlace->folder);
  for (const auto& [item, attributes] : state_.edits.allAttributes()) refresh(inodeOf({item}));
}

// The process ended when the queue, but not yet the tree, had it that the item stays where the server has it, or takes
// the place of another: it is where it was seen to be.
void TreeEdit::showContents(EditID id) {
  const Edit edit = *state_.edits.find(id);
  if (edit.fields != EDIT_CONTENTS) return;
  const Slot slot = index().findIdentifier(edit.item.text);
  const Slot folder = index().findIdentifier(edit.place.folder.text);
  if (slot != NONE)
    bring(slot, edit);
  else if (isUsableFolder(folder) && index().facts(folder).isListed)
    show(id, true), relist(edit.place.folder);
}

// The process ended when the tree, but not yet the queue, had the new item as the server's. It is shown again when that
// has been found out (see EditTable::hides).
void TreeEdit::hideOvertaking(EditID id) {
  const Edit edit = *state_.edits.find(id);
  const Slot folder = index().findIdentifier(edit.place.folder.text);
  if (folder == NONE) return;
  for (Slot child = index().firstChild(folder); child != NONE; child = index().nextSibling(child)) {
    if (isEdited(child) || state_.serverNameOf(child) != edit.place.name) continue;
    return hide(index().inode(child));
  }
}

}  // namespace vondle
