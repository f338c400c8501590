#include "preview/operation_queue.h"

#include <deque>
#include <utility>

#include "base/mutex.h"

namespace vondle {

struct OperationQueue::State : std::enable_shared_from_this<State> {
  State(Queue& itsQueue, int maxConcurrentOperations) : queue(itsQueue), free(maxConcurrentOperations) {}

  void add(Operation operation) EXCLUDES(lock) {
    {
      MutexLock hold(lock);
      waiting.push_back(std::move(operation));
    }
    beginNext();
  }

  void beginNext() EXCLUDES(lock) {
    Operation operation;
    {
      MutexLock hold(lock);
      if (free == 0 || waiting.empty()) return;
      --free;
      operation = std::move(waiting.front());
      waiting.pop_front();
    }
    queue.post([self = shared_from_this(), operation = std::move(operation)]() mutable {
      operation([self] { self->end(); });
    });
  }

  void end() EXCLUDES(lock) {
    {
      MutexLock hold(lock);
      ++free;
    }
    beginNext();
  }

  Queue& queue;
  Mutex lock;
  int free GUARDED_BY(lock);
  std::deque<Operation> waiting GUARDED_BY(lock);
};

OperationQueue::OperationQueue(Queue& queue, int maxConcurrentOperations)
    : state_(std::make_shared<State>(queue, maxConcurrentOperations)) {}

void OperationQueue::add(Operation operation) {
  state_->add(std::move(operation));
}

}  // namespace vondle
