#pragma once

#include "fileprovider/enumerator.h"

namespace vondle {

// Never has anything to tell.
class EmptyEnumerator final : public Enumerator {
 public:
  void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page startingAt) override;
  void enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) override;
  void currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) override;
  void invalidate() override {}
};

}  // namespace vondle
