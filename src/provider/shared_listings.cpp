#include "provider/shared_listings.h"

#include <utility>

#include "api/vondle_api.h"
#include "state/item_cache.h"

namespace vondle {

void SharedListings::list(const std::string& folderID, Completion<Entries> completion) {
  {
    MutexLock hold(lock_);
    const auto [listed, isFirst] = listed_.try_emplace(folderID);
    listed->second.push_back(std::move(completion));
    if (!isFirst) return;
  }
  begin(folderID);
}

void SharedListings::begin(const std::string& folderID) {
  Waiting served;
  {
    MutexLock hold(lock_);
    served = std::exchange(listed_[folderID], {});
  }
  api_.browse(folderID, [this, folderID, served = std::move(served)](Result<std::vector<Entry>> entries) mutable {
    ended(folderID, std::move(served), std::move(entries));
  });
}

void SharedListings::ended(const std::string& folderID, Waiting served, Result<std::vector<Entry>> entries) {
  Entries listing;
  if (entries) {
    cache_.store(*entries);
    listing = std::make_shared<const std::vector<Entry>>(*std::move(entries));
  }
  bool isWanted = false;
  {
    MutexLock hold(lock_);
    const auto listed = listed_.find(folderID);
    isWanted = !listed->second.empty();
    if (!isWanted) listed_.erase(listed);
  }
  if (isWanted) begin(folderID);
  for (auto& completion : served) std::move(completion)(listing);
}

}  // namespace vondle
