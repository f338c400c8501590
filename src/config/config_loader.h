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
  virtual ~ConfigLoader() = default;

  // None when the system is not configured; the log says why. May take as long as a keychain call. A server that has
  // moved is replaced, in the file too. A server that would be asked over plain http on another machine, where the key
  // could be read on the way, counts as none unless the file says "allow_http": true.
  virtual std::optional<Config> load();

 private:
  [[nodiscard]] bool mayBeAsked(const std::string& server, bool allowHTTP) const;
  std::optional<std::string> findKey(const std::optional<std::string>& keyInFile);
  std::string followMove(std::string server);

  Files& files_;
  KeychainStore keychain_;
  const Paths paths_;
  ServerMigration migration_;
};

}  // namespace vondle
