#pragma once

#include <optional>
#include <utility>

#include "base/completion.h"

namespace vondle {

// Keeps the answer that a completion is called with; the completion must not outlive it.
template <class T>
class Captured {
 public:
  Completion<T> completion() {
    return [this](T value) { value_.emplace(std::move(value)); };
  }
  [[nodiscard]] bool hasValue() const { return value_.has_value(); }
  T& value() { return value_.value(); }

 private:
  std::optional<T> value_;
};

}  // namespace vondle
