#include "service/replica/item_index.h"

#include <algorithm>
#include <cassert>
#include <future>
#include <iterator>
#include <utility>

namespace vondle {
namespace {

std::uint32_t hashOfInode(Inode inode) {
  return SlotTable::mix(inode);
}

std::uint32_t hashOfIdentifier(std::string_view identifier) {
  return SlotTable::mix(std::hash<std::string_view>()(identifier));
}

std::uint32_t hashOfName(ItemIndex::Slot parent, std::string_view name) {
  return SlotTable::mix(std::hash<std::string_view>()(name) + parent);
}

}  // namespace

ItemIndex::ItemIndex() = default;

ItemIndex::Slot ItemIndex::insert(Inode inode, std::string_view identifier, std::string_view name, const Facts& facts) {
  assert(identifier.size() <= MAX_IDENTIFIER);
  const Slot slot = newSlot();
  const auto inodeHash = hashOfInode(inode);
  const bool isNewInode = byInode_.add({slot, inodeHash}, [&](Slot other) { return node(other).inode == inode; });
  if (!isNewInode || !byIdentifier_.add({slot, hashOfIdentifier(identifier)},
                                        [&](Slot other) { return this->identifier(other) == identifier; })) {
    if (isNewInode) byInode_.remove(inodeHash, slot);
    free_.push_back(slot);
    return NONE;
  }
  Node& added = node(slot);
  added = {inode, facts, NONE, NONE, NONE, NONE, 0, 0, 0};
  setTexts(added, name, identifier);
  ++used_;
  return slot;
}

ItemIndex::Slot ItemIndex::newSlot() {
  if (!free_.empty()) {
    const Slot slot = free_.back();
    free_.pop_back();
    return slot;
  }
  if (slotCount_ % BLOCK == 0) blocks_.push_back(std::make_unique_for_overwrite<Node[]>(BLOCK));
  node(slotCount_).nameLength = 0;
  node(slotCount_).identifierLength = 0;
  return slotCount_++;
}

void ItemIndex::remove(Slot slot) {
  assert(firstChild(slot) == NONE);
  detach(slot);
  byInode_.remove(hashOfInode(inode(slot)), slot);
  byIdentifier_.remove(hashOfIdentifier(identifier(slot)), slot);
  liveText_ -= ByteChunks::roomFor(node(slot).nameLength + node(slot).identifierLength);
  node(slot).identifierLength = node(slot).nameLength = 0;
  free_.push_back(slot);
  --used_;
}

bool ItemIndex::attach(Slot slot, Slot parent, std::string_view name) {
  Node& child = node(slot);
  assert(child.parent == NONE);
  if (!byName_.add({slot, hashOfName(parent, name)}, [&](Slot other) { return hasName(other, parent, name); }))
    return false;
  if (name != this->name(slot)) setTexts(child, name, identifier(slot));
  hangUnder(slot, parent);
  return true;
}

void ItemIndex::hangUnder(Slot slot, Slot parent) {
  Node& child = node(slot);
  Node& folder = node(parent);
  child.parent = parent;
  child.previousSibling = NONE;
  child.nextSibling = folder.firstChild;
  if (folder.firstChild != NONE) node(folder.firstChild).previousSibling = slot;
  folder.firstChild = slot;
}

void ItemIndex::detach(Slot slot) {
  Node& child = node(slot);
  if (child.parent == NONE) return;
  byName_.remove(hashOfName(child.parent, name(slot)), slot);
  if (child.previousSibling != NONE)
    node(child.previousSibling).nextSibling = child.nextSibling;
  else
    node(child.parent).firstChild = child.nextSibling;
  if (child.nextSibling != NONE) node(child.nextSibling).previousSibling = child.previousSibling;
  child.parent = child.nextSibling = child.previousSibling = NONE;
}

ItemIndex::Slot ItemIndex::find(Inode inode) const {
  return byInode_.find(hashOfInode(inode), [&](Slot slot) { return node(slot).inode == inode; });
}

ItemIndex::Slot ItemIndex::findIdentifier(std::string_view identifier) const {
  return byIdentifier_.find(hashOfIdentifier(identifier),
                            [&](Slot slot) { return this->identifier(slot) == identifier; });
}

ItemIndex::Slot ItemIndex::findChild(Slot parent, std::string_view name) const {
  return byName_.find(hashOfName(parent, name), [&](Slot slot) { return hasName(slot, parent, name); });
}

std::string_view ItemIndex::name(Slot slot) const {
  return {texts_.at(node(slot).text), node(slot).nameLength};
}

std::string_view ItemIndex::identifier(Slot slot) const {
  return {texts_.at(node(slot).text) + node(slot).nameLength, node(slot).identifierLength};
}

bool ItemIndex::isAtOrAbove(Slot candidate, Slot slot) const {
  for (; slot != NONE; slot = parent(slot))
    if (slot == candidate) return true;
  return false;
}

ItemIndex::Slot ItemIndex::topmost(Slot slot) const {
  while (parent(slot) != NONE) slot = parent(slot);
  return slot;
}

std::vector<ItemIndex::Slot> ItemIndex::subtree(Slot slot) const {
  std::vector<Slot> slots{slot};
  for (std::size_t i = 0; i < slots.size(); ++i)
    for (Slot child = firstChild(slots[i]); child != NONE; child = nextSibling(child)) slots.push_back(child);
  std::reverse(slots.begin(), slots.end());
  return slots;
}

bool ItemIndex::take(std::vector<Part> parts) {
  std::vector<Slot> firstSlots;
  std::vector<SlotTable::Cell> inodes, identifiers;
  for (Part& part : parts) {
    Slot slot = firstSlots.emplace_back(join(part));
    for (const auto hash : part.identifierHashes_) {
      inodes.push_back({slot, hashOfInode(inode(slot))});
      identifiers.push_back({slot++, hash});
    }
  }
  // Neither looks at what the other changes.
  auto areIdentifiersNew = std::async(std::launch::async, [&] {
    return byIdentifier_.addAll(std::move(identifiers),
                                [this](Slot a, Slot b) { return identifier(a) == identifier(b); });
  });
  const bool isTree = byInode_.addAll(std::move(inodes), [this](Slot a, Slot b) { return inode(a) == inode(b); }) &&
                      link(parts, firstSlots);
  return areIdentifiersNew.get() && isTree;
}

ItemIndex::Slot ItemIndex::join(Part& part) {
  // Blocks are taken over whole; places that nobody has in the last ones are for later.
  const auto leaveRest = [this] {
    for (; slotCount_ % BLOCK != 0; ++slotCount_) {
      node(slotCount_).nameLength = 0;
      node(slotCount_).identifierLength = 0;
      free_.push_back(slotCount_);
    }
  };
  leaveRest();
  const Slot first = slotCount_;
  std::ranges::move(part.blocks_, std::back_inserter(blocks_));
  slotCount_ += static_cast<Slot>(part.parents_.size());
  if (const auto moved = texts_.append(std::move(part.texts_)); moved > 0)
    for (Slot slot = first; slot < slotCount_; ++slot) node(slot).text += moved;
  leaveRest();
  used_ += part.parents_.size();
  liveText_ += part.liveText_;
  return first;
}

bool ItemIndex::link(const std::vector<Part>& parts, const std::vector<Slot>& firstSlots) {
  std::vector<SlotTable::Cell> names;
  names.reserve(used_);
  // Neighbours mostly lie in the same folder.
  Inode lastParent = 0;
  Slot folder = NONE;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    Slot slot = firstSlots[i];
    for (const Inode parent : parts[i].parents_) {
      if (folder == NONE || parent != lastParent) folder = find(parent);
      lastParent = parent;
      if (folder == NONE || !facts(folder).isFolder) return false;
      // Only one that has children already can lead to itself.
      if (slot == folder || (firstChild(slot) != NONE && isAtOrAbove(slot, folder))) return false;
      hangUnder(slot, folder);
      names.push_back({slot, hashOfName(folder, name(slot))});
      ++slot;
    }
  }
  return byName_.addAll(std::move(names), [this](Slot a, Slot b) { return hasName(a, parent(b), name(b)); });
}

void ItemIndex::Part::add(Inode inode, Inode parent, std::string_view identifier, std::string_view name,
                          const Facts& facts) {
  const auto place = parents_.size() % BLOCK;
  if (place == 0) blocks_.push_back(std::make_unique_for_overwrite<Node[]>(BLOCK));
  blocks_.back()[place] = {inode,
                           facts,
                           NONE,
                           NONE,
                           NONE,
                           NONE,
                           texts_.add(name, identifier),
                           static_cast<std::uint16_t>(identifier.size()),
                           static_cast<std::uint8_t>(name.size())};
  liveText_ += ByteChunks::roomFor(name.size() + identifier.size());
  parents_.push_back(parent);
  identifierHashes_.push_back(hashOfIdentifier(identifier));
}

void ItemIndex::setTexts(Node& node, std::string_view name, std::string_view identifier) {
  liveText_ -= ByteChunks::roomFor(node.nameLength + node.identifierLength);
  const auto address = texts_.add(name, identifier);
  node.text = address;
  node.nameLength = static_cast<std::uint8_t>(name.size());
  node.identifierLength = static_cast<std::uint16_t>(identifier.size());
  liveText_ += ByteChunks::roomFor(name.size() + identifier.size());
  if (texts_.size() > 2 * liveText_ + (std::size_t{8} << 20)) compactTexts();
}

void ItemIndex::compactTexts() {
  ByteChunks compact;
  for (Slot slot = 0; slot < slotCount_; ++slot) {
    Node& each = node(slot);
    if (each.nameLength + each.identifierLength > 0) each.text = compact.add(name(slot), identifier(slot));
  }
  texts_ = std::move(compact);
}

}  // namespace vondle
