#pragma once

#include <string>

#include "items/cursor_enumerator.h"
#include "items/item_services.h"

namespace vondle {

// Lists a folder, the root or the shared container, whole and in one page, when the listing gate lets it. Errors are
// the API client's, unchanged. Observers are called on the API client's thread. The enumerator may be let go while it
// lists.
class VondleEnumerator final : public CursorEnumerator {
 public:
  // Urgent: somebody is looking at the folder.
  VondleEnumerator(const ItemServices& services, const ItemIdentifier& container, bool urgent);

  void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page startingAt) override;

  [[nodiscard]] const std::string& containerID() const { return containerID_; }
  [[nodiscard]] bool urgent() const { return urgent_; }

 private:
  const ItemServices services_;
  const std::string containerID_;
  const bool urgent_;
};

}  // namespace vondle
