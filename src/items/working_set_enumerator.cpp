#include "items/working_set_enumerator.h"

#include <utility>

#include "items/working_set_changes.h"

namespace vondle {

void WorkingSetEnumerator::enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page) {
  observer->didEnumerateItems({});
  observer->finishEnumeratingUpToPage(std::nullopt);
}

void WorkingSetEnumerator::enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) {
  std::make_shared<WorkingSetChanges>(services_, domain_, managerForDomain_, std::move(observer), std::move(from))
      ->start();
}

}  // namespace vondle
