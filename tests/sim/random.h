#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

namespace vondle::sim {

// All chance of a run.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  std::uint64_t next() { return engine_(); }
  std::size_t below(std::size_t end) { return end == 0 ? 0 : static_cast<std::size_t>(engine_() % end); }
  bool oneIn(std::size_t chance) { return below(chance) == 0; }
  bool percent(unsigned chance) { return below(100) < chance; }
  // Most are small.
  double smallOf(double largest) {
    const double part = static_cast<double>(below(1'000'000)) / 1e6;
    return part * part * part * largest;
  }
  template <class Container>
  const auto& anyOf(const Container& container) {
    return *std::next(container.begin(), static_cast<std::ptrdiff_t>(below(container.size())));
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace vondle::sim
