#include <filesystem>
#include <iostream>

#include "cli/command_line.h"
#include "cli/server_check.h"
#include "cli/terminal_secret.h"
#include "config/paths.h"
#include "platform/linux/linux_platform.h"
#include "service/supervisor.h"

namespace {

// A command's own log lines are no business of its user's: what matters comes as its message.
class NoLog : public vondle::LogSink {
 public:
  void write(vondle::LogLevel, std::string_view, std::string_view, std::string_view) override {}
};

}  // namespace

int main(int argc, char** argv) {
  vondle::LinuxPlatform machine(vondle::APPLICATION_GROUP);
  NoLog noLog;
  auto* machineLog = vondle::setLogSink(&noLog);
  const auto platform = machine.platform();
  auto console = vondle::Console::standard();
  vondle::CommandContext context{
      .console = console,
      .platform = platform,
      .folders = vondle::ServiceFolders::locate(platform.users, vondle::runtimeFolderOfEnvironment()),
      .serviceProgram = std::filesystem::path(vondle::programPath()).parent_path() / "vondle-service",
      .readSecret = vondle::readSecretFromTerminal,
      .checkAccount = [&platform](const auto& account) { return vondle::checkWithServer(platform, account); },
      .accountHasOneOf = [&platform](
                             const auto& account,
                             const auto& identifiers) { return vondle::hasOneOf(platform, account, identifiers); }};
  const int status = vondle::runCommandLine({argv + 1, argv + argc}, context, std::cout, std::cerr);
  vondle::setLogSink(machineLog);
  return status;
}
