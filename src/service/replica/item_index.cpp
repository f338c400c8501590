#include "service/replica/item_index.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

namespace vondle {
namespace {

constexpr std::size_t UNIT = 4;

constexpr std::size_t inUnits(std::size_t bytes) {
  return (bytes + UNIT - 1) / UNIT * UNIT;
}

std::uint64_t mix(std::uint64_t value) {
  value ^= value >> 32;
  value *= 0xd6e8feb86659fd93;
  value ^= value >> 32;
  value *= 0xd6e8feb86659fd93;
  return value ^ (value >> 32);
}

std::uint64_t hashOfText(std::string_view text) {
  return std::hash<std::string_view>()(text);
}

}  // namespace

std::uint32_t ItemIndex::Texts::add(std::string_view first, std::string_view second) {
  const auto size = inUnits(first.size() + second.size());
  assert(size <= CHUNK);
  if (end_ + size > CHUNK) {
    chunks_.push_back(std::make_unique_for_overwrite<char[]>(CHUNK));
    end_ = 0;
  }
  char* const place = chunks_.back().get() + end_;
  if (!first.empty()) std::memcpy(place, first.data(), first.size());
  if (!second.empty()) std::memcpy(place + first.size(), second.data(), second.size());
  const auto address = (chunks_.size() - 1) * (CHUNK / UNIT) + end_ / UNIT;
  assert(address <= 0xffffffff);
  end_ += size;
  return static_cast<std::uint32_t>(address);
}

const char* ItemIndex::Texts::at(std::uint32_t address) const {
  constexpr auto PER_CHUNK = CHUNK / UNIT;
  return chunks_[address / PER_CHUNK].get() + address % PER_CHUNK * UNIT;
}

template <class Matches>
ItemIndex::Slot ItemIndex::Table::find(std::uint64_t hash, const Matches& matches) const {
  const auto mask = slots_.size() - 1;
  for (auto i = hash & mask; slots_[i] != NONE; i = (i + 1) & mask)
    if (matches(slots_[i])) return slots_[i];
  return NONE;
}

template <class HashOf>
void ItemIndex::Table::reserve(std::size_t slots, const HashOf& hashOf) {
  while (slots * 3 > slots_.size() * 2) grow(hashOf);
}

template <class HashOf>
void ItemIndex::Table::add(std::uint64_t hash, Slot slot, const HashOf& hashOf) {
  if ((used_ + 1) * 3 > slots_.size() * 2) grow(hashOf);
  const auto mask = slots_.size() - 1;
  auto i = hash & mask;
  while (slots_[i] != NONE) i = (i + 1) & mask;
  slots_[i] = slot;
  ++used_;
}

template <class HashOf>
void ItemIndex::Table::remove(std::uint64_t hash, Slot slot, const HashOf& hashOf) {
  const auto mask = slots_.size() - 1;
  auto hole = hash & mask;
  while (slots_[hole] != slot) hole = (hole + 1) & mask;
  // Those that stand behind the hole only because their own place was taken move up.
  for (auto i = (hole + 1) & mask; slots_[i] != NONE; i = (i + 1) & mask) {
    const auto home = hashOf(slots_[i]) & mask;
    if (((i - home) & mask) < ((i - hole) & mask)) continue;
    slots_[hole] = slots_[i];
    hole = i;
  }
  slots_[hole] = NONE;
  --used_;
}

template <class HashOf>
void ItemIndex::Table::grow(const HashOf& hashOf) {
  const auto old = std::exchange(slots_, std::vector<Slot>(slots_.size() * 2, NONE));
  const auto mask = slots_.size() - 1;
  for (const Slot slot : old) {
    if (slot == NONE) continue;
    auto i = hashOf(slot) & mask;
    while (slots_[i] != NONE) i = (i + 1) & mask;
    slots_[i] = slot;
  }
}

ItemIndex::ItemIndex() = default;

void ItemIndex::reserve(std::size_t nodes) {
  byInode_.reserve(nodes, [this](Slot slot) { return inodeHash(slot); });
  byIdentifier_.reserve(nodes, [this](Slot slot) { return identifierHash(slot); });
  byName_.reserve(nodes, [this](Slot slot) { return nameHash(slot); });
}

ItemIndex::Slot ItemIndex::insert(Inode inode, std::string_view identifier, std::string_view name, const Facts& facts) {
  assert(find(inode) == NONE && findIdentifier(identifier) == NONE && identifier.size() <= MAX_IDENTIFIER);
  Slot slot = slotCount_;
  if (free_.empty()) {
    if (slotCount_ % BLOCK == 0) blocks_.push_back(std::make_unique_for_overwrite<Node[]>(BLOCK));
    ++slotCount_;
  } else {
    slot = free_.back();
    free_.pop_back();
  }
  Node& added = node(slot);
  added = {inode, facts, NONE, NONE, NONE, NONE, 0, 0, 0};
  setTexts(added, name, identifier);
  byInode_.add(inodeHash(slot), slot, [this](Slot other) { return inodeHash(other); });
  byIdentifier_.add(identifierHash(slot), slot, [this](Slot other) { return identifierHash(other); });
  ++used_;
  return slot;
}

void ItemIndex::remove(Slot slot) {
  assert(firstChild(slot) == NONE);
  detach(slot);
  byInode_.remove(inodeHash(slot), slot, [this](Slot other) { return inodeHash(other); });
  byIdentifier_.remove(identifierHash(slot), slot, [this](Slot other) { return identifierHash(other); });
  liveText_ -= inUnits(node(slot).nameLength + node(slot).identifierLength);
  node(slot).identifierLength = node(slot).nameLength = 0;
  free_.push_back(slot);
  --used_;
}

void ItemIndex::attach(Slot slot, Slot parent, std::string_view name) {
  assert(this->parent(slot) == NONE && findChild(parent, name) == NONE);
  Node& child = node(slot);
  if (name != this->name(slot)) setTexts(child, name, identifier(slot));
  Node& folder = node(parent);
  child.parent = parent;
  child.previousSibling = NONE;
  child.nextSibling = folder.firstChild;
  if (folder.firstChild != NONE) node(folder.firstChild).previousSibling = slot;
  folder.firstChild = slot;
  byName_.add(nameHash(slot), slot, [this](Slot other) { return nameHash(other); });
}

void ItemIndex::detach(Slot slot) {
  Node& child = node(slot);
  if (child.parent == NONE) return;
  byName_.remove(nameHash(slot), slot, [this](Slot other) { return nameHash(other); });
  if (child.previousSibling != NONE)
    node(child.previousSibling).nextSibling = child.nextSibling;
  else
    node(child.parent).firstChild = child.nextSibling;
  if (child.nextSibling != NONE) node(child.nextSibling).previousSibling = child.previousSibling;
  child.parent = child.nextSibling = child.previousSibling = NONE;
}

ItemIndex::Slot ItemIndex::find(Inode inode) const {
  return byInode_.find(mix(inode), [&](Slot slot) { return node(slot).inode == inode; });
}

ItemIndex::Slot ItemIndex::findIdentifier(std::string_view identifier) const {
  return byIdentifier_.find(hashOfText(identifier), [&](Slot slot) { return this->identifier(slot) == identifier; });
}

ItemIndex::Slot ItemIndex::findChild(Slot parent, std::string_view name) const {
  return byName_.find(nameHash(parent, name),
                      [&](Slot slot) { return node(slot).parent == parent && this->name(slot) == name; });
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

std::uint64_t ItemIndex::inodeHash(Slot slot) const {
  return mix(node(slot).inode);
}
std::uint64_t ItemIndex::identifierHash(Slot slot) const {
  return hashOfText(identifier(slot));
}
std::uint64_t ItemIndex::nameHash(Slot slot) const {
  return nameHash(parent(slot), name(slot));
}
std::uint64_t ItemIndex::nameHash(Slot parent, std::string_view name) {
  return mix(hashOfText(name) + parent);
}

void ItemIndex::setTexts(Node& node, std::string_view name, std::string_view identifier) {
  liveText_ -= inUnits(node.nameLength + node.identifierLength);
  const auto address = texts_.add(name, identifier);
  node.text = address;
  node.nameLength = static_cast<std::uint8_t>(name.size());
  node.identifierLength = static_cast<std::uint16_t>(identifier.size());
  liveText_ += inUnits(name.size() + identifier.size());
  if (texts_.size() > 2 * liveText_ + (std::size_t{8} << 20)) compactTexts();
}

void ItemIndex::compactTexts() {
  Texts compact;
  for (Slot slot = 0; slot < slotCount_; ++slot) {
    Node& each = node(slot);
    if (each.nameLength + each.identifierLength > 0) each.text = compact.add(name(slot), identifier(slot));
  }
  texts_ = std::move(compact);
}

}  // namespace vondle
