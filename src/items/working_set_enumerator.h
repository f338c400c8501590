#pragma once

#include "fileprovider/domain.h"
#include "items/cursor_enumerator.h"
#include "items/item_services.h"

namespace vondle {

// The one place where changes are reported: those of pins, then those of the server since the stored cursor. Its own
// listing is empty. Each enumeration of changes is one WorkingSetChanges; the enumerator may be let go meanwhile.
class WorkingSetEnumerator final : public CursorEnumerator {
 public:
  WorkingSetEnumerator(const ItemServices& services, Domain domain, ManagerForDomain managerForDomain)
      : CursorEnumerator(services.cursor),
        services_(services),
        domain_(std::move(domain)),
        managerForDomain_(std::move(managerForDomain)) {}

  void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page startingAt) override;
  // The anchor given is not where the reading begins: the stored cursor is.
  void enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) override;

 private:
  const ItemServices services_;
  const Domain domain_;
  const ManagerForDomain managerForDomain_;
};

}  // namespace vondle
