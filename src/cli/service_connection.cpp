#include "cli/service_connection.h"

#include <cerrno>

#include "service/control/control_protocol.h"

namespace vondle {

ExitCode exitCodeFor(std::string_view controlCode) {
  if (controlCode == control::CODE_NO_SUCH_ITEM) return ExitCode::noSuchItem;
  if (controlCode == control::CODE_UNREACHABLE) return ExitCode::serverUnreachable;
  if (controlCode == control::CODE_NOT_AUTHENTICATED) return ExitCode::notAuthenticated;
  if (controlCode == control::CODE_NOT_CONFIGURED) return ExitCode::notConfigured;
  if (controlCode == control::CODE_UNFINISHED) return ExitCode::workLeft;
  return ExitCode::failed;
}

Outcome<ServiceConnection> ServiceConnection::open(const std::string& socketPath) {
  auto client = ControlClient::connect(socketPath);
  if (client) return ServiceConnection(std::move(*client));
  if (client.error().is(POSIX_ERROR_DOMAIN, ENOENT) || client.error().is(POSIX_ERROR_DOMAIN, ECONNREFUSED)) {
    return fail(ExitCode::serviceNotRunning, "the service is not running; start it with \"vondle mount\"");
  }
  return fail(ExitCode::failed, client.error().localizedDescription());
}

Outcome<json::Object> ServiceConnection::ask(const json::Object& request, std::optional<Duration> timeLimit,
                                             const std::function<void(const json::Object&)>& progress) {
  auto reply = client_.request(request, timeLimit, progress);
  if (reply) return std::move(*reply);
  const auto& error = reply.error();
  if (error.isIn(ControlClient::ERROR_DOMAIN)) return fail(exitCodeFor(client_.lastCode()), error.description);
  if (error.is(POSIX_ERROR_DOMAIN, ETIMEDOUT)) return fail(ExitCode::workLeft, "the time is up, work is left undone");
  return fail(ExitCode::serviceNotRunning, "the service ended before it answered");
}

}  // namespace vondle
