#include "config/server_migration.h"

#include <algorithm>
#include <array>
#include <ranges>
#include <utility>

#include "base/json.h"
#include "platform/url.h"

namespace vondle {
namespace {

// White space and line breaks, Unicode's included, as UTF-8.
constexpr std::array<std::string_view, 25> BLANKS = {
    " ",      "\t",     "\n",     "\v",     "\f",     "\r",     "\u0085", "\u00A0", "\u1680",
    "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005", "\u2006", "\u2007", "\u2008",
    "\u2009", "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};

std::string_view trimmed(std::string_view text) {
  const auto removeOne = [&text](auto isAtEdge, auto remove) {
    const auto* const blank = std::ranges::find_if(BLANKS, [&](std::string_view b) { return isAtEdge(text, b); });
    if (blank == BLANKS.end()) return false;
    remove(text, blank->size());
    return true;
  };
  while (removeOne([](auto t, auto b) { return t.starts_with(b); }, [](auto& t, auto n) { t.remove_prefix(n); })) {
  }
  while (removeOne([](auto t, auto b) { return t.ends_with(b); }, [](auto& t, auto n) { t.remove_suffix(n); })) {
  }
  return text;
}

std::string lowerCase(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

}  // namespace

ServerMigration::ServerMigration(Files& files, ServerDirectory directory)
    : files_(files), directory_(std::move(directory)) {}

std::string ServerMigration::normaliseServer(std::string_view text) const {
  text = trimmed(text);
  if (text.empty()) return directory_.defaultServer;
  std::string server(text);
  if (!server.contains("://")) server.insert(0, "https://");
  while (server.ends_with('/')) server.pop_back();
  return server;
}

std::optional<std::string> ServerMigration::migratedServer(std::string_view text) const {
  if (trimmed(text).empty()) return std::nullopt;
  std::string host = lowerCase(hostOf(normaliseServer(text)));
  if (host.ends_with('.')) host.pop_back();
  if (!directory_.retiredHosts.contains(host)) return std::nullopt;
  return directory_.defaultServer;
}

std::optional<ServerMigration::Move> ServerMigration::migrateSavedServer(const std::string& configPath) {
  const auto bytes = files_.read(configPath);
  if (!bytes) return std::nullopt;
  auto settings = json::parseObject(*bytes);
  if (!settings) return std::nullopt;
  const auto saved = json::text(*settings, "server");
  if (!saved) return std::nullopt;
  const std::string from(*saved);
  const auto to = migratedServer(from);
  if (!to || *to == from) return std::nullopt;
  (*settings)["server"] = *to;
  if (!files_.writeAtomically(configPath, json::serializePretty(*settings))) return std::nullopt;
  static_cast<void>(files_.setPermissions(configPath, 0600));
  return Move{.from = from, .to = *to};
}

}  // namespace vondle
