#pragma once

#include <optional>

#include "base/error.h"
#include "service/contents/content_store.h"
#include "service/inode.h"
#include "service/replica/replica.h"

namespace vondle {

// Drops the local copy of a file, or of every file in a folder, but for what is to be kept downloaded: EBUSY when a
// folder above the item keeps it; what is kept in it by its own policy is passed over. The policy of the item itself
// does not count, so that one that was just given up is dropped. Goes on after an error, and answers the first.
std::optional<Error> evictAll(const Replica& replica, ContentStore& contents, Inode inode);

}  // namespace vondle
