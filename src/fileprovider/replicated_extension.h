#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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

// What an item became after it was created or modified.
struct SavedItem {
  Item item;
  std::uint32_t stillPendingFields = 0;  // ItemFields that are to be given again
  bool shouldFetchContent = false;
  // The contents that were given are those of `item` as it is now. Not so when they were kept as another file because
  // of a conflict, or when somebody else has written since; then the service's copy is no copy of the item.
  bool hasGivenContents = false;
};

// In points.
struct ThumbnailSize {
  double width = 0;
  double height = 0;
};

// Takes one item's thumbnail: the bytes of an image, or none when the item has none.
using ThumbnailReceiver = std::function<void(const ItemIdentifier& identifier, Result<std::optional<std::string>>)>;

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

  // Of the template count the parent, the filename and the content type, which may be empty for a file. The contents,
  // for a file, are a local file that must neither change nor go before the completion, whose own name ends like the
  // template's filename. The options are the framework's; none is defined yet.
  virtual std::shared_ptr<Progress> createItem(Item basedOn, std::uint32_t fields, std::optional<std::string> contents,
                                               std::uint32_t options, Request request,
                                               Completion<Result<SavedItem>> completion) = 0;

  // Brings the changed fields of the item to the server; the item is as the service wants it, the base version the one
  // that the change was made on. Contents as in createItem.
  virtual std::shared_ptr<Progress> modifyItem(Item item, ItemVersion baseVersion, std::uint32_t changedFields,
                                               std::optional<std::string> contents, std::uint32_t options,
                                               Request request, Completion<Result<SavedItem>> completion) = 0;

  // An item that is not in the trash is moved there; one that is goes for good. An unknown one counts as deleted.
  virtual std::shared_ptr<Progress> deleteItem(ItemIdentifier identifier, ItemVersion baseVersion,
                                               std::uint32_t options, Request request,
                                               Completion<std::optional<Error>> completion) = 0;

  // One of the extension's own actions on items that the user chose; NO_SUCH_ITEM for an action it does not have. The
  // progress counts items.
  virtual std::shared_ptr<Progress> performAction(std::string action, std::vector<ItemIdentifier> identifiers,
                                                  Completion<std::optional<Error>> completion) = 0;

  // Thumbnails of many items at once; the size is a hint. The receiver is called once for each item, from any thread,
  // at times from two at once, and then the completion; the progress counts items. One that was not to be had for now
  // is an error: ask again later.
  virtual std::shared_ptr<Progress> fetchThumbnails(std::vector<ItemIdentifier> identifiers,
                                                    ThumbnailSize requestedSize, ThumbnailReceiver receiver,
                                                    Completion<std::optional<Error>> completion) = 0;
};

}  // namespace vondle
