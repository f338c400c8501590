#pragma once

#include <cstdint>
#include <string>

#include "cli/exit_code.h"
#include "service/inode.h"

namespace vondle {

// Which item of the folder mounted at mountPath a path leads to, by asking the file system: whatever way the path takes
// (links, other mounts of the folder), the item is the right one.
Outcome<Inode> locateItem(const std::string& path, const std::string& mountPath);

}  // namespace vondle
