#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fileprovider/item.h"
#include "service/inode.h"
#include "service/replica/replica_change.h"
#include "service/replica/replica_store.h"
#include "service/replica/tree_state.h"

namespace vondle {

// One change of the tree, from the first piece of news to finish; the rules of Replica are kept here. The items given
// must live until what finish answers has been used.
class TreeEdit {
 public:
  TreeEdit(TreeState& state, Inode& nextInode) : state_(state), nextInode_(nextInode) {}

  // The folder's children are these.
  void takeListing(ItemIndex::Slot folder, const std::vector<Item>& items);
  void takeUpdate(const Item& item);
  void takeDeletion(const ItemIdentifier& identifier);

  // Finds a place for what has none yet and gives freed names to those that wait for them. Answers what changed, and
  // what the database must be told.
  std::vector<ReplicaChange> finish(ReplicaStore::Batch& batch);

 private:
  using Slot = ItemIndex::Slot;

  // A node that waits, detached, for its parent to be known or to stop being below it.
  struct Homeless {
    ItemIdentifier wanted;  // parent
    Inode oldParent = 0;
    std::string serverName;
  };

  ItemIndex& index() { return state_.index; }
  void say(ReplicaChange change) { changes_.push_back(std::move(change)); }
  Slot withKindOf(const Item& item);
  void setListed(Slot folder, bool isListed);
  Slot put(Slot known, Slot folder, const Item& item);
  void takeFacts(Slot slot, const Item& item);
  std::string chosenName(Slot folder, std::string_view serverName, std::string_view identifier);
  void attach(Slot slot, Slot folder, std::string_view serverName);
  void detach(Slot slot);
  void detachForNow(Slot slot, const Item& item);
  void settle(Inode first);
  void breakCycle(const std::vector<Inode>& chain);
  void removeTree(Slot top);
  void handOutFreedNames();

  TreeState& state_;
  Inode& nextInode_;
  std::vector<ReplicaChange> changes_;
  std::map<Inode, const Item*> items_;  // the latest news of each
  std::set<Inode> moved_;
  std::set<Inode> listedChanged_;
  std::vector<Inode> removed_;
  std::map<Inode, Homeless> homeless_;
  std::set<std::pair<Inode, std::string>> freed_;  // names, by folder
};

}  // namespace vondle
