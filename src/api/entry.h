#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/json.h"
#include "base/time.h"

namespace vondle {

// One file or folder as the server describes it. A value: pass it between threads freely. Texts are kept as the server
// sent them, so a name may hold anything, also what no file system takes.
struct Entry {
  std::string id;
  std::string parentID;  // SERVER_ROOT for the top folder
  std::string name;      // last path component
  bool isFolder = false;
  std::int64_t size = 0;                // bytes
  std::optional<std::string> key;       // storage key of a file's contents
  std::optional<std::string> url;       // download address
  std::optional<std::string> thumbURL;  // of a thumbnail made by the server
  std::string path;                     // below the root, components joined by "/"
  Timestamp modified;
  std::int64_t version = 1;  // content version; the base version that edits quote back
  bool deleted = false;      // trashed or deleted
  std::optional<std::string> role;
  bool shared = false;
  std::string ownerName;
  Timestamp fetchedAt;  // when this record was parsed
  bool hasThumb = false;

  // Where a reply's own form says something else than, or more than, the object in it.
  struct Overrides {
    std::optional<bool> isFolder = std::nullopt;
    std::optional<std::string_view> name = std::nullopt;
    bool deleted = false;  // true: deleted whatever the object says
    std::string_view pathKey = "path";
  };

  // Reads one JSON object; none without a text "id" and a text "name", every other key has a default. parentPath is the
  // path of the folder being listed ("" for the root or when unknown), defaultRole counts when the object has no role.
  static std::optional<Entry> parse(const json::Object& object, std::string_view parentPath,
                                    std::optional<std::string_view> defaultRole, Timestamp now,
                                    const Overrides& overrides);
  static std::optional<Entry> parse(const json::Object& object, std::string_view parentPath,
                                    std::optional<std::string_view> defaultRole, Timestamp now);

  // Every other role, also none, means that the user may write.
  [[nodiscard]] bool isReadOnly() const { return role == "read" || role == "container"; }
  // Directly in the container of items shared with the user.
  [[nodiscard]] bool isSharedTop() const;
  // Folders only: a file never shows the shared decoration.
  [[nodiscard]] bool showsShared() const { return isFolder && (shared || isSharedTop()); }

  friend bool operator==(const Entry&, const Entry&) = default;
};

// An ISO 8601 internet date-time with or without a fraction of a second; anything else gives the epoch.
Timestamp parseDate(std::optional<std::string_view> text);

}  // namespace vondle
