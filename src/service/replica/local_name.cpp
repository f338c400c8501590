#include "service/replica/local_name.h"

#include <algorithm>

#include <fmt/format.h>

#include "base/utf8.h"
#include "service/stable_hash.h"

namespace vondle {
namespace {

constexpr std::string_view TAG_MARK = "%#";
constexpr std::size_t MAX_EXTENSION = 16;  // of a cut name, bytes with the dot; a longer one is no extension

// The text with what cannot stand written in hexadecimal, as far as it fits: a character is never cut.
std::string escaped(std::string_view text, std::size_t room) {
  std::string result;
  while (!text.empty()) {
    const auto length = firstUTF8Character(text).length;
    const bool stands = length != 0 && text[0] != '%' && text[0] != '/' && text[0] != '\0';
    const auto piece =
        stands ? std::string(text.substr(0, length)) : fmt::format("%{:02X}", static_cast<unsigned char>(text[0]));
    if (result.size() + piece.size() > room) break;
    result += piece;
    text.remove_prefix(stands ? length : 1);
  }
  return result;
}

std::string tagged(std::string_view serverName, std::string_view identifier, unsigned attempt) {
  const auto dot = serverName.rfind('.');
  const bool hasExtension = dot != std::string_view::npos && dot != 0 && serverName.size() - dot <= MAX_EXTENSION &&
                            dot + 1 < serverName.size();
  const auto extension = hasExtension ? escaped(serverName.substr(dot), 3 * MAX_EXTENSION) : std::string();
  const auto tag = fmt::format("{}{:016x}", TAG_MARK, stableHash(identifier, std::to_string(attempt)));
  const auto room = MAX_LOCAL_NAME - LOCAL_NAME_MARK.size() - tag.size() - extension.size();
  const auto stem = hasExtension ? serverName.substr(0, dot) : serverName;
  return fmt::format("{}{}{}{}", LOCAL_NAME_MARK, escaped(stem, room), tag, extension);
}

std::string encoded(std::string_view serverName) {
  return std::string(LOCAL_NAME_MARK) + escaped(serverName, std::string_view::npos);
}

}  // namespace

std::optional<NameProblem> nameProblem(std::string_view serverName) {
  if (serverName.empty()) return NameProblem::empty;
  if (serverName == "." || serverName == "..") return NameProblem::dots;
  if (serverName.find('/') != std::string_view::npos || serverName.find('\0') != std::string_view::npos)
    return NameProblem::separator;
  if (!isUTF8(serverName)) return NameProblem::notUTF8;
  if (serverName.starts_with(LOCAL_NAME_MARK)) return NameProblem::reserved;
  if (serverName.size() > MAX_LOCAL_NAME) return NameProblem::tooLong;
  return std::nullopt;
}

std::string localName(std::string_view serverName, std::string_view identifier) {
  if (!nameProblem(serverName)) return std::string(serverName);
  // Only a name that may fit is written out whole: the server's may have megabytes.
  if (serverName.size() <= MAX_LOCAL_NAME)
    if (auto name = encoded(serverName); name.size() <= MAX_LOCAL_NAME) return name;
  return tagged(serverName, identifier, 0);
}

std::string distinctLocalName(std::string_view serverName, std::string_view identifier, unsigned attempt) {
  return tagged(serverName, identifier, attempt + 1);
}

std::optional<std::string> serverName(std::string_view localName) {
  if (localName.size() > MAX_LOCAL_NAME) return std::nullopt;
  if (!localName.starts_with(LOCAL_NAME_MARK))
    return nameProblem(localName) ? std::nullopt : std::optional(std::string(localName));
  std::string name;
  for (auto rest = localName.substr(LOCAL_NAME_MARK.size()); !rest.empty();) {
    if (rest[0] != '%') {
      name += rest[0];
      rest.remove_prefix(1);
      continue;
    }
    const auto digit = [&](std::size_t i) -> int {
      if (i >= rest.size()) return -1;
      if (rest[i] >= '0' && rest[i] <= '9') return rest[i] - '0';
      if (rest[i] >= 'A' && rest[i] <= 'F') return rest[i] - 'A' + 10;
      return -1;
    };
    if (digit(1) < 0 || digit(2) < 0) return std::nullopt;
    name += static_cast<char>(digit(1) * 16 + digit(2));
    rest.remove_prefix(3);
  }
  // One server name has one local name, so anything else that would decode to it is nobody's.
  if (!nameProblem(name) || encoded(name) != localName) return std::nullopt;
  return name;
}

}  // namespace vondle
