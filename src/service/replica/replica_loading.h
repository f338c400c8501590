#pragma once

#include "base/error.h"
#include "service/replica/replica_store.h"
#include "service/replica/tree_state.h"

namespace vondle {

// Brings all that the store keeps into a tree that has nothing but the root, on several threads when it is much. An
// error means that the database is damaged; the tree is of no use then.
Result<void> loadTree(ReplicaStore& store, TreeState& state);

}  // namespace vondle
