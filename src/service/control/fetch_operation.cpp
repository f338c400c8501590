#include "service/control/fetch_operation.h"

#include <set>
#include <utility>

#include "fileprovider/error_codes.h"
#include "service/control/control_commands.h"
#include "service/control/control_text.h"

namespace vondle {

json::Object itemFailure(const Replica& replica, Inode inode, const Error& error) {
  return {{"inode", inode},
          {"path", controlText(replica.pathOf(inode).value_or("?"))},
          {"error", controlText(error.localizedDescription())},
          {"code", controlCode(error)}};
}

FetchOperation::FetchOperation(Tree& tree, std::shared_ptr<ContentStore> contents, Scheduler& scheduler,
                               std::vector<Inode> inodes, std::shared_ptr<ControlReply> reply)
    : tree_(tree),
      contents_(std::move(contents)),
      queue_(scheduler.makeSerialQueue("fetch")),
      reply_(std::move(reply)) {
  // Each once, in the order given.
  std::set<Inode> seen;
  for (const auto inode : inodes) {
    if (!seen.insert(inode).second) continue;
    left_.push_back(inode);
    if (const auto attributes = tree_.replica().attributes(inode)) bytes_ += attributes->size;
  }
  files_ = left_.size();
}

void FetchOperation::start() {
  reply_->whenAbandoned([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->queue_->post([self] { self->cancel(); });
  });
  queue_->post([self = shared_from_this()] {
    self->fetchMore();
    self->report();
  });
}

void FetchOperation::cancel() {
  cancelled_ = true;
  left_.clear();
  const auto running = running_;
  for (const auto& [inode, progress] : running) progress->cancel();
  if (running_.empty()) finish();
}

void FetchOperation::fetchMore() {
  while (!left_.empty() && running_.size() < ControlCommands::FETCHES_AT_ONCE) {
    const auto inode = left_.front();
    left_.pop_front();
    const auto wait = Progress::make();
    running_[inode] = wait;
    contents_->require(inode, {.isFileViewerRequest = true}, wait,
                       [self = shared_from_this(), inode](const Result<std::shared_ptr<const ContentFile>>& result) {
                         auto error = result ? std::nullopt : std::optional(result.error());
                         self->queue_->post([self, inode, error = std::move(error)] { self->fetched(inode, error); });
                       });
  }
  if (running_.empty()) finish();
}

void FetchOperation::fetched(Inode inode, const std::optional<Error>& error) {
  running_.erase(inode);
  if (error) {
    failures_.push_back(itemFailure(tree_.replica(), inode, *error));
  } else {
    ++done_;
    if (const auto attributes = tree_.replica().attributes(inode)) bytesDone_ += attributes->size;
  }
  fetchMore();
}

void FetchOperation::report() {
  if (finished_) return;
  auto bytesDone = bytesDone_;
  for (const auto& [inode, wait] : running_) {
    if (const auto progress = contents_->progressOf(inode)) bytesDone += progress->completedUnitCount();
  }
  reply_->progress({{"done", done_}, {"files", files_}, {"bytes_done", bytesDone}, {"bytes", bytes_}});
  timer_ = queue_->after(ControlCommands::PROGRESS_INTERVAL, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->report();
  });
}

void FetchOperation::finish() {
  if (std::exchange(finished_, true)) return;
  queue_->cancel(timer_);
  reply_->finish({{"done", done_}, {"failures", std::move(failures_)}});
}

}  // namespace vondle
