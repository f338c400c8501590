#pragma once

#include <memory>
#include <optional>
#include <string>

#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "base/json.h"
#include "fileprovider/item.h"
#include "platform/progress.h"
#include "provider/provider_services.h"

namespace vondle {

// Moves an item to the server's trash, or removes it for good when it lies there already. An item of which nothing can
// be found out, or that the server says it does not have, counts as deleted; so does a file without contents. Kept
// alive by what it waits for.
class DeleteItem final : public std::enable_shared_from_this<DeleteItem> {
 public:
  DeleteItem(const ProviderServices& services, const ItemIdentifier& identifier,
             Completion<std::optional<Error>> completion);

  std::shared_ptr<Progress> start();

 private:
  void remove(const Entry& entry);
  void removed(const Result<json::Object>& reply);
  void finish(std::optional<Error> error);

  const ProviderServices services_;
  const std::string id_;  // the server's
  Completion<std::optional<Error>> completion_;
};

}  // namespace vondle
