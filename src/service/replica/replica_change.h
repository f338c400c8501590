#pragma once

#include <string>

#include "service/inode.h"

namespace vondle {

// One consequence of news from the server, or of what a program did, for the kernel's caches and for the downloaded
// contents.
struct ReplicaChange {
  enum class Kind {
    entryAdded,         // the name now leads to the item
    entryRemoved,       // the name no longer leads to the item, which lives on elsewhere
    itemRemoved,        // the item is gone; the name is empty for those inside a removed folder
    attributesChanged,  // anything but the contents
    contentsChanged,    // another content version
  };

  Kind kind;
  Inode parent = 0;  // of entryAdded, entryRemoved, itemRemoved
  std::string name;  // local
  Inode inode = 0;
  bool byProgram = false;  // a program did it through the mount, so the kernel knows

  friend bool operator==(const ReplicaChange&, const ReplicaChange&) = default;
};

}  // namespace vondle
