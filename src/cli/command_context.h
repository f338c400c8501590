#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/account.h"
#include "cli/config_editor.h"
#include "cli/console.h"
#include "cli/exit_code.h"
#include "config/config.h"
#include "config/paths.h"
#include "platform/platform.h"
#include "service/service_folders.h"

namespace vondle {

// What the commands work with.
struct CommandContext {
  Console& console;
  Platform platform;
  ServiceFolders folders;
  std::string serviceProgram;  // the path of vondle-service

  // Turned round for tests.
  std::function<Outcome<std::string>(const std::string& prompt)> readSecret;  // from the terminal, unseen
  // With the server.
  std::function<Outcome<void>(const Config& account)> checkAccount;
  std::function<Outcome<bool>(const Config& account, const std::vector<std::string>& identifiers)> accountHasOneOf;

  [[nodiscard]] Paths paths() const { return Paths(platform.users); }
  [[nodiscard]] Account account() const { return {platform.files, platform.keychain, paths()}; }
  [[nodiscard]] ConfigEditor config() const { return {platform.files, paths().config()}; }
};

}  // namespace vondle
