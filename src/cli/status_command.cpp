#include <chrono>
#include <memory>
#include <thread>

#include "cli/commands.h"
#include "cli/status_report.h"

namespace vondle {

namespace {

struct StatusOptions {
  bool json = false;
  bool watch = false;
};

constexpr auto WATCH_INTERVAL = std::chrono::seconds(1);

bool print(const CommandContext& context, const StatusReport& report, bool asJSON) {
  return context.console.print(asJSON ? json::serialize(report.toJSON()) : report.toText(context.console));
}

Outcome<void> status(const CommandContext& context, const StatusOptions& options) {
  auto report = StatusReport::gather(context);
  bool isHeard = true;
  if (!options.watch) {
    print(context, report, options.json);
    if (!report.isRunning()) return std::unexpected(report.whyNotRunning());
    return {};
  }
  // Until interrupted, or until nobody reads any more.
  while (isHeard) {
    if (!options.json) context.console.nextScreen();
    isHeard = print(context, report, options.json);
    std::this_thread::sleep_for(WATCH_INTERVAL);
    report = StatusReport::gather(context);
  }
  return {};
}

}  // namespace

void addStatus(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<StatusOptions>();
  auto* command = app.add_subcommand("status", "Show the mount, the account, what is going on and what is wrong");
  command->add_flag("--json", options->json, "Report as JSON");
  command->add_flag("--watch", options->watch, "Show it again every second");
  command->callback(
      [&context, &chosen, options] { chosen = [&context, options] { return status(context, *options); }; });
}

}  // namespace vondle
