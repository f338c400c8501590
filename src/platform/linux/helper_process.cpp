#include "platform/linux/helper_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>

namespace vondle {

using std::chrono::steady_clock;

Descriptor::~Descriptor() {
  if (number_ >= 0) close(number_);
}

std::string HelperProcess::besideProgram() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "vondle-preview";
}

std::optional<HelperProcess> HelperProcess::start(const std::string& program, const std::vector<std::string>& arguments,
                                                  int input, int output) {
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  char locale[] = "LC_ALL=C";
  std::array<char*, 2> environment = {locale, nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  const int error = posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), environment.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? std::optional(HelperProcess(pid)) : std::nullopt;
}

HelperProcess::HelperProcess(pid_t pid) : pid_(pid), ended_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}

HelperProcess::HelperProcess(HelperProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), ended_(std::move(other.ended_)) {}

HelperProcess::~HelperProcess() {
  if (pid_ > 0) finish();
}

int HelperProcess::finish() {
  // Until it is waited for, its number, and so that of its group, belongs to nobody else.
  kill(-pid_, SIGKILL);
  int status = 0;
  pid_t waited = 0;
  do waited = waitpid(pid_, &status, 0);
  while (waited < 0 && errno == EINTR);
  pid_ = -1;
  return waited > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool HelperDeadline::waitFor(int descriptor, short events, int event) const {
  std::array<pollfd, 2> watched = {pollfd{descriptor, events, 0}, pollfd{event, POLLIN, 0}};
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - steady_clock::now()).count();
    if (left <= 0) return false;
    const int ready = poll(watched.data(), watched.size(), static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return false;
    if (ready > 0) return watched[1].revents == 0;
  }
}

}  // namespace vondle
