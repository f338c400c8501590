#include "cli/commands.h"

namespace vondle {

namespace {

Outcome<void> setPaused(const CommandContext& context, bool paused) {
  const auto written = context.config().edit([&](json::Object& config) { config["transfers_paused"] = paused; });
  if (!written) return fail(ExitCode::failed, written.error().localizedDescription());
  context.console.say(paused ? "transfers are paused" : "transfers go on");
  return {};
}

}  // namespace

void addPause(CLI::App& app, CommandContext& context, Command& chosen) {
  app.add_subcommand("pause", "Pause all transfers")->callback([&context, &chosen] {
    chosen = [&context] { return setPaused(context, true); };
  });
}

void addResume(CLI::App& app, CommandContext& context, Command& chosen) {
  app.add_subcommand("resume", "Let paused transfers go on")->callback([&context, &chosen] {
    chosen = [&context] { return setPaused(context, false); };
  });
}

}  // namespace vondle
