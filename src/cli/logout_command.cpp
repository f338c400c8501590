#include "cli/commands.h"
#include "service/instance_lock.h"
#include "service/local_copies.h"

namespace vondle {

namespace {

// Another account must not be shown this one's tree, so the tree and the downloaded contents go too. All of that is on
// the server.
Outcome<void> logout(const CommandContext& context) {
  if (auto made = context.folders.create(); !made) return fail(ExitCode::failed, made.error().localizedDescription());
  const auto lock = InstanceLock::acquire(context.folders.stateLock(), "the Vondle folder");
  if (!lock) {
    return fail(ExitCode::failed, lock.error().localizedDescription() + "; run \"vondle unmount\" first");
  }
  if (auto forgotten = context.account().forgetKey(); !forgotten) {
    return fail(ExitCode::failed, "the key could not be removed: " + forgotten.error().localizedDescription());
  }
  if (auto removed = removeLocalCopies(context.folders, context.platform.files); !removed) {
    return fail(ExitCode::failed,
                "signed out, but local copies are left behind: " + removed.error().localizedDescription());
  }
  context.console.say("signed out; the local copies are removed");
  return {};
}

}  // namespace

void addLogout(CLI::App& app, CommandContext& context, Command& chosen) {
  app.add_subcommand("logout", "Sign out: forget the account key and remove the local copies")
      ->callback([&context, &chosen] { chosen = [&context] { return logout(context); }; });
}

}  // namespace vondle
