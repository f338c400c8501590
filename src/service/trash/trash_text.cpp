#include "service/trash/trash_text.h"

#include <cmath>
#include <ctime>

#include <fmt/format.h>

#include "service/replica/local_name.h"

namespace vondle {
namespace {

bool standsForItself(char character) {
  const bool isLetter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
  const bool isDigit = character >= '0' && character <= '9';
  return isLetter || isDigit || std::string_view("-._~/").contains(character);
}

std::string percentEncodedPath(std::string_view path) {
  std::string text;
  for (const char character : path) {
    if (standsForItself(character))
      text += character;
    else
      text += fmt::format("%{:02X}", static_cast<unsigned char>(character));
  }
  return text;
}

std::string localTime(Timestamp time) {
  const auto seconds = static_cast<time_t>(std::floor(time.secondsSince1970));
  tm parts{};
  ::localtime_r(&seconds, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                     parts.tm_hour, parts.tm_min, parts.tm_sec);
}

}  // namespace

std::string trashFolderName(unsigned user) {
  return fmt::format(".Trash-{}", user);
}

std::string trashInfoText(std::string_view path, Timestamp deleted) {
  return fmt::format("[Trash Info]\nPath={}\nDeletionDate={}\n", percentEncodedPath(path), localTime(deleted));
}

std::string localPath(std::string_view serverPath) {
  std::string path;
  while (true) {
    const auto slash = serverPath.find('/');
    path += localName(serverPath.substr(0, slash), serverPath);
    if (slash == std::string_view::npos) return path;
    path += '/';
    serverPath.remove_prefix(slash + 1);
  }
}

}  // namespace vondle
