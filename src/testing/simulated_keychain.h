#pragma once

#include <utility>
#include <vector>

#include "base/mutex.h"
#include "platform/keychain.h"

namespace vondle {

// A keyring in memory. Any thread.
class SimulatedKeychain : public Keychain {
 public:
  // As when there is no session bus, or the keyring is locked: every call answers KEYCHAIN_NOT_AVAILABLE.
  void setAvailable(bool available) EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    available_ = available;
  }
  [[nodiscard]] std::vector<Item> items() EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    return items_;
  }

  Found copyMatching(std::string_view service, std::string_view accessGroup) override EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    if (!available_) return {.status = KEYCHAIN_NOT_AVAILABLE, .data = {}};
    for (const auto& item : items_) {
      if (item.service == service && item.accessGroup == accessGroup) return {KEYCHAIN_SUCCESS, item.data};
    }
    return {};
  }
  KeychainStatus add(const Item& item) override EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    if (!available_) return KEYCHAIN_NOT_AVAILABLE;
    std::erase_if(items_, [&](const Item& old) {
      return old.service == item.service && old.accessGroup == item.accessGroup && old.account == item.account;
    });
    items_.push_back(item);
    return KEYCHAIN_SUCCESS;
  }
  KeychainStatus remove(std::string_view service, std::string_view accessGroup) override EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    if (!available_) return KEYCHAIN_NOT_AVAILABLE;
    const auto removed = std::erase_if(
        items_, [&](const Item& item) { return item.service == service && item.accessGroup == accessGroup; });
    return removed > 0 ? KEYCHAIN_SUCCESS : KEYCHAIN_ITEM_NOT_FOUND;
  }
  std::optional<std::string> message(KeychainStatus status) override { return keychainMessage(status); }

 private:
  Mutex lock_;
  bool available_ GUARDED_BY(lock_) = true;
  std::vector<Item> items_ GUARDED_BY(lock_);
};

}  // namespace vondle
