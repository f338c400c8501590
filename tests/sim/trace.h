#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "platform/clock.h"

namespace vondle::sim {

// What happened, in order: the last lines for people, and a number that all lines go into.
class Trace {
 public:
  explicit Trace(bool isShown) : isShown_(isShown) {}

  void setClock(const Clock* clock) { clock_ = clock; }

  template <class... Args>
  void add(fmt::format_string<Args...> format, Args&&... args) {
    const double now = clock_ ? clock_->now().secondsSince1970 - 1'714'550'400 : 0;
    auto line = fmt::format("{:11.6f} {}", now, fmt::format(format, std::forward<Args>(args)...));
    for (const unsigned char byte : line) hash_ = (hash_ ^ byte) * 0x100000001B3;
    if (isShown_) fmt::print("{}\n", line);
    lines_.push_back(std::move(line));
    if (lines_.size() > KEPT) lines_.pop_front();
  }

  [[nodiscard]] const std::deque<std::string>& lines() const { return lines_; }
  [[nodiscard]] std::uint64_t hash() const { return hash_; }

 private:
  static constexpr std::size_t KEPT = 60;

  const bool isShown_;
  const Clock* clock_ = nullptr;
  std::deque<std::string> lines_;
  std::uint64_t hash_ = 0xCBF29CE484222325;
};

}  // namespace vondle::sim
