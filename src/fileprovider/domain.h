#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/item.h"

namespace vondle {

// One account shown as one folder.
struct Domain {
  std::string identifier;
  std::string displayName;
};

// What the service does for the extension of one domain. Any thread; every call returns at once; completions come on a
// thread of the service's.
class Manager {
 public:
  virtual ~Manager() = default;
  // The container (mostly the working set) has news: ask its enumerator soon.
  virtual void signalEnumerator(ItemIdentifier container, Completion<std::optional<Error>> completion) = 0;
  // Drops the local copy of the item's contents; unsent edits and open files are never dropped, but refused.
  virtual void evictItem(ItemIdentifier identifier, Completion<std::optional<Error>> completion) = 0;
  // The absolute path under which the user sees the item; NO_SUCH_ITEM for one the service does not know.
  virtual void getUserVisibleURL(ItemIdentifier identifier, Completion<Result<std::string>> completion) = 0;
  // The item at an absolute path within the domain's folder.
  virtual void getIdentifierForUserVisibleFile(std::string path, Completion<Result<ItemIdentifier>> completion) = 0;
};

// Finds the manager of a domain; null when the service does not serve the domain (any more). Any thread.
using ManagerForDomain = std::function<std::shared_ptr<Manager>(const Domain& domain)>;

}  // namespace vondle
