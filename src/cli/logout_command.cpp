#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/words.h"
#include "service/instance_lock.h"
#include "service/local_copies.h"
#include "service/thumbnails/thumbnail_cache.h"

namespace vondle {

namespace {

// Changes that are named; the others are counted.
constexpr std::size_t MAX_NAMED = 10;

Outcome<void> checkNothingIsLost(const CommandContext& context) {
  const auto unsent = findUnsent(context.folders);
  if (!unsent) {
    return fail(ExitCode::workLeft,
                "nobody can tell whether everything is on the server: " + unsent.error().localizedDescription() +
                    "; \"vondle logout --force\" signs out all the same");
  }
  if (unsent->isNothing()) return {};
  const auto& edits = unsent->edits;
  if (edits.empty()) {
    return fail(ExitCode::workLeft,
                fmt::format("{} would be lost: contents of changes that are not remembered, in {} and its folder "
                            "lost+found; move them away, or give them up with \"vondle logout --force\"",
                            countInWords(static_cast<std::int64_t>(unsent->lostFiles), "file", "files"),
                            context.folders.editedFiles()));
  }
  for (std::size_t i = 0; i < std::min(edits.size(), MAX_NAMED); ++i) {
    const auto& edit = edits[i];
    context.console.say(
        fmt::format("not on the server yet: {}{}", edit.place.name, isHidden(edit.fields) ? " (deleted)" : ""));
  }
  return fail(ExitCode::workLeft,
              fmt::format("{} would be lost; send them with \"vondle mount\" and \"vondle sync --wait\", or give them "
                          "up with \"vondle logout --force\"",
                          countInWords(static_cast<std::int64_t>(edits.size()), "change", "changes")));
}

// Another account must not be shown this one's tree, so the tree and the contents go too, and the small pictures that
// file managers were given: all of that is on the server, unless it is given up.
Outcome<void> logout(const CommandContext& context, bool isForced) {
  if (auto made = context.folders.create(); !made) return fail(ExitCode::failed, made.error().localizedDescription());
  const auto lock = InstanceLock::acquire(context.folders.stateLock(), "the Vondle folder");
  if (!lock) {
    return fail(ExitCode::failed, lock.error().localizedDescription() + "; run \"vondle unmount\" first");
  }
  if (!isForced) {
    if (auto checked = checkNothingIsLost(context); !checked) return checked;
  }
  if (auto forgotten = context.account().forgetKey(); !forgotten) {
    return fail(ExitCode::failed, "the key could not be removed: " + forgotten.error().localizedDescription());
  }
  ThumbnailCache(ThumbnailCache::folderOfEnvironment(context.folders.home), "").removeOwn();
  const auto unsent = isForced ? UnsentEdits::remove : UnsentEdits::keep;
  if (auto removed = removeLocalCopies(context.folders, context.platform.files, unsent); !removed) {
    return fail(ExitCode::failed,
                "signed out, but local copies are left behind: " + removed.error().localizedDescription());
  }
  context.console.say("signed out; the local copies are removed");
  return {};
}

}  // namespace

void addLogout(CLI::App& app, CommandContext& context, Command& chosen) {
  auto isForced = std::make_shared<bool>(false);
  auto* command = app.add_subcommand("logout", "Sign out: forget the account key and remove the local copies");
  command->add_flag("--force", *isForced, "Even when changes are not on the server yet, which are lost then");
  command->callback(
      [&context, &chosen, isForced] { chosen = [&context, isForced] { return logout(context, *isForced); }; });
}

}  // namespace vondle
