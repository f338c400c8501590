#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "service/inode.h"

namespace vondle {

// The tree in memory, made for a million items: some 64 bytes each, and the name and the identifier in a common store
// of texts. Nodes are addressed by slot, a small number that is used again after remove. Not thread-safe.
//
// A node without a parent is detached; the root is the one that stays so. Parents always form a tree: attach must not
// be given a parent below the node itself (see isAtOrAbove).
class ItemIndex {
 public:
  using Slot = std::uint32_t;
  static constexpr Slot NONE = 0xffffffff;
  static constexpr std::size_t MAX_IDENTIFIER = 65'535;  // bytes

  // What a node carries for its user; the index itself takes no notice.
  struct Facts {
    std::uint64_t contentTag = 0;
    std::int64_t size = 0;
    double modified = 0;
    std::uint8_t capabilities = 0;
    std::uint8_t fileSystemFlags = 0;
    bool isFolder : 1 = false;
    bool isListed : 1 = false;
    bool keepDownloaded : 1 = false;
    bool isNamedDifferently : 1 = false;
  };

  ItemIndex();

  // Makes room for so many nodes at once, which is faster than growing.
  void reserve(std::size_t nodes);
  // Detached, with its names; neither the inode nor the identifier may be there already, name has at most 255 bytes.
  Slot insert(Inode inode, std::string_view identifier, std::string_view name, const Facts& facts);
  // A node without children.
  void remove(Slot slot);
  // The parent must not have a child of that name.
  void attach(Slot slot, Slot parent, std::string_view name);
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

  // Bytes in chunks, addressed in units of 4.
  class Texts {
   public:
    std::uint32_t add(std::string_view first, std::string_view second);
    [[nodiscard]] const char* at(std::uint32_t address) const;
    [[nodiscard]] std::size_t size() const { return chunks_.size() * CHUNK; }

   private:
    static constexpr std::size_t CHUNK = std::size_t{1} << 20;
    std::vector<std::unique_ptr<char[]>> chunks_;
    std::size_t end_ = CHUNK;  // in the last chunk
  };

  // Slots by a hash of something of theirs; linear probing, at most two thirds full.
  class Table {
   public:
    template <class Matches>
    [[nodiscard]] Slot find(std::uint64_t hash, const Matches& matches) const;
    template <class HashOf>
    void reserve(std::size_t slots, const HashOf& hashOf);
    template <class HashOf>
    void add(std::uint64_t hash, Slot slot, const HashOf& hashOf);
    template <class HashOf>
    void remove(std::uint64_t hash, Slot slot, const HashOf& hashOf);

   private:
    template <class HashOf>
    void grow(const HashOf& hashOf);
    std::vector<Slot> slots_ = std::vector<Slot>(16, NONE);
    std::size_t used_ = 0;
  };

  static constexpr std::size_t BLOCK = 4096;

  [[nodiscard]] const Node& node(Slot slot) const { return blocks_[slot / BLOCK][slot % BLOCK]; }
  [[nodiscard]] Node& node(Slot slot) { return blocks_[slot / BLOCK][slot % BLOCK]; }
  [[nodiscard]] std::uint64_t inodeHash(Slot slot) const;
  [[nodiscard]] std::uint64_t identifierHash(Slot slot) const;
  [[nodiscard]] std::uint64_t nameHash(Slot slot) const;
  static std::uint64_t nameHash(Slot parent, std::string_view name);
  void setTexts(Node& node, std::string_view name, std::string_view identifier);
  void compactTexts();

  std::vector<std::unique_ptr<Node[]>> blocks_;
  Slot slotCount_ = 0;
  std::vector<Slot> free_;
  std::size_t used_ = 0;
  Texts texts_;
  std::size_t liveText_ = 0;  // bytes
  Table byInode_;
  Table byIdentifier_;
  Table byName_;  // those with a parent
};

}  // namespace vondle
