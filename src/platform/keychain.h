#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vondle {

// Status codes of the keychain, with the platform's numbers.
using KeychainStatus = std::int32_t;
inline constexpr KeychainStatus KEYCHAIN_SUCCESS = 0;
inline constexpr KeychainStatus KEYCHAIN_NOT_AVAILABLE = -25291;  // no keyring on this machine, locked, or too slow
inline constexpr KeychainStatus KEYCHAIN_ITEM_NOT_FOUND = -25300;
inline constexpr KeychainStatus KEYCHAIN_INTERNAL_ERROR = -26276;

// Generic-password items of the user's keyring. Never prompts: what is locked reads as not there. Any thread; a call
// takes at most 3 s, and after one that slow the keyring is left alone for 30 s.
class Keychain {
 public:
  virtual ~Keychain() = default;

  struct Item {
    std::string service;
    std::string accessGroup;
    std::string account;
    std::string label;
    std::string data;  // the secret's bytes
  };
  struct Found {
    KeychainStatus status = KEYCHAIN_ITEM_NOT_FOUND;
    std::string data;  // on success
  };

  virtual Found copyMatching(std::string_view service, std::string_view accessGroup) = 0;
  // Replaces an item of the same service, group and account.
  virtual KeychainStatus add(const Item& item) = 0;
  // Removes every item of the service and group, whatever the account.
  virtual KeychainStatus remove(std::string_view service, std::string_view accessGroup) = 0;
  // The platform's text for a status; none when it has none.
  virtual std::optional<std::string> message(KeychainStatus status) = 0;
};

// The texts of the statuses above; none for other numbers.
std::optional<std::string> keychainMessage(KeychainStatus status);

}  // namespace vondle
