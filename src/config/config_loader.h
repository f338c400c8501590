#pragma once

#include <optional>
#include <string>

#include "config/config.h"
#include "config/keychain_store.h"
#include "config/paths.h"
#include "config/server_migration.h"

namespace vondle {

// Reads the configuration afresh on every call: a changed file or key counts from the next request on. Any thread, side
// by side.
class ConfigLoader {
 public:
  ConfigLoader(Files& files, Keychain& keychain, Paths paths,
               ServerDirectory directory = ServerDirectory::ofThisBuild());

  // None when the system is not configured; the log says why. May take as long as a keychain call. A server that has
  // moved is replaced, in the file too.
  std::optional<Config> load();

 private:
  std::optional<std::string> findKey(const std::optional<std::string>& keyInFile);
  std::string followMove(std::string server);

  Files& files_;
  KeychainStore keychain_;
  const Paths paths_;
  ServerMigration migration_;
};

}  // namespace vondle
