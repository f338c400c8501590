#pragma once

#include <string>

#include "base/error.h"

namespace vondle {

// Held by the one process that may use a thing; given up by the destructor or when the process ends, however it ends.
class InstanceLock {
 public:
  // The file is made if need be, and holds the owner's process id. `what` says in the refusal what is in use:
  // "the state folder is in use by process 4711". Waits, for seconds at most, for an owner that is just ending.
  static Result<InstanceLock> acquire(const std::string& path, const std::string& what);

  ~InstanceLock();
  InstanceLock(InstanceLock&& other) noexcept;
  InstanceLock& operator=(InstanceLock&&) = delete;
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

 private:
  explicit InstanceLock(int descriptor) : descriptor_(descriptor) {}
  int descriptor_;
};

}  // namespace vondle
