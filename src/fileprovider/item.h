#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/time.h"
#include "platform/person_name.h"

// What the file-provider service and an extension say about items. Values only: all of it can cross a process border.
namespace vondle {

// Names an item within its domain; an opaque text of the extension's choosing, but for the three containers below.
struct ItemIdentifier {
  std::string text;
  friend auto operator<=>(const ItemIdentifier&, const ItemIdentifier&) = default;
};

inline const ItemIdentifier ROOT_CONTAINER{"NSFileProviderRootContainerItemIdentifier"};
inline const ItemIdentifier TRASH_CONTAINER{"NSFileProviderTrashContainerItemIdentifier"};
inline const ItemIdentifier WORKING_SET_CONTAINER{"NSFileProviderWorkingSetContainerItemIdentifier"};

// Bits of Item::capabilities.
enum ItemCapabilities : std::uint32_t {
  ALLOWS_READING = 1,
  ALLOWS_WRITING = 2,  // for a folder: adding sub-items
  ALLOWS_REPARENTING = 4,
  ALLOWS_RENAMING = 8,
  ALLOWS_TRASHING = 16,
  ALLOWS_DELETING = 32,
};

// Bits of Item::fileSystemFlags.
enum FileSystemFlags : std::uint32_t {
  USER_EXECUTABLE = 1,
  USER_READABLE = 2,
  USER_WRITABLE = 4,
};

// Bits that name what a change is about.
enum ItemFields : std::uint32_t {
  FIELD_CONTENTS = 1,
  FIELD_FILENAME = 2,
  FIELD_PARENT_ITEM_IDENTIFIER = 4,
  FIELD_LAST_USED_DATE = 8,
  FIELD_TAG_DATA = 16,
  FIELD_FAVORITE_RANK = 32,
  FIELD_CREATION_DATE = 64,
  FIELD_CONTENT_MODIFICATION_DATE = 128,
  FIELD_FILE_SYSTEM_FLAGS = 256,
  FIELD_EXTENDED_ATTRIBUTES = 512,
};

enum class ContentPolicy : std::int32_t {
  inherited = 0,
  downloadLazily = 1,
  downloadEagerlyAndKeepDownloaded = 3,
};

// Two opaque buffers: the first changes with the contents, the second with anything else that the service shows.
struct ItemVersion {
  std::string contentVersion;
  std::string metadataVersion;
  friend bool operator==(const ItemVersion&, const ItemVersion&) = default;
};

struct Item {
  ItemIdentifier itemIdentifier;
  ItemIdentifier parentItemIdentifier;
  std::string filename;
  std::string contentType;  // media type; FOLDER_CONTENT_TYPE for folders
  std::uint32_t capabilities = 0;
  std::uint32_t fileSystemFlags = 0;
  std::optional<std::int64_t> documentSize;  // bytes; absent for folders
  bool isShared = false;
  bool isSharedByCurrentUser = false;
  std::optional<PersonNameComponents> ownerNameComponents;
  std::optional<Timestamp> creationDate;
  std::optional<Timestamp> contentModificationDate;
  ContentPolicy contentPolicy = ContentPolicy::inherited;
  ItemVersion itemVersion;
  std::optional<std::vector<std::string>> decorations;
  // Of what lies in the trash: where restoring would put it, below the root; absent when that is not known.
  std::optional<std::string> restorePath;

  [[nodiscard]] bool isFolder() const;
};

}  // namespace vondle

template <>
struct std::hash<vondle::ItemIdentifier> {
  std::size_t operator()(const vondle::ItemIdentifier& identifier) const noexcept {
    return std::hash<std::string>()(identifier.text);
  }
};
