#pragma once

#include <memory>
#include <vector>

#include <curl/curl.h>

#include "base/mutex.h"

namespace vondle {

class CurlTask;

// The way from other threads to a session's network thread: tasks whose wishes have changed. Outlives the session in
// the hands of its tasks, and is deaf after close.
class CurlCommandQueue {
 public:
  explicit CurlCommandQueue(CURLM* multi) : multi_(multi) {}

  // A new task, which has no wishes yet: the network thread learns of it when it is next awake.
  void add(std::shared_ptr<CurlTask> task) EXCLUDES(lock_);
  void push(std::shared_ptr<CurlTask> task) EXCLUDES(lock_);
  void close() EXCLUDES(lock_);
  // Moves out what has been pushed; false once closed.
  bool take(std::vector<std::shared_ptr<CurlTask>>& tasks) EXCLUDES(lock_);

 private:
  Mutex lock_;
  CURLM* const multi_;
  std::vector<std::shared_ptr<CurlTask>> tasks_ GUARDED_BY(lock_);
  bool isAwake_ GUARDED_BY(lock_) = false;  // or about to be, and will take what is there
  bool closed_ GUARDED_BY(lock_) = false;
};

}  // namespace vondle
