#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "cli/commands.h"
#include "cli/thunar_actions.h"

namespace vondle {

namespace {

constexpr const char* SYSTEM_FILE = "/etc/xdg/Thunar/uca.xml";
constexpr const char* NO_ACTIONS = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<actions>\n</actions>\n";

std::string thunarFile(const CommandContext& context) {
  const char* folder = std::getenv("XDG_CONFIG_HOME");
  return (folder && *folder == '/' ? std::string(folder) : context.folders.home + "/.config") + "/Thunar/uca.xml";
}

Outcome<void> change(const CommandContext& context, bool installs) {
  auto& files = context.platform.files;
  const auto path = thunarFile(context);
  const auto action =
      std::filesystem::path(context.serviceProgram).parent_path().parent_path() / "libexec/vondle/desktop-action";
  auto before = files.read(path);
  if (!before && before.error().is(POSIX_ERROR_DOMAIN, ENOENT)) {
    if (!installs) return {};
    // The user's file stands in place of the system's.
    before = files.read(SYSTEM_FILE);
    if (!before) before = std::string(NO_ACTIONS);
  }
  if (!before) return fail(ExitCode::failed, path + ": " + before.error().localizedDescription());
  const auto after = installs ? withVondleActions(*before, action) : withoutVondleActions(*before);
  if (!after) return fail(ExitCode::failed, path + " is no list of actions; correct it or move it away");
  if (auto made = files.createFolder(std::filesystem::path(path).parent_path()); !made)
    return fail(ExitCode::failed, made.error().localizedDescription());
  if (auto written = files.writeAtomically(path, *after); !written)
    return fail(ExitCode::failed, path + ": " + written.error().localizedDescription());
  context.console.say(installs ? "the actions are in Thunar's menu from its next start on"
                               : "the actions are no longer in Thunar's menu from its next start on");
  return {};
}

}  // namespace

void addDesktop(CLI::App& app, CommandContext& context, Command& chosen) {
  auto* desktop = app.add_subcommand("desktop", "Put the actions into Thunar's menu, or take them out again");
  desktop->require_subcommand(1);
  desktop->add_subcommand("install", "Add them to this user's own actions")->callback([&context, &chosen] {
    chosen = [&context] { return change(context, true); };
  });
  desktop->add_subcommand("remove", "Remove them, and leave all others")->callback([&context, &chosen] {
    chosen = [&context] { return change(context, false); };
  });
}

}  // namespace vondle
