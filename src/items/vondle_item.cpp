#include "items/vondle_item.h"

#include <cassert>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "items/identifiers.h"
#include "platform/content_types.h"
#include "state/pins.h"

namespace vondle {
namespace {

// Without the dot; a name that only begins with a dot, or ends in one, has none.
std::string_view pathExtension(std::string_view name) {
  const auto dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

std::int64_t wholeSeconds(Timestamp timestamp) {
  const double whole = std::trunc(timestamp.secondsSince1970);
  assert(whole >= -0x1p63 && whole < 0x1p63);
  return static_cast<std::int64_t>(whole);
}

}  // namespace

ItemIdentifier VondleItem::itemIdentifier() const {
  return identifierFor(entry_.id);
}

ItemIdentifier VondleItem::parentItemIdentifier() const {
  return entry_.deleted ? TRASH_CONTAINER : identifierFor(entry_.parentID);
}

std::string VondleItem::contentType() const {
  if (entry_.isFolder) return std::string(FOLDER_CONTENT_TYPE);
  const auto extension = pathExtension(entry_.name);
  const auto known = extension.empty() ? std::nullopt : contentTypeForExtension(extension);
  return std::string(known.value_or(GENERIC_DATA_CONTENT_TYPE));
}

std::uint32_t VondleItem::capabilities() const {
  if (entry_.isReadOnly()) return ALLOWS_READING;
  if (entry_.isSharedTop()) return ALLOWS_READING | ALLOWS_WRITING;
  return ALLOWS_READING | ALLOWS_WRITING | ALLOWS_REPARENTING | ALLOWS_RENAMING | ALLOWS_TRASHING | ALLOWS_DELETING;
}

std::uint32_t VondleItem::fileSystemFlags() const {
  return USER_READABLE | (entry_.isReadOnly() ? 0U : USER_WRITABLE) | (entry_.isFolder ? USER_EXECUTABLE : 0U);
}

std::optional<std::int64_t> VondleItem::documentSize() const {
  return entry_.isFolder ? std::nullopt : std::optional(entry_.size);
}

std::optional<PersonNameComponents> VondleItem::ownerNameComponents() const {
  const std::string& name = entry_.ownerName;
  if (!entry_.isSharedTop() || name.empty()) return std::nullopt;
  if (!name.contains('@'))
    if (auto parsed = parsePersonName(name); parsed && parsed->givenName) return parsed;
  PersonNameComponents whole;
  whole.nickname = name;
  whole.givenName = name;
  return whole;
}

std::optional<Timestamp> VondleItem::contentModificationDate() const {
  return entry_.modified.secondsSince1970 > 0 ? std::optional(entry_.modified) : std::nullopt;
}

ContentPolicy VondleItem::contentPolicy() const {
  if (pins_.contains(entry_.id)) return ContentPolicy::downloadEagerlyAndKeepDownloaded;
  return entry_.isFolder ? ContentPolicy::inherited : ContentPolicy::downloadLazily;
}

ItemVersion VondleItem::itemVersion() const {
  return {.contentVersion = fmt::format("{}-{}", entry_.version, entry_.size),
          .metadataVersion =
              fmt::format("{}-{}-{}-{}{}{}{}", entry_.version, entry_.name, pins_.contains(entry_.id) ? 1 : 0,
                          wholeSeconds(entry_.modified), entry_.showsShared() ? "-s" : "",
                          entry_.ownerName.empty() ? "" : "-", entry_.ownerName)};
}

std::optional<std::vector<std::string>> VondleItem::decorations() const {
  if (!entry_.showsShared()) return std::nullopt;
  return std::vector{std::string(SHARED_DECORATION)};
}

std::optional<std::string> VondleItem::restorePath() const {
  return entry_.deleted ? std::optional(entry_.path) : std::nullopt;
}

Item VondleItem::item() const {
  return {.itemIdentifier = itemIdentifier(),
          .parentItemIdentifier = parentItemIdentifier(),
          .filename = filename(),
          .contentType = contentType(),
          .capabilities = capabilities(),
          .fileSystemFlags = fileSystemFlags(),
          .documentSize = documentSize(),
          .isShared = isShared(),
          .isSharedByCurrentUser = isSharedByCurrentUser(),
          .ownerNameComponents = ownerNameComponents(),
          .creationDate = creationDate(),
          .contentModificationDate = contentModificationDate(),
          .contentPolicy = contentPolicy(),
          .itemVersion = itemVersion(),
          .decorations = decorations(),
          .restorePath = restorePath()};
}

std::vector<Item> makeItems(std::vector<Entry> entries, Pins& pins) {
  std::vector<Item> items;
  items.reserve(entries.size());
  for (Entry& entry : entries) items.push_back(VondleItem(std::move(entry), pins).item());
  return items;
}

}  // namespace vondle
