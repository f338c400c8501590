#include "service/edits/edit_table.h"

namespace vondle {
namespace {

bool isPlacedHere(const Edit& edit) {
  return (edit.fields & (EDIT_CREATED | EDIT_PLACED)) != 0;
}

bool isAttemptOfNew(const Edit& edit) {
  return edit.attempt && isLocal(edit.item);
}

template <class Map, class Key>
void removeFrom(Map& map, const Key& key, EditID id) {
  const auto found = map.find(key);
  if (found == map.end()) return;
  found->second.erase(id);
  if (found->second.empty()) map.erase(found);
}

}  // namespace

const Edit* EditTable::find(EditID id) const {
  const auto found = edits_.find(id);
  return found == edits_.end() ? nullptr : &found->second;
}

const Edit* EditTable::ofItem(std::string_view identifier) const {
  const auto found = byItem_.find(identifier);
  return found == byItem_.end() ? nullptr : find(found->second);
}

const LocalAttributes* EditTable::attributesOf(std::string_view identifier) const {
  const auto found = attributes_.find(identifier);
  return found == attributes_.end() ? nullptr : &found->second;
}

std::vector<EditID> EditTable::placedIn(std::string_view folder) const {
  const auto found = byFolder_.find(folder);
  return found == byFolder_.end() ? std::vector<EditID>() : std::vector(found->second.begin(), found->second.end());
}

std::vector<EditID> EditTable::onServerAt(const Place& place) const {
  const auto found = byServerPlace_.find({place.folder.text, place.name});
  return found == byServerPlace_.end() ? std::vector<EditID>()
                                       : std::vector(found->second.begin(), found->second.end());
}

bool EditTable::hides(const Place& place) {
  const auto found = byAttempt_.find({place.folder.text, place.name});
  if (found == byAttempt_.end()) return false;
  hiding_.insert(found->second.begin(), found->second.end());
  return true;
}

void EditTable::put(Edit edit) {
  const auto found = edits_.find(edit.id);
  if (found != edits_.end()) forget(found->second);
  byItem_[edit.item.text] = edit.id;
  if (isPlacedHere(edit)) byFolder_[edit.place.folder.text].insert(edit.id);
  if (edit.serverPlace) byServerPlace_[{edit.serverPlace->folder.text, edit.serverPlace->name}].insert(edit.id);
  if (isAttemptOfNew(edit)) byAttempt_[{edit.attempt->place.folder.text, edit.attempt->place.name}].insert(edit.id);
  const EditID id = edit.id;
  edits_.insert_or_assign(id, std::move(edit));
}

void EditTable::remove(EditID id) {
  const auto found = edits_.find(id);
  if (found == edits_.end()) return;
  forget(found->second);
  edits_.erase(found);
  hiding_.erase(id);
}

void EditTable::setSending(EditID id, bool isSending) {
  if (isSending)
    sending_.insert(id);
  else
    sending_.erase(id);
}

void EditTable::forget(const Edit& edit) {
  // The item may have passed to another edit already.
  if (const auto item = byItem_.find(edit.item.text); item != byItem_.end() && item->second == edit.id)
    byItem_.erase(item);
  removeFrom(byFolder_, edit.place.folder.text, edit.id);
  if (edit.serverPlace)
    removeFrom(byServerPlace_, std::pair(edit.serverPlace->folder.text, edit.serverPlace->name), edit.id);
  if (isAttemptOfNew(edit))
    removeFrom(byAttempt_, std::pair(edit.attempt->place.folder.text, edit.attempt->place.name), edit.id);
}

void EditTable::putAttributes(LocalAttributes attributes) {
  auto item = attributes.item.text;
  attributes_.insert_or_assign(std::move(item), std::move(attributes));
}

void EditTable::removeAttributes(std::string_view identifier) {
  if (const auto found = attributes_.find(identifier); found != attributes_.end()) attributes_.erase(found);
}

void EditTable::take(const EditBatch& batch) {
  for (const EditID id : batch.removals) remove(id);
  for (const Edit& edit : batch.edits) put(edit);
  for (const auto& item : batch.attributeRemovals) removeAttributes(item.text);
  for (const auto& attributes : batch.attributes) putAttributes(attributes);
}

}  // namespace vondle
