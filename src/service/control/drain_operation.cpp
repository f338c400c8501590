#include "service/control/drain_operation.h"

#include <algorithm>
#include <utility>

#include "service/control/control_commands.h"
#include "service/control/edit_text.h"

namespace vondle {

DrainOperation::DrainOperation(std::shared_ptr<EditSender> sender, std::shared_ptr<LocalEdits> edits, Tree& tree,
                               Scheduler& scheduler, std::shared_ptr<ControlReply> reply)
    : sender_(std::move(sender)),
      edits_(std::move(edits)),
      tree_(tree),
      queue_(scheduler.makeSerialQueue("drain")),
      reply_(std::move(reply)) {}

void DrainOperation::start() {
  reply_->whenAbandoned([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->queue_->post([self] {
      self->finished_ = true;
      self->queue_->cancel(self->timer_);
    });
  });
  queue_->post([self = shared_from_this()] { self->report(); });
  sender_->drain(
      [self = shared_from_this()](std::size_t left) { self->queue_->post([self, left] { self->finish(left); }); });
}

void DrainOperation::report() {
  if (finished_) return;
  const auto left = edits_->pendingCount();
  most_ = std::max(most_, left);
  reply_->progress({{"left", left}, {"edits", most_}});
  timer_ = queue_->after(ControlCommands::PROGRESS_INTERVAL, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->report();
  });
}

void DrainOperation::finish(std::size_t left) {
  if (std::exchange(finished_, true)) return;
  queue_->cancel(timer_);
  json::Array edits;
  if (left > 0) {
    for (const auto& report : sender_->report()) {
      if (edits.size() == ControlCommands::MAX_PROBLEMS) break;
      if (report.state != SendState::staysHere) edits.push_back(editJSON(report, *edits_, tree_.replica()));
    }
  }
  reply_->finish({{"left", left}, {"edits", std::move(edits)}});
}

}  // namespace vondle
