#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/json.h"
#include "platform/clock.h"
#include "platform/linux/sqlite.h"
#include "platform/url_session.h"
#include "storage/api_handlers.h"
#include "storage/content_handlers.h"
#include "testing/scripted_url_session.h"

namespace vondle::sim {

// Names contents by their size and bytes; of large ones, by those at both ends.
std::string printOf(std::string_view bytes);
std::string printOfFile(int descriptor);
inline constexpr const char* EMPTY = "empty";

// The storage service itself, without its HTTP door, over a folder of its own: one set of rules for what is refused.
class SimulatedStorage {
 public:
  static constexpr const char* SERVER = "https://api.example";
  static constexpr const char* KEY = "key-of-ann-0123456789";

  SimulatedStorage(std::string folder, const Clock& clock);

  // What the server does with the request as it came over the wire.
  ScriptedReply answer(const URLRequest& request);

  // Another device of the same account, whose requests never fail on the way.
  struct Reply {
    int status = 0;
    json::Object body;
  };
  Reply get(const std::string& endpoint, std::multimap<std::string, std::string> query);
  Reply post(const std::string& endpoint, const json::Object& body);
  // False: refused.
  bool makeFile(const std::string& folder, const std::string& name, const std::string& bytes);
  bool changeFile(const std::string& id, std::int64_t version, const std::string& bytes);

  // An item as it stands on the server.
  struct Stored {
    std::string id;
    std::string parent;  // "root" at the top
    std::string name;
    std::string path;
    bool isFolder = false;
    bool isInTrash = false;   // itself or what it lies in
    std::string trashedWith;  // the id of the top of that
    std::int64_t version = 0;
    std::string key;
    std::string print;  // of a file's contents
  };
  // All there is, by id; the trash included.
  std::vector<Stored> everything();
  // What a file had in a version that it ever had.
  [[nodiscard]] std::optional<std::string> printOf(const std::string& id, std::int64_t version) const;
  // All that a file ever had.
  [[nodiscard]] std::vector<std::string> printsOf(const std::string& id) const;
  std::optional<std::string> printOfKey(const std::string& key);

 private:
  Reply handle(const std::string& method, const std::string& endpoint, std::multimap<std::string, std::string> query,
               const std::string& body);
  ScriptedReply answerAPI(const URLRequest& request, std::string_view path,
                          std::multimap<std::string, std::string> query);
  ScriptedReply take(const URLRequest& request, std::string_view path, std::multimap<std::string, std::string> query);
  ScriptedReply give(const URLRequest& request, std::string_view path, std::multimap<std::string, std::string> query);
  bool send(const std::string& url, std::string_view bytes);
  void noteVersions();

  const std::string folder_;
  const Clock& clock_;
  storage::SignedUrl signer_{"a secret", 3600};
  std::unique_ptr<storage::StorePool> stores_;
  std::unique_ptr<storage::ContentStore> contents_;
  std::unique_ptr<storage::ApiHandlers> api_;
  std::unique_ptr<storage::ContentHandlers> contentHandlers_;
  std::optional<sqlite::Database> database_;  // to look into
  std::int64_t seen_ = 0;                     // of the feed
  std::map<std::pair<std::string, std::int64_t>, std::string> versions_;
  std::map<std::string, std::string> printsByKey_;
};

}  // namespace vondle::sim
