#include "service/service_core.h"

#include <optional>
#include <utility>
#include <vector>

namespace vondle {

namespace {

Error stopping() {
  return {COCOA_ERROR_DOMAIN, USER_CANCELLED, "the service is ending"};
}

}  // namespace

Result<std::unique_ptr<ServiceCore>> ServiceCore::open(Parts parts) {
  std::unique_ptr<ServiceCore> core(new ServiceCore(std::move(parts)));
  if (auto opened = core->openTree(); !opened) return failure(opened.error());
  if (auto opened = core->openContents(); !opened) return failure(opened.error());
  core->limitContents();
  if (auto opened = core->openEdits(); !opened) return failure(opened.error());
  core->makeKeeper();
  core->makeFollower();
  core->tellOfFailures();
  core->makeSender();
  return core;
}

Result<void> ServiceCore::openTree() {
  auto replica = Replica::open(parts_.folders.replicaDatabase());
  if (!replica) return failure(replica.error());
  replica_ = std::move(*replica);
  tree_ = std::make_unique<Tree>(*replica_, parts_.platform.scheduler);
  return {};
}

Result<void> ServiceCore::openContents() {
  auto contents = ContentStore::open(parts_.folders.contentFiles(), *tree_, parts_.extension, errors_,
                                     parts_.platform.scheduler, parts_.platform.clock);
  if (!contents) return failure(contents.error());
  contents_ = std::move(*contents);
  tree_->subscribe([store = contents_](const auto& changes) { store->apply(changes); });
  return {};
}

void ServiceCore::limitContents() {
  limiter_ = std::make_shared<CacheLimiter>(parts_.cache, *replica_, contents_, parts_.platform.files);
  contents_->reserveWith([weak = std::weak_ptr(limiter_)](Inode inode, std::int64_t bytes, auto answer) {
    if (const auto limiter = weak.lock()) return limiter->reserve(inode, bytes, std::move(answer));
    std::move(answer)(failure(stopping()));
  });
  tree_->subscribe([limiter = limiter_](const auto&) { limiter->noteUse(); });
  // The bounds may have been others before.
  limiter_->noteUse();
}

Result<void> ServiceCore::openEdits() {
  const auto& platform = parts_.platform;
  auto edits = LocalEdits::open(parts_.folders.editDatabase(), *tree_, platform.clock, platform.random);
  if (!edits) return failure(edits.error());
  edits_ = std::move(*edits);
  auto edited =
      EditedContents::open(parts_.folders.editedFiles(), contents_, edits_, *tree_, platform.scheduler, platform.clock);
  if (!edited) return failure(edited.error());
  edited_ = std::move(*edited);
  return {};
}

void ServiceCore::makeKeeper() {
  const auto& platform = parts_.platform;
  listing_ = std::make_shared<FolderListing>(*tree_, parts_.extension, errors_, platform.scheduler, platform.clock);
  keeper_ = std::make_shared<Keeper>(*tree_, contents_, listing_, platform.scheduler);
  tree_->subscribe([keeper = keeper_](const auto& changes) { keeper->apply(changes); });
  contents_->onAbandoned([weak = std::weak_ptr(keeper_)](Inode inode) {
    if (const auto keeper = weak.lock()) keeper->noteMissing(inode);
  });
}

void ServiceCore::makeFollower() {
  const auto& platform = parts_.platform;
  follower_ = std::make_shared<Follower>(parts_.extension, *tree_, platform.scheduler, platform.clock, platform.files,
                                         parts_.folders.anchorFile(), parts_.lastUse);
}

void ServiceCore::tellOfFailures() {
  if (!parts_.notices) return;
  errors_.onNote([notices = parts_.notices](const Error& error) { notices->failed(error); });
  follower_->onRun([notices = parts_.notices](const std::optional<Error>& error) {
    error ? notices->failed(*error) : notices->answered();
  });
}

void ServiceCore::makeSender() {
  sender_ = EditSender::make(
      {.services = {.extension = parts_.extension,
                    .edits = edits_,
                    .contents = edited_,
                    .sync = [follower = follower_](auto completion) { follower->sync(std::move(completion)); },
                    .scheduler = parts_.platform.scheduler},
       .tree = *tree_,
       .errors = errors_,
       .clock = parts_.platform.clock,
       .temporaryNames = parts_.temporaryNames,
       .notices = parts_.notices});
}

void ServiceCore::start() {
  follower_->start();
  sender_->start();
  keeper_->start();
  contents_->checkServerWith([weak = std::weak_ptr(follower_)](auto completion) {
    if (const auto follower = weak.lock()) return follower->sync(std::move(completion));
    std::move(completion)(stopping());
  });
}

void ServiceCore::noteUse() {
  follower_->noteUse();
  limiter_->noteUse();
}

void ServiceCore::stop() {
  sender_->stop();
  keeper_->stop();
  follower_->stop();
  listing_->close(stopping());
  contents_->close(stopping());
}

}  // namespace vondle
