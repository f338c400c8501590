#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/entry.h"
#include "fileprovider/item.h"

namespace vondle {

class Pins;

// Marks shared folders.
inline constexpr std::string_view SHARED_DECORATION = "com.ferrow.vondle.provider.ext.shared";

// What the service is told about an entry. Every property is computed when asked for; whether the item is pinned is
// looked up then, so contentPolicy and itemVersion may change. Any thread.
class VondleItem {
 public:
  VondleItem(Entry entry, Pins& pins) : entry_(std::move(entry)), pins_(pins) {}

  [[nodiscard]] const Entry& entry() const { return entry_; }

  [[nodiscard]] ItemIdentifier itemIdentifier() const;
  [[nodiscard]] ItemIdentifier parentItemIdentifier() const;  // what is deleted lies in the trash
  [[nodiscard]] std::string filename() const { return entry_.name; }
  [[nodiscard]] std::string contentType() const;
  [[nodiscard]] std::uint32_t capabilities() const;
  [[nodiscard]] std::uint32_t fileSystemFlags() const;
  [[nodiscard]] std::optional<std::int64_t> documentSize() const;
  [[nodiscard]] bool isShared() const { return entry_.showsShared(); }
  [[nodiscard]] bool isSharedByCurrentUser() const { return entry_.isFolder && entry_.shared; }
  [[nodiscard]] std::optional<PersonNameComponents> ownerNameComponents() const;
  [[nodiscard]] std::optional<Timestamp> creationDate() const { return contentModificationDate(); }
  [[nodiscard]] std::optional<Timestamp> contentModificationDate() const;
  [[nodiscard]] ContentPolicy contentPolicy() const;
  [[nodiscard]] ItemVersion itemVersion() const;
  [[nodiscard]] std::optional<std::vector<std::string>> decorations() const;
  [[nodiscard]] std::optional<std::string> restorePath() const;

  // All of them.
  [[nodiscard]] Item item() const;

 private:
  Entry entry_;
  Pins& pins_;
};

// The items of a listing, in its order.
std::vector<Item> makeItems(std::vector<Entry> entries, Pins& pins);

}  // namespace vondle
