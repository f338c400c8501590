#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fileprovider/item.h"
#include "service/edits/edit.h"
#include "service/inode.h"
#include "service/replica/replica_change.h"
#include "service/replica/replica_store.h"
#include "service/replica/tree_state.h"

namespace vondle {

// One change of the tree, from the first piece of news to finish; the rules of Replica are kept here. The items given
// must live until what finish answers has been used.
//
// The edits win over news: an item that programs placed keeps its place, one that they wrote to its contents, one that
// they deleted stays hidden. Where the server deletes an item whose new contents it does not have, or a folder with
// such items or with new ones in it, the item becomes a new one, of this machine only.
class TreeEdit {
 public:
  TreeEdit(TreeState& state, Inode& nextInode) : state_(state), nextInode_(nextInode) {}

  // The folder's children are these. Those spared stay even if they are not among them: later news tells of them.
  void takeListing(ItemIndex::Slot folder, const std::vector<Item>& items, const std::set<std::string>& spared = {});
  void takeUpdate(const Item& item);
  // The same, of news that was asked for before the server's answer to a change of the item, and so may be older or
  // newer: where they differ, the folder that the item is in is listed again.
  void takeEarlierUpdate(const Item& item);
  void takeDeletion(const ItemIdentifier& identifier);

  // Of edits, and what they make of the tree.

  [[nodiscard]] const TreeState& state() const { return state_; }
  // What is said from here on is what a program did.
  void setByProgram(bool byProgram) { byProgram_ = byProgram; }
  // These are on disk already.
  void takeWritten(const EditBatch& batch) { state_.edits.take(batch); }
  void putEdit(Edit edit);
  void dropEdit(EditID id);
  void putAttributes(LocalAttributes attributes);
  void dropAttributes(const ItemIdentifier& identifier);
  // Brings the tree in line with the edit. An item that is not here is made if only this machine has it, or if asked.
  // False when there was nothing to do.
  bool show(EditID id, bool isMade = false);
  // A program has moved the item, to the local name that it wished.
  void move(Inode inode, const Place& place, const std::string& wished);
  // The item, which a program placed, is where the server has it again.
  void undoMove(EditID id);
  // No item of the top folder has this local name from now on.
  void reserveTopName(const std::string& name);
  // The item and what is in it have gone, whatever edits say of them.
  void hide(Inode inode);
  // 0: not in the tree.
  [[nodiscard]] Inode inodeOf(const ItemIdentifier& identifier) const;
  // The node is this item from now on; its attributes and the edits of what is in it follow.
  void identify(Inode inode, const ItemIdentifier& identifier);
  void renameInEdits(const ItemIdentifier& former, const ItemIdentifier& identifier);
  // The facts as the edits and attributes say.
  void refresh(Inode inode);
  // The server has the item no more: it becomes a new one, which only this machine has.
  void makeLocal(const ItemIdentifier& identifier);
  // Of two nodes of the same item the second stays, with what is in either.
  void merge(Inode from, Inode into);
  // The item's contents are what programs wrote, as the server has them now; the kernel need not hear of it.
  void knowContents(Inode inode) { known_.insert(inode); }
  // The folder is to be listed again.
  void relist(const ItemIdentifier& folder);
  // Shows all edits, after removing those of the items of this machine that no edit tells of.
  void restore(const std::vector<Inode>& localItems);

  // Finds a place for what has none yet and gives freed names to those that wait for them. Answers what changed, and
  // what the databases must be told.
  std::vector<ReplicaChange> finish(ReplicaStore::Batch& batch, EditBatch& edits);

 private:
  using Slot = ItemIndex::Slot;

  // A node that waits, detached, for its parent to be known or to stop being below it.
  struct Homeless {
    ItemIdentifier wanted;  // parent
    Inode oldParent = 0;
    std::string serverName;
  };

  ItemIndex& index() { return state_.index; }
  void say(ReplicaChange change);
  [[nodiscard]] const Edit* editOf(Slot slot) { return state_.edits.ofItem(index().identifier(slot)); }
  [[nodiscard]] bool isUsableFolder(Slot slot) { return slot != ItemIndex::NONE && index().facts(slot).isFolder; }
  Slot withKindOf(const Item& item);
  void setListed(Slot folder, bool isListed);
  void listAgain(Slot folder);
  void takeAbove(Slot known, const Place& place, const Item& item);
  bool staysUnlisted(Slot child, const std::set<std::string>& spared);
  bool takeEdited(Slot known, Slot folder, const Place& serverPlace, const Item& item);
  void takeDeletionOfUnseen(const ItemIdentifier& identifier);
  void put(Slot known, Slot folder, const Item& item);
  Slot insert(Slot folder, std::string_view serverName, const ItemIdentifier& identifier, ItemIndex::Facts facts,
              bool isFirst);
  void takeFacts(Slot slot, const Item& item);
  void changeFacts(Slot slot, ItemIndex::Facts changed);
  std::string chosenName(Slot folder, std::string_view serverName, std::string_view identifier);
  void attach(Slot slot, Slot folder, std::string_view serverName);
  void attachFirst(Slot slot, Slot folder, std::string_view serverName);
  void detach(Slot slot);
  void detachForNow(Slot slot, const Place& wanted);
  void settle(Inode first);
  bool putBack(Inode inode);
  void breakCycle(const std::vector<Inode>& chain);
  bool undoMoveAbove(Inode inode);
  bool isEdited(Slot top);
  bool bring(Slot slot, const Edit& edit);
  void showContents(EditID id);
  void hideOvertaking(EditID id);
  void removeTree(Slot top);
  std::set<Inode> survivors(Slot top, const std::vector<Slot>& doomed);
  bool isBelowOnServer(Slot slot, Slot top);
  void giveHome(Slot top);
  void removeNode(Slot slot, bool isTop);
  void showPlacedIn(const ItemIdentifier& folder);
  void handOutFreedNames();
  void describe(ReplicaStore::Batch& batch);

  TreeState& state_;
  Inode& nextInode_;
  bool byProgram_ = false;
  std::vector<ReplicaChange> changes_;
  std::map<Inode, const Item*> items_;  // the latest news of each
  std::set<Inode> made_;                // without news, but to be described anew
  std::set<Inode> moved_;
  std::set<Inode> listedChanged_;
  std::vector<Inode> removed_;
  std::map<Inode, Homeless> homeless_;
  std::set<std::pair<Inode, std::string>> freed_;  // names, by folder
  std::set<Inode> known_;
  std::set<EditID> changedEdits_;
  std::set<std::string> changedAttributes_;
};

}  // namespace vondle
