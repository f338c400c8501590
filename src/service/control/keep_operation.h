#pragma once

#include <memory>
#include <vector>

#include "base/error.h"
#include "base/json.h"
#include "platform/scheduler.h"
#include "service/control/control_server.h"
#include "service/follow/keep_action.h"
#include "service/follow/keeper.h"

namespace vondle {

// A KeepAction for a control client, which waits, if asked, until what is kept is here, telling how far it is. When the
// client goes away the wait ends, and nothing else. Kept alive by what it waits for.
class KeepOperation : public std::enable_shared_from_this<KeepOperation> {
 public:
  KeepOperation(KeepAction::Parts parts, std::shared_ptr<Keeper> keeper, KeepAction::Kind kind,
                std::vector<Inode> inodes, bool waits, std::shared_ptr<ControlReply> reply);

  // Failures that are named; the result also says how many there are.
  static constexpr std::size_t MAX_FAILURES = 100;

  void start();

 private:
  void acted(const Result<KeepAction::Outcome>& outcome);
  void wait();
  void note(Inode inode, const Error& error);
  void finish();

  const KeepAction::Parts parts_;
  const std::shared_ptr<Keeper> keeper_;
  const KeepAction::Kind kind_;
  const bool waits_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<ControlReply> reply_;

  // Used on the queue alone.
  std::vector<Inode> inodes_;  // all, then those that are done
  bool isAbandoned_ = false;
  json::Array failures_;
  std::size_t failed_ = 0;
  json::Object result_;
};

}  // namespace vondle
