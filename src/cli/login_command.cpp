#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>

#include "cli/commands.h"
#include "cli/service_connection.h"
#include "config/server_migration.h"
#include "platform/url.h"
#include "service/replica/replica_store.h"

namespace vondle {

namespace {

struct LoginOptions {
  std::string server;
  std::string keyFile;
};

constexpr std::size_t MAX_KEY = 4096;
constexpr Duration TIME_FOR_SERVICE = seconds(2);
constexpr int ITEMS_TO_TELL_BY = 5;

Outcome<std::string> readKeyText(const CommandContext& context, const std::string& keyFile) {
  if (keyFile.empty()) return context.readSecret("Account key: ");
  if (keyFile == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  auto bytes = context.platform.files.read(keyFile);
  if (!bytes) return fail(ExitCode::failed, "the key cannot be read: " + bytes.error().localizedDescription());
  return std::move(*bytes);
}

// The key goes into a header line: it is one word of visible ASCII characters.
Outcome<std::string> readKey(const CommandContext& context, const std::string& keyFile) {
  auto text = readKeyText(context, keyFile);
  if (!text) return text;
  constexpr std::string_view BLANKS = " \t\r\n";
  text->erase(0, std::min(text->find_first_not_of(BLANKS), text->size()));
  text->erase(text->find_last_not_of(BLANKS) + 1);
  if (text->empty()) return fail(ExitCode::usage, "the key is empty");
  if (text->size() > MAX_KEY) return fail(ExitCode::usage, "the key is too long; is this the right file?");
  if (!std::ranges::all_of(*text, [](unsigned char c) { return c > ' ' && c < 0x7f; })) {
    return fail(ExitCode::usage, "the key must be one word; is this the right file?");
  }
  return text;
}

Outcome<std::string> chooseServer(const CommandContext& context, const std::string& asked) {
  const ServerMigration directory(context.platform.files);
  const auto known = context.account().summary();
  if (!known) return fail(ExitCode::failed, known.error().localizedDescription());
  auto server = directory.normaliseServer(asked.empty() ? known->server.value_or("") : asked);
  const auto parts = parseURL(server);
  if (!parts || parts->host.empty() || (parts->scheme != "https" && parts->scheme != "http")) {
    return fail(ExitCode::usage, "\"" + server + "\" is no server address; it looks like https://cloud.example.com");
  }
  if (isUnprotected(server) && !known->allowsHTTP) {
    return fail(ExitCode::usage, "\"" + server +
                                     "\" would get the key unprotected: use https, or put \"allow_http\": true into " +
                                     context.paths().config());
  }
  return server;
}

// What waits for the account to work again goes on at once.
void tellService(const CommandContext& context) {
  if (auto service = ServiceConnection::open(context.folders.socket())) {
    [[maybe_unused]] const auto answer = service->ask({{"command", "sync"}}, TIME_FOR_SERVICE);
  }
}

// What waits here to be sent must not go to somebody else's account, and nobody is to be shown another's tree. An
// account that has one of the items seen last is the same one, whatever its server's address and its key are now.
Outcome<void> checkIsSameAccount(const CommandContext& context, const Config& account) {
  const auto& replica = context.folders.replicaDatabase();
  if (std::error_code ignored; !std::filesystem::exists(replica, ignored)) return {};
  const auto seen = ReplicaStore::readSomeIdentifiers(replica, ITEMS_TO_TELL_BY);
  if (!seen || seen->empty()) return {};  // one that cannot be read is made anew from the server
  const auto has = context.accountHasOneOf(account, *seen);
  if (!has) return std::unexpected(has.error());
  if (*has) return {};
  return fail(ExitCode::workLeft,
              "this is another account than the one whose files are here; run \"vondle unmount --wait\" and \"vondle "
              "logout\" first, which sends and then removes the local copies");
}

// Before it is stored: a service that runs takes over what is stored at once.
Outcome<void> checkAccount(const CommandContext& context, const Config& account) {
  if (auto checked = context.checkAccount(account); !checked) return checked;
  return checkIsSameAccount(context, account);
}

Outcome<void> login(const CommandContext& context, const LoginOptions& options) {
  const auto server = chooseServer(context, options.server);
  if (!server) return std::unexpected(server.error());
  const auto key = readKey(context, options.keyFile);
  if (!key) return std::unexpected(key.error());

  if (auto checked = checkAccount(context, {.server = *server, .apiKey = *key}); !checked) {
    checked.error().message += "; nothing was changed";
    return checked;
  }
  const auto place = context.account().store(*server, *key);
  if (!place) return fail(ExitCode::failed, "the account could not be stored: " + place.error().localizedDescription());
  context.console.say("signed in to " + *server + "; the key is in " +
                      (*place == KeyPlace::keyring ? "the keyring" : context.paths().config()));
  tellService(context);
  return {};
}

}  // namespace

void addLogin(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<LoginOptions>();
  auto* command = app.add_subcommand("login", "Sign in: store the server and the account key, and check them");
  command->add_option("--server", options->server, "Address of the server (default: the one known)");
  command->add_option("--key-file", options->keyFile,
                      "File to read the key from, - for standard input (default: ask on the terminal)");
  command->callback(
      [&context, &chosen, options] { chosen = [&context, options] { return login(context, *options); }; });
}

}  // namespace vondle
