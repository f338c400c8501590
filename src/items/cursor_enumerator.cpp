#include "items/cursor_enumerator.h"

#include <utility>

#include <fmt/format.h>

#include "state/cursor.h"

namespace vondle {

SyncAnchor syncAnchorOf(std::int64_t cursor) {
  return fmt::format("{}", cursor);
}

void CursorEnumerator::enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) {
  observer->finishEnumeratingChangesUpToSyncAnchor(std::move(from), false);
}

void CursorEnumerator::currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) {
  std::move(completion)(syncAnchorOf(cursor_.load()));
}

}  // namespace vondle
