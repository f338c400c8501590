#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/entry.h"
#include "base/byte_chunks.h"
#include "base/slot_table.h"

namespace vondle {

// Entries by identifier, made for millions: beside an entry's own texts some 40 bytes, and what the entries of a folder
// have in common is kept once. What comes out is what went in. Not thread-safe.
class CompactEntries {
 public:
  // Replaces the one of the same identifier.
  void put(const Entry& entry);
  [[nodiscard]] std::optional<Entry> get(std::string_view id) const;
  void remove(std::string_view id);

  [[nodiscard]] std::size_t size() const { return table_.size(); }
  // Room taken by the entries' own bytes.
  [[nodiscard]] std::size_t bytes() const { return bytes_.size(); }
  // Different surroundings of all entries.
  [[nodiscard]] std::size_t surroundings() const { return known_.size(); }

 private:
  using Slot = SlotTable::Slot;

  // What the entries of a folder mostly have in common.
  struct Surroundings {
    std::string parentID;
    std::string parentPath;
    std::optional<std::string> role;
    std::string ownerName;
    friend auto operator<=>(const Surroundings&, const Surroundings&) = default;
  };
  struct Use {
    std::uint32_t number = 0;
    std::size_t count = 0;
  };
  class Writer;
  class Reader;

  [[nodiscard]] Slot find(std::uint32_t hash, std::string_view id) const;
  std::uint32_t enter(Surroundings surroundings);
  void leave(std::uint32_t number);
  void compact();

  SlotTable table_;  // of addresses in bytes_
  ByteChunks bytes_;
  std::size_t live_ = 0;  // bytes
  std::map<Surroundings, Use> known_;
  std::vector<std::map<Surroundings, Use>::iterator> byNumber_;
  std::vector<std::uint32_t> freeNumbers_;
};

}  // namespace vondle
