#pragma once

#include <memory>

#include "base/completion.h"
#include "platform/scheduler.h"

namespace vondle {

// Runs asynchronous operations in the order they were added, at most so many at once. Any thread may add. Operations
// that have not begun when this object ends still run.
class OperationQueue {
 public:
  // Begins the work without blocking, and completes `done` when all of it is over.
  using Operation = std::move_only_function<void(Completion<> done)>;

  // Operations begin on the queue, which must outlive them.
  OperationQueue(Queue& queue, int maxConcurrentOperations);

  void add(Operation operation);

 private:
  struct State;

  const std::shared_ptr<State> state_;
};

}  // namespace vondle
