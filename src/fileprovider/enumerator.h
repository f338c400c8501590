#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/item.h"

namespace vondle {

// Opaque bytes: how far the changes of a container have been reported.
using SyncAnchor = std::string;
// Opaque bytes: where a listing goes on. The first page is the empty text.
using Page = std::string;

// Receives a listing: any number of didEnumerateItems, then exactly one finish. The extension calls it from any thread,
// one call at a time; the service must return quickly.
class EnumerationObserver {
 public:
  virtual ~EnumerationObserver() = default;
  virtual void didEnumerateItems(std::vector<Item> items) = 0;
  virtual void finishEnumeratingUpToPage(std::optional<Page> nextPage) = 0;  // none: the listing is whole
  virtual void finishEnumeratingWithError(Error error) = 0;
};

// Receives changes: any number of updates and deletions, then exactly one finish; updates may still follow it (they are
// applied like any others). The extension calls it from any thread, at times from two at once.
class ChangeObserver {
 public:
  virtual ~ChangeObserver() = default;
  virtual void didUpdateItems(std::vector<Item> items) = 0;  // new or changed
  virtual void didDeleteItemsWithIdentifiers(std::vector<ItemIdentifier> identifiers) = 0;
  virtual void finishEnumeratingChangesUpToSyncAnchor(SyncAnchor anchor, bool moreComing) = 0;
  virtual void finishEnumeratingWithError(Error error) = 0;
};

// Lists a container and reports its changes. Any thread; every call returns at once. The enumerator keeps itself and
// the observer alive until the finish.
class Enumerator {
 public:
  virtual ~Enumerator() = default;
  virtual void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page startingAt) = 0;
  virtual void enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) = 0;
  virtual void currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) = 0;
  virtual void invalidate() = 0;
};

}  // namespace vondle
