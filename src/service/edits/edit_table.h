#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/edits/edit.h"

namespace vondle {

// The edits in memory, found by what the tree asks for. Not thread-safe.
class EditTable {
 public:
  [[nodiscard]] bool isEmpty() const { return edits_.empty() && attributes_.empty(); }
  // Ordered by id.
  [[nodiscard]] const std::map<EditID, Edit>& all() const { return edits_; }
  // Null: none. Live until the next change.
  [[nodiscard]] const Edit* find(EditID id) const;
  [[nodiscard]] const Edit* ofItem(std::string_view identifier) const;
  [[nodiscard]] const LocalAttributes* attributesOf(std::string_view identifier) const;
  [[nodiscard]] const std::map<std::string, LocalAttributes, std::less<>>& allAttributes() const { return attributes_; }
  // New and placed items that are shown in the folder, or are to be.
  [[nodiscard]] std::vector<EditID> placedIn(std::string_view folder) const;
  // Those whose items the server has at the place.
  [[nodiscard]] std::vector<EditID> onServerAt(const Place& place) const;
  // Whether a new item may have reached the server there: what stands there is shown when that has been found out.
  // The edits that are asked for are remembered for hasHidden.
  [[nodiscard]] bool hides(const Place& place);
  // The server's news of the item, and of what is in it, may have been passed over.
  [[nodiscard]] bool hasHidden(EditID id) const { return hiding_.contains(id); }

  void put(Edit edit);
  void remove(EditID id);
  void putAttributes(LocalAttributes attributes);
  void removeAttributes(std::string_view identifier);
  void take(const EditBatch& batch);

  // Those whose place is below the item as long as others have not moved.
  void setBlocked(EditID id) { blocked_.insert(id); }
  [[nodiscard]] std::set<EditID> takeBlocked() { return std::exchange(blocked_, {}); }

  // Those that are on their way to the server, which may be changed by them already.
  [[nodiscard]] bool isSending(EditID id) const { return sending_.contains(id); }
  void setSending(EditID id, bool isSending);

  // An edit with an id, a local identifier of its own and the time, for news that makes one necessary.
  std::function<Edit()> newEdit;

 private:
  void forget(const Edit& edit);

  std::map<EditID, Edit> edits_;
  std::set<EditID> sending_;
  std::set<EditID> blocked_;
  std::set<EditID> hiding_;
  std::map<std::string, EditID, std::less<>> byItem_;
  std::map<std::string, std::set<EditID>, std::less<>> byFolder_;
  std::map<std::pair<std::string, std::string>, std::set<EditID>> byServerPlace_;
  std::map<std::pair<std::string, std::string>, std::set<EditID>> byAttempt_;  // of items of this machine
  std::map<std::string, LocalAttributes, std::less<>> attributes_;
};

}  // namespace vondle
