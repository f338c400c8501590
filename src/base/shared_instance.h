#pragma once

#include <cassert>
#include <utility>

namespace vondle {

// Makes one T the process's shared instance for as long as this object lives; T::shared() answers
// SharedInstance<T>::current(). Process (provider/process.h) owns these in dependency order; each test makes its own.
template <class T>
class SharedInstance {
 public:
  template <class... Args>
  explicit SharedInstance(Args&&... args) : instance_(std::forward<Args>(args)...), previous_(current_) {
    current_ = &instance_;
  }
  ~SharedInstance() { current_ = previous_; }
  SharedInstance(const SharedInstance&) = delete;
  SharedInstance& operator=(const SharedInstance&) = delete;

  T& operator*() { return instance_; }
  T* operator->() { return &instance_; }

  static T& current() {
    assert(current_ && "no Process is running");
    return *current_;
  }

 private:
  T instance_;
  T* previous_;
  static inline T* current_ = nullptr;
};

}  // namespace vondle
