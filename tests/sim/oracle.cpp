#include "oracle.h"

#include <fmt/format.h>

namespace vondle::sim {

void Oracle::saved(const std::string& print, const std::string& how) {
  if (print == EMPTY) return;
  must_[print] = how;
  loose_.erase(print);
}

void Oracle::mayGo(const std::string& print) {
  if (const auto found = must_.extract(print)) loose_[print].how = found.mapped();
  if (const auto loose = loose_.find(print); loose != loose_.end()) ++loose->second.times;
}

void Oracle::takeBack(const std::string& print) {
  const auto loose = loose_.find(print);
  if (loose == loose_.end() || --loose->second.times > 0) return;
  must_[print] = loose->second.how;
  loose_.erase(loose);
}

void Oracle::removalBegins(const ItemIdentifier& item, const std::optional<Edit>& edit, const Place& place) {
  removed_.insert(item.text);
  gone_.insert(item.text);
  if (edit) removals_.insert(edit->id);
  removing_.emplace(place.folder.text, place.name);
}

void Oracle::removalEnds(const std::optional<Place>& place, const std::vector<Edit>& queue) {
  noteDeletions(queue);
  if (!place) return;
  if (const auto found = removing_.find({place->folder.text, place->name}); found != removing_.end())
    removing_.erase(found);
}

void Oracle::removalsEnd(const std::vector<Edit>& queue) {
  noteDeletions(queue);
  removing_.clear();
}

// An item that was new when it was removed gets its identifier later, one that became known to the server just before
// has another edit then.
void Oracle::noteDeletions(const std::vector<Edit>& queue) {
  for (const auto& edit : queue) {
    if (!(edit.fields & EDIT_DELETED)) continue;
    if (removing_.contains({edit.place.folder.text, edit.place.name})) removals_.insert(edit.id);
    if (!removals_.contains(edit.id)) continue;
    removed_.insert(edit.item.text);
    gone_.insert(edit.item.text);
  }
}

void Oracle::checkRemoval(const SimulatedStorage::Stored& item,
                          const std::vector<SimulatedStorage::Stored>& children) const {
  if (!removed_.contains(item.id))
    throw Violation(
        fmt::format("the service moves “{}” ({}) to the trash, which no program removed", item.path, item.id));
  for (const auto& child : children)
    if (const auto seen = listed_.find(item.id); seen == listed_.end() || seen->second.contains(child.id))
      throw Violation(fmt::format("the service takes “{}” ({}) along to the trash", child.path, child.id));
}

void Oracle::check(const std::vector<SimulatedStorage::Stored>& server, const std::set<std::string>& inQueue) const {
  std::set<std::string> there = inQueue;
  for (const auto& item : server) there.insert(item.print);
  for (const auto& [print, how] : must_)
    if (!there.contains(print)) throw Violation(fmt::format("lost: {} ({})", how, print));
}

void Oracle::checkAtEnd(const std::vector<SimulatedStorage::Stored>& server,
                        const std::set<std::string>& inQueue) const {
  std::map<std::string, const SimulatedStorage::Stored*> places;
  for (const auto& item : server)
    if (auto& place = places[item.print]; !place || place->isInTrash) place = &item;
  for (const auto& [print, how] : must_) {
    if (inQueue.contains(print)) continue;
    const auto found = places.find(print);
    if (found == places.end()) throw Violation(fmt::format("lost in the end: {} ({})", how, print));
    const auto& item = *found->second;
    if (!item.isInTrash || trashedByOther_.contains(item.trashedWith)) continue;
    if (gone_.contains(item.id) || gone_.contains(item.trashedWith)) continue;
    throw Violation(fmt::format("in the trash only, as “{}”: {} ({})", item.path, how, print));
  }
}

}  // namespace vondle::sim
