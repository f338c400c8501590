#pragma once

#include <memory>
#include <string>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/enumerator.h"
#include "fileprovider/item.h"
#include "fileprovider/request.h"
#include "platform/progress.h"

namespace vondle {

// Downloaded contents: a file that now belongs to the service, and the item that it is the contents of.
struct FetchedContents {
  std::string path;
  Item item;
};

// What the service asks of the extension of one domain. Any thread, concurrently; every call returns at once. Each
// completion is called exactly once, on the caller's thread before the call returns or later on a thread of the
// extension's.
class ReplicatedExtension {
 public:
  virtual ~ReplicatedExtension() = default;

  virtual void invalidate() = 0;

  virtual std::shared_ptr<Progress> itemForIdentifier(ItemIdentifier identifier, Request request,
                                                      Completion<Result<Item>> completion) = 0;

  // The container may be any identifier: one that is not a folder gives an enumerator whose listing fails.
  virtual std::shared_ptr<Enumerator> enumeratorForContainer(ItemIdentifier container, Request request) = 0;

  // The version wanted is a hint; what the server holds now is delivered.
  virtual std::shared_ptr<Progress> fetchContents(ItemIdentifier identifier, std::optional<ItemVersion> version,
                                                  Request request, Completion<Result<FetchedContents>> completion) = 0;
};

}  // namespace vondle
