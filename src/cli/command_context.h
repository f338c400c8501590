#pragma once

#include <functional>
#include <string>

#include "cli/account.h"
#include "cli/config_editor.h"
#include "cli/console.h"
#include "cli/exit_code.h"
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
  std::function<Outcome<void>()> checkAccount;                                // with the server

  [[nodiscard]] Paths paths() const { return Paths(platform.users); }
  [[nodiscard]] Account account() const { return {platform.files, platform.keychain, paths()}; }
  [[nodiscard]] ConfigEditor config() const { return {platform.files, paths().config()}; }
};

}  // namespace vondle
