#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/entry.h"
#include "api/thumb_urls.h"
#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"
#include "fileprovider/replicated_extension.h"
#include "provider/provider_services.h"

namespace vondle {

// Thumbnails for many items: finds out which have one, asks the server in one request where they are, and fetches each
// behind all other transfers. For those that are still being made it asks again, less and less often, and at last
// reports a server that cannot deliver for now. An identifier that is given twice counts once. The images come as the
// server has them: a file manager scales what it shows anyway, and the requested size is only logged.
//
// Once cancelled it starts no image fetch any more; items that still wait for one get none. Kept alive by what it waits
// for.
class FetchThumbnails final : public std::enable_shared_from_this<FetchThumbnails> {
 public:
  // A record this old may miss a thumbnail that was made since.
  static constexpr Duration MAX_ENTRY_AGE = seconds(86'400);
  // From each answer that names thumbnails still being made to the next request.
  static constexpr std::array<Duration, 5> RETRY_DELAYS{seconds(2), seconds(3), seconds(5), seconds(8), seconds(12)};

  FetchThumbnails(const ProviderServices& services, const std::vector<ItemIdentifier>& identifiers,
                  ThumbnailSize requestedSize, ThumbnailReceiver receiver, Completion<std::optional<Error>> completion);

  std::shared_ptr<Progress> start();

 private:
  void lookUpAll();
  void lookedUp(const std::string& id, const std::optional<Entry>& entry) EXCLUDES(lock_);
  void askForAll() EXCLUDES(lock_);
  void ask(std::vector<std::string> ids, std::size_t attempt);
  void answered(const std::vector<std::string>& ids, std::size_t attempt, const ThumbURLs& thumbs);
  void fetch(const std::string& id, const std::string& address);
  void fetched(const std::string& id, Result<std::string> image);
  void askAgain(std::vector<std::string> ids, std::size_t attempt);
  void giveUp(const std::vector<std::string>& ids);
  void deliver(const std::string& id, Result<std::optional<std::string>> image) EXCLUDES(lock_);
  void finish();
  [[nodiscard]] std::string nameOf(const std::string& id) const EXCLUDES(lock_);

  const ProviderServices services_;
  const std::vector<std::string> ids_;  // the server's
  const ThumbnailSize requestedSize_;
  const ThumbnailReceiver receiver_;
  const std::shared_ptr<Progress> progress_;
  Completion<std::optional<Error>> completion_;
  std::int64_t pendingID_ = 0;

  mutable Mutex lock_;
  std::map<std::string, std::string> wanted_ GUARDED_BY(lock_);  // names, by id, of items that have a thumbnail
  std::size_t delivered_ GUARDED_BY(lock_) = 0;
};

}  // namespace vondle
