#pragma once

#include <expected>
#include <string>
#include <utility>

namespace vondle::storage {

// A request that is not carried out: the HTTP status of the reply and what a person reads.
struct Refusal {
  int status = 500;
  std::string text = {};

  friend bool operator==(const Refusal&, const Refusal&) = default;
};

template <class T>
using Answer = std::expected<T, Refusal>;

inline std::unexpected<Refusal> refuse(int status, std::string text) {
  return std::unexpected<Refusal>(Refusal{status, std::move(text)});
}
inline std::unexpected<Refusal> refuse(Refusal refusal) {
  return std::unexpected<Refusal>(std::move(refusal));
}

}  // namespace vondle::storage
