#pragma once

#include <optional>
#include <string>

namespace vondle {

// The user database's record of the user that this process runs as. Any thread.
class UserDatabase {
 public:
  virtual ~UserDatabase() = default;
  virtual std::optional<std::string> homeOfCurrentUser() const = 0;  // none: no record, or no home in it
  virtual std::string fallbackHome() const = 0;                      // the process's own idea: $HOME, else "/"
};

}  // namespace vondle
