#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"

namespace vondle {

class ItemCache;
class VondleAPI;

// Listings of folders for those who look there for what they have just made. All who come while a folder is being
// listed share its next listing, so that a thousand new files in one folder do not cost a thousand listings; and nobody
// gets one that was asked for before he came, which might not show what he has made. Each is stored in the cache.
//
// Any thread; completions run on a thread of the API client's, or before the call returns.
class SharedListings {
 public:
  // In the server's order; null when the folder could not be listed.
  using Entries = std::shared_ptr<const std::vector<Entry>>;

  SharedListings(VondleAPI& api, ItemCache& cache) : api_(api), cache_(cache) {}

  void list(const std::string& folderID, Completion<Entries> completion) EXCLUDES(lock_);

 private:
  using Waiting = std::vector<Completion<Entries>>;

  void begin(const std::string& folderID) EXCLUDES(lock_);
  void ended(const std::string& folderID, Waiting served, Result<std::vector<Entry>> entries) EXCLUDES(lock_);

  VondleAPI& api_;
  ItemCache& cache_;
  Mutex lock_;
  std::map<std::string, Waiting> listed_ GUARDED_BY(lock_);  // those being listed, and who waits for the next listing
};

}  // namespace vondle
