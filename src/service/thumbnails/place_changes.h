#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/replica/replica.h"
#include "service/replica/replica_change.h"

namespace vondle {

// Where files and folders went at one moment: from URIs to URIs, or to nowhere.
struct PlaceChanges {
  struct Change {
    std::optional<std::string> to;
    bool isFolder = false;  // with things in it
  };
  std::map<std::string, Change> changes;  // by the former URI
};

// Whether thumbnails are made of such files: pictures and videos, by their names.
bool canHaveThumbnail(std::string_view name);

// What the changes, which the replica has just seen, mean for files that can have thumbnails and for folders. A file
// that was moved out of a folder which itself moved at the same moment is left out.
PlaceChanges placeChanges(const std::vector<ReplicaChange>& changes, const Replica& replica,
                          const std::string& mountPath);

// Where what had this URI is after these moments, which followed one another; none when it is gone.
std::optional<std::string> placeAfter(std::string uri, const std::vector<PlaceChanges>& moments);

}  // namespace vondle
