#pragma once

#include <algorithm>
#include <cstddef>

namespace vondle {

// How many bytes of an upload are handed to the socket at once. A suspension is exact only up to one such chunk, so a
// transfer that is paced wants small ones, and a free one large ones for speed: every suspension halves the size, every
// 16 chunks without one double it. At a pace of r bytes per second, with a pause about every 0.05 s, this settles near
// r / 320: a fifth of a per cent of what passes in a second.
class SendChunk {
 public:
  static constexpr std::size_t SMALLEST = 4096;
  static constexpr std::size_t LARGEST = 262'144;
  static constexpr int CHUNKS_TO_GROW = 16;

  [[nodiscard]] std::size_t size() const { return size_; }
  void suspended() {
    size_ = std::max(size_ / 2, SMALLEST);
    sent_ = 0;
  }
  void sent() {
    if (++sent_ < CHUNKS_TO_GROW) return;
    size_ = std::min(size_ * 2, LARGEST);
    sent_ = 0;
  }

 private:
  std::size_t size_ = 16'384;
  int sent_ = 0;
};

}  // namespace vondle
