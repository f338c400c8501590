#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/time.h"
#include "fileprovider/item.h"

namespace vondle {

// Names an edit in the queue for ever: a row id of its database, never used again. Edits made earlier have lower ones.
using EditID = std::int64_t;

// Bits that say what of an item is not on the server yet.
enum EditedFields : std::uint32_t {
  EDIT_CREATED = 1,   // the server does not know the item at all
  EDIT_PLACED = 2,    // renamed or moved
  EDIT_CONTENTS = 4,  // new contents
  EDIT_DELETED = 8,   // alone: the user sees the item no more. A local one may have been sent before it was deleted:
                      // should it turn out to be on the server, it is to be deleted there.
  EDIT_TRASHED = 16,  // with any but DELETED: the user put the item into the trash, with all that is in it. He sees it
                      // there alone; once the server has the rest of what was changed, it goes to the trash there.
};

// The user does not see the item in its folder.
[[nodiscard]] inline bool isHidden(std::uint32_t fields) {
  return (fields & (EDIT_DELETED | EDIT_TRASHED)) != 0;
}

// A folder and the server name of something in it.
struct Place {
  ItemIdentifier folder;
  std::string name;
  friend bool operator==(const Place&, const Place&) = default;
};

// Items that the server does not know yet are named by this prefix and a UUID. No item of the server's may be named so.
inline constexpr std::string_view LOCAL_IDENTIFIER_PREFIX = "com.ferrow.vondle.local:";
[[nodiscard]] inline bool isLocal(const ItemIdentifier& identifier) {
  return identifier.text.starts_with(LOCAL_IDENTIFIER_PREFIX);
}

// What was begun to be sent and may have reached the server: nobody knows, because the answer was lost or this process
// ended first. Until that is found out, the private file stays as it was sent.
struct Attempt {
  Place place;                  // where the item was to be
  std::int64_t contents = 0;    // the number of the private file; 0: none were sent
  std::int64_t generation = 0;  // of the edit then
  friend bool operator==(const Attempt&, const Attempt&) = default;
};

// All that one item has that the server has not: there is at most one for an item, and what happens to the item
// meanwhile changes it, so that ten saves and two renamings go up as one of each. A value; the truth is in EditStore.
struct Edit {
  EditID id = 0;
  ItemIdentifier item;
  bool isFolder = false;
  std::uint32_t fields = 0;  // EditedFields
  // Where the user sees it, or saw it last when it is deleted or trashed.
  Place place;
  // Where the server has it, as far as is known; none for one that it does not know.
  std::optional<Place> serverPlace;
  // What the user saw when the edit was made; of CONTENTS, what they were made on. Empty for a new item, and when it is
  // not known.
  ItemVersion baseVersion;
  // Of CREATED files and of CONTENTS: the number of the private file (see EditedFiles). 0: none.
  std::int64_t contents = 0;
  // What programs were last known to have made of that file; it has its own, which are kept here with the next change.
  std::int64_t size = 0;
  Timestamp modified;
  // Counts what programs change: what was sent is still all there is when it is the same afterwards.
  std::int64_t generation = 0;
  std::int64_t contentsGeneration = 0;  // the one that changed the contents last
  Timestamp changedAt;                  // when programs changed it last

  // Of sending it.
  std::optional<Attempt> attempt;
  int attempts = 0;  // that failed since programs changed it last
  std::optional<Timestamp> nextTry;
  std::string lastError;  // what a person reads; empty: none

  friend bool operator==(const Edit&, const Edit&) = default;
};

// Of an item that only this machine has, when nobody has set others.
[[nodiscard]] inline unsigned defaultPermissions(bool isFolder) {
  return isFolder ? 0700 : 0600;
}

// What the service keeps of an item that no server knows of.
struct LocalAttributes {
  ItemIdentifier item;
  std::optional<std::uint32_t> permissions = std::nullopt;  // 0 to 0777
  // Shown while the contents are still those with this tag.
  std::optional<Timestamp> modified = std::nullopt;
  std::uint64_t contentTag = 0;
  friend bool operator==(const LocalAttributes&, const LocalAttributes&) = default;
};

// What is to be written of one change.
struct EditBatch {
  std::vector<Edit> edits;  // new ones and changed ones
  std::vector<EditID> removals;
  std::vector<LocalAttributes> attributes;
  std::vector<ItemIdentifier> attributeRemovals;
  [[nodiscard]] bool isEmpty() const {
    return edits.empty() && removals.empty() && attributes.empty() && attributeRemovals.empty();
  }
};

}  // namespace vondle
