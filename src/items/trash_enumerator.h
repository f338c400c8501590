#pragma once

#include "items/cursor_enumerator.h"
#include "items/item_services.h"

namespace vondle {

// Lists the server's trash, whole and in one page. Errors are the API client's, unchanged. The enumerator may be let go
// while it lists.
class TrashEnumerator final : public CursorEnumerator {
 public:
  explicit TrashEnumerator(const ItemServices& services) : CursorEnumerator(services.cursor), services_(services) {}

  void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page startingAt) override;

 private:
  const ItemServices services_;
};

}  // namespace vondle
