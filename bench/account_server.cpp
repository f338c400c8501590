#include <charconv>
#include <csignal>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "account.h"
#include "testing/http_test_server.h"

// Serves the account of account.h to whoever asks, until it is told to end: account_server. Says where it listens.

namespace vondle::bench {
namespace {

constexpr std::string_view FOLDER_PREFIX = "folder-";

// The value of the query's "id".
std::string_view identifierIn(std::string_view target) {
  const auto start = target.find("id=");
  if (start == std::string_view::npos) return {};
  const auto value = target.substr(start + 3);
  return value.substr(0, value.find('&'));
}

std::optional<int> folderNumber(std::string_view identifier) {
  if (!identifier.starts_with(FOLDER_PREFIX)) return std::nullopt;
  identifier.remove_prefix(FOLDER_PREFIX.size());
  int number = 0;
  const auto [end, error] = std::from_chars(identifier.data(), identifier.data() + identifier.size(), number);
  if (error != std::errc() || end != identifier.data() + identifier.size() || number < 0 || number >= FOLDERS)
    return std::nullopt;
  return number;
}

void browse(HttpTestExchange& exchange) {
  const auto identifier = identifierIn(exchange.target);
  if (identifier == "root") return exchange.reply(200, topListingReply());
  const auto folder = folderNumber(identifier);
  if (!folder) return exchange.reply(404, R"({"error":"there is no such folder"})");
  exchange.reply(200, listingReply(*folder, filesIn(*folder)));
}

int run() {
  sigset_t ends;
  sigemptyset(&ends);
  for (const int signal : {SIGTERM, SIGINT}) sigaddset(&ends, signal);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  HttpTestServer server;
  server.handle("/vondle/api/browse", browse);
  server.handle("/vondle/api/changes", [](HttpTestExchange& exchange) {
    exchange.reply(200, R"({"changes":[],"seq":1,"head":1,"more":false})");
  });
  fmt::print("listening on {}\n", server.url(""));
  std::fflush(stdout);
  int received = 0;
  ::sigwait(&ends, &received);
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main() {
  return vondle::bench::run();
}
