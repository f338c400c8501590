#include "service/thumbnails/place_changes.h"

#include <algorithm>

#include "platform/content_types.h"
#include "service/thumbnails/thumbnail_cache.h"

namespace vondle {
namespace {

bool isRemoval(const ReplicaChange& change) {
  return change.kind == ReplicaChange::Kind::itemRemoved;
}

}  // namespace

bool canHaveThumbnail(std::string_view name) {
  const auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return false;
  const auto type = contentTypeForExtension(name.substr(dot + 1));
  return type && (type->starts_with("image/") || type->starts_with("video/"));
}

PlaceChanges placeChanges(const std::vector<ReplicaChange>& changes, const Replica& replica,
                          const std::string& mountPath) {
  PlaceChanges moment;
  const bool hasContainedOnes = std::ranges::any_of(
      changes, [](const ReplicaChange& change) { return isRemoval(change) && change.name.empty(); });
  for (const auto& change : changes) {
    if ((!isRemoval(change) && change.kind != ReplicaChange::Kind::entryRemoved) || change.name.empty()) continue;
    const auto attributes = isRemoval(change) ? std::nullopt : replica.attributes(change.inode);
    const bool isFolder = attributes ? attributes->isFolder : hasContainedOnes;
    if (!isFolder && !canHaveThumbnail(change.name)) continue;
    const auto folder = replica.pathOf(change.parent);
    if (!folder) continue;
    const auto former = mountPath + (*folder == "/" ? "" : *folder) + "/" + change.name;
    const auto path = attributes ? replica.pathOf(change.inode) : std::nullopt;
    moment.changes.try_emplace(
        ThumbnailCache::uriOf(former),
        PlaceChanges::Change{.to = path ? std::optional(ThumbnailCache::uriOf(mountPath + *path)) : std::nullopt,
                             .isFolder = isFolder});
  }
  return moment;
}

std::optional<std::string> placeAfter(std::string uri, const std::vector<PlaceChanges>& moments) {
  for (const auto& moment : moments) {
    for (std::size_t end = uri.size(); end != std::string::npos && end > 0; end = uri.rfind('/', end - 1)) {
      const auto found = moment.changes.find(uri.substr(0, end));
      if (found == moment.changes.end()) continue;
      if (!found->second.to) return std::nullopt;
      uri = *found->second.to + uri.substr(end);
      break;
    }
  }
  return uri;
}

}  // namespace vondle
