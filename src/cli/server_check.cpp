#include "cli/server_check.h"

#include <future>

#include <fmt/format.h>

#include "api/api_error.h"
#include "api/vondle_api.h"
#include "config/client_header.h"
#include "config/config_loader.h"

namespace vondle {

Failure failureOf(const Error& error) {
  if (error.isIn(URL_ERROR_DOMAIN)) {
    return {ExitCode::serverUnreachable, "the server cannot be reached: " + error.localizedDescription()};
  }
  const auto apiError = APIError::from(error);
  if (!apiError) return {ExitCode::failed, error.localizedDescription()};
  switch (apiError->kind) {
    case APIError::Kind::notConfigured:
      return {ExitCode::notConfigured, "no account is set up; sign in with \"vondle login\""};
    case APIError::Kind::badResponse:
      if (apiError->status == 401 || apiError->status == 403) {
        return {ExitCode::notAuthenticated, "the server does not accept the key"};
      }
      return {ExitCode::failed,
              fmt::format("the server answered in a way that is not understood (HTTP {}); is its address right?",
                          apiError->status)};
    case APIError::Kind::malformed:
      return {ExitCode::failed, "the server's answer is not understood; is its address right?"};
  }
  return {ExitCode::failed, error.localizedDescription()};
}

Outcome<void> checkWithServer(const Platform& platform) {
  ConfigLoader config(platform.files, platform.keychain, Paths(platform.users));
  VondleAPI api(platform.urlLoading, platform.clock, config, vondleClientHeader(platform.bundle));
  std::promise<Result<ChangeSet>> answer;
  api.changes(0, 0, [&](Result<ChangeSet> changes) { answer.set_value(std::move(changes)); });
  const auto changes = answer.get_future().get();
  if (!changes) return std::unexpected(failureOf(changes.error()));
  return {};
}

}  // namespace vondle
