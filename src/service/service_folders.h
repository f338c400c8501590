#pragma once

#include <optional>
#include <string>

#include "base/error.h"
#include "platform/user_database.h"

namespace vondle {

// Where the service keeps what it keeps, below the user's real home. Absolute paths without a final slash.
struct ServiceFolders {
  std::string home;
  std::string configuration;  // ~/.vondle
  std::string state;          // ~/.local/state/vondle: what must never be thrown away, and the tree
  std::string contents;       // ~/.local/share/vondle: downloaded contents, which can be had again
  std::string runtime;        // $XDG_RUNTIME_DIR/vondle, else state/run: socket and locks

  // runtimeFolder is the value of XDG_RUNTIME_DIR; one that is empty, relative or not this user's own is left aside.
  static ServiceFolders locate(const UserDatabase& users, const std::optional<std::string>& runtimeFolder);

  // Makes the folders that are missing, 0700, and takes other users' rights from those that exist. A folder of another
  // user is refused, and so is a configuration folder into which others may have put something.
  [[nodiscard]] Result<void> create() const;
  // Makes sure that the configuration, which says where the key is sent to, is this user's own word: one of another
  // user, or in a folder (behind a link) where others can replace it, is refused. One that others have rights to
  // becomes private, which the log tells. None at all is fine.
  [[nodiscard]] Result<void> guardConfiguration() const;

  [[nodiscard]] std::string configurationFile() const { return configuration + "/config.json"; }
  [[nodiscard]] std::string settingsFile() const { return configuration + "/service.json"; }
  [[nodiscard]] std::string stateLock() const { return state + "/lock"; }
  [[nodiscard]] std::string replicaDatabase() const { return state + "/replica.db"; }
  [[nodiscard]] std::string editDatabase() const { return state + "/edits.db"; }
  [[nodiscard]] std::string editedFiles() const { return state + "/edits"; }
  [[nodiscard]] std::string anchorFile() const { return state + "/anchor.json"; }
  [[nodiscard]] std::string contentFiles() const { return contents + "/contents"; }
  [[nodiscard]] std::string socket() const { return runtime + "/control"; }
  [[nodiscard]] std::string logFile() const { return state + "/service.log"; }
  [[nodiscard]] std::string defaultMountPoint() const { return home + "/Vondle"; }
};

// The environment's XDG_RUNTIME_DIR, if set.
std::optional<std::string> runtimeFolderOfEnvironment();

}  // namespace vondle
