#pragma once

#include "platform/user_database.h"

namespace vondle {

// The machine's user database, by the real user id.
class LinuxUserDatabase : public UserDatabase {
 public:
  std::optional<std::string> homeOfCurrentUser() const override;
  std::string fallbackHome() const override;
};

}  // namespace vondle
