#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <systemd/sd-daemon.h>

#include "platform/bundle.h"
#include "platform/linux/dbus_desktop_notices.h"
#include "platform/linux/linux_user_database.h"
#include "platform/visible_text.h"
#include "service/service_folders.h"
#include "service/service_log_file.h"
#include "service/service_settings.h"
#include "service/supervisor.h"
#include "service/worker.h"

namespace vondle {

namespace {

struct Arguments {
  std::string mount;
  bool foreground = false;
  bool readOnly = false;
  int statusDescriptor = -1;  // of the worker
};

constexpr int FAILED = 1;
constexpr int USAGE = 2;

void say(std::string_view text) {
  std::cerr << "vondle-service: " << visibleText(text) << std::endl;
}

// What the process that was started waits for, in a line: that the folder answers, or why it does not.
class Launch {
 public:
  // Forks: the parent stays with the terminal and ends when the folder answers or cannot; the child goes on as a
  // daemon. Returns in the child only.
  static Launch intoBackground(const ServiceFolders& folders) {
    ::close_range(3, ~0U, 0);  // whatever the caller left open, it is not for a daemon to keep
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
      std::perror("pipe");
      ::_exit(FAILED);
    }
    const pid_t child = ::fork();
    if (child < 0) {
      std::perror("fork");
      ::_exit(FAILED);
    }
    if (child > 0) {
      ::close(pipe[1]);
      waitFor(pipe[0]);
    }
    ::close(pipe[0]);
    ::setsid();
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    sendLogToFile(folders.logFile());
    [[maybe_unused]] const int there = ::chdir("/");
    return Launch(pipe[1]);
  }
  static Launch inForeground() { return Launch(-1); }

  void ready() {
    ::sd_notify(0, "READY=1");
    answer("");
  }
  void refused(const std::string& reason) {
    say(reason);
    answer(reason);
  }

 private:
  explicit Launch(int answer) : answer_(answer) {}

  void answer(std::string_view reason) {
    if (answer_ < 0) return;
    const auto line = (reason.empty() ? std::string("+") : "-" + std::string(reason));
    [[maybe_unused]] const auto written = ::write(answer_, line.data(), line.size());
    ::close(std::exchange(answer_, -1));
  }

  [[noreturn]] static void waitFor(int answer) {
    std::string text;
    std::array<char, 4096> bytes{};
    while (true) {
      const auto count = ::read(answer, bytes.data(), bytes.size());
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) break;
      text.append(bytes.data(), static_cast<std::size_t>(count));
    }
    if (text.starts_with('+')) ::_exit(0);
    say(text.starts_with('-') ? text.substr(1) : "the service ended while it was starting; its log says more");
    ::_exit(FAILED);
  }

  int answer_;
};

int supervise(const Arguments& arguments, const ServiceFolders& folders) {
  // Into the background first: the supervisor's signals and children are its own.
  auto launch = arguments.foreground ? Launch::inForeground() : Launch::intoBackground(folders);
  std::vector<std::string> command = {programPath(), "--mount", arguments.mount};
  if (arguments.readOnly) command.emplace_back("--read-only");
  Supervisor supervisor(std::move(command), {.ready = [&] { launch.ready(); },
                                             .refused = [&](const std::string& reason) { launch.refused(reason); },
                                             .ended = [](const std::string& line) { say(line); },
                                             .stopping = [] { ::sd_notify(0, "STOPPING=1"); }});
  return supervisor.run();
}

int run(int argc, char** argv) {
  Arguments arguments;
  CLI::App app("Serves a Vondle account as a folder; \"vondle mount\" starts it.", "vondle-service");
  app.set_version_flag("--version", bundleInformation().text("CFBundleShortVersionString").value_or("0"));
  app.add_option("--mount", arguments.mount, "The folder: empty, or made if missing (default: as set, else ~/Vondle)");
  app.add_flag("--foreground", arguments.foreground, "Stay in the foreground, with the log on standard error");
  app.add_flag("--read-only", arguments.readOnly, "Refuse changes");
  app.add_option("--status-descriptor", arguments.statusDescriptor)->group("");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : USAGE;
  }
  const LinuxUserDatabase users;
  const auto folders = ServiceFolders::locate(users, runtimeFolderOfEnvironment());
  const auto settings = ServiceSettings::load(folders.settingsFile(), folders.home);
  if (!settings) {
    say(settings.error().localizedDescription());
    return FAILED;
  }
  if (arguments.mount.empty()) arguments.mount = settings->mount.value_or(folders.defaultMountPoint());
  arguments.mount = std::filesystem::absolute(arguments.mount).lexically_normal();
  if (arguments.mount.size() > 1 && arguments.mount.ends_with('/')) arguments.mount.pop_back();
  if (arguments.statusDescriptor >= 0) {
    runWorker({.mountPath = arguments.mount,
               .name = settings->name,
               .readOnly = arguments.readOnly || settings->readOnly,
               .localOnly = settings->localOnly,
               .cache = settings->cache,
               .thumbnails = settings->thumbnails,
               .thumbnailFailures = settings->thumbnailFailures,
               .desktop = settings->notices ? std::make_shared<DBusDesktopNotices>() : nullptr},
              arguments.statusDescriptor);
  }
  if (const auto made = folders.create(); !made) {
    say(made.error().localizedDescription());
    return FAILED;
  }
  return supervise(arguments, folders);
}

}  // namespace

}  // namespace vondle

int main(int argc, char** argv) {
  return vondle::run(argc, argv);
}
