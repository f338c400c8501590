#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/keychain.h"

namespace vondle {

// The account's key in the user's keychain: one item, whatever the account is called. The extension only reads it; the
// companion command writes it. Any thread.
class KeychainStore {
 public:
  static constexpr std::string_view service = "com.ferrow.vondle.api-key";
  static constexpr std::string_view accessGroup = "group.com.ferrow.vondle";

  explicit KeychainStore(Keychain& keychain) : keychain_(keychain) {}

  // None also where the keychain fails, or holds an empty text or something that is no UTF-8 text.
  std::optional<std::string> readKey();
  // Replaces the key that was there.
  KeychainStatus saveKey(std::string_view key, std::string_view account);
  void deleteKey();
  // What a person reads about a status of saveKey.
  std::string describe(KeychainStatus status);

 private:
  Keychain& keychain_;
};

}  // namespace vondle
