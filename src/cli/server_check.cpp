#include "cli/server_check.h"

#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

namespace {

// An account that need not be stored.
class GivenAccount final : public ConfigLoader {
 public:
  GivenAccount(const Platform& platform, Config account)
      : ConfigLoader(platform.files, platform.keychain, Paths(platform.users)), account_(std::move(account)) {}
  std::optional<Config> load() override { return account_; }

 private:
  const Config account_;
};

// The API, one blocking call at a time.
class AccountAPI {
 public:
  AccountAPI(const Platform& platform, const Config& account)
      : config_(platform, account),
        api_(platform.urlLoading, platform.clock, config_, vondleClientHeader(platform.bundle)) {}

  Result<ChangeSet> noChanges() {
    std::promise<Result<ChangeSet>> answer;
    api_.changes(0, 0, [&](Result<ChangeSet> changes) { answer.set_value(std::move(changes)); });
    return answer.get_future().get();
  }

  Result<Entry> item(const std::string& identifier) {
    std::promise<Result<Entry>> answer;
    api_.item(identifier, [&](Result<Entry> entry) { answer.set_value(std::move(entry)); });
    return answer.get_future().get();
  }

 private:
  GivenAccount config_;
  VondleAPI api_;
};

bool meansNoSuchItem(const Error& error) {
  const auto apiError = APIError::from(error);
  return apiError && apiError->kind == APIError::Kind::badResponse &&
         (apiError->status == 404 || apiError->status == 410);
}

}  // namespace

Outcome<void> checkWithServer(const Platform& platform, const Config& account) {
  if (const auto changes = AccountAPI(platform, account).noChanges(); !changes) {
    return std::unexpected(failureOf(changes.error()));
  }
  return {};
}

Outcome<bool> hasOneOf(const Platform& platform, const Config& account, const std::vector<std::string>& identifiers) {
  AccountAPI api(platform, account);
  for (const auto& identifier : identifiers) {
    const auto entry = api.item(identifier);
    if (entry) return true;
    if (!meansNoSuchItem(entry.error())) return std::unexpected(failureOf(entry.error()));
  }
  return false;
}

}  // namespace vondle
