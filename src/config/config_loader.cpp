#include "config/config_loader.h"

#include <utility>

#include "base/json.h"
#include "config/plog.h"
#include "platform/url.h"

namespace vondle {
namespace {

struct Settings {
  std::string server;
  std::optional<std::string> apiKey;
  bool allowHTTP = false;
};

std::optional<Settings> readSettings(Files& files, const std::string& path) {
  const auto bytes = files.read(path);
  if (!bytes) return std::nullopt;
  const auto object = json::parseObject(*bytes);
  if (!object) return std::nullopt;
  const auto server = json::text(*object, "server");
  if (!server || server->empty()) return std::nullopt;
  const auto apiKey = json::text(*object, "api_key");
  return Settings{.server = std::string(*server),
                  .apiKey = apiKey ? std::optional(std::string(*apiKey)) : std::nullopt,
                  .allowHTTP = json::boolean(*object, "allow_http").value_or(false)};
}

}  // namespace

ConfigLoader::ConfigLoader(Files& files, Keychain& keychain, Paths paths, ServerDirectory directory)
    : files_(files), keychain_(keychain), paths_(std::move(paths)), migration_(files, std::move(directory)) {}

std::optional<Config> ConfigLoader::load() {
  auto settings = readSettings(files_, paths_.config());
  if (!settings) {
    plog.error("config unreadable at %{public}@", paths_.config());
    return std::nullopt;
  }
  auto key = findKey(settings->apiKey);
  if (!key) return std::nullopt;
  std::string server = std::move(settings->server);
  while (server.ends_with('/')) server.pop_back();
  server = followMove(std::move(server));
  if (!mayBeAsked(server, settings->allowHTTP)) return std::nullopt;
  return Config{.server = std::move(server), .apiKey = *std::move(key)};
}

bool ConfigLoader::mayBeAsked(const std::string& server, bool allowHTTP) const {
  if (allowHTTP || !isUnprotected(server)) return true;
  plog.error("%{public}@ would get the key unprotected: use https, or put \"allow_http\": true into %{public}@", server,
             paths_.config());
  return false;
}

std::optional<std::string> ConfigLoader::findKey(const std::optional<std::string>& keyInFile) {
  if (auto key = keychain_.readKey()) {
    if (!files_.exists(paths_.keychainMarker())) {
      static_cast<void>(files_.writeAtomically(paths_.keychainMarker(), "ok\n"));
      plog.info("api key read from the keychain");
    }
    return key;
  }
  if (keyInFile && !keyInFile->empty()) return keyInFile;
  plog.error("no api key in keychain or config");
  return std::nullopt;
}

std::string ConfigLoader::followMove(std::string server) {
  auto moved = migration_.migratedServer(server);
  if (!moved) return server;
  if (const auto saved = migration_.migrateSavedServer(paths_.config())) {
    plog.info("moved saved server %{public}@ -> %{public}@", saved->from, saved->to);
  }
  return *std::move(moved);
}

}  // namespace vondle
