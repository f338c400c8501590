#include <chrono>
#include <thread>

#include "cli/commands.h"
#include "cli/service_connection.h"
#include "config/extension_restart.h"

namespace vondle {

namespace {

constexpr auto POLL = std::chrono::milliseconds(100);
constexpr auto LIMIT = std::chrono::seconds(60);

Outcome<std::int64_t> processOfService(const CommandContext& context) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const auto status = service->ask({{"command", "status"}}, seconds(10));
  if (!status) return std::unexpected(status.error());
  return json::integer(*status, "pid").value_or(0);
}

Outcome<void> restart(const CommandContext& context) {
  const auto before = processOfService(context);
  if (!before) return std::unexpected(before.error());
  const auto& platform = context.platform;
  ExtensionRestart(platform.files, platform.notifyCentre, platform.process, platform.bundle).ask();

  const auto deadline = std::chrono::steady_clock::now() + LIMIT;
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(POLL);
    if (const auto now = processOfService(context); now && *now != *before) {
      context.console.say("started anew");
      return {};
    }
  }
  return fail(ExitCode::serviceNotRunning, "the service has not come back; its log says why");
}

}  // namespace

void addRestart(CLI::App& app, CommandContext& context, Command& chosen) {
  app.add_subcommand("restart", "End the running extension and start it anew, as after an update")
      ->callback([&context, &chosen] { chosen = [&context] { return restart(context); }; });
}

}  // namespace vondle
