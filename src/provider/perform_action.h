#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/domain.h"
#include "fileprovider/item.h"
#include "platform/progress.h"
#include "provider/provider_services.h"

namespace vondle {

// Keeps chosen items downloaded, or stops keeping them and drops their local copies. That the pins could not be written
// or an item could not be evicted fails nothing: downloading and dropping are the service's affair, which is told to
// read the working set. Completes on the calling thread, but after evictions on the concurrent queue.
class PerformAction final : public std::enable_shared_from_this<PerformAction> {
 public:
  PerformAction(const ProviderServices& services, Domain domain, ManagerForDomain managerForDomain, std::string action,
                std::vector<ItemIdentifier> identifiers, Completion<std::optional<Error>> completion);

  std::shared_ptr<Progress> start();

 private:
  void pin(bool pinned);
  void signalWorkingSet(Manager& manager);
  void evict(Manager& manager);
  void finish(std::optional<Error> error);

  const ProviderServices services_;
  const Domain domain_;
  const ManagerForDomain managerForDomain_;
  const std::string action_;
  const std::vector<ItemIdentifier> identifiers_;
  const std::shared_ptr<Progress> progress_;
  Completion<std::optional<Error>> completion_;
};

}  // namespace vondle
