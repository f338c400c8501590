#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "fileprovider/item.h"

namespace vondle {

// Gives what lies in the trash names that can stand in one folder, each another: the item's own, mapped like every
// impossible name, or with a number before its extension ("name 2.ext") when that is taken. An item keeps its name
// until it is forgotten, and what comes later goes round it. Names are short enough for a suffix of their own. Not
// thread-safe.
class TrashNames {
 public:
  // The longest name, in bytes.
  static constexpr std::size_t MAX_NAME = 245;

  // The item's name, which it is given if it has none.
  const std::string& nameOf(const ItemIdentifier& item, std::string_view serverName, bool isFolder);
  // A program has chosen the name. False when another item has it.
  bool give(const ItemIdentifier& item, const std::string& name);
  // It has got another identifier.
  void rename(const ItemIdentifier& from, const ItemIdentifier& to);
  void forget(const ItemIdentifier& item);
  [[nodiscard]] bool isTaken(const std::string& name) const { return owners_.contains(name); }

 private:
  std::unordered_map<std::string, std::string> names_;   // by identifier
  std::unordered_map<std::string, std::string> owners_;  // by name
  std::unordered_map<std::string, unsigned> next_;       // the number to try next, by name
};

// The name with the number before its extension, cut to fit.
[[nodiscard]] std::string numberedName(std::string_view name, bool isFolder, unsigned number, std::size_t room);

}  // namespace vondle
