#include "items/vondle_enumerator.h"

#include <utility>

#include "api/vondle_api.h"
#include "items/identifiers.h"
#include "items/listing_gate.h"
#include "items/vondle_item.h"
#include "state/item_cache.h"

namespace vondle {
namespace {

void deliver(const ItemServices& services, EnumerationObserver& observer, Result<std::vector<Entry>> entries) {
  if (!entries) return observer.finishEnumeratingWithError(entries.error());
  services.cache.store(*entries);
  observer.didEnumerateItems(makeItems(std::move(*entries), services.pins));
  observer.finishEnumeratingUpToPage(std::nullopt);
}

}  // namespace

VondleEnumerator::VondleEnumerator(const ItemServices& services, const ItemIdentifier& container, bool urgent)
    : CursorEnumerator(services.cursor), services_(services), containerID_(serverIDFor(container)), urgent_(urgent) {}

void VondleEnumerator::enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page) {
  services_.gate.run(urgent_, [services = services_, id = containerID_,
                               observer = std::move(observer)](ListingGate::Done done) mutable {
    services.api.browse(id, [services, observer = std::move(observer),
                             done = std::move(done)](Result<std::vector<Entry>> entries) mutable {
      deliver(services, *observer, std::move(entries));
      std::move(done)();
    });
  });
}

}  // namespace vondle
