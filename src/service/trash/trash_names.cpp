#include "service/trash/trash_names.h"

#include <utility>

#include <fmt/format.h>

#include "base/utf8.h"
#include "service/replica/local_name.h"

namespace vondle {
namespace {

constexpr std::size_t MAX_EXTENSION = 32;  // with the dot; a longer one is no extension

// At most so many bytes of it, never part of a character.
std::string_view cut(std::string_view text, std::size_t room) {
  std::size_t length = 0;
  while (length < text.size()) {
    const auto character = firstUTF8Character(text.substr(length)).length;
    if (character == 0 || length + character > room) break;
    length += character;
  }
  return text.substr(0, length);
}

}  // namespace

std::string numberedName(std::string_view name, bool isFolder, unsigned number, std::size_t room) {
  const auto dot = name.rfind('.');
  const bool hasExtension =
      !isFolder && dot != std::string_view::npos && dot != 0 && name.size() - dot <= MAX_EXTENSION;
  const auto extension = hasExtension ? name.substr(dot) : std::string_view();
  const auto suffix = number > 1 ? fmt::format(" {}{}", number, extension) : std::string(extension);
  return fmt::format("{}{}", cut(hasExtension ? name.substr(0, dot) : name, room - suffix.size()), suffix);
}

const std::string& TrashNames::nameOf(const ItemIdentifier& item, std::string_view serverName, bool isFolder) {
  const auto [known, isNew] = names_.try_emplace(item.text);
  if (!isNew) return known->second;
  const auto wanted = localName(serverName, item.text);
  auto name = numberedName(wanted, isFolder, 1, MAX_NAME);
  if (owners_.contains(name)) {
    auto& next = next_.try_emplace(name, 2U).first->second;
    const auto plain = name;
    do name = numberedName(plain, isFolder, next++, MAX_NAME);
    while (owners_.contains(name));
  }
  owners_[name] = item.text;
  return known->second = std::move(name);
}

bool TrashNames::give(const ItemIdentifier& item, const std::string& name) {
  const auto [owner, isFree] = owners_.try_emplace(name, item.text);
  if (!isFree) return owner->second == item.text;
  if (const auto former = names_.find(item.text); former != names_.end()) owners_.erase(former->second);
  names_[item.text] = name;
  return true;
}

void TrashNames::rename(const ItemIdentifier& from, const ItemIdentifier& to) {
  auto known = names_.extract(from.text);
  if (!known) return;
  owners_[known.mapped()] = to.text;
  known.key() = to.text;
  names_.insert(std::move(known));
}

void TrashNames::forget(const ItemIdentifier& item) {
  const auto known = names_.find(item.text);
  if (known == names_.end()) return;
  next_.erase(known->second);
  owners_.erase(known->second);
  names_.erase(known);
}

}  // namespace vondle
