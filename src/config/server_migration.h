#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "config/server_directory.h"
#include "platform/files.h"

namespace vondle {

// Takes users whose configuration names a host that the service has left to where it is now. Any thread.
class ServerMigration {
 public:
  struct Move {
    std::string from;
    std::string to;
    friend bool operator==(const Move&, const Move&) = default;
  };

  explicit ServerMigration(Files& files, ServerDirectory directory = ServerDirectory::ofThisBuild());

  // Without blanks around it, with a scheme, without "/" at the end; the default server for a blank text.
  [[nodiscard]] std::string normaliseServer(std::string_view text) const;
  // The address to use instead; none when the text does not name a retired host.
  [[nodiscard]] std::optional<std::string> migratedServer(std::string_view text) const;
  // Rewrites "server" in the configuration file, which then is readable by its owner alone; none when nothing was
  // rewritten. The file stays as it was when anything fails; permissions that can't be set are not reported, as the
  // rewrite has happened and a new file is 0600 anyway.
  std::optional<Move> migrateSavedServer(const std::string& configPath);

 private:
  Files& files_;
  const ServerDirectory directory_;
};

}  // namespace vondle
