#pragma once

#include <string>
#include <string_view>

#include "platform/user_database.h"

namespace vondle {

// The group whose container this extension and its companion share.
inline constexpr std::string_view APPLICATION_GROUP = "group.com.ferrow.vondle";

// The fixed places below the user's home folder: the one of the user database, so that every process of the user's
// finds the same files whatever its environment says; the process's own idea of it only where the database has none.
class Paths {
 public:
  explicit Paths(const UserDatabase& users);

  [[nodiscard]] const std::string& home() const { return home_; }
  [[nodiscard]] std::string folder() const { return home_ + "/.vondle"; }
  [[nodiscard]] std::string config() const { return folder() + "/config.json"; }
  // Exists once the key has been read from the keychain.
  [[nodiscard]] std::string keychainMarker() const { return folder() + "/keychain_ok"; }

 private:
  std::string home_;
};

// Everything before the last "/"; "" (the root) where there is none.
std::string parentOfPath(std::string_view path);

}  // namespace vondle
