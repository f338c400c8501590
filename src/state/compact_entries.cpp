#include "state/compact_entries.h"

#include <cstring>
#include <utility>

namespace vondle {
namespace {

// Bits of a record's flags.
constexpr std::uint64_t IS_FOLDER = 1;
constexpr std::uint64_t DELETED = 2;
constexpr std::uint64_t SHARED = 4;
constexpr std::uint64_t HAS_THUMB = 8;
constexpr std::uint64_t HAS_KEY = 16;
constexpr std::uint64_t HAS_URL = 32;
constexpr std::uint64_t HAS_THUMB_URL = 64;
constexpr std::uint64_t PATH_IS_NAME = 128;  // else the path is the parent's, a slash and the name
constexpr std::uint64_t PATH_IS_WHOLE = 256;

// Replacing leaves gaps; they are closed when they are more than what is left, and worth it.
constexpr std::size_t GAPS_ALLOWED = std::size_t{8} << 20;

std::uint32_t hashOf(std::string_view id) {
  return SlotTable::mix(std::hash<std::string_view>()(id));
}

std::optional<std::string_view> parentPathOf(std::string_view path, std::string_view name) {
  if (path.size() <= name.size() || !path.ends_with(name)) return std::nullopt;
  path.remove_suffix(name.size());
  if (path.back() != '/') return std::nullopt;
  path.remove_suffix(1);
  return path;
}

}  // namespace

// A record: its length and then, in this order, flags, the number of the surroundings, identifier, name, what else
// there is of texts, the numbers. Integers take as many bytes as they need.
class CompactEntries::Writer {
 public:
  void integer(std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) bytes_ += static_cast<char>(value | 0x80);
    bytes_ += static_cast<char>(value);
  }
  // Small ones of either sign are short.
  void signedInteger(std::int64_t value) {
    integer((static_cast<std::uint64_t>(value) << 1) ^ static_cast<std::uint64_t>(value >> 63));
  }
  void real(double value) { bytes_.append(reinterpret_cast<const char*>(&value), sizeof value); }
  void text(std::string_view text) {
    integer(text.size());
    bytes_ += text;
  }
  void text(const std::optional<std::string>& optional) {
    if (optional) text(std::string_view(*optional));
  }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

class CompactEntries::Reader {
 public:
  explicit Reader(const char* record) : start_(record), at_(record), length_(integer()) { body_ = at_; }

  std::uint64_t integer() {
    std::uint64_t value = 0;
    for (int shift = 0;; shift += 7) {
      const auto byte = static_cast<unsigned char>(*at_++);
      value |= std::uint64_t{byte & 0x7fU} << shift;
      if (byte < 0x80) return value;
    }
  }
  std::int64_t signedInteger() {
    const auto value = integer();
    return static_cast<std::int64_t>((value >> 1) ^ (~(value & 1) + 1));
  }
  double real() {
    double value = 0;
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  std::string_view text() {
    const auto size = integer();
    return {std::exchange(at_, at_ + size), size};
  }
  std::optional<std::string> textIf(bool isThere) {
    return isThere ? std::optional(std::string(text())) : std::nullopt;
  }
  [[nodiscard]] std::string_view whole() const { return {start_, body_ + length_}; }

 private:
  const char* const start_;
  const char* at_;
  const std::uint64_t length_;
  const char* body_ = nullptr;
};

void CompactEntries::put(const Entry& entry) {
  remove(entry.id);
  const auto parentPath = parentPathOf(entry.path, entry.name);
  const bool pathIsName = entry.path == entry.name;
  const bool pathIsWhole = !parentPath && !pathIsName;
  Writer body;
  body.integer((entry.isFolder ? IS_FOLDER : 0) | (entry.deleted ? DELETED : 0) | (entry.shared ? SHARED : 0) |
               (entry.hasThumb ? HAS_THUMB : 0) | (entry.key ? HAS_KEY : 0) | (entry.url ? HAS_URL : 0) |
               (entry.thumbURL ? HAS_THUMB_URL : 0) | (pathIsName ? PATH_IS_NAME : 0) |
               (pathIsWhole ? PATH_IS_WHOLE : 0));
  body.integer(enter({entry.parentID, std::string(parentPath.value_or("")), entry.role, entry.ownerName}));
  body.text(std::string_view(entry.id));
  body.text(std::string_view(entry.name));
  body.text(entry.key);
  body.text(entry.url);
  body.text(entry.thumbURL);
  if (pathIsWhole) body.text(std::string_view(entry.path));
  body.signedInteger(entry.size);
  body.signedInteger(entry.version);
  body.real(entry.modified.secondsSince1970);
  body.real(entry.fetchedAt.secondsSince1970);
  Writer length;
  length.integer(body.bytes().size());
  live_ += ByteChunks::roomFor(length.bytes().size() + body.bytes().size());
  table_.add({bytes_.add(length.bytes(), body.bytes()), hashOf(entry.id)}, [](Slot) { return false; });
  if (bytes_.size() > 2 * live_ + GAPS_ALLOWED) compact();
}

std::optional<Entry> CompactEntries::get(std::string_view id) const {
  const Slot slot = find(hashOf(id), id);
  if (slot == SlotTable::NONE) return std::nullopt;
  Reader record(bytes_.at(slot));
  const auto flags = record.integer();
  const auto& surroundings = byNumber_[record.integer()]->first;
  Entry entry;
  entry.id = record.text();
  entry.parentID = surroundings.parentID;
  entry.name = record.text();
  entry.isFolder = flags & IS_FOLDER;
  entry.key = record.textIf(flags & HAS_KEY);
  entry.url = record.textIf(flags & HAS_URL);
  entry.thumbURL = record.textIf(flags & HAS_THUMB_URL);
  entry.path = (flags & PATH_IS_WHOLE)  ? std::string(record.text())
               : (flags & PATH_IS_NAME) ? entry.name
                                        : surroundings.parentPath + "/" + entry.name;
  entry.size = record.signedInteger();
  entry.version = record.signedInteger();
  entry.modified = {record.real()};
  entry.fetchedAt = {record.real()};
  entry.deleted = flags & DELETED;
  entry.role = surroundings.role;
  entry.shared = flags & SHARED;
  entry.ownerName = surroundings.ownerName;
  entry.hasThumb = flags & HAS_THUMB;
  return entry;
}

void CompactEntries::remove(std::string_view id) {
  const auto hash = hashOf(id);
  const Slot slot = find(hash, id);
  if (slot == SlotTable::NONE) return;
  Reader record(bytes_.at(slot));
  live_ -= ByteChunks::roomFor(record.whole().size());
  record.integer();
  leave(static_cast<std::uint32_t>(record.integer()));
  table_.remove(hash, slot);
}

CompactEntries::Slot CompactEntries::find(std::uint32_t hash, std::string_view id) const {
  return table_.find(hash, [&](Slot slot) {
    Reader record(bytes_.at(slot));
    record.integer();
    record.integer();
    return record.text() == id;
  });
}

std::uint32_t CompactEntries::enter(Surroundings surroundings) {
  const auto [place, isNew] = known_.try_emplace(std::move(surroundings));
  if (isNew && freeNumbers_.empty()) {
    place->second.number = static_cast<std::uint32_t>(byNumber_.size());
    byNumber_.push_back(place);
  } else if (isNew) {
    place->second.number = freeNumbers_.back();
    freeNumbers_.pop_back();
    byNumber_[place->second.number] = place;
  }
  ++place->second.count;
  return place->second.number;
}

void CompactEntries::leave(std::uint32_t number) {
  const auto place = byNumber_[number];
  if (--place->second.count > 0) return;
  known_.erase(place);
  freeNumbers_.push_back(number);
}

void CompactEntries::compact() {
  ByteChunks compact;
  table_.renameAll([&](Slot slot) { return compact.add(Reader(bytes_.at(slot)).whole()); });
  bytes_ = std::move(compact);
}

}  // namespace vondle
