#pragma once

#include <optional>
#include <string>

#include "base/error.h"
#include "cli/config_editor.h"
#include "config/keychain_store.h"
#include "config/paths.h"
#include "platform/files.h"
#include "platform/keychain.h"

namespace vondle {

enum class KeyPlace { nowhere, keyring, file };

// The server and the key that the user has signed in with: the server in the configuration file, the key in the keyring
// if there is one, else in the file too.
class Account {
 public:
  Account(Files& files, Keychain& keychain, const Paths& paths);

  struct Summary {
    std::optional<std::string> server;
    KeyPlace key = KeyPlace::nowhere;
    bool allowsHTTP = false;  // also to other machines
  };
  Result<Summary> summary();

  // The keyring must not keep an older key when the new one goes into the file: it would win.
  Result<KeyPlace> store(const std::string& server, const std::string& key);
  // The server stays, for the next time.
  Result<void> forgetKey();

 private:
  Files& files_;
  KeychainStore keychain_;
  const Paths paths_;
  ConfigEditor config_;
};

}  // namespace vondle
