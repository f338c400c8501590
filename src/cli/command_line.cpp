#include "cli/command_line.h"

#include <algorithm>
#include <utility>

#include "cli/commands.h"

namespace vondle {

int runCommandLine(std::vector<std::string> arguments, CommandContext& context, std::ostream& out, std::ostream& err) {
  CLI::App app("Shows a Vondle account as a folder.", "vondle");
  app.require_subcommand(1);
  app.set_version_flag("--version", context.platform.bundle.text("CFBundleShortVersionString").value_or("0"));
  app.footer(
      "Exit status: 0 done, 1 failed, 2 wrong usage, 3 no account set up, 4 service not running,\n"
      "5 server unreachable, 6 not signed in, 7 no such item, 8 work left undone.");
  Command chosen;
  for (const auto add :
       {addLogin, addLogout, addMount, addUnmount, addStatus, addSync, addInfo, addFetch, addEvict, addKeep, addUnkeep,
        addThumbnail, addTrash, addLimits, addPause, addResume, addDesktop, addRestart}) {
    add(app, context, chosen);
  }
  try {
    std::ranges::reverse(arguments);  // as CLI11 takes them
    app.parse(std::move(arguments));
  } catch (const CLI::ParseError& error) {
    // Help and version are "errors" with the status 0.
    return app.exit(error, out, err) == 0 ? 0 : static_cast<int>(ExitCode::usage);
  }
  const auto outcome = chosen();
  if (outcome) return 0;
  context.console.say(outcome.error().message);
  return static_cast<int>(outcome.error().code);
}

}  // namespace vondle
