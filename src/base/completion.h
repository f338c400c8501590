#pragma once

#include <functional>
#include <optional>
#include <utility>

namespace vondle {

// What happens when a completion is destroyed unanswered. The default writes to stderr that an operation was lost and
// goes on; test programs install one that aborts. Set once, before threads start.
using DroppedCompletionHandler = void (*)();
void setDroppedCompletionHandler(DroppedCompletionHandler handler);
void reportDroppedCompletion();

// The answer to an asynchronous operation: called exactly once, from any thread, and consumed by the call:
//   std::move(completion)(result);
// Move-only. Destroying one that was never called is a bug that is reported.
template <class... Args>
class Completion {
 public:
  template <class F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, Completion> && std::is_invocable_v<F&, Args...>)
  Completion(F&& function)  // NOLINT(google-explicit-constructor): a lambda is a completion
      : function_(std::in_place, std::forward<F>(function)) {}

  Completion(Completion&& other) noexcept : function_(std::exchange(other.function_, std::nullopt)) {}
  Completion& operator=(Completion&& other) noexcept {
    if (this != &other) {
      if (function_) reportDroppedCompletion();
      function_ = std::exchange(other.function_, std::nullopt);
    }
    return *this;
  }
  Completion(const Completion&) = delete;
  Completion& operator=(const Completion&) = delete;
  ~Completion() {
    if (function_) reportDroppedCompletion();
  }

  void operator()(Args... args) && {
    auto function = std::exchange(function_, std::nullopt);
    (*function)(std::forward<Args>(args)...);
  }

  // False once called or moved from.
  explicit operator bool() const { return function_.has_value(); }

 private:
  std::optional<std::move_only_function<void(Args...)>> function_;
};

}  // namespace vondle
