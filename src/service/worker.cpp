#include "service/worker.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>

#include "config/paths.h"
#include "platform/linux/linux_platform.h"
#include "provider/process.h"
#include "service/supervisor.h"

namespace vondle {

namespace {

void tellSupervisor(int descriptor, std::string line) {
  std::ranges::replace(line, '\n', ' ');
  line += '\n';
  [[maybe_unused]] const auto written = ::write(descriptor, line.data(), line.size());
  ::close(descriptor);
}

// Both the control socket and the end of the mount come here; signals of the process wait for sigwait.
void askToStop() {
  ::kill(::getpid(), SIGTERM);
}

}  // namespace

void runWorker(const ServiceOptions& options, int statusDescriptor) {
  ::fcntl(statusDescriptor, F_SETFD, FD_CLOEXEC);
  std::signal(SIGPIPE, SIG_IGN);
  LinuxPlatform machine(APPLICATION_GROUP);
  const auto platform = machine.platform();
  Process process(platform);
  const auto folders = ServiceFolders::locate(platform.users, runtimeFolderOfEnvironment());

  auto service = Service::start(
      options, folders, platform,
      [&](Domain domain, ManagerForDomain manager) {
        return process.makeExtension(std::move(domain), std::move(manager));
      },
      askToStop);
  if (!service) {
    tellSupervisor(statusDescriptor, std::string(WORKER_REFUSES) + service.error().localizedDescription());
    ::_exit(WORKER_REFUSED);
  }
  tellSupervisor(statusDescriptor, std::string(WORKER_READY));

  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  int received = 0;
  ::sigwait(&signals, &received);
  (*service)->stop();
  ::_exit(WORKER_STOPPED);
}

}  // namespace vondle
