#include "platform/files.h"

namespace vondle {

std::optional<Timestamp> Files::modificationTime(const std::string& path) {
  const auto found = attributes(path);
  if (!found) return std::nullopt;
  return found->modified;
}

bool Files::exists(const std::string& path) {
  return attributes(path).has_value();
}

}  // namespace vondle
