#include "service/edits/conflicted_name.h"

#include <algorithm>

#include <fmt/format.h>

#include "base/utf8.h"
#include "service/replica/local_name.h"

namespace vondle {
namespace {

constexpr std::string_view MARK = " (conflicted copy";
constexpr std::size_t MAX_EXTENSION = 32;  // bytes with the dot; a longer one is no extension

std::string_view extensionOf(std::string_view name, bool isFolder) {
  const auto dot = name.rfind('.');
  const bool isNone = isFolder || dot == std::string_view::npos || dot == 0 || name.size() - dot > MAX_EXTENSION;
  return isNone ? std::string_view() : name.substr(dot);
}

std::string_view withoutMark(std::string_view stem) {
  const auto mark = stem.rfind(MARK);
  if (mark == std::string_view::npos || mark == 0 || !stem.ends_with(')')) return stem;
  auto number = stem.substr(mark + MARK.size());
  number.remove_suffix(1);
  const bool isOurs =
      number.empty() || (number.size() > 1 && number[0] == ' ' &&
                         std::ranges::all_of(number.substr(1), [](char c) { return c >= '0' && c <= '9'; }));
  return isOurs ? stem.substr(0, mark) : stem;
}

// At most so many bytes, and no part of a character.
std::string_view cut(std::string_view text, std::size_t room) {
  std::size_t length = 0;
  while (length < text.size()) {
    const auto next = std::max<std::size_t>(1, firstUTF8Character(text.substr(length)).length);
    if (length + next > room) break;
    length += next;
  }
  return text.substr(0, length);
}

}  // namespace

std::string conflictedName(std::string_view name, bool isFolder, unsigned number) {
  const auto extension = extensionOf(name, isFolder);
  const auto stem = withoutMark(name.substr(0, name.size() - extension.size()));
  const auto mark = number == 1 ? fmt::format("{})", MARK) : fmt::format("{} {})", MARK, number);
  return fmt::format("{}{}{}", cut(stem, MAX_LOCAL_NAME - mark.size() - extension.size()), mark, extension);
}

}  // namespace vondle
