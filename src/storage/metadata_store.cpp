#include "storage/metadata_store.h"

#include <utility>

#include "platform/log.h"

namespace vondle::storage {
namespace {

constexpr Log slog("com.ferrow.vondle.storage", "database");

constexpr std::int64_t SCHEMA_VERSION = 1;

constexpr const char* TABLES = R"(
CREATE TABLE settings(name TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;

CREATE TABLE accounts(
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE,
  key_hash TEXT NOT NULL UNIQUE,
  root INTEGER NOT NULL,
  quota INTEGER,
  used INTEGER NOT NULL DEFAULT 0,
  head INTEGER NOT NULL DEFAULT 0);

CREATE TABLE items(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  account INTEGER NOT NULL,
  parent INTEGER,
  name TEXT NOT NULL,
  is_folder INTEGER NOT NULL,
  size INTEGER NOT NULL,
  modified INTEGER NOT NULL,
  version INTEGER NOT NULL,
  key TEXT UNIQUE,
  hash TEXT NOT NULL,
  has_thumb INTEGER NOT NULL,
  trashed INTEGER,
  trashed_path TEXT NOT NULL);
CREATE UNIQUE INDEX items_by_name ON items(parent, name) WHERE trashed IS NULL;
CREATE INDEX items_trashed ON items(account, trashed) WHERE trashed IS NOT NULL;
CREATE INDEX items_trashed_from ON items(parent) WHERE trashed IS NOT NULL;

CREATE TABLE shares(
  item INTEGER NOT NULL,
  account INTEGER NOT NULL,
  role TEXT NOT NULL,
  name TEXT NOT NULL,
  PRIMARY KEY(item, account),
  UNIQUE(account, name)) WITHOUT ROWID;

CREATE TABLE feed(
  account INTEGER NOT NULL,
  item INTEGER NOT NULL,
  seq INTEGER NOT NULL,
  PRIMARY KEY(account, item)) WITHOUT ROWID;
CREATE UNIQUE INDEX feed_in_order ON feed(account, seq);

CREATE TABLE uploads(
  key TEXT PRIMARY KEY,
  account INTEGER NOT NULL,
  owner INTEGER NOT NULL,
  parent INTEGER,
  name TEXT NOT NULL,
  item INTEGER,
  size INTEGER,
  upload_id TEXT NOT NULL,
  part_size INTEGER NOT NULL,
  stored INTEGER NOT NULL,
  stored_size INTEGER NOT NULL,
  hash TEXT NOT NULL,
  touched INTEGER NOT NULL) WITHOUT ROWID;
CREATE INDEX uploads_by_age ON uploads(touched);
CREATE INDEX uploads_by_owner ON uploads(owner);

CREATE TABLE parts(
  key TEXT NOT NULL,
  number INTEGER NOT NULL,
  size INTEGER NOT NULL,
  etag TEXT NOT NULL,
  PRIMARY KEY(key, number)) WITHOUT ROWID;

CREATE TABLE garbage(key TEXT PRIMARY KEY) WITHOUT ROWID;
)";

#define ITEM_COLUMNS \
  "id, account, parent, name, is_folder, size, modified, version, key, hash, has_thumb, trashed, trashed_path"
#define ACCOUNT_COLUMNS "id, name, root, quota, used, head"
#define UPLOAD_COLUMNS \
  "key, account, owner, parent, name, item, size, upload_id, part_size, stored, stored_size, hash, touched"

Item itemOf(const sqlite::Statement& row) {
  return {.id = row.integer(0),
          .account = row.integer(1),
          .parent = row.optionalInteger(2),
          .name = row.text(3),
          .isFolder = row.boolean(4),
          .size = row.integer(5),
          .modified = row.integer(6),
          .version = row.integer(7),
          .key = row.text(8),
          .hash = row.text(9),
          .thumb = static_cast<Thumb>(row.integer(10)),
          .trashed = row.optionalInteger(11),
          .trashedPath = row.text(12)};
}

Account accountOf(const sqlite::Statement& row) {
  return {.id = row.integer(0),
          .name = row.text(1),
          .root = row.integer(2),
          .quota = row.optionalInteger(3),
          .used = row.integer(4),
          .head = row.integer(5)};
}

Share shareOf(const sqlite::Statement& row) {
  return {.item = row.integer(0), .account = row.integer(1), .role = row.text(2), .name = row.text(3)};
}

Upload uploadOf(const sqlite::Statement& row) {
  return {.key = row.text(0),
          .account = row.integer(1),
          .owner = row.integer(2),
          .parent = row.optionalInteger(3),
          .name = row.text(4),
          .item = row.optionalInteger(5),
          .size = row.optionalInteger(6),
          .uploadId = row.text(7),
          .partSize = row.integer(8),
          .stored = row.boolean(9),
          .storedSize = row.integer(10),
          .hash = row.text(11),
          .touched = row.integer(12)};
}

Part partOf(const sqlite::Statement& row) {
  return {.number = row.integer(0), .size = row.integer(1), .etag = row.text(2)};
}

std::optional<std::string> keyOrNull(const Item& item) {
  return item.key.empty() ? std::nullopt : std::optional(item.key);
}

}  // namespace

// One run of a statement that was prepared before; a failure is remembered by the store.
class MetadataStore::Query {
 public:
  template <class... Args>
  Query(MetadataStore& store, std::string_view sql, const Args&... args)
      : store_(store), statement_(store.statement(sql)) {
    if (statement_) statement_->bindAll(args...);
  }
  Query(Query&& other) noexcept : store_(other.store_), statement_(std::exchange(other.statement_, nullptr)) {}
  Query& operator=(Query&&) = delete;
  ~Query() {
    if (statement_) statement_->reset();
  }

  bool next() {
    if (!statement_) return false;
    auto row = statement_->step();
    if (row) return *row;
    store_.failure_ = std::move(row.error());
    return false;
  }
  const sqlite::Statement& operator*() const { return *statement_; }
  const sqlite::Statement* operator->() const { return statement_; }

 private:
  MetadataStore& store_;
  sqlite::Statement* statement_;
};

Result<MetadataStore> MetadataStore::open(const std::string& path) {
  auto database = sqlite::Database::open(path);
  if (!database) return failure(std::move(database.error()));
  MetadataStore store(std::move(*database));
  if (auto done = store.prepareTables(); !done) return failure(std::move(done.error()));
  return store;
}

Result<void> MetadataStore::prepareTables() {
  auto transaction = sqlite::Transaction::begin(database_);
  if (!transaction) return failure(std::move(transaction.error()));
  const auto version = database_.userVersion();
  if (!version) return failure(version.error());
  if (*version == SCHEMA_VERSION) return {};
  if (*version != 0)
    return failure({sqlite::ERROR_DOMAIN, 0, "the database was written by a newer vondle-storage; install that one"});
  if (auto done = database_.execute(TABLES); !done) return done;
  if (auto done = database_.setUserVersion(SCHEMA_VERSION); !done) return done;
  return transaction->commit();
}

sqlite::Statement* MetadataStore::statement(std::string_view sql) {
  if (failure_) return nullptr;
  auto found = statements_.find(sql);
  if (found == statements_.end()) {
    auto prepared = database_.prepare(sql);
    if (!prepared) {
      failure_ = std::move(prepared.error());
      return nullptr;
    }
    found = statements_.emplace(std::string(sql), std::move(*prepared)).first;
  }
  return &found->second;
}

void MetadataStore::run(Query query) {
  while (query.next()) {
  }
}

void MetadataStore::begin(std::string_view sql) {
  failure_.reset();
  run(Query(*this, sql));
}

bool MetadataStore::finish(std::string_view sql) {
  if (!failure_) run(Query(*this, sql));
  if (!failure_) return true;
  slog.error("%{public}@", failure_->localizedDescription());
  if (database_.inTransaction()) (void)database_.execute("ROLLBACK");
  failure_.reset();
  return false;
}

std::optional<std::string> MetadataStore::setting(std::string_view name) {
  Query query(*this, "SELECT value FROM settings WHERE name = ?1", name);
  return query.next() ? query->optionalText(0) : std::nullopt;
}

void MetadataStore::set(std::string_view name, std::string_view value) {
  run(Query(*this, "INSERT OR REPLACE INTO settings(name, value) VALUES(?1, ?2)", name, value));
}

std::optional<Account> MetadataStore::oneAccount(Query query) {
  return query.next() ? std::optional(accountOf(*query)) : std::nullopt;
}

std::optional<Account> MetadataStore::account(AccountId id) {
  return oneAccount(Query(*this, "SELECT " ACCOUNT_COLUMNS " FROM accounts WHERE id = ?1", id));
}

std::optional<Account> MetadataStore::accountNamed(std::string_view name) {
  return oneAccount(Query(*this, "SELECT " ACCOUNT_COLUMNS " FROM accounts WHERE name = ?1", name));
}

std::optional<Account> MetadataStore::accountWithKey(std::string_view keyHash) {
  return oneAccount(Query(*this, "SELECT " ACCOUNT_COLUMNS " FROM accounts WHERE key_hash = ?1", keyHash));
}

AccountId MetadataStore::addAccount(std::string_view name, std::string_view keyHash, std::int64_t now) {
  run(Query(*this, "INSERT INTO accounts(name, key_hash, root) VALUES(?1, ?2, 0)", name, keyHash));
  const AccountId id = database_.lastInsertedRow();
  const ItemId root = insert({.account = id, .isFolder = true, .modified = now});
  run(Query(*this, "UPDATE accounts SET root = ?2 WHERE id = ?1", id, root));
  return id;
}

void MetadataStore::setKey(AccountId account, std::string_view keyHash) {
  run(Query(*this, "UPDATE accounts SET key_hash = ?2 WHERE id = ?1", account, keyHash));
}

void MetadataStore::setQuota(AccountId account, std::optional<std::int64_t> quota) {
  run(Query(*this, "UPDATE accounts SET quota = ?2 WHERE id = ?1", account, quota));
}

void MetadataStore::addUse(AccountId account, std::int64_t bytes) {
  run(Query(*this, "UPDATE accounts SET used = used + ?2 WHERE id = ?1", account, bytes));
}

std::optional<Item> MetadataStore::oneItem(Query query) {
  return query.next() ? std::optional(itemOf(*query)) : std::nullopt;
}

std::optional<Item> MetadataStore::item(ItemId id) {
  return oneItem(Query(*this, "SELECT " ITEM_COLUMNS " FROM items WHERE id = ?1", id));
}

std::optional<Item> MetadataStore::itemWithKey(std::string_view key) {
  return oneItem(Query(*this, "SELECT " ITEM_COLUMNS " FROM items WHERE key = ?1", key));
}

std::optional<Item> MetadataStore::child(ItemId parent, std::string_view name) {
  return oneItem(Query(*this, "SELECT " ITEM_COLUMNS " FROM items WHERE parent = ?1 AND name = ?2 AND trashed IS NULL",
                       parent, name));
}

void MetadataStore::children(ItemId parent, const std::function<void(Item&&)>& visit) {
  Query query(*this, "SELECT " ITEM_COLUMNS " FROM items WHERE parent = ?1 AND trashed IS NULL ORDER BY name", parent);
  while (query.next()) visit(itemOf(*query));
}

std::vector<Item> MetadataStore::trash(AccountId account) {
  std::vector<Item> items;
  Query query(*this,
              "SELECT " ITEM_COLUMNS
              " FROM items WHERE account = ?1 AND trashed IS NOT NULL ORDER BY trashed DESC, id DESC",
              account);
  while (query.next()) items.push_back(itemOf(*query));
  return items;
}

std::vector<Item> MetadataStore::subtree(ItemId top) {
  std::vector<Item> items;
  Query query(*this,
              "WITH RECURSIVE below(id) AS (VALUES(?1) UNION ALL SELECT items.id FROM items JOIN below "
              "ON items.parent = below.id WHERE items.trashed IS NULL) "
              "SELECT " ITEM_COLUMNS " FROM items WHERE id IN below",
              top);
  while (query.next()) items.push_back(itemOf(*query));
  return items;
}

ItemId MetadataStore::insert(const Item& item) {
  run(Query(*this,
            "INSERT INTO items(account, parent, name, is_folder, size, modified, version, key, hash, has_thumb, "
            "trashed, trashed_path) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)",
            item.account, item.parent, item.name, item.isFolder, item.size, item.modified, item.version,
            keyOrNull(item), item.hash, static_cast<std::int64_t>(item.thumb), item.trashed, item.trashedPath));
  return failure_ ? 0 : database_.lastInsertedRow();
}

void MetadataStore::update(const Item& item) {
  run(Query(*this,
            "UPDATE items SET account = ?2, parent = ?3, name = ?4, size = ?5, modified = ?6, version = ?7, key = ?8, "
            "hash = ?9, has_thumb = ?10, trashed = ?11, trashed_path = ?12 WHERE id = ?1",
            item.id, item.account, item.parent, item.name, item.size, item.modified, item.version, keyOrNull(item),
            item.hash, static_cast<std::int64_t>(item.thumb), item.trashed, item.trashedPath));
}

void MetadataStore::remove(ItemId id) {
  run(Query(*this, "UPDATE items SET parent = NULL WHERE parent = ?1 AND trashed IS NOT NULL", id));
  run(Query(*this, "DELETE FROM shares WHERE item = ?1", id));
  run(Query(*this, "DELETE FROM items WHERE id = ?1", id));
}

std::vector<Share> MetadataStore::shares() {
  std::vector<Share> shares;
  Query query(*this, "SELECT item, account, role, name FROM shares");
  while (query.next()) shares.push_back(shareOf(*query));
  return shares;
}

std::vector<Share> MetadataStore::sharesOf(ItemId item) {
  std::vector<Share> shares;
  Query query(*this, "SELECT item, account, role, name FROM shares WHERE item = ?1", item);
  while (query.next()) shares.push_back(shareOf(*query));
  return shares;
}

std::vector<Share> MetadataStore::sharesWith(AccountId account) {
  std::vector<Share> shares;
  Query query(*this, "SELECT item, account, role, name FROM shares WHERE account = ?1 ORDER BY name", account);
  while (query.next()) shares.push_back(shareOf(*query));
  return shares;
}

std::optional<Share> MetadataStore::share(ItemId item, AccountId account) {
  Query query(*this, "SELECT item, account, role, name FROM shares WHERE item = ?1 AND account = ?2", item, account);
  return query.next() ? std::optional(shareOf(*query)) : std::nullopt;
}

std::optional<Share> MetadataStore::shareNamed(AccountId account, std::string_view name) {
  Query query(*this, "SELECT item, account, role, name FROM shares WHERE account = ?1 AND name = ?2", account, name);
  return query.next() ? std::optional(shareOf(*query)) : std::nullopt;
}

bool MetadataStore::anyShares() {
  Query query(*this, "SELECT 1 FROM shares LIMIT 1");
  return query.next();
}

void MetadataStore::setShare(const Share& share) {
  run(Query(*this, "INSERT OR REPLACE INTO shares(item, account, role, name) VALUES(?1, ?2, ?3, ?4)", share.item,
            share.account, share.role, share.name));
}

void MetadataStore::removeShare(ItemId item, AccountId account) {
  run(Query(*this, "DELETE FROM shares WHERE item = ?1 AND account = ?2", item, account));
}

void MetadataStore::note(AccountId account, ItemId item) {
  run(Query(*this, "UPDATE accounts SET head = head + 1 WHERE id = ?1", account));
  run(Query(*this,
            "INSERT OR REPLACE INTO feed(account, item, seq) VALUES(?1, ?2, (SELECT head FROM accounts WHERE id = ?1))",
            account, item));
}

std::vector<Change> MetadataStore::changes(AccountId account, std::int64_t since, std::int64_t limit) {
  std::vector<Change> changes;
  Query query(*this, "SELECT item, seq FROM feed WHERE account = ?1 AND seq > ?2 ORDER BY seq LIMIT ?3", account, since,
              limit);
  while (query.next()) changes.push_back({.item = query->integer(0), .seq = query->integer(1)});
  return changes;
}

std::optional<Upload> MetadataStore::upload(std::string_view key) {
  Query query(*this, "SELECT " UPLOAD_COLUMNS " FROM uploads WHERE key = ?1", key);
  return query.next() ? std::optional(uploadOf(*query)) : std::nullopt;
}

void MetadataStore::setUpload(const Upload& upload) {
  run(Query(*this,
            "INSERT OR REPLACE INTO uploads(" UPLOAD_COLUMNS
            ") VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)",
            upload.key, upload.account, upload.owner, upload.parent, upload.name, upload.item, upload.size,
            upload.uploadId, upload.partSize, upload.stored, upload.storedSize, upload.hash, upload.touched));
}

void MetadataStore::removeUpload(std::string_view key) {
  run(Query(*this, "DELETE FROM parts WHERE key = ?1", key));
  run(Query(*this, "DELETE FROM uploads WHERE key = ?1", key));
}

std::vector<Upload> MetadataStore::uploadsBefore(std::int64_t touched) {
  std::vector<Upload> uploads;
  Query query(*this, "SELECT " UPLOAD_COLUMNS " FROM uploads WHERE touched < ?1", touched);
  while (query.next()) uploads.push_back(uploadOf(*query));
  return uploads;
}

std::int64_t MetadataStore::waitingBytes(AccountId owner) {
  Query query(*this,
              "SELECT coalesce(sum(CASE WHEN stored THEN stored_size WHEN part_size > 0 THEN size ELSE 0 END), 0) "
              "FROM uploads WHERE owner = ?1",
              owner);
  return query.next() ? query->integer(0) : 0;
}

void MetadataStore::setPart(std::string_view key, const Part& part) {
  run(Query(*this, "INSERT OR REPLACE INTO parts(key, number, size, etag) VALUES(?1, ?2, ?3, ?4)", key, part.number,
            part.size, part.etag));
}

void MetadataStore::removePart(std::string_view key, std::int64_t number) {
  run(Query(*this, "DELETE FROM parts WHERE key = ?1 AND number = ?2", key, number));
}

std::optional<Part> MetadataStore::part(std::string_view key, std::int64_t number) {
  Query query(*this, "SELECT number, size, etag FROM parts WHERE key = ?1 AND number = ?2", key, number);
  return query.next() ? std::optional(partOf(*query)) : std::nullopt;
}

std::vector<Part> MetadataStore::parts(std::string_view key) {
  std::vector<Part> parts;
  Query query(*this, "SELECT number, size, etag FROM parts WHERE key = ?1 ORDER BY number", key);
  while (query.next()) parts.push_back(partOf(*query));
  return parts;
}

void MetadataStore::addGarbage(std::string_view key) {
  run(Query(*this, "INSERT OR IGNORE INTO garbage(key) VALUES(?1)", key));
}

void MetadataStore::removeGarbage(std::string_view key) {
  run(Query(*this, "DELETE FROM garbage WHERE key = ?1", key));
}

std::vector<std::string> MetadataStore::garbage() {
  std::vector<std::string> keys;
  Query query(*this, "SELECT key FROM garbage");
  while (query.next()) keys.push_back(query->text(0));
  return keys;
}

}  // namespace vondle::storage
