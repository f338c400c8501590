#include "service/supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include <climits>
#include <fmt/format.h>

namespace vondle {

namespace {

// After a request to stop, the worker gets this long to unmount.
constexpr Duration STOP_LIMIT = seconds(30);
// Longer reasons are cut.
constexpr std::size_t MAX_STATUS = 8192;

Duration now() {
  return std::chrono::steady_clock::now().time_since_epoch();
}

constexpr Duration NEVER = Duration::max();

int asPollTimeout(Duration deadline) {
  if (deadline == NEVER) return -1;
  const auto left = deadline - now();
  if (left <= Duration(0)) return 0;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string describe(WorkerEnd end) {
  if (end.exited) return fmt::format("the service ended with status {}", end.status);
  return fmt::format("the service was ended by signal {} ({})", end.status, ::strsignal(end.status));
}

}  // namespace

SupervisorDecision SupervisorPolicy::afterEnd(WorkerEnd end, Duration ranFor, bool stopping) {
  if (end.exited && end.status == WORKER_REFUSED) return {.exitStatus = 1};
  if (stopping || (end.exited && end.status == WORKER_STOPPED)) return {.exitStatus = 0};
  const bool asked = end.exited && end.status == WORKER_ASKED_FOR_RESTART;
  if (asked) {
    fastCrashes_ = 0;
    return {.restart = true, .delay = ranFor < seconds(1) ? seconds(1) : Duration(0)};
  }
  fastCrashes_ = ranFor < FAST ? fastCrashes_ + 1 : 1;
  if (fastCrashes_ > MAX_FAST_CRASHES) return {.exitStatus = 1};
  return {.restart = true, .delay = FIRST_DELAY * (1 << (fastCrashes_ - 1))};
}

struct Supervisor::Worker {
  pid_t process = -1;
  int status = -1;  // reading end of its pipe; -1 once it has been closed
  std::string line;
  Duration started{0};
};

Supervisor::Supervisor(std::vector<std::string> command, Events events)
    : command_(std::move(command)), events_(std::move(events)) {}

Supervisor::Worker Supervisor::start() {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) fail("pipe");
  auto arguments = command_;
  arguments.push_back(fmt::format("--status-descriptor={}", pipe[1]));
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  const pid_t supervisor = ::getpid();
  const pid_t process = ::fork();
  if (process < 0) fail("fork");
  if (process == 0) {
    // The signals stay blocked: the worker takes them from there, so that none is lost in between.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != supervisor) ::_exit(WORKER_STOPPED);
    ::fcntl(pipe[1], F_SETFD, 0);
    ::unsetenv("NOTIFY_SOCKET");
    ::execv(argv[0], argv.data());
    const auto reason = fmt::format("{}{} cannot be started: {}\n", WORKER_REFUSES, command_[0], std::strerror(errno));
    [[maybe_unused]] const auto written = ::write(pipe[1], reason.data(), reason.size());
    ::_exit(WORKER_REFUSED);
  }
  ::close(pipe[1]);
  return {.process = process, .status = pipe[0], .line = {}, .started = now()};
}

void Supervisor::report(std::string_view line) {
  if (line == WORKER_READY) {
    events_.ready();
  } else if (line.starts_with(WORKER_REFUSES)) {
    events_.refused(std::string(line.substr(WORKER_REFUSES.size())));
  }
}

int Supervisor::run() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int signalDescriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signalDescriptor < 0) fail("signalfd");

  SupervisorPolicy policy;
  std::optional<Worker> worker = start();
  Duration startAt = NEVER;
  Duration killAt = NEVER;
  bool stopping = false;

  while (true) {
    std::array<pollfd, 2> wanted = {{{signalDescriptor, POLLIN, 0}, {worker ? worker->status : -1, POLLIN, 0}}};
    ::poll(wanted.data(), wanted.size(), asPollTimeout(std::min(startAt, killAt)));

    if (worker && wanted[1].revents) {
      std::array<char, 1024> bytes{};
      const auto count = ::read(worker->status, bytes.data(), bytes.size());
      if (count > 0 && worker->line.size() < MAX_STATUS) {
        worker->line.append(bytes.data(), static_cast<std::size_t>(count));
      } else if (count == 0) {
        ::close(std::exchange(worker->status, -1));
        report(std::string_view(worker->line).substr(0, worker->line.find('\n')));
      }
    }

    signalfd_siginfo signal{};
    while (::read(signalDescriptor, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
      if (signal.ssi_signo == SIGCHLD) continue;
      if (!std::exchange(stopping, true)) events_.stopping();
      if (!worker) return 0;
      ::kill(worker->process, SIGTERM);
      if (killAt == NEVER) killAt = now() + STOP_LIMIT;
    }
    if (worker && now() >= killAt) {
      ::kill(worker->process, SIGKILL);
      killAt = NEVER;
    }

    int status = 0;
    if (worker && worker->status < 0 && ::waitpid(worker->process, &status, WNOHANG) == worker->process) {
      const WorkerEnd end = WIFEXITED(status) ? WorkerEnd{.exited = true, .status = WEXITSTATUS(status)}
                                              : WorkerEnd{.exited = false, .status = WTERMSIG(status)};
      const auto decision = policy.afterEnd(end, now() - worker->started, stopping);
      worker.reset();
      if (!decision.restart) {
        const bool hasSaidWhy = end.exited && end.status == WORKER_REFUSED;
        if (decision.exitStatus != 0 && !hasSaidWhy) events_.ended(describe(end));
        return decision.exitStatus;
      }
      events_.ended(describe(end) + "; starting it again");
      startAt = now() + decision.delay;
    }
    if (now() >= startAt) {
      startAt = NEVER;
      worker = start();
    }
  }
}

std::string programPath() {
  std::array<char, PATH_MAX> path{};
  const auto length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) fail("/proc/self/exe");
  std::string text(path.data(), static_cast<std::size_t>(length));
  constexpr std::string_view REPLACED = " (deleted)";
  if (text.ends_with(REPLACED)) text.resize(text.size() - REPLACED.size());
  return text;
}

}  // namespace vondle
