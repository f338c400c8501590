#pragma once

#include <cstddef>
#include <memory>

#include "platform/scheduler.h"
#include "service/control/control_server.h"
#include "service/edits/edit_sender.h"

namespace vondle {

// Sends all edits for a control client, telling it how many are left; ends with how many could not be sent, and why.
// The client going away changes nothing but that nobody is told. Kept alive by what it waits for.
class DrainOperation : public std::enable_shared_from_this<DrainOperation> {
 public:
  DrainOperation(std::shared_ptr<EditSender> sender, std::shared_ptr<LocalEdits> edits, Tree& tree,
                 Scheduler& scheduler, std::shared_ptr<ControlReply> reply);

  void start();

 private:
  void report();
  void finish(std::size_t left);

  const std::shared_ptr<EditSender> sender_;
  const std::shared_ptr<LocalEdits> edits_;
  Tree& tree_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<ControlReply> reply_;

  // Used on the queue alone.
  std::size_t most_ = 0;  // edits that were there at a time
  bool finished_ = false;
  TimerID timer_ = 0;
};

}  // namespace vondle
