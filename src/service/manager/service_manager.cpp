#include "service/manager/service_manager.h"

#include <utility>

#include "fileprovider/error_codes.h"
#include "service/contents/eviction.h"

namespace vondle {

namespace {

Error noSuchItem() {
  return {FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM};
}

}  // namespace

ServiceManager::ServiceManager(std::string mountPath, Tree& tree, std::shared_ptr<ContentStore> contents,
                               std::shared_ptr<Follower> follower, Scheduler& scheduler)
    : mountPath_(std::move(mountPath)),
      tree_(tree),
      contents_(std::move(contents)),
      follower_(std::move(follower)),
      queue_(scheduler.makeSerialQueue("manager")) {}

void ServiceManager::signalEnumerator(ItemIdentifier, Completion<std::optional<Error>> completion) {
  follower_->signal();
  queue_->post([completion = std::move(completion)]() mutable { std::move(completion)(std::nullopt); });
}

void ServiceManager::evictItem(ItemIdentifier identifier, Completion<std::optional<Error>> completion) {
  queue_->post([&tree = tree_, contents = contents_, identifier = std::move(identifier),
                completion = std::move(completion)]() mutable {
    const auto inode = tree.replica().inodeOf(identifier);
    std::move(completion)(inode ? evictAll(tree.replica(), *contents, *inode) : noSuchItem());
  });
}

void ServiceManager::getUserVisibleURL(ItemIdentifier identifier, Completion<Result<std::string>> completion) {
  Result<std::string> result = failure(noSuchItem());
  if (const auto inode = tree_.replica().inodeOf(identifier)) {
    if (const auto path = tree_.replica().pathOf(*inode)) result = *path == "/" ? mountPath_ : mountPath_ + *path;
  }
  queue_->post([result = std::move(result), completion = std::move(completion)]() mutable {
    std::move(completion)(std::move(result));
  });
}

void ServiceManager::getIdentifierForUserVisibleFile(std::string path, Completion<Result<ItemIdentifier>> completion) {
  queue_->post([result = identifierAt(path), completion = std::move(completion)]() mutable {
    std::move(completion)(std::move(result));
  });
}

Result<ItemIdentifier> ServiceManager::identifierAt(const std::string& path) const {
  if (path == mountPath_) return ROOT_CONTAINER;
  if (!path.starts_with(mountPath_ + "/")) return failure(noSuchItem());
  const auto inode = tree_.replica().inodeAtPath(path.substr(mountPath_.size()));
  if (!inode) return failure(noSuchItem());
  const auto identifier = tree_.replica().identifierOf(*inode);
  if (!identifier) return failure(noSuchItem());
  return *identifier;
}

}  // namespace vondle
