#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/sqlite.h"
#include "storage/refusal.h"

namespace vondle::storage {

using AccountId = std::int64_t;
using ItemId = std::int64_t;

struct Account {
  AccountId id = 0;
  std::string name = {};
  ItemId root = 0;
  std::optional<std::int64_t> quota = {};  // bytes; none: as much as the disk holds
  std::int64_t used = 0;                   // bytes of all files, the trash included
  std::int64_t head = 0;                   // newest position of its change feed
};

// What is known of a preview of a file's contents: nothing, that it is stored, or that none can be made of them.
enum class Thumb { none, stored, impossible };

// A file or folder. Trashing marks the top of a subtree only; what lies below keeps its place under it.
struct Item {
  ItemId id = 0;
  AccountId account = 0;              // the owner
  std::optional<ItemId> parent = {};  // none: an account's root, or trash whose folder is gone
  std::string name = {};
  bool isFolder = false;
  std::int64_t size = 0;
  std::int64_t modified = 0;  // milliseconds since 1970
  std::int64_t version = 1;
  std::string key = {};   // of the contents; empty for folders
  std::string hash = {};  // SHA-256 of the contents in hexadecimal digits; empty when they came in parts
  Thumb thumb = Thumb::none;
  std::optional<std::int64_t> trashed = {};  // milliseconds since 1970
  std::string trashedPath = {};              // where it was, below the root
};

struct Share {
  ItemId item = 0;
  AccountId account = 0;  // with whom
  std::string role = {};  // "read" or "write"
  std::string name = {};  // the item's name in that account's container of shared items
};

struct Change {
  ItemId item = 0;  // 0: the container of shared items
  std::int64_t seq = 0;
};

// Where new contents may be sent: made when an address is handed out, gone when they have become a file's contents.
struct Upload {
  std::string key = {};
  AccountId account = 0;                  // who asked for it
  AccountId owner = 0;                    // whose room it takes
  std::optional<ItemId> parent = {};      // of a new file: the folder …
  std::string name = {};                  // … and the name that it will have
  std::optional<ItemId> item = {};        // of new contents: the file
  std::optional<std::int64_t> size = {};  // announced
  std::string uploadId = {};              // of an upload in parts, else empty
  std::int64_t partSize = 0;
  bool stored = false;  // all bytes are here
  std::int64_t storedSize = 0;
  std::string hash = {};
  std::int64_t touched = 0;  // milliseconds since 1970: made, or last part
};

struct Part {
  std::int64_t number = 0;
  std::int64_t size = 0;
  std::string etag = {};
};

// The rows of the service in SQLite: one connection, one thread at a time. Every call belongs in a transaction.
//
// A failure of the database is remembered and ends the transaction: later calls answer as if there were nothing, commit
// refuses, and finishRead says so. So callers need no check after each call, and must not act outside before those.
class MetadataStore {
 public:
  static Result<MetadataStore> open(const std::string& path);

  MetadataStore(MetadataStore&&) = default;
  MetadataStore& operator=(MetadataStore&&) = delete;

  // Runs `work` in one transaction: read gives it one moment's view of everything; what write's work answered is there
  // for good when it returns, and nothing happened when the work or the database refused.
  template <class T>
  Answer<T> read(const std::function<Answer<T>()>& work) {
    begin("BEGIN");
    auto answer = work();
    return end<T>(std::move(answer), "ROLLBACK");
  }
  template <class T>
  Answer<T> write(const std::function<Answer<T>()>& work) {
    begin("BEGIN IMMEDIATE");
    auto answer = work();
    const bool accepted = answer.has_value();
    return end<T>(std::move(answer), accepted ? "COMMIT" : "ROLLBACK");
  }

  // Settings, such as the secret that signs addresses.
  std::optional<std::string> setting(std::string_view name);
  void set(std::string_view name, std::string_view value);

  std::optional<Account> account(AccountId id);
  std::optional<Account> accountNamed(std::string_view name);
  std::optional<Account> accountWithKey(std::string_view keyHash);
  AccountId addAccount(std::string_view name, std::string_view keyHash, std::int64_t now);  // with an empty root
  void setKey(AccountId account, std::string_view keyHash);
  void setQuota(AccountId account, std::optional<std::int64_t> quota);
  void addUse(AccountId account, std::int64_t bytes);

  std::optional<Item> item(ItemId id);
  std::optional<Item> itemWithKey(std::string_view key);
  std::optional<Item> child(ItemId parent, std::string_view name);  // not trashed
  // In name order, without the trashed ones. `visit` must not call the store.
  void children(ItemId parent, const std::function<void(Item&&)>& visit);
  std::vector<Item> trash(AccountId account);  // the latest first
  std::vector<Item> subtree(ItemId top);       // with the top, without what was trashed apart
  ItemId insert(const Item& item);
  void update(const Item& item);
  void remove(ItemId id);  // its trashed children lose their folder

  std::vector<Share> shares();
  std::vector<Share> sharesOf(ItemId item);
  std::vector<Share> sharesWith(AccountId account);
  std::optional<Share> share(ItemId item, AccountId account);
  std::optional<Share> shareNamed(AccountId account, std::string_view name);
  bool anyShares();
  void setShare(const Share& share);
  void removeShare(ItemId item, AccountId account);

  // The newest position of each (account, item) counts; older ones vanish.
  void note(AccountId account, ItemId item);
  std::vector<Change> changes(AccountId account, std::int64_t since, std::int64_t limit);

  std::optional<Upload> upload(std::string_view key);
  void setUpload(const Upload& upload);
  void removeUpload(std::string_view key);  // with its parts
  std::vector<Upload> uploadsBefore(std::int64_t touched);
  std::int64_t waitingBytes(AccountId owner);  // of uploads that are stored or sent in parts
  void setPart(std::string_view key, const Part& part);
  void removePart(std::string_view key, std::int64_t number);
  std::optional<Part> part(std::string_view key, std::int64_t number);
  std::vector<Part> parts(std::string_view key);  // in order

  // Contents that may lie on the disk and belong to nobody: removed after a commit, or at the next start.
  void addGarbage(std::string_view key);
  void removeGarbage(std::string_view key);
  std::vector<std::string> garbage();

 private:
  class Query;

  explicit MetadataStore(sqlite::Database database) : database_(std::move(database)) {}
  Result<void> prepareTables();
  sqlite::Statement* statement(std::string_view sql);
  void begin(std::string_view sql);
  bool finish(std::string_view sql);  // false: the database failed
  template <class T>
  Answer<T> end(Answer<T> answer, std::string_view sql) {
    if (finish(sql)) return answer;
    return refuse(500, "the service's database failed; the request was not carried out");
  }
  std::optional<Item> oneItem(Query query);
  std::optional<Account> oneAccount(Query query);
  void run(Query query);

  sqlite::Database database_;
  std::map<std::string, sqlite::Statement, std::less<>> statements_;
  std::optional<Error> failure_;
};

}  // namespace vondle::storage
