#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/drain.h"
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

// Until when it waits; none: for ever.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;

std::optional<Duration> leftUntil(Deadline deadline) {
  if (!deadline) return std::nullopt;
  return std::max(Duration(0), std::chrono::duration_cast<Duration>(*deadline - std::chrono::steady_clock::now()));
}

Outcome<void> waitForEdits(const CommandContext& context, Deadline deadline) {
  const auto left = drainEdits(context, leftUntil(deadline));
  if (!left) return std::unexpected(left.error());
  if (*left == 0) return {};
  return fail(ExitCode::workLeft,
              countInWords(*left, "change is", "changes are") + " not on the server yet; the service goes on trying");
}

Outcome<void> waitForTransfers(const CommandContext& context, ServiceConnection& service, Deadline deadline) {
  while (true) {
    const auto status = service.ask({{"command", "status"}});
    if (!status) return std::unexpected(status.error());
    const auto* transfers = json::list(*status, "transfers");
    if (!transfers || transfers->empty()) return {};
    const auto left = countInWords(static_cast<std::int64_t>(transfers->size()), "transfer", "transfers");
    context.console.showProgress(left + " running");
    if (deadline && std::chrono::steady_clock::now() >= *deadline) {
      return fail(ExitCode::workLeft, "the time is up with " + left + " still running");
    }
    std::this_thread::sleep_for(POLL);
  }
}

Outcome<void> sync(const CommandContext& context, const SyncOptions& options) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const bool waits = options.wait->count() > 0;
  Deadline deadline;
  if (waits && options.waitSeconds > 0) deadline = std::chrono::steady_clock::now() + seconds(options.waitSeconds);

  const auto result = service->ask({{"command", "sync"}}, leftUntil(deadline));
  if (!result) return std::unexpected(result.error());
  if (waits) {
    auto sent = waitForEdits(context, deadline);
    auto done = waitForTransfers(context, *service, deadline);
    context.console.showProgress("");
    if (!sent) return sent;
    if (!done) return done;
  }
  if (options.json) context.console.print(json::serialize(*result));
  return {};
}

}  // namespace

void addSync(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<SyncOptions>();
  auto* command = app.add_subcommand("sync", "Take over the server's changes and send the own ones now");
  options->wait = command
                      ->add_option("--wait", options->waitSeconds,
                                   "Wait until everything is sent and nothing is running any more, at most so many "
                                   "seconds if given")
                      ->expected(0, 1)
                      ->check(CLI::NonNegativeNumber);
  command->add_flag("--json", options->json, "Report as JSON");
  command->callback([&context, &chosen, options] { chosen = [&context, options] { return sync(context, *options); }; });
}

}  // namespace vondle
