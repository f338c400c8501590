#include <filesystem>
#include <memory>

#include "cli/commands.h"
#include "cli/service_connection.h"
#include "cli/service_program.h"
#include "service/service_settings.h"

namespace vondle {

namespace {

struct MountOptions {
  std::string folder;
  bool foreground = false;
  bool readOnly = false;
};

Outcome<void> checkIsSignedIn(const CommandContext& context) {
  const auto account = context.account().summary();
  if (!account) return fail(ExitCode::notConfigured, account.error().localizedDescription());
  if (!account->server || account->key == KeyPlace::nowhere) {
    return fail(ExitCode::notConfigured, "no account is set up; sign in with \"vondle login\"");
  }
  return {};
}

Outcome<std::string> chooseFolder(const CommandContext& context, const std::string& asked) {
  if (!asked.empty()) return std::filesystem::absolute(asked).lexically_normal().string();
  const auto settings = ServiceSettings::load(context.folders.settingsFile(), context.folders.home);
  if (!settings) return fail(ExitCode::failed, settings.error().localizedDescription());
  return settings->mount.value_or(context.folders.defaultMountPoint());
}

Outcome<void> mount(const CommandContext& context, const MountOptions& options) {
  if (auto signedIn = checkIsSignedIn(context); !signedIn) return signedIn;
  auto folder = chooseFolder(context, options.folder);
  if (!folder) return std::unexpected(folder.error());
  if (folder->size() > 1 && folder->ends_with('/')) folder->pop_back();

  if (auto service = ServiceConnection::open(context.folders.socket())) {
    const auto status = service->ask({{"command", "status"}}, seconds(10));
    if (status && json::text(*status, "mount") == *folder) {
      context.console.say("already mounted at " + *folder);
      return {};
    }
  }
  std::vector<std::string> command = {context.serviceProgram, "--mount", *folder};
  if (options.readOnly) command.emplace_back("--read-only");
  if (options.foreground) {
    command.emplace_back("--foreground");
    return std::unexpected(becomeProgram(command));
  }
  // Comes back when the folder answers, or has said why it does not.
  const auto status = runProgram(command);
  if (!status) return std::unexpected(status.error());
  if (*status != 0) return fail(ExitCode::failed, *folder + " is not mounted");
  context.console.say("mounted at " + *folder);
  return {};
}

}  // namespace

void addMount(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<MountOptions>();
  auto* command = app.add_subcommand("mount", "Show the account as a folder");
  command->add_option("folder", options->folder, "An empty folder; made if missing (default: ~/Vondle)");
  command->add_flag("--foreground", options->foreground, "Stay in the foreground, with the log on standard error");
  command->add_flag("--read-only", options->readOnly, "Refuse changes");
  command->callback(
      [&context, &chosen, options] { chosen = [&context, options] { return mount(context, *options); }; });
}

}  // namespace vondle
