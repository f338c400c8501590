#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/json.h"
#include "base/time.h"
#include "cli/exit_code.h"
#include "service/control/control_client.h"

namespace vondle {

// The running service, as a command sees it: its failures become exit codes.
class ServiceConnection {
 public:
  // serviceNotRunning when there is none.
  static Outcome<ServiceConnection> open(const std::string& socketPath);

  Outcome<json::Object> ask(const json::Object& request, std::optional<Duration> timeLimit = std::nullopt,
                            const std::function<void(const json::Object&)>& progress = {});

 private:
  explicit ServiceConnection(ControlClient client) : client_(std::move(client)) {}
  ControlClient client_;
};

// The exit code for a code of the control protocol.
ExitCode exitCodeFor(std::string_view controlCode);

}  // namespace vondle
