#pragma once

#include <map>
#include <set>
#include <string>

namespace vondle {

// Where thumbnails made by the server are. Items that are in neither have none.
struct ThumbURLs {
  std::map<std::string, std::string> urls;  // address by identifier
  std::set<std::string> pending;            // identifiers whose thumbnails are still being made
};

}  // namespace vondle
