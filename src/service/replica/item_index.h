#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/byte_chunks.h"
#include "base/slot_table.h"
#include "service/inode.h"

namespace vondle {

// The tree in memory, made for a million items: some 64 bytes each, and the name and the identifier in a common store
// of texts. Nodes are addressed by slot, a small number that is used again after remove. Not thread-safe.
//
// A node without a parent is detached; the root is the one that stays so. Parents always form a tree: attach must not
// be given a parent below the node itself (see isAtOrAbove).
class ItemIndex {
 public:
  using Slot = SlotTable::Slot;
  static constexpr Slot NONE = SlotTable::NONE;
  static constexpr std::size_t MAX_IDENTIFIER = 65'535;  // bytes

  // What a node carries for its user; the index itself takes no notice.
  struct Facts {
    std::uint64_t contentTag = 0;
    std::int64_t size = 0;
    double modified = 0;
    std::uint16_t permissions = 0;
    std::uint8_t capabilities = 0;
    bool isFolder : 1 = false;
    bool isListed : 1 = false;
    bool keepDownloaded : 1 = false;
    bool isNamedDifferently : 1 = false;
  };

  // Many nodes, made away from the index to be taken over at once; several times as fast as one by one.
  class Part;

  ItemIndex();

  // Nodes with their parents, which may be in any of the parts or here already. False, and no use for the index any
  // more: an inode or identifier is there twice, or a name in one folder; a parent is missing or no folder; a node
  // leads to itself.
  [[nodiscard]] bool take(std::vector<Part> parts);
  // Detached, with its names; name has at most 255 bytes. NONE when the inode or the identifier is there already.
  Slot insert(Inode inode, std::string_view identifier, std::string_view name, const Facts& facts);
  // A node without children.
  void remove(Slot slot);
  // The node is detached. False when the parent has a child of that name already.
  bool attach(Slot slot, Slot parent, std::string_view name);
  void detach(Slot slot);

  [[nodiscard]] Slot find(Inode inode) const;
  [[nodiscard]] Slot findIdentifier(std::string_view identifier) const;
  [[nodiscard]] Slot findChild(Slot parent, std::string_view name) const;

  [[nodiscard]] Inode inode(Slot slot) const { return node(slot).inode; }
  [[nodiscard]] Slot parent(Slot slot) const { return node(slot).parent; }
  [[nodiscard]] Slot firstChild(Slot slot) const { return node(slot).firstChild; }
  [[nodiscard]] Slot nextSibling(Slot slot) const { return node(slot).nextSibling; }
  // Views live until the next change.
  [[nodiscard]] std::string_view name(Slot slot) const;
  [[nodiscard]] std::string_view identifier(Slot slot) const;
  [[nodiscard]] const Facts& facts(Slot slot) const { return node(slot).facts; }
  [[nodiscard]] Facts& facts(Slot slot) { return node(slot).facts; }

  // The node itself or one of its ancestors.
  [[nodiscard]] bool isAtOrAbove(Slot candidate, Slot slot) const;
  // The ancestor (or the node itself) that has no parent.
  [[nodiscard]] Slot topmost(Slot slot) const;
  // In an order in which children stand before their parent.
  [[nodiscard]] std::vector<Slot> subtree(Slot slot) const;

  [[nodiscard]] std::size_t size() const { return used_; }
  // Room taken by names and identifiers.
  [[nodiscard]] std::size_t textBytes() const { return texts_.size(); }

 private:
  struct Node {
    Inode inode;
    Facts facts;
    Slot parent, firstChild, nextSibling, previousSibling;
    std::uint32_t text;  // where in texts_: the name, then the identifier
    std::uint16_t identifierLength;
    std::uint8_t nameLength;
  };

  static constexpr std::size_t BLOCK = 4096;

  [[nodiscard]] Slot newSlot();
  // The slot that the part's first one has got.
  Slot join(Part& part);
  bool link(const std::vector<Part>& parts, const std::vector<Slot>& firstSlots);
  void hangUnder(Slot slot, Slot parent);
  [[nodiscard]] bool hasName(Slot slot, Slot parent, std::string_view name) const {
    return node(slot).parent == parent && this->name(slot) == name;
  }
  [[nodiscard]] const Node& node(Slot slot) const { return blocks_[slot / BLOCK][slot % BLOCK]; }
  [[nodiscard]] Node& node(Slot slot) { return blocks_[slot / BLOCK][slot % BLOCK]; }
  void setTexts(Node& node, std::string_view name, std::string_view identifier);
  void compactTexts();

  std::vector<std::unique_ptr<Node[]>> blocks_;
  Slot slotCount_ = 0;
  std::vector<Slot> free_;
  std::size_t used_ = 0;
  ByteChunks texts_;
  std::size_t liveText_ = 0;  // bytes
  SlotTable byInode_;
  SlotTable byIdentifier_;
  SlotTable byName_;  // those with a parent
};

// Any thread, one at a time.
class ItemIndex::Part {
 public:
  // As for insert, with the parent's inode.
  void add(Inode inode, Inode parent, std::string_view identifier, std::string_view name, const Facts& facts);

 private:
  friend class ItemIndex;

  std::vector<std::unique_ptr<Node[]>> blocks_;
  ByteChunks texts_;
  std::size_t liveText_ = 0;  // bytes
  std::vector<Inode> parents_;
  std::vector<std::uint32_t> identifierHashes_;
};

}  // namespace vondle
