#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>
#include <utility>
#include <vector>

namespace vondle {

// Finds small numbers ("slots") by a 32-bit hash of what they stand for, which the user knows; made for millions: some
// 12 bytes each. The hash is kept beside the slot, so that few others are looked at on the way; linear probing, at most
// three quarters full. Not thread-safe.
class SlotTable {
 public:
  using Slot = std::uint32_t;
  static constexpr Slot NONE = 0xffffffff;

  struct Cell {
    Slot slot = NONE;
    std::uint32_t hash = 0;
  };

  // A good hash in its upper bits too.
  static constexpr std::uint32_t mix(std::uint64_t value) {
    value ^= value >> 32;
    value *= 0xd6e8feb86659fd93;
    value ^= value >> 32;
    value *= 0xd6e8feb86659fd93;
    return static_cast<std::uint32_t>(value >> 32);
  }

  // Of those with the hash, the one that matches.
  template <class Matches>
  [[nodiscard]] Slot find(std::uint32_t hash, const Matches& matches) const {
    return cells_[placeOf(hash, matches)].slot;
  }

  // False when there is one that matches.
  template <class Matches>
  bool add(Cell cell, const Matches& matches) {
    if ((used_ + 1) * 4 > cells_.size() * 3) resize(cells_.size() * 3 / 2);
    Cell& place = cells_[placeOf(cell.hash, matches)];
    if (place.slot != NONE) return false;
    place = cell;
    ++used_;
    return true;
  }

  // False when two match; matches is asked of a slot of the table and a new one.
  template <class Matches>
  bool addAll(std::vector<Cell> cells, const Matches& matches) {
    if (const auto size = (used_ + cells.size()) * 4 / 3 + 1; size > cells_.size()) resize(size);
    // Roughly in the table's order, so that memory is gone through once.
    constexpr int KEY_BITS = 10;
    const auto keyOf = [](const Cell& cell) { return cell.hash >> (32 - KEY_BITS); };
    std::array<std::size_t, (1 << KEY_BITS) + 1> ends{};
    for (const Cell& cell : cells) ++ends[keyOf(cell) + 1];
    std::partial_sum(ends.begin(), ends.end(), ends.begin());
    std::vector<Cell> sorted(cells.size());
    for (const Cell& cell : cells) sorted[ends[keyOf(cell)]++] = cell;
    return std::ranges::all_of(
        sorted, [&](const Cell& cell) { return add(cell, [&](Slot known) { return matches(known, cell.slot); }); });
  }

  // It is there.
  void remove(std::uint32_t hash, Slot slot) {
    auto hole = placeOf(hash, [slot](Slot other) { return other == slot; });
    // Those that stand behind the hole only because their own place was taken move up.
    for (auto i = after(hole); cells_[i].slot != NONE; i = after(i)) {
      if (distance(home(cells_[i].hash), i) < distance(hole, i)) continue;
      cells_[hole] = cells_[i];
      hole = i;
    }
    cells_[hole] = {};
    --used_;
  }

  // Each slot becomes what `renamed` makes of it.
  template <class Renamed>
  void renameAll(const Renamed& renamed) {
    for (Cell& cell : cells_)
      if (cell.slot != NONE) cell.slot = renamed(cell.slot);
  }

  [[nodiscard]] std::size_t size() const { return used_; }

 private:
  // In the order of the hashes, so that growing goes through both tables from front to back.
  [[nodiscard]] std::size_t home(std::uint32_t hash) const { return (std::uint64_t{hash} * cells_.size()) >> 32; }
  [[nodiscard]] std::size_t after(std::size_t place) const { return place + 1 == cells_.size() ? 0 : place + 1; }
  [[nodiscard]] std::size_t distance(std::size_t from, std::size_t to) const {
    return to >= from ? to - from : to + cells_.size() - from;
  }

  // Where the search for the hash ends: at one that matches, or at the first free place.
  template <class Matches>
  [[nodiscard]] std::size_t placeOf(std::uint32_t hash, const Matches& matches) const {
    auto place = home(hash);
    while (cells_[place].slot != NONE && !(cells_[place].hash == hash && matches(cells_[place].slot)))
      place = after(place);
    return place;
  }

  void resize(std::size_t cells) {
    for (const Cell& cell : std::exchange(cells_, std::vector<Cell>(cells)))
      if (cell.slot != NONE) cells_[placeOf(cell.hash, [](Slot) { return false; })] = cell;
  }

  std::vector<Cell> cells_ = std::vector<Cell>(16);
  std::size_t used_ = 0;
};

}  // namespace vondle
