#include "config/keychain_store.h"

#include <fmt/format.h>

#include "base/utf8.h"

namespace vondle {

std::optional<std::string> KeychainStore::readKey() {
  auto found = keychain_.copyMatching(service, accessGroup);
  if (found.status != KEYCHAIN_SUCCESS || found.data.empty() || !isUTF8(found.data)) return std::nullopt;
  return std::move(found.data);
}

KeychainStatus KeychainStore::saveKey(std::string_view key, std::string_view account) {
  deleteKey();
  return keychain_.add({.service = std::string(service),
                        .accessGroup = std::string(accessGroup),
                        .account = std::string(account),
                        .label = "Vondle account key",
                        .data = std::string(key)});
}

void KeychainStore::deleteKey() {
  keychain_.remove(service, accessGroup);
}

std::string KeychainStore::describe(KeychainStatus status) {
  if (auto message = keychain_.message(status)) return *std::move(message);
  return fmt::format("OSStatus {}", status);
}

}  // namespace vondle
