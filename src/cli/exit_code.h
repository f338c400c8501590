#pragma once

#include <expected>
#include <string>

namespace vondle {

// What the command's exit status means to scripts.
enum class ExitCode : int {
  ok = 0,
  failed = 1,
  usage = 2,
  notConfigured = 3,
  serviceNotRunning = 4,
  serverUnreachable = 5,
  notAuthenticated = 6,
  noSuchItem = 7,
  workLeft = 8,
};

// Why a command did not do what it was asked to, in words that say what to do.
struct Failure {
  ExitCode code = ExitCode::failed;
  std::string message;
};

template <class T>
using Outcome = std::expected<T, Failure>;

inline std::unexpected<Failure> fail(ExitCode code, std::string message) {
  return std::unexpected(Failure{code, std::move(message)});
}

}  // namespace vondle
