#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <vector>

namespace vondle {

// Many short runs of bytes that stay where they are put, without a cost for each; nothing is given back but all at
// once. Addressed in units of 4. Not thread-safe.
class ByteChunks {
 public:
  // What a run of so many bytes takes.
  static constexpr std::size_t roomFor(std::size_t bytes) { return (bytes + UNIT - 1) / UNIT * UNIT; }

  // The one behind the other, as one run.
  std::uint32_t add(std::string_view first, std::string_view second = {}) {
    const auto size = roomFor(first.size() + second.size());
    if (end_ + std::max(size, UNIT) > CHUNK) addChunk(size);
    char* const place = chunks_.back().get() + end_;
    if (!first.empty()) std::memcpy(place, first.data(), first.size());
    if (!second.empty()) std::memcpy(place + first.size(), second.data(), second.size());
    const auto address = (chunks_.size() - 1) * PER_CHUNK + end_ / UNIT;
    assert(address < 0xffffffff);
    end_ += size;
    return static_cast<std::uint32_t>(address);
  }

  // Takes over the other's, whose addresses grow by what it answers.
  std::uint32_t append(ByteChunks other) {
    if (other.chunks_.empty()) return 0;
    const auto before = chunks_.size();
    chunks_.insert(chunks_.end(), std::make_move_iterator(other.chunks_.begin()),
                   std::make_move_iterator(other.chunks_.end()));
    end_ = other.end_;
    size_ += other.size_;
    assert(chunks_.size() * PER_CHUNK < 0xffffffff);
    return static_cast<std::uint32_t>(before * PER_CHUNK);
  }

  [[nodiscard]] const char* at(std::uint32_t address) const {
    return chunks_[address / PER_CHUNK].get() + address % PER_CHUNK * UNIT;
  }

  // Bytes taken from the system.
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  static constexpr std::size_t UNIT = 4;
  static constexpr std::size_t CHUNK = std::size_t{1} << 20;
  static constexpr std::size_t PER_CHUNK = CHUNK / UNIT;

  // A run that is longer than a chunk has one of its own.
  void addChunk(std::size_t needed) {
    const auto size = std::max(needed, CHUNK);
    chunks_.push_back(std::make_unique_for_overwrite<char[]>(size));
    size_ += size;
    end_ = 0;
  }

  std::vector<std::unique_ptr<char[]>> chunks_;
  std::size_t end_ = CHUNK;  // in the last chunk
  std::size_t size_ = 0;
};

}  // namespace vondle
