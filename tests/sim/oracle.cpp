#include "oracle.h"

#include <fmt/format.h>

namespace vondle::sim {

void Oracle::saved(const std::string& print, const std::string& how) {
  if (print != EMPTY) must_[print] = how;
}

std::optional<std::string> Oracle::mayGo(const std::string& print) {
  const auto found = must_.extract(print);
  return found ? std::optional(found.mapped()) : std::nullopt;
}

void Oracle::takeBack(const std::string& print, const std::optional<std::string>& how) {
  if (how) must_[print] = *how;
}

void Oracle::removedByProgram(const std::string& id, const std::string& name, const std::string& print) {
  removedIDs_.insert(id);
  removedNames_.insert(name);
  if (!print.empty()) removedPrints_.insert(print);
}

// An item that was new when it was removed has another identifier here, and what was sent of it may be older than what
// was seen last; then its name tells.
void Oracle::checkRemoval(const SimulatedStorage::Stored& item) const {
  if (removedIDs_.contains(item.id) || removedPrints_.contains(item.print) || removedNames_.contains(item.name)) return;
  if (item.name.starts_with(".vondle-")) return;
  throw Violation(
      fmt::format("the service moves “{}” ({}) to the trash, which no program removed", item.path, item.id));
}

void Oracle::check(const std::vector<SimulatedStorage::Stored>& server, const std::set<std::string>& inQueue) const {
  std::set<std::string> there = inQueue;
  for (const auto& item : server) there.insert(item.print);
  for (const auto& [print, how] : must_)
    if (!there.contains(print)) throw Violation(fmt::format("lost: {} ({})", how, print));
}

void Oracle::checkAtEnd(const std::vector<SimulatedStorage::Stored>& server) const {
  std::map<std::string, const SimulatedStorage::Stored*> places;
  for (const auto& item : server)
    if (auto& place = places[item.print]; !place || place->isInTrash) place = &item;
  for (const auto& [print, how] : must_) {
    const auto found = places.find(print);
    if (found == places.end()) throw Violation(fmt::format("lost in the end: {} ({})", how, print));
    const auto& item = *found->second;
    if (!item.isInTrash || trashedByOther_.contains(item.trashedWith)) continue;
    if (removedIDs_.contains(item.id)) continue;
    throw Violation(fmt::format("in the trash only, as “{}”: {} ({})", item.path, how, print));
  }
}

}  // namespace vondle::sim
