#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "cli/command_context.h"

// One function per subcommand: adds it to the program's command line. When the subcommand is given, `chosen` becomes
// what is to be done.
namespace vondle {

using Command = std::function<Outcome<void>()>;

void addLogin(CLI::App& app, CommandContext& context, Command& chosen);
void addLogout(CLI::App& app, CommandContext& context, Command& chosen);
void addMount(CLI::App& app, CommandContext& context, Command& chosen);
void addUnmount(CLI::App& app, CommandContext& context, Command& chosen);
void addStatus(CLI::App& app, CommandContext& context, Command& chosen);
void addSync(CLI::App& app, CommandContext& context, Command& chosen);
void addInfo(CLI::App& app, CommandContext& context, Command& chosen);
void addFetch(CLI::App& app, CommandContext& context, Command& chosen);
void addEvict(CLI::App& app, CommandContext& context, Command& chosen);
void addKeep(CLI::App& app, CommandContext& context, Command& chosen);
void addUnkeep(CLI::App& app, CommandContext& context, Command& chosen);
void addThumbnail(CLI::App& app, CommandContext& context, Command& chosen);
void addTrash(CLI::App& app, CommandContext& context, Command& chosen);
void addLimits(CLI::App& app, CommandContext& context, Command& chosen);
void addPause(CLI::App& app, CommandContext& context, Command& chosen);
void addResume(CLI::App& app, CommandContext& context, Command& chosen);
void addDesktop(CLI::App& app, CommandContext& context, Command& chosen);
void addRestart(CLI::App& app, CommandContext& context, Command& chosen);

}  // namespace vondle
