#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "api/change_set.h"
#include "api/content_target.h"
#include "api/entry.h"
#include "api/thumb_urls.h"
#include "base/completion.h"
#include "base/error.h"
#include "base/json.h"
#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/url_data_client.h"

namespace vondle {

class ConfigLoader;

// The longest reply that is read: some million entries.
inline constexpr std::int64_t MAX_REPLY_BYTES = 512LL * 1024 * 1024;

// The client of the storage service's JSON API. Any thread may call; calls run side by side and are never repeated.
// Each reads the configuration (file and keychain) on the calling thread. Completions run on the session's thread, or
// before the call returns when there is nothing to send. Errors: those of URL_ERROR_DOMAIN unchanged, and APIError.
class VondleAPI {
 public:
  using Entries = std::vector<Entry>;
  using Query = std::vector<std::pair<std::string, std::string>>;

  VondleAPI(URLLoading& loading, const Clock& clock, ConfigLoader& config, std::string clientHeader);
  static VondleAPI& shared();

  // Lists a folder: its folders first, then its files, each in the server's order.
  void browse(std::string id, Completion<Result<Entries>> completion);
  // The same by path below the root; when the server does not tell the user's role, it is "owner".
  void browsePath(std::string path, Completion<Result<Entries>> completion);
  void item(std::string id, Completion<Result<Entry>> completion);
  // Limit 0 asks for an empty page that tells the feed's head.
  void changes(std::int64_t since, std::int64_t limit, Completion<Result<ChangeSet>> completion);
  void trash(Completion<Result<Entries>> completion);

  // Writes complete with the server's reply as it is. Files are named by storage key, folders by path without a final
  // "/", what is in the trash by identifier.
  using Reply = Completion<Result<json::Object>>;
  void move(std::string key, std::string toPath, Reply completion);
  void moveFolder(std::string fromPath, std::string toPath, Reply completion);
  void createFolder(std::string name, std::string parentPath, Reply completion);
  // Contents stored under the key form the file at the path.
  void registerContents(std::string key, std::string path, Reply completion);
  void deleteFile(std::string key, Reply completion);
  void deleteFolder(std::string path, Reply completion);
  void restore(std::string id, Reply completion);
  void purge(std::string id, Reply completion);

  // Asks where new contents of the entry go; `baseVersion` is the version that the edit began with. The server decides
  // the form; sizes below multipartThreshold are not told to it.
  void contentURL(std::string id, std::int64_t baseVersion, std::int64_t size,
                  Completion<Result<ContentTarget>> completion);
  // Makes the contents stored under the key the entry's next version; `thumb`: a preview of them was stored, too.
  void contentCommit(std::string id, std::int64_t baseVersion, std::string key, bool thumb, Reply completion);
  // Tells that contents were stored under the key. Nobody learns what became of it.
  void notifyUpload(std::string key);
  // The same for who waits until the server has heard it, or can't; `thumb` as above.
  void notifyUpload(std::string key, bool thumb, Completion<> answered);
  void thumbURLs(std::vector<std::string> ids, Completion<Result<ThumbURLs>> completion);

  // One POST request by the rules of all: `path` is the endpoint's text below "/vondle/api/".
  void post(std::string path, json::Object body, Reply completion);

  // Ends what runs with URL_CANCELLED and refuses what comes later in the same way. Not from a completion.
  void stop() EXCLUDES(lock_);

 private:
  void get(std::string path, Query query, Reply completion);
  void request(std::string path, Query query, std::string method, std::optional<json::Object> body, Reply completion);
  void send(URLRequest request, Completion<Result<URLReply>> completion) EXCLUDES(lock_);
  // The completion of a folder listing.
  Reply listing(std::optional<std::string> roleWhenNotTold, Completion<Result<Entries>> completion);

  const Clock& clock_;
  ConfigLoader& config_;
  const std::string clientHeader_;

  Mutex lock_;
  ConditionVariable sent_;
  int sending_ GUARDED_BY(lock_) = 0;
  bool stopped_ GUARDED_BY(lock_) = false;
  std::optional<URLDataClient> client_;  // last: its end completes what runs
};

}  // namespace vondle
