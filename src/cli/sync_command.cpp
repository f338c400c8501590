#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/service_connection.h"
#include "cli/words.h"

namespace vondle {

namespace {

struct SyncOptions {
  CLI::Option* wait = nullptr;
  double waitSeconds = 0;  // 0: without limit
  bool json = false;
};

constexpr auto POLL = std::chrono::milliseconds(200);

Outcome<void> waitForTransfers(const CommandContext& context, ServiceConnection& service,
                               std::chrono::steady_clock::time_point start, std::optional<Duration> limit) {
  while (true) {
    const auto status = service.ask({{"command", "status"}});
    if (!status) return std::unexpected(status.error());
    const auto* transfers = json::list(*status, "transfers");
    if (!transfers || transfers->empty()) return {};
    const auto left = countInWords(static_cast<std::int64_t>(transfers->size()), "transfer", "transfers");
    context.console.showProgress(left + " running");
    if (limit && std::chrono::steady_clock::now() - start >= *limit) {
      return fail(ExitCode::workLeft, "the time is up with " + left + " still running");
    }
    std::this_thread::sleep_for(POLL);
  }
}

Outcome<void> sync(const CommandContext& context, const SyncOptions& options) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const bool waits = options.wait->count() > 0;
  std::optional<Duration> limit;
  if (waits && options.waitSeconds > 0) limit = seconds(options.waitSeconds);

  const auto start = std::chrono::steady_clock::now();
  const auto result = service->ask({{"command", "sync"}}, limit);
  if (!result) return std::unexpected(result.error());
  if (waits) {
    auto done = waitForTransfers(context, *service, start, limit);
    context.console.showProgress("");
    if (!done) return done;
  }
  if (options.json) context.console.print(json::serialize(*result));
  return {};
}

}  // namespace

void addSync(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<SyncOptions>();
  auto* command = app.add_subcommand("sync", "Take over the server's changes now");
  options->wait = command
                      ->add_option("--wait", options->waitSeconds,
                                   "Wait until nothing is running any more, at most so many seconds if given")
                      ->expected(0, 1)
                      ->check(CLI::NonNegativeNumber);
  command->add_flag("--json", options->json, "Report as JSON");
  command->callback([&context, &chosen, options] { chosen = [&context, options] { return sync(context, *options); }; });
}

}  // namespace vondle
