#include "cli/service_program.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace vondle {

namespace {

// The texts must outlive the result.
std::vector<char*> argumentsOf(std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (auto& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  return arguments;
}

Failure notStarted(const std::string& program, int number) {
  return {ExitCode::failed, program + " cannot be started: " + std::strerror(number)};
}

}  // namespace

Outcome<int> runProgram(const std::vector<std::string>& command) {
  auto texts = command;
  auto arguments = argumentsOf(texts);
  pid_t process = -1;
  if (const int error = ::posix_spawn(&process, arguments[0], nullptr, nullptr, arguments.data(), environ)) {
    return std::unexpected(notStarted(command[0], error));
  }
  int status = 0;
  while (::waitpid(process, &status, 0) < 0) {
    if (errno != EINTR) return fail(ExitCode::failed, std::string("waiting for a program: ") + std::strerror(errno));
  }
  if (!WIFEXITED(status)) return fail(ExitCode::failed, command[0] + " was ended by a signal");
  return WEXITSTATUS(status);
}

Failure becomeProgram(const std::vector<std::string>& command) {
  auto texts = command;
  auto arguments = argumentsOf(texts);
  ::execv(arguments[0], arguments.data());
  return notStarted(command[0], errno);
}

}  // namespace vondle
