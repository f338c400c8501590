#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/drain.h"
#include "cli/service_connection.h"
#include "cli/service_program.h"
#include "cli/words.h"
#include "service/service_settings.h"

namespace vondle {

namespace {

constexpr auto POLL = std::chrono::milliseconds(50);
// What the service gets for its end at least, once it has begun.
constexpr Duration TIME_TO_END = seconds(10);

bool isDeadMount(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) != 0 && errno == ENOTCONN;
}

// A service that was killed leaves its mount behind, which answers nothing.
Outcome<void> removeDeadMount(const CommandContext& context, Failure noService) {
  const auto settings = ServiceSettings::load(context.folders.settingsFile(), context.folders.home);
  const auto folder = settings && settings->mount ? *settings->mount : context.folders.defaultMountPoint();
  if (!isDeadMount(folder)) return std::unexpected(std::move(noService));
  const auto status = runProgram({"/usr/bin/fusermount3", "-u", "-z", "--", folder});
  if (!status) return std::unexpected(status.error());
  if (*status != 0) return fail(ExitCode::failed, folder + " could not be unmounted");
  context.console.say("the service had ended; " + folder + " is unmounted");
  return {};
}

bool hasEnded(pid_t process) {
  return ::kill(process, 0) != 0 && errno == ESRCH;
}

Outcome<void> unmount(const CommandContext& context, double waitSeconds) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return removeDeadMount(context, service.error());
  const auto left = drainEdits(context, seconds(waitSeconds));
  const auto stopping = service->ask({{"command", "stop"}});
  if (!stopping) return std::unexpected(stopping.error());

  const auto process = static_cast<pid_t>(json::integer(*stopping, "pid").value_or(0));
  const auto deadline = std::chrono::steady_clock::now() + std::max(seconds(waitSeconds), TIME_TO_END);
  while (process > 0 && !hasEnded(process)) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return fail(ExitCode::workLeft, "the service is still unmounting; it goes on by itself");
    }
    std::this_thread::sleep_for(POLL);
  }
  context.console.say("unmounted");
  if (left && *left == 0) return {};
  const auto what =
      left ? countInWords(*left, "change is", "changes are") : std::string("what was changed last may be");
  return fail(ExitCode::workLeft, what + " kept here and not on the server yet; sent when it is mounted again");
}

}  // namespace

void addUnmount(CLI::App& app, CommandContext& context, Command& chosen) {
  auto waitSeconds = std::make_shared<double>(30);
  auto* command = app.add_subcommand("unmount", "Take the folder away and end the service");
  command->add_option("--wait", *waitSeconds, "Send what is not on the server yet for at most so many seconds (30)")
      ->check(CLI::Range(0.0, 1e6));
  command->callback([&context, &chosen, waitSeconds] {
    chosen = [&context, waitSeconds] { return unmount(context, *waitSeconds); };
  });
}

}  // namespace vondle
