#pragma once

#include <memory>
#include <string>

#include "fileprovider/domain.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/follow/follower.h"
#include "service/replica/tree.h"

namespace vondle {

// What the extension may ask of the service. Completions run on a queue of its own. The tree outlives it.
class ServiceManager final : public Manager {
 public:
  ServiceManager(std::string mountPath, Tree& tree, std::shared_ptr<ContentStore> contents,
                 std::shared_ptr<Follower> follower, Scheduler& scheduler);

  // All containers' news come through the working set.
  void signalEnumerator(ItemIdentifier container, Completion<std::optional<Error>> completion) override;
  // Of a folder: of every file in it.
  void evictItem(ItemIdentifier identifier, Completion<std::optional<Error>> completion) override;
  // Also for an item whose file is not here.
  void getUserVisibleURL(ItemIdentifier identifier, Completion<Result<std::string>> completion) override;
  void getIdentifierForUserVisibleFile(std::string path, Completion<Result<ItemIdentifier>> completion) override;

 private:
  [[nodiscard]] Result<ItemIdentifier> identifierAt(const std::string& path) const;

  const std::string mountPath_;
  Tree& tree_;
  const std::shared_ptr<ContentStore> contents_;
  const std::shared_ptr<Follower> follower_;
  const std::shared_ptr<Queue> queue_;
};

}  // namespace vondle
