#include "service/control/keep_operation.h"

#include <cerrno>
#include <set>

#include "fileprovider/actions.h"
#include "fileprovider/error_codes.h"
#include "service/contents/eviction.h"
#include "service/control/control_commands.h"
#include "service/control/control_text.h"
#include "service/control/fetch_operation.h"
#include "service/edits/edit.h"

namespace vondle {

KeepOperation::KeepOperation(Parts parts, Action action, std::vector<Inode> inodes, bool waits,
                             std::shared_ptr<ControlReply> reply)
    : parts_(std::move(parts)),
      action_(action),
      waits_(waits),
      queue_(parts_.scheduler.makeSerialQueue("keep command")),
      reply_(std::move(reply)),
      inodes_(std::move(inodes)) {}

void KeepOperation::start() {
  reply_->whenAbandoned([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->queue_->post([self] { self->isAbandoned_ = true; });
  });
  queue_->post([self = shared_from_this()] {
    self->choose();
    self->perform();
  });
}

void KeepOperation::choose() {
  std::vector<Inode> chosen;
  std::set<Inode> seen;
  for (const Inode inode : inodes_) {
    if (!seen.insert(inode).second) continue;
    if (const auto why = refusal(inode)) {
      note(inode, *why);
    } else {
      chosen.push_back(inode);
      identifiers_.push_back(*parts_.tree.replica().identifierOf(inode));
    }
  }
  inodes_ = std::move(chosen);
}

std::optional<Error> KeepOperation::refusal(Inode inode) const {
  const auto& replica = parts_.tree.replica();
  const auto attributes = replica.attributes(inode);
  const auto identifier = replica.identifierOf(inode);
  if (!attributes || !identifier) return Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM);
  if (inode == ROOT_INODE) return Error::posix(EINVAL, "name what is in the folder, not the whole of it");
  if (isLocal(*identifier)) return Error::posix(EBUSY, "it is not on the server yet");
  if (action_ == Action::stopKeeping && replica.keptBy(attributes->parent))
    return Error::posix(EBUSY, "it is kept downloaded with the folder that it is in");
  return std::nullopt;
}

void KeepOperation::perform() {
  if (inodes_.empty()) return finish();
  const auto action = action_ == Action::keep ? KEEP_DOWNLOADED_ACTION : STOP_KEEPING_ACTION;
  parts_.extension.performAction(std::string(action), identifiers_,
                                 [self = shared_from_this()](std::optional<Error> error) {
                                   self->queue_->post([self, error = std::move(error)] { self->performed(error); });
                                 });
}

void KeepOperation::performed(const std::optional<Error>& error) {
  if (error) return reply_->fail(controlCode(*error), controlText(error->localizedDescription()));
  lookUp();
}

void KeepOperation::lookUp() {
  for (const auto& identifier : identifiers_) {
    parts_.extension.itemForIdentifier(
        identifier, {.isFileViewerRequest = true}, [self = shared_from_this(), identifier](Result<Item> item) {
          self->queue_->post([self, identifier, item = std::move(item)] { self->lookedUp(identifier, item); });
        });
  }
}

void KeepOperation::lookedUp(const ItemIdentifier& identifier, Result<Item> item) {
  if (!item) {
    // The extension may not reach its server; what is known of the item is true but for this.
    const auto inode = parts_.tree.replica().inodeOf(identifier);
    item = inode ? parts_.tree.replica().item(*inode) : std::move(item);
    if (item) {
      item->contentPolicy = action_ == Action::keep ? ContentPolicy::downloadEagerlyAndKeepDownloaded
                            : item->isFolder()      ? ContentPolicy::inherited
                                                    : ContentPolicy::downloadLazily;
    }
  }
  if (item) items_.push_back(std::move(*item));
  if (++answers_ < identifiers_.size()) return;
  parts_.tree.applyUpdates(std::move(items_),
                           [self = shared_from_this()] { self->queue_->post([self] { self->applied(); }); });
}

void KeepOperation::applied() {
  result_["done"] = inodes_.size();
  if (action_ == Action::stopKeeping) return evict();
  if (!waits_) return finish();
  parts_.keeper->retryNow();
  wait();
}

// Once more, since what was kept until a moment ago may have been fetched again.
void KeepOperation::evict() {
  for (const Inode inode : inodes_) static_cast<void>(evictAll(parts_.tree.replica(), *parts_.contents, inode));
  finish();
}

void KeepOperation::wait() {
  const auto share = parts_.keeper->shareOf(inodes_);
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
  failures_.push_back(itemFailure(parts_.tree.replica(), inode, error));
}

void KeepOperation::finish() {
  if (!result_.contains("done")) result_["done"] = 0;
  result_["failures"] = std::move(failures_);
  reply_->finish(result_);
}

}  // namespace vondle
