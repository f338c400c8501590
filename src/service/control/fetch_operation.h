#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "base/error.h"
#include "base/json.h"
#include "base/mutex.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/control/control_server.h"
#include "service/replica/tree.h"

namespace vondle {

// Downloads files for a control client, a few at a time, telling it how far it is; stops when the client goes away.
// Kept alive by what it waits for.
class FetchOperation : public std::enable_shared_from_this<FetchOperation> {
 public:
  FetchOperation(Tree& tree, std::shared_ptr<ContentStore> contents, Scheduler& scheduler, std::vector<Inode> inodes,
                 std::shared_ptr<ControlReply> reply);

  void start();

 private:
  void cancel();
  void fetchMore();
  void fetched(Inode inode, const std::optional<Error>& error);
  void report();
  void finish();

  Tree& tree_;
  const std::shared_ptr<ContentStore> contents_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<ControlReply> reply_;
  std::int64_t bytes_ = 0;  // in all files
  std::size_t files_ = 0;

  // Used on the queue alone.
  std::deque<Inode> left_;
  std::map<Inode, std::shared_ptr<Progress>> running_;
  bool cancelled_ = false;
  bool finished_ = false;
  std::int64_t done_ = 0;
  std::int64_t bytesDone_ = 0;
  json::Array failures_;
  TimerID timer_ = 0;
};

// The failure of one item, as the control protocol lists it.
json::Object itemFailure(const Replica& replica, Inode inode, const Error& error);

}  // namespace vondle
