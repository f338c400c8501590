#include "api/entry.h"

#include "config/containers.h"

namespace vondle {
namespace {

std::optional<std::string> ownedText(const json::Object& object, std::string_view key) {
  const auto text = json::text(object, key);
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

bool readsAsFolder(const json::Object& object) {
  if (const auto said = json::boolean(object, "is_folder")) return *said;
  return !json::find(object, "filename") && json::find(object, "prefix");
}

std::string join(std::string_view parentPath, std::string_view name) {
  std::string path(parentPath);
  if (!path.empty()) path += '/';
  return path += name;
}

}  // namespace

std::optional<Entry> Entry::parse(const json::Object& object, std::string_view parentPath,
                                  std::optional<std::string_view> defaultRole, Timestamp now,
                                  const Overrides& overrides) {
  const auto id = json::text(object, "id");
  const auto name = overrides.name ? overrides.name : json::text(object, "name");
  if (!id || !name) return std::nullopt;

  Entry entry;
  entry.id = *id;
  entry.parentID = json::text(object, "parent_id").value_or(SERVER_ROOT);
  entry.name = *name;
  entry.isFolder = overrides.isFolder ? *overrides.isFolder : readsAsFolder(object);
  entry.size = json::integer(object, "size").value_or(0);
  entry.key = ownedText(object, "key");
  entry.url = ownedText(object, "download_url");
  entry.thumbURL = ownedText(object, "thumb_url");
  const auto path = json::text(object, overrides.pathKey);
  entry.path = path ? std::string(*path) : join(parentPath, *name);
  const auto mtime = json::text(object, "mtime");
  entry.modified = parseDate(mtime ? mtime : json::text(object, "last_modified"));
  entry.version = json::integer(object, "version").value_or(1);
  entry.deleted = overrides.deleted || json::boolean(object, "trashed").value_or(false) ||
                  json::boolean(object, "deleted").value_or(false);
  const auto role = json::text(object, "role");
  entry.role = role ? role : defaultRole;
  entry.shared = json::boolean(object, "shared").value_or(false);
  entry.ownerName = json::text(object, "owner_name").value_or("");
  entry.fetchedAt = now;
  const auto hasThumb = json::boolean(object, "has_thumb");
  entry.hasThumb = hasThumb ? *hasThumb : json::find(object, "thumb_url") != nullptr;
  return entry;
}

std::optional<Entry> Entry::parse(const json::Object& object, std::string_view parentPath,
                                  std::optional<std::string_view> defaultRole, Timestamp now) {
  return parse(object, parentPath, defaultRole, now, {});
}

bool Entry::isSharedTop() const {
  return parentID == SHARED_CONTAINER;
}

Timestamp parseDate(std::optional<std::string_view> text) {
  if (!text || text->empty()) return {};
  if (const auto moment = parseISO8601Fractional(*text)) return *moment;
  return parseISO8601Plain(*text).value_or(Timestamp{});
}

}  // namespace vondle
