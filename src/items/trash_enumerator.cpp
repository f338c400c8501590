#include "items/trash_enumerator.h"

#include <utility>

#include "api/vondle_api.h"
#include "config/plog.h"
#include "items/vondle_item.h"
#include "state/item_cache.h"

namespace vondle {

void TrashEnumerator::enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page) {
  services_.api.trash([services = services_, observer = std::move(observer)](Result<std::vector<Entry>> entries) {
    if (!entries) return observer->finishEnumeratingWithError(entries.error());
    services.cache.store(*entries);
    plog.info("trash: %d item(s)", entries->size());
    observer->didEnumerateItems(makeItems(std::move(*entries), services.pins));
    observer->finishEnumeratingUpToPage(std::nullopt);
  });
}

}  // namespace vondle
