#include "service/edits/send_plan.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include "service/stable_hash.h"

namespace vondle {

namespace {

struct PlaceHash {
  std::size_t operator()(const Place& place) const noexcept {
    const std::hash<std::string> hash;
    return hash(place.folder.text) * 31 + hash(place.name);
  }
};

Timestamp later(Timestamp time, Duration by) {
  return {time.secondsSince1970 + inSeconds(by)};
}

bool takesPlace(SendStep step) {
  return step == SendStep::create || step == SendStep::place;
}

// The pending edits as a graph of who waits for whom.
class Planner {
 public:
  Planner(const std::vector<QueuedEdit>& edits, const ParentOf& parentOf) : edits_(edits), parentOf_(parentOf) {
    for (Index i = 0; i < edits_.size(); ++i) note(i);
    for (Index i = 0; i < edits_.size(); ++i) findBlockers(i);
  }

  SendPlan plan(std::size_t capacity) {
    SendPlan plan;
    breakRings();
    for (Index i = 0; i < edits_.size(); ++i) {
      if (edits_[i].isSending) occupy(i);
    }
    for (Index i = 0; i < edits_.size(); ++i) {
      plan.decisions.push_back(decide(i));
      if (plan.decisions.back().state == SendState::ready && plan.starts.size() < capacity && begin(i))
        plan.starts.push_back(i);
    }
    return plan;
  }

 private:
  using Index = std::size_t;
  static constexpr Index NONE = static_cast<Index>(-1);
  // Folders within folders that are followed upwards; against rings in what the server says.
  static constexpr int MAX_DEPTH = 10'000;

  [[nodiscard]] const Edit& edit(Index i) const { return edits_[i].edit; }
  [[nodiscard]] SendStep step(Index i) const { return edits_[i].isSending ? edits_[i].step : nextStep(edit(i)); }
  [[nodiscard]] bool movesFolder(Index i) const {
    return edit(i).isFolder && (step(i) == SendStep::place || step(i) == SendStep::remove);
  }

  void note(Index i) {
    byItem_[edit(i).item.text] = i;
    if (const auto& place = edit(i).serverPlace) {
      if (edit(i).fields & (EDIT_PLACED | EDIT_DELETED | EDIT_TRASHED)) holders_[*place] = i;
      inFolder_[place->folder.text].push_back(i);
    }
    // On its way to the trash it stands where it was made; of several the first, for which none of them waits.
    if (edit(i).fields & EDIT_TRASHED && edit(i).fields & EDIT_CREATED) holders_.try_emplace(edit(i).place, i);
    // It may have arrived there.
    if (const auto& attempt = edit(i).attempt; attempt && isLocal(edit(i).item)) {
      if (edit(i).fields & EDIT_DELETED || attempt->place != edit(i).place) holders_[attempt->place] = i;
      inFolder_[attempt->place.folder.text].push_back(i);
    }
    if (edits_[i].isSending && edits_[i].target) targets_[*edits_[i].target] = i;
  }

  void findBlockers(Index i) {
    blockers_.emplace_back();
    nameBlocker_.push_back(NONE);
    isStuck_.push_back(false);
    if (edits_[i].isSending) return;
    if (step(i) == SendStep::remove) return findInFolder(i);
    if (!takesPlace(step(i))) return;
    if (isLocal(edit(i).place.folder)) {
      const auto folder = byItem_.find(edit(i).place.folder.text);
      if (folder == byItem_.end())
        isStuck_[i] = true;
      else
        blockers_[i].push_back(folder->second);
    }
    if (const auto holder = holders_.find(edit(i).place); holder != holders_.end() && holder->second != i) {
      nameBlocker_[i] = holder->second;
      blockers_[i].push_back(holder->second);
    }
    if (const auto target = targets_.find(edit(i).place); target != targets_.end() && target->second != i)
      blockers_[i].push_back(target->second);
    if (step(i) == SendStep::place && edit(i).isFolder) findWayOut(i);
  }

  void findInFolder(Index i) {
    if (edit(i).isFolder && edit(i).fields & EDIT_TRASHED) return findBelow(i);
    const auto found = inFolder_.find(edit(i).item.text);
    if (!edit(i).isFolder || found == inFolder_.end()) return;
    std::ranges::copy_if(found->second, std::back_inserter(blockers_[i]), [&](Index other) { return other != i; });
  }

  // Whatever is below it, and whatever is in folders of which nothing is known any more, for they may have been below
  // it when it was trashed. Of two trashed folders of which nothing is known the later one waits.
  void findBelow(Index i) {
    for (Index other = 0; other < edits_.size(); ++other) {
      if (other == i) continue;
      const bool isTrashedFolder = edit(other).isFolder && edit(other).fields & EDIT_TRASHED;
      const auto below =
          std::max(isBelow(edit(other).place, edit(i).item), isBelow(edit(other).serverPlace, edit(i).item));
      if (below == Below::yes || (below == Below::perhaps && (!isTrashedFolder || other < i)))
        blockers_[i].push_back(other);
    }
  }

  enum class Below { no, perhaps, yes };
  Below isBelow(const std::optional<Place>& place, const ItemIdentifier& top) {
    if (!place) return Below::no;
    auto folder = place->folder;
    for (int depth = 0; depth < MAX_DEPTH && folder != ROOT_CONTAINER; ++depth) {
      if (folder == top) return Below::yes;
      const auto found = byItem_.find(folder.text);
      const bool isNew = found != byItem_.end() && isLocal(folder);
      auto above = isNew ? std::optional(edit(found->second).place.folder) : serverParent(folder);
      if (!above) return Below::perhaps;
      folder = std::move(*above);
    }
    return Below::no;
  }

  // The server has the folder that it goes to below it: whoever is between and moves away comes first.
  void findWayOut(Index i) {
    Index mover = NONE;
    std::optional<ItemIdentifier> folder = edit(i).place.folder;
    for (int depth = 0; folder && depth < MAX_DEPTH; ++depth) {
      if (*folder == edit(i).item) {
        if (mover != NONE) blockers_[i].push_back(mover);
        return;
      }
      if (const auto found = byItem_.find(folder->text);
          mover == NONE && found != byItem_.end() && edit(found->second).fields & EDIT_PLACED)
        mover = found->second;
      folder = serverParent(*folder);
    }
  }

  // The server's word, as far as it is known.
  std::optional<ItemIdentifier> serverParent(const ItemIdentifier& item) {
    if (const auto found = byItem_.find(item.text); found != byItem_.end() && edit(found->second).serverPlace)
      return edit(found->second).serverPlace->folder;
    const auto [known, isNew] = parents_.try_emplace(item.text);
    if (isNew) known->second = parentOf_(item);
    return known->second;
  }

  // In each ring, the first that waits for nothing but its name and whose time has come goes aside. Rings are found as
  // the strongly connected parts of the graph.
  void breakRings() {
    isAside_.assign(edits_.size(), false);
    if (std::ranges::all_of(nameBlocker_, [](Index i) { return i == NONE; })) return;
    for (auto& ring : rings()) {
      std::ranges::sort(ring);
      if (std::ranges::any_of(ring, [&](Index i) { return edits_[i].isSending; })) continue;
      const auto found = std::ranges::find_if(ring, [&](Index i) {
        return nameBlocker_[i] != NONE && blockers_[i].size() == 1 && !isStuck_[i] &&
               edits_[i].time.state == SendState::ready && std::ranges::binary_search(ring, nameBlocker_[i]);
      });
      if (found != ring.end()) isAside_[*found] = true;
    }
  }

  // Tarjan's algorithm, with a stack of its own: a thousand files renamed in a row are a thousand deep.
  [[nodiscard]] std::vector<std::vector<Index>> rings() const {
    std::vector<std::vector<Index>> result;
    std::vector<Index> order(edits_.size(), NONE);
    std::vector<Index> lowest(edits_.size(), NONE);
    std::vector<bool> isOpen(edits_.size(), false);
    std::vector<Index> open;
    std::vector<std::pair<Index, std::size_t>> path;  // and the next blocker to look at
    Index count = 0;
    for (Index root = 0; root < edits_.size(); ++root) {
      if (order[root] != NONE) continue;
      path.emplace_back(root, 0);
      while (!path.empty()) {
        auto& [i, next] = path.back();
        if (next == 0 && order[i] == NONE) {
          order[i] = lowest[i] = count++;
          open.push_back(i);
          isOpen[i] = true;
        }
        if (next < blockers_[i].size()) {
          const auto other = blockers_[i][next++];
          if (order[other] == NONE)
            path.emplace_back(other, 0);
          else if (isOpen[other])
            lowest[i] = std::min(lowest[i], order[other]);
          continue;
        }
        const auto done = i;
        path.pop_back();
        if (!path.empty()) lowest[path.back().first] = std::min(lowest[path.back().first], lowest[done]);
        if (lowest[done] != order[done]) continue;
        std::vector<Index> part;
        do {
          part.push_back(open.back());
          isOpen[open.back()] = false;
          open.pop_back();
        } while (part.back() != done);
        if (part.size() > 1) result.push_back(std::move(part));
      }
    }
    return result;
  }

  [[nodiscard]] SendDecision decide(Index i) const {
    SendDecision decision;
    decision.step = step(i);
    decision.isAside = isAside_[i];
    if (edits_[i].isSending) {
      decision.state = SendState::sending;
    } else if (edits_[i].time.state != SendState::ready) {
      decision.state = edits_[i].time.state;
      decision.until = edits_[i].time.until;
    } else if (isStuck_[i] || (!blockers_[i].empty() && !isAside_[i])) {
      decision.state = SendState::waitingForOthers;
      if (!blockers_[i].empty()) decision.waitsFor = edit(blockers_[i].front()).id;
    }
    return decision;
  }

  // False when it must not run beside what is under way. A folder that has to wait for what is going on below it keeps
  // more from beginning there, or its turn might never come.
  bool begin(Index i) {
    const auto above = foldersAbove(i);
    if (std::ranges::any_of(above, [&](const auto& folder) { return moving_.contains(folder); })) return false;
    if (movesFolder(i) && inUse_.contains(edit(i).item.text)) {
      moving_.insert(edit(i).item.text);
      return false;
    }
    occupy(i);
    return true;
  }

  void occupy(Index i) {
    for (auto& folder : foldersAbove(i)) inUse_.insert(std::move(folder));
    if (movesFolder(i)) moving_.insert(edit(i).item.text);
  }

  // All folders whose paths it depends on.
  [[nodiscard]] std::vector<std::string> foldersAbove(Index i) {
    std::vector<std::string> folders;
    const auto addFrom = [&](std::optional<ItemIdentifier> folder) {
      for (int depth = 0; folder && depth < MAX_DEPTH; ++depth) {
        folders.push_back(folder->text);
        folder = serverParent(*folder);
      }
    };
    if (takesPlace(step(i))) addFrom(edit(i).place.folder);
    if (edit(i).serverPlace && step(i) != SendStep::create) addFrom(edit(i).serverPlace->folder);
    return folders;
  }

  const std::vector<QueuedEdit>& edits_;
  const ParentOf& parentOf_;
  std::unordered_map<std::string, Index> byItem_;
  std::unordered_map<Place, Index, PlaceHash> holders_;  // who has it on the server and will leave it
  std::unordered_map<Place, Index, PlaceHash> targets_;  // who is on the way to it
  std::unordered_map<std::string, std::vector<Index>> inFolder_;
  std::unordered_map<std::string, std::optional<ItemIdentifier>> parents_;
  std::vector<std::vector<Index>> blockers_;
  std::vector<Index> nameBlocker_;  // the one of the blockers that has the name
  std::vector<bool> isStuck_;       // waits for a folder that nothing is known of
  std::vector<bool> isAside_;
  std::unordered_set<std::string> moving_;  // folders
  std::unordered_set<std::string> inUse_;   // folders
};

}  // namespace

SendStep nextStep(const Edit& edit) {
  if (edit.fields & EDIT_DELETED) return SendStep::remove;
  if (edit.fields & EDIT_CREATED) return SendStep::create;
  if (edit.fields & EDIT_CONTENTS) return SendStep::contents;
  return edit.fields & EDIT_PLACED || !(edit.fields & EDIT_TRASHED) ? SendStep::place : SendStep::remove;
}

SendTime sendTimeOf(const Edit& edit, const SendTimeFacts& facts) {
  const auto isToCome = [&](Timestamp time, Duration atMost) {
    return time > facts.now && time <= later(facts.now, atMost);
  };
  if (edit.fields & EDIT_CREATED && !edit.isFolder && facts.stay) {
    if (*facts.stay == Duration::max()) return {SendState::staysHere, std::nullopt};
    const auto until = later(edit.changedAt, *facts.stay);
    if (isToCome(until, *facts.stay)) return {SendState::staysHere, until};
  }
  if (facts.isDelayed && edit.nextTry && isToCome(*edit.nextTry, facts.lastRetry))
    return {SendState::waitingToRetry, edit.nextTry};
  const auto settled = later(edit.changedAt, facts.settleTime);
  auto until = isToCome(settled, facts.settleTime) ? std::optional(settled) : std::nullopt;
  if (facts.busyUntil && *facts.busyUntil > facts.now) until = std::max(until.value_or(facts.now), *facts.busyUntil);
  if (until) return {SendState::settling, until};
  return {};
}

SendPlan planSending(const std::vector<QueuedEdit>& edits, const ParentOf& parentOf, std::size_t capacity) {
  return Planner(edits, parentOf).plan(capacity);
}

std::string asideName(const Edit& edit) {
  return fmt::format(".vondle-{:016x}", stableHash(edit.item.text));
}

}  // namespace vondle
