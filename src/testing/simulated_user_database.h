#pragma once

#include "platform/user_database.h"

namespace vondle {

// A user database that says what the test wants. Set before use.
class SimulatedUserDatabase : public UserDatabase {
 public:
  std::optional<std::string> home = "/home/tester";
  std::string fallback = "/fallback";

  std::optional<std::string> homeOfCurrentUser() const override { return home; }
  std::string fallbackHome() const override { return fallback; }
};

}  // namespace vondle
