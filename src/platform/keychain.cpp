#include "platform/keychain.h"

namespace vondle {

std::optional<std::string> keychainMessage(KeychainStatus status) {
  switch (status) {
    case KEYCHAIN_SUCCESS:
      return "No error.";
    case KEYCHAIN_NOT_AVAILABLE:
      return "No keyring is available, or it is locked.";
    case KEYCHAIN_ITEM_NOT_FOUND:
      return "The specified item could not be found in the keyring.";
    case KEYCHAIN_INTERNAL_ERROR:
      return "The keyring reported an error.";
    default:
      return std::nullopt;
  }
}

}  // namespace vondle
