#pragma once

#include <functional>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"

namespace vondle {

// Reads all pages of a container as the extension lists it now, past the tree; those of the items that are wanted are
// kept. Completes on the extension's thread.
void listWhole(ReplicatedExtension& extension, ItemIdentifier container, Request request,
               std::function<bool(const Item&)> isWanted, Completion<Result<std::vector<Item>>> completion);

}  // namespace vondle
