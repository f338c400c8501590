#include "items/empty_enumerator.h"

#include <utility>

namespace vondle {

void EmptyEnumerator::enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page) {
  observer->didEnumerateItems({});
  observer->finishEnumeratingUpToPage(std::nullopt);
}

void EmptyEnumerator::enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) {
  observer->finishEnumeratingChangesUpToSyncAnchor(std::move(from), false);
}

void EmptyEnumerator::currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) {
  std::move(completion)("1");
}

}  // namespace vondle
