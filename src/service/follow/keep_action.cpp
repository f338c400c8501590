#include "service/follow/keep_action.h"

#include <cerrno>
#include <set>

#include "fileprovider/actions.h"
#include "fileprovider/error_codes.h"
#include "service/contents/eviction.h"
#include "service/edits/edit.h"

namespace vondle {

void KeepAction::start(Parts parts, Kind kind, Inode inode, Completion<std::optional<Error>> completion) {
  auto acted = [completion = std::move(completion)](Result<Outcome> outcome) mutable {
    if (!outcome) return std::move(completion)(outcome.error());
    std::move(completion)(outcome->refused.empty() ? std::nullopt : std::optional(outcome->refused.front().second));
  };
  std::make_shared<KeepAction>(std::move(parts), kind, std::vector{inode}, std::move(acted))->start();
}

KeepAction::KeepAction(Parts parts, Kind kind, std::vector<Inode> inodes, Completion<Result<Outcome>> completion)
    : parts_(std::move(parts)),
      kind_(kind),
      queue_(parts_.scheduler.makeSerialQueue("keep action")),
      inodes_(std::move(inodes)),
      completion_(std::move(completion)) {}

void KeepAction::start() {
  queue_->post([self = shared_from_this()] {
    self->choose();
    self->perform();
  });
}

void KeepAction::choose() {
  std::set<Inode> seen;
  for (const Inode inode : inodes_) {
    if (!seen.insert(inode).second) continue;
    if (auto why = refusal(inode)) {
      outcome_.refused.emplace_back(inode, std::move(*why));
    } else {
      outcome_.done.push_back(inode);
      identifiers_.push_back(*parts_.tree.replica().identifierOf(inode));
    }
  }
}

std::optional<Error> KeepAction::refusal(Inode inode) const {
  const auto& replica = parts_.tree.replica();
  const auto attributes = replica.attributes(inode);
  const auto identifier = replica.identifierOf(inode);
  if (!attributes || !identifier) return Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM);
  if (inode == ROOT_INODE) return Error::posix(EINVAL, "name what is in the folder, not the whole of it");
  if (isLocal(*identifier)) return Error::posix(EBUSY, "it is not on the server yet");
  if (kind_ == Kind::stopKeeping && replica.keptBy(attributes->parent))
    return Error::posix(EBUSY, "it is kept downloaded with the folder that it is in");
  return std::nullopt;
}

void KeepAction::perform() {
  if (identifiers_.empty()) return finish();
  const auto action = kind_ == Kind::keep ? KEEP_DOWNLOADED_ACTION : STOP_KEEPING_ACTION;
  parts_.extension.performAction(std::string(action), identifiers_,
                                 [self = shared_from_this()](std::optional<Error> error) {
                                   self->queue_->post([self, error = std::move(error)] { self->performed(error); });
                                 });
}

void KeepAction::performed(const std::optional<Error>& error) {
  if (error) return finish(error);
  lookUp();
}

void KeepAction::lookUp() {
  for (const auto& identifier : identifiers_) {
    parts_.extension.itemForIdentifier(
        identifier, {.isFileViewerRequest = true}, [self = shared_from_this(), identifier](Result<Item> item) {
          self->queue_->post([self, identifier, item = std::move(item)] { self->lookedUp(identifier, item); });
        });
  }
}

void KeepAction::lookedUp(const ItemIdentifier& identifier, Result<Item> item) {
  if (!item) item = asKnown(identifier);
  if (item) items_.push_back(std::move(*item));
  if (++answers_ < identifiers_.size()) return;
  parts_.tree.applyUpdates(std::move(items_),
                           [self = shared_from_this()] { self->queue_->post([self] { self->applied(); }); });
}

// The extension may not reach its server; what is known of the item is true but for its policy. Where programs have
// moved it is not what the server says.
Result<Item> KeepAction::asKnown(const ItemIdentifier& identifier) const {
  const auto& replica = parts_.tree.replica();
  auto item = replica.item(replica.inodeOf(identifier).value_or(0));
  if (!item) return item;
  if (const auto edit = replica.editOf(identifier); edit && edit->serverPlace) {
    item->parentItemIdentifier = edit->serverPlace->folder;
    item->filename = edit->serverPlace->name;
  }
  item->contentPolicy = kind_ == Kind::keep ? ContentPolicy::downloadEagerlyAndKeepDownloaded
                        : item->isFolder()  ? ContentPolicy::inherited
                                            : ContentPolicy::downloadLazily;
  return item;
}

void KeepAction::applied() {
  // Once more than the extension did, since what was kept until a moment ago may have been fetched again.
  if (kind_ == Kind::stopKeeping)
    for (const Inode inode : outcome_.done) static_cast<void>(evictAll(parts_.tree.replica(), *parts_.contents, inode));
  finish();
}

void KeepAction::finish(std::optional<Error> error) {
  if (error) return std::move(completion_)(failure(std::move(*error)));
  std::move(completion_)(std::move(outcome_));
}

}  // namespace vondle
