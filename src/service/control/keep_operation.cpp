#include "service/control/keep_operation.h"

#include "service/control/control_commands.h"
#include "service/control/control_text.h"
#include "service/control/fetch_operation.h"

namespace vondle {

KeepOperation::KeepOperation(KeepAction::Parts parts, std::shared_ptr<Keeper> keeper, KeepAction::Kind kind,
                             std::vector<Inode> inodes, bool waits, std::shared_ptr<ControlReply> reply)
    : parts_(std::move(parts)),
      keeper_(std::move(keeper)),
      kind_(kind),
      waits_(waits),
      queue_(parts_.scheduler.makeSerialQueue("keep command")),
      reply_(std::move(reply)),
      inodes_(std::move(inodes)) {}

void KeepOperation::start() {
  reply_->whenAbandoned([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->queue_->post([self] { self->isAbandoned_ = true; });
  });
  auto acted = [self = shared_from_this()](Result<KeepAction::Outcome> outcome) {
    self->queue_->post([self, outcome = std::move(outcome)] { self->acted(outcome); });
  };
  std::make_shared<KeepAction>(parts_, kind_, inodes_, std::move(acted))->start();
}

void KeepOperation::acted(const Result<KeepAction::Outcome>& outcome) {
  if (!outcome) return reply_->fail(controlCode(outcome.error()), controlText(outcome.error().localizedDescription()));
  for (const auto& [inode, error] : outcome->refused) note(inode, error);
  inodes_ = outcome->done;
  result_["done"] = inodes_.size();
  if (kind_ == KeepAction::Kind::stopKeeping || !waits_ || inodes_.empty()) return finish();
  keeper_->retryNow();
  wait();
}

void KeepOperation::wait() {
  const auto share = keeper_->shareOf(inodes_);
  reply_->progress(
      {{"done", share.filesHere}, {"files", share.files}, {"bytes_done", share.bytesHere}, {"bytes", share.bytes}});
  if (share.pending > 0 && !isAbandoned_) {
    queue_->after(ControlCommands::PROGRESS_INTERVAL, [self = shared_from_this()] { self->wait(); });
    return;
  }
  for (const auto& [inode, error] : share.failures) note(inode, error);
  result_["files"] = share.filesHere;
  finish();
}

void KeepOperation::note(Inode inode, const Error& error) {
  ++failed_;
  if (failures_.size() < MAX_FAILURES) failures_.push_back(itemFailure(parts_.tree.replica(), inode, error));
}

void KeepOperation::finish() {
  result_["failures"] = std::move(failures_);
  result_["failed"] = failed_;
  reply_->finish(result_);
}

}  // namespace vondle
