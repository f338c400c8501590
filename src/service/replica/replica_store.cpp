#include "service/replica/replica_store.h"

#include <filesystem>

#include <fmt/format.h>

#include "base/json.h"
#include "fileprovider/error_codes.h"
#include "platform/log.h"
#include "service/edits/edit.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "replica");

constexpr std::int64_t VERSION = 1;  // PRAGMA user_version

// Inodes are reserved in blocks, so that a new item costs no extra write.
constexpr Inode RESERVED_BLOCK = 65'536;

constexpr const char* SCHEMA = R"(
  CREATE TABLE item(
    id INTEGER PRIMARY KEY,          -- the inode
    parent INTEGER NOT NULL,         -- the inode of the folder
    identifier TEXT NOT NULL,
    name TEXT NOT NULL,              -- as the server says
    local TEXT,                      -- in the folder; NULL: the same
    kind INTEGER NOT NULL,           -- 0 file, 1 folder, 2 folder whose children are all here
    type TEXT NOT NULL,
    size INTEGER,
    created REAL,
    modified REAL,
    capabilities INTEGER NOT NULL,
    flags INTEGER NOT NULL,
    policy INTEGER NOT NULL,
    shared INTEGER NOT NULL,         -- 1 shared, 2 by this user
    content_version BLOB NOT NULL,
    metadata_version BLOB NOT NULL,
    owner TEXT,                      -- JSON object of name components
    decorations TEXT                 -- JSON list
  ) STRICT;
  CREATE TABLE reserved(inodes INTEGER NOT NULL) STRICT;  -- one row: inodes below it may have been used
  INSERT INTO reserved VALUES(2);
)";

constexpr std::string_view COLUMNS =
    "id, parent, identifier, name, local, kind, type, size, created, modified, capabilities, flags, policy, shared, "
    "content_version, metadata_version, owner, decorations";

struct NamePart {
  const char* key;
  std::optional<std::string> PersonNameComponents::* part;
};
constexpr NamePart NAME_PARTS[] = {
    {"prefix", &PersonNameComponents::namePrefix}, {"given", &PersonNameComponents::givenName},
    {"middle", &PersonNameComponents::middleName}, {"family", &PersonNameComponents::familyName},
    {"suffix", &PersonNameComponents::nameSuffix}, {"nickname", &PersonNameComponents::nickname},
};

std::optional<std::string> ownerText(const Item& item) {
  if (!item.ownerNameComponents) return std::nullopt;
  json::Object object;
  for (const auto& [key, part] : NAME_PARTS)
    if (const auto& text = *item.ownerNameComponents.*part) object[key] = *text;
  return json::serialize(object);
}

std::optional<PersonNameComponents> ownerOf(const std::optional<std::string>& text) {
  const auto object = text ? json::parseObject(*text) : std::nullopt;
  if (!object) return std::nullopt;
  PersonNameComponents owner;
  for (const auto& [key, part] : NAME_PARTS)
    if (const auto value = json::text(*object, key)) owner.*part = std::string(*value);
  return owner;
}

std::optional<std::string> decorationsText(const Item& item) {
  if (!item.decorations) return std::nullopt;
  json::Array list;
  for (const auto& decoration : *item.decorations) list.emplace_back(decoration);
  return json::serialize(list);
}

std::optional<std::vector<std::string>> decorationsOf(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  const auto value = json::parse(*text);
  if (!value || !value->is_array()) return std::nullopt;
  std::vector<std::string> decorations;
  for (const auto& decoration : value->get_array())
    if (decoration.is_string()) decorations.emplace_back(decoration.get_string());
  return decorations;
}

std::optional<double> secondsOf(const std::optional<Timestamp>& timestamp) {
  return timestamp ? std::optional(timestamp->secondsSince1970) : std::nullopt;
}

std::optional<Timestamp> timestampOf(const sqlite::Statement& row, int column) {
  return row.isNull(column) ? std::nullopt : std::optional(Timestamp{row.real(column)});
}

}  // namespace

ReplicaStore::ReplicaStore(std::string path) : path_(std::move(path)) {}

Result<ReplicaStore> ReplicaStore::open(const std::string& path) {
  auto store = openOnce(path);
  if (store) return store;
  slog.error("%{public}@ cannot be used and is made anew: %{public}@", path, store.error().localizedDescription());
  ReplicaStore(path).giveUp(store.error());
  return openOnce(path);
}

Result<ReplicaStore> ReplicaStore::openOnce(const std::string& path) {
  ReplicaStore store(path);
  auto database = sqlite::Database::open(path, {.synchronous = sqlite::Synchronous::normal});
  if (!database) return std::unexpected(database.error());
  store.database_ = std::make_unique<sqlite::Database>(std::move(*database));
  if (auto prepared = store.prepare(); !prepared) return std::unexpected(prepared.error());
  return store;
}

Result<void> ReplicaStore::prepare() {
  const auto version = database_->userVersion();
  if (!version) return std::unexpected(version.error());
  if (*version == 0) {
    auto transaction = sqlite::Transaction::begin(*database_);
    if (!transaction) return std::unexpected(transaction.error());
    if (auto made = database_->execute(SCHEMA); !made) return made;
    if (auto set = database_->setUserVersion(VERSION); !set) return set;
    if (auto committed = transaction->commit(); !committed) return committed;
  } else if (*version != VERSION) {
    return failure({sqlite::ERROR_DOMAIN, SQLITE_MISMATCH, fmt::format("the tree is of version {}", *version)});
  }
  // So that a start finds those few among a million.
  if (auto made = database_->execute(fmt::format(
          "CREATE INDEX IF NOT EXISTS item_local ON item(id) WHERE identifier GLOB '{}*'", LOCAL_IDENTIFIER_PREFIX));
      !made)
    return made;
  // Listings write much at once: fewer, larger checkpoints. But a start has to go through what is left in the log.
  if (auto set = database_->execute("PRAGMA wal_autocheckpoint = 4000"); !set) return set;
  {
    auto reserved = database_->prepare("SELECT inodes FROM reserved");
    if (!reserved) return std::unexpected(reserved.error());
    const auto row = reserved->step();
    if (!row) return std::unexpected(row.error());
    if (!*row) return failure({sqlite::ERROR_DOMAIN, SQLITE_CORRUPT, "the count of inodes is missing"});
    reserved_ = static_cast<Inode>(reserved->integer(0));
  }
  const auto keep = [this](std::unique_ptr<sqlite::Statement>& place, const std::string& sql) -> Result<void> {
    auto statement = database_->prepare(sql);
    if (!statement) return std::unexpected(statement.error());
    place = std::make_unique<sqlite::Statement>(std::move(*statement));
    return {};
  };
  if (auto kept = keep(upsert_, fmt::format("INSERT OR REPLACE INTO item({}) VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,"
                                            "?12,?13,?14,?15,?16,?17,?18)",
                                            COLUMNS));
      !kept)
    return kept;
  if (auto kept = keep(move_, "UPDATE item SET parent = ?2, local = ?3, name = ?4 WHERE id = ?1"); !kept) return kept;
  if (auto kept = keep(list_, "UPDATE item SET kind = ?2 WHERE id = ?1"); !kept) return kept;
  return keep(remove_, "DELETE FROM item WHERE id = ?1");
}

Result<std::optional<ReplicaStore::Inodes>> ReplicaStore::inodes() {
  auto ends = database_->prepare("SELECT min(id), max(id) FROM item");
  if (!ends) return std::unexpected(ends.error());
  if (const auto row = ends->step(); !row) return std::unexpected(row.error());
  if (ends->isNull(0)) return std::nullopt;
  if (ends->integer(0) <= 0) return failure({sqlite::ERROR_DOMAIN, SQLITE_CORRUPT, "an inode is no inode"});
  return Inodes{static_cast<Inode>(ends->integer(0)), static_cast<Inode>(ends->integer(1))};
}

Result<void> ReplicaStore::read(const std::string& path, Inodes inodes, const std::function<void(const Row&)>& take) {
  auto database = sqlite::Database::open(path, {.readOnly = true});
  if (!database) return std::unexpected(database.error());
  auto rows = database->prepare(
      "SELECT id, parent, identifier, name, local, content_version, size, modified, capabilities, flags, policy, kind "
      "FROM item WHERE id BETWEEN ?1 AND ?2 ORDER BY id");
  if (!rows) return std::unexpected(rows.error());
  rows->bindAll(inodes.first, inodes.last);
  while (true) {
    const auto more = rows->step();
    if (!more) return std::unexpected(more.error());
    if (!*more) return {};
    take({.inode = static_cast<Inode>(rows->integer(0)),
          .parent = static_cast<Inode>(rows->integer(1)),
          .identifier = rows->view(2),
          .serverName = rows->view(3),
          .localName = rows->isNull(4) ? rows->view(3) : rows->view(4),
          .contentVersion = rows->view(5),
          .size = rows->integer(6),
          .modified = rows->real(7),
          .capabilities = static_cast<std::uint32_t>(rows->integer(8)),
          .fileSystemFlags = static_cast<std::uint32_t>(rows->integer(9)),
          .contentPolicy = static_cast<ContentPolicy>(rows->integer(10)),
          .isFolder = rows->integer(11) != 0,
          .isListed = rows->integer(11) == 2});
  }
}

void ReplicaStore::reserveInodes(Inode end) {
  if (end <= reserved_) return;
  reserved_ = end + RESERVED_BLOCK;
  if (isGivenUp()) return;
  if (auto written = database_->run("UPDATE reserved SET inodes = ?1", reserved_); !written) giveUp(written.error());
}

void ReplicaStore::write(const Batch& batch) {
  if (isGivenUp() || batch.isEmpty()) return;
  if (const auto written = tryWrite(batch); !written) giveUp(written.error());
}

void ReplicaStore::writeDurably(const Batch& batch) {
  if (isGivenUp() || batch.isEmpty()) return;
  const auto set = [this](const char* pragma) {
    if (const auto done = database_->execute(pragma); !done) giveUp(done.error());
  };
  set("PRAGMA synchronous = FULL");
  write(batch);
  if (!isGivenUp()) set("PRAGMA synchronous = NORMAL");
}

Result<void> ReplicaStore::tryWrite(const Batch& batch) {
  auto transaction = sqlite::Transaction::begin(*database_);
  if (!transaction) return std::unexpected(transaction.error());
  for (const auto& [inode, parent, localName, isListed, item] : batch.upserts) {
    upsert_->bind(1, inode).bind(2, parent).bind(3, item->itemIdentifier.text).bind(4, item->filename);
    if (localName == item->filename)
      upsert_->bind(5, nullptr);
    else
      upsert_->bind(5, localName);
    upsert_->bind(6, !item->isFolder() ? 0
                     : isListed        ? 2
                                       : 1)
        .bind(7, item->contentType)
        .bind(8, item->documentSize)
        .bind(9, secondsOf(item->creationDate))
        .bind(10, secondsOf(item->contentModificationDate))
        .bind(11, item->capabilities)
        .bind(12, item->fileSystemFlags)
        .bind(13, static_cast<int>(item->contentPolicy))
        .bind(14, (item->isShared ? 1 : 0) + (item->isSharedByCurrentUser ? 2 : 0))
        .bindBlob(15, item->itemVersion.contentVersion)
        .bindBlob(16, item->itemVersion.metadataVersion)
        .bind(17, ownerText(*item))
        .bind(18, decorationsText(*item));
    if (auto done = upsert_->run(); !done) return done;
  }
  for (const auto& [inode, parent, localName, serverName] : batch.moves)
    if (auto done = move_->bindAll(inode, parent, localName, serverName).run(); !done) return done;
  for (const auto& [inode, isListed] : batch.listed)
    if (auto done = list_->bindAll(inode, isListed ? 2 : 1).run(); !done) return done;
  for (const Inode inode : batch.removals)
    if (auto done = remove_->bindAll(inode).run(); !done) return done;
  return transaction->commit();
}

void ReplicaStore::giveUp(const Error& error) {
  slog.error("the tree cannot be kept in %{public}@ and will be read from the server again: %{public}@", path_,
             error.localizedDescription());
  upsert_.reset();
  move_.reset();
  list_.reset();
  remove_.reset();
  database_.reset();
  for (const auto* suffix : {"", "-wal", "-shm"}) {
    std::error_code ignored;
    std::filesystem::remove(path_ + suffix, ignored);
  }
}

std::vector<Inode> ReplicaStore::localItems() {
  std::vector<Inode> inodes;
  if (isGivenUp()) return inodes;
  auto rows = database_->prepare(
      fmt::format("SELECT id FROM item INDEXED BY item_local WHERE identifier GLOB '{}*'", LOCAL_IDENTIFIER_PREFIX));
  if (!rows) return inodes;
  for (auto row = rows->step(); row && *row; row = rows->step()) inodes.push_back(static_cast<Inode>(rows->integer(0)));
  return inodes;
}

Result<Item> ReplicaStore::item(Inode inode) {
  if (isGivenUp()) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  return itemIn(*database_, inode);
}

Result<Item> ReplicaStore::readItem(const std::string& path, Inode inode) {
  auto database = sqlite::Database::open(path, {.readOnly = true});
  if (!database) return std::unexpected(database.error());
  return itemIn(*database, inode);
}

Result<std::vector<std::string>> ReplicaStore::readSomeIdentifiers(const std::string& path, int limit) {
  auto database = sqlite::Database::open(path, {.readOnly = true});
  if (!database) return std::unexpected(database.error());
  auto row = database->prepare(
      "SELECT identifier FROM item WHERE parent = ?1 AND id <> ?1 AND substr(identifier, 1, length(?2)) <> ?2 LIMIT "
      "?3");
  if (!row) return std::unexpected(row.error());
  row->bindAll(ROOT_INODE, LOCAL_IDENTIFIER_PREFIX, limit);
  std::vector<std::string> identifiers;
  while (true) {
    const auto found = row->step();
    if (!found) return std::unexpected(found.error());
    if (!*found) return identifiers;
    identifiers.push_back(row->text(0));
  }
}

Result<Item> ReplicaStore::itemIn(sqlite::Database& database, Inode inode) {
  auto row = database.prepare(fmt::format("SELECT {} FROM item AS i WHERE id = ?1", COLUMNS));
  if (!row) return std::unexpected(row.error());
  const auto found = row->bindAll(inode).step();
  if (!found) return std::unexpected(found.error());
  if (!*found) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  Item item;
  item.itemIdentifier.text = row->text(2);
  item.filename = row->text(3);
  item.contentType = row->text(6);
  item.documentSize = row->optionalInteger(7);
  item.creationDate = timestampOf(*row, 8);
  item.contentModificationDate = timestampOf(*row, 9);
  item.capabilities = static_cast<std::uint32_t>(row->integer(10));
  item.fileSystemFlags = static_cast<std::uint32_t>(row->integer(11));
  item.contentPolicy = static_cast<ContentPolicy>(row->integer(12));
  item.isShared = (row->integer(13) & 1) != 0;
  item.isSharedByCurrentUser = (row->integer(13) & 2) != 0;
  item.itemVersion = {row->text(14), row->text(15)};
  item.ownerNameComponents = ownerOf(row->optionalText(16));
  item.decorations = decorationsOf(row->optionalText(17));
  return item;
}

}  // namespace vondle
