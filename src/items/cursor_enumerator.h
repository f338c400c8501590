#pragma once

#include <cstdint>
#include <memory>

#include "fileprovider/enumerator.h"

namespace vondle {

class Cursor;

// The anchor of a position in the change feed: its decimal digits.
SyncAnchor syncAnchorOf(std::int64_t cursor);

// What folders and the trash have in common: their changes are reported by the working set, so there are none here, and
// their anchor is that of the stored change cursor.
class CursorEnumerator : public Enumerator {
 public:
  explicit CursorEnumerator(Cursor& cursor) : cursor_(cursor) {}

  void enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) override;
  void currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) override;
  void invalidate() override {}

 private:
  Cursor& cursor_;
};

}  // namespace vondle
