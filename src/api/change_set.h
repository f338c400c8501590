#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/entry.h"

namespace vondle {

// One page of the change feed.
struct ChangeSet {
  std::vector<Entry> entries;        // created or changed since the position asked for, in the server's order
  std::vector<std::string> deleted;  // identifiers of what was deleted since then
  std::int64_t seq = 0;              // the position that this page reaches: where the next one begins
  std::int64_t head = 0;             // the newest position the server has
  bool more = false;                 // further pages follow at once
};

}  // namespace vondle
