#include "cli/account.h"

#include <cerrno>

#include "base/json.h"

namespace vondle {

namespace {

Result<void> removeIfThere(Files& files, const std::string& path) {
  auto removed = files.remove(path);
  if (!removed && removed.error().is(POSIX_ERROR_DOMAIN, ENOENT)) return {};
  return removed;
}

}  // namespace

Account::Account(Files& files, Keychain& keychain, const Paths& paths)
    : files_(files), keychain_(keychain), paths_(paths), config_(files, paths.config()) {}

Result<Account::Summary> Account::summary() {
  const auto config = config_.read();
  if (!config) return failure(config.error());
  Summary summary;
  if (const auto server = json::text(*config, "server"); server && !server->empty()) summary.server = *server;
  summary.allowsHTTP = json::boolean(*config, "allow_http").value_or(false);
  const auto keyInFile = json::text(*config, "api_key");
  if (keychain_.readKey())
    summary.key = KeyPlace::keyring;
  else if (keyInFile && !keyInFile->empty())
    summary.key = KeyPlace::file;
  return summary;
}

Result<KeyPlace> Account::store(const std::string& server, const std::string& key) {
  const bool inKeyring = keychain_.saveKey(key, "Vondle") == KEYCHAIN_SUCCESS && keychain_.readKey() == key;
  if (!inKeyring) keychain_.deleteKey();
  const auto written = config_.edit([&](json::Object& config) {
    config["server"] = server;
    if (inKeyring)
      config.erase("api_key");
    else
      config["api_key"] = key;
  });
  if (!written) return failure(written.error());
  return inKeyring ? KeyPlace::keyring : KeyPlace::file;
}

Result<void> Account::forgetKey() {
  keychain_.deleteKey();
  if (auto removed = removeIfThere(files_, paths_.keychainMarker()); !removed) return removed;
  return config_.edit([](json::Object& config) { config.erase("api_key"); });
}

}  // namespace vondle
