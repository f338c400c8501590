#pragma once

#include <cstddef>
#include <vector>

#include "base/error.h"
#include "platform/files.h"
#include "service/edits/edit.h"
#include "service/service_folders.h"

namespace vondle {

// What of an account is nowhere but here.
struct Unsent {
  std::vector<Edit> edits;
  std::size_t lostFiles = 0;  // private files that no edit names; see contents/lost_and_found.h
  [[nodiscard]] bool isNothing() const { return edits.empty() && lostFiles == 0; }
};

// An error when it cannot be found out. Hold the state lock.
Result<Unsent> findUnsent(const ServiceFolders& folders);

enum class UnsentEdits { keep, remove };

// Removes what is known of an account's tree, and its contents. EBUSY, and nothing is removed, when there are unsent
// edits that are to be kept, or when nobody can tell. Hold the state lock: no service may be using them.
Result<void> removeLocalCopies(const ServiceFolders& folders, Files& files, UnsentEdits unsent);

}  // namespace vondle
