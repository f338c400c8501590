#include "config/paths.h"

namespace vondle {

Paths::Paths(const UserDatabase& users) : home_(users.homeOfCurrentUser().value_or(std::string())) {
  if (home_.empty()) home_ = users.fallbackHome();
}

std::string parentOfPath(std::string_view path) {
  const auto slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? std::string_view() : path.substr(0, slash));
}

}  // namespace vondle
