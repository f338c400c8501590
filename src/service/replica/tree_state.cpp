#include "service/replica/tree_state.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "platform/content_types.h"
#include "service/stable_hash.h"

namespace vondle {

using Slot = ItemIndex::Slot;

namespace {

constexpr std::uint32_t LOCAL_CAPABILITIES =
    ALLOWS_READING | ALLOWS_WRITING | ALLOWS_REPARENTING | ALLOWS_RENAMING | ALLOWS_TRASHING | ALLOWS_DELETING;

}  // namespace

TreeState::TreeState() {
  index.insert(ROOT_INODE, ROOT_CONTAINER.text, {}, factsOf(rootItem()));
}

Item TreeState::rootItem() {
  Item root;
  root.itemIdentifier = root.parentItemIdentifier = ROOT_CONTAINER;
  root.contentType = FOLDER_CONTENT_TYPE;
  root.capabilities = ALLOWS_READING | ALLOWS_WRITING;
  root.fileSystemFlags = USER_EXECUTABLE | USER_READABLE | USER_WRITABLE;
  return root;
}

std::uint64_t TreeState::contentTag(std::string_view identifier, std::string_view contentVersion) {
  return stableHash(identifier, contentVersion);
}

ItemIndex::Facts TreeState::factsOf(const Item& item) {
  return {.contentTag = contentTag(item.itemIdentifier.text, item.itemVersion.contentVersion),
          .size = item.isFolder() ? 0 : std::max<std::int64_t>(0, item.documentSize.value_or(0)),
          .modified = shownTime(item.contentModificationDate.value_or(Timestamp()).secondsSince1970, item.isFolder()),
          .permissions = permissionsOf(item.fileSystemFlags),
          .capabilities = static_cast<std::uint8_t>(item.capabilities),
          .isFolder = item.isFolder(),
          .keepDownloaded = item.contentPolicy == ContentPolicy::downloadEagerlyAndKeepDownloaded};
}

double TreeState::shownTime(double modified, bool isFolder) {
  if (!std::isfinite(modified)) return 0;
  return isFolder ? modified : std::floor(modified);
}

std::uint16_t TreeState::permissionsOf(std::uint32_t fileSystemFlags) {
  return static_cast<std::uint16_t>((fileSystemFlags & USER_READABLE ? S_IRUSR : 0U) |
                                    (fileSystemFlags & USER_WRITABLE ? S_IWUSR : 0U) |
                                    (fileSystemFlags & USER_EXECUTABLE ? S_IXUSR : 0U));
}

std::uint64_t TreeState::privateContentTag(std::int64_t number) {
  return stableHash(LOCAL_IDENTIFIER_PREFIX, std::to_string(number));
}

void TreeState::applyEdits(std::string_view identifier, ItemIndex::Facts& facts) const {
  if (edits.isEmpty()) return;
  if (const Edit* edit = edits.ofItem(identifier); edit && edit->contents != 0) {
    facts.contentTag = privateContentTag(edit->contents);
    facts.size = edit->size;
    facts.modified = edit->modified.secondsSince1970;
  }
  const LocalAttributes* local = edits.attributesOf(identifier);
  if (!local) return;
  if (local->permissions) facts.permissions = static_cast<std::uint16_t>(*local->permissions);
  if (local->modified && local->contentTag == facts.contentTag) facts.modified = local->modified->secondsSince1970;
}

ItemIndex::Facts TreeState::factsOf(const Edit& edit) const {
  Item item;
  item.itemIdentifier = edit.item;
  item.contentType = edit.isFolder ? FOLDER_CONTENT_TYPE : GENERIC_DATA_CONTENT_TYPE;
  item.capabilities = LOCAL_CAPABILITIES;
  item.contentModificationDate = edit.isFolder ? edit.changedAt : edit.modified;
  auto facts = factsOf(item);
  facts.modified = item.contentModificationDate->secondsSince1970;
  facts.permissions = static_cast<std::uint16_t>(defaultPermissions(edit.isFolder));
  // Nobody else knows of what is in it.
  facts.isListed = edit.isFolder && (edit.fields & EDIT_CREATED) != 0;
  applyEdits(edit.item.text, facts);
  return facts;
}

Item TreeState::itemOf(Slot slot) const {
  const auto& facts = index.facts(slot);
  Item item;
  item.itemIdentifier = {std::string(index.identifier(slot))};
  if (index.parent(slot) != ItemIndex::NONE)
    item.parentItemIdentifier = {std::string(index.identifier(index.parent(slot)))};
  item.filename = serverNameOf(slot);
  if (facts.isFolder) {
    item.contentType = FOLDER_CONTENT_TYPE;
  } else {
    const auto dot = item.filename.rfind('.');
    const auto type = dot == std::string::npos ? std::nullopt : contentTypeForExtension(item.filename.substr(dot + 1));
    item.contentType = type.value_or(GENERIC_DATA_CONTENT_TYPE);
    item.documentSize = facts.size;
  }
  item.capabilities = facts.capabilities;
  item.fileSystemFlags = (facts.permissions & S_IRUSR ? USER_READABLE : 0U) |
                         (facts.permissions & S_IWUSR ? USER_WRITABLE : 0U) |
                         (facts.permissions & S_IXUSR ? USER_EXECUTABLE : 0U);
  item.contentModificationDate = Timestamp{facts.modified};
  return item;
}

Place TreeState::placeOf(Slot slot) const {
  const Slot folder = index.parent(slot);
  return {{folder == ItemIndex::NONE ? std::string() : std::string(index.identifier(folder))}, serverNameOf(slot)};
}

ItemAttributes TreeState::attributesOf(Slot slot) const {
  const auto& facts = index.facts(slot);
  const Slot parent = index.parent(slot);
  const Inode inode = index.inode(slot);
  return {.inode = inode,
          .parent = parent == ItemIndex::NONE ? inode : index.inode(parent),
          .isFolder = facts.isFolder,
          .isListed = facts.isListed,
          .size = facts.size,
          .modified = {facts.modified},
          .capabilities = facts.capabilities,
          .permissions = facts.permissions,
          .keepDownloaded = facts.keepDownloaded,
          .contentTag = facts.contentTag};
}

void TreeState::noteNames(Slot slot, std::string_view serverName) {
  const bool isOdd = index.name(slot) != serverName;
  index.facts(slot).isNamedDifferently = isOdd;
  if (!isOdd) return;
  const Inode inode = index.inode(slot);
  const auto plain = localName(serverName, index.identifier(slot));
  const bool isDuplicate = plain != index.name(slot);
  if (isDuplicate) wanted[{index.inode(index.parent(slot)), plain}].insert(inode);
  oddNames[inode] = {std::string(serverName),
                     isDuplicate ? NameProblem::duplicate : nameProblem(serverName).value_or(NameProblem::duplicate)};
}

void TreeState::forgetNames(Slot slot) {
  if (!index.facts(slot).isNamedDifferently) return;
  const Inode inode = index.inode(slot);
  const auto odd = oddNames.find(inode);
  if (odd->second.problem == NameProblem::duplicate && index.parent(slot) != ItemIndex::NONE) {
    const auto plain = localName(odd->second.serverName, index.identifier(slot));
    const auto waiting = wanted.find({index.inode(index.parent(slot)), plain});
    if (waiting != wanted.end()) {
      waiting->second.erase(inode);
      if (waiting->second.empty()) wanted.erase(waiting);
    }
  }
  oddNames.erase(odd);
  index.facts(slot).isNamedDifferently = false;
}

std::string TreeState::serverNameOf(Slot slot) const {
  if (!index.facts(slot).isNamedDifferently) return std::string(index.name(slot));
  return oddNames.at(index.inode(slot)).serverName;
}

}  // namespace vondle
