#include "service/edits/edit_store.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

namespace vondle {
namespace {

constexpr std::int64_t VERSION = 3;  // PRAGMA user_version

// Version 1 knew of the owner's permissions alone, as 1 to execute, 2 to read and 4 to write.
constexpr const char* FROM_VERSION_1 = R"(
  UPDATE attributes
  SET permissions = ((permissions & 1) << 6) | ((permissions & 2) << 7) | ((permissions & 4) << 5)
  WHERE permissions IS NOT NULL
)";

constexpr const char* SCHEMA = R"(
  CREATE TABLE edit(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    item TEXT NOT NULL,              -- the identifier
    folder INTEGER NOT NULL,         -- whether it is one
    fields INTEGER NOT NULL,         -- 1 created, 2 placed, 4 contents, 8 deleted
    place_folder TEXT NOT NULL,      -- the identifier of the folder, and the server name
    place_name TEXT NOT NULL,
    server_folder TEXT,              -- the same where the server has it
    server_name TEXT,
    content_version BLOB NOT NULL,   -- what the edit was made on
    metadata_version BLOB NOT NULL,
    contents INTEGER NOT NULL,       -- the number of the private file
    size INTEGER NOT NULL,
    modified REAL NOT NULL,
    generation INTEGER NOT NULL,
    contents_generation INTEGER NOT NULL,
    changed REAL NOT NULL,
    attempts INTEGER NOT NULL,
    next_try REAL,
    last_error TEXT NOT NULL,
    attempt_folder TEXT,             -- what may have reached the server: where it was to be
    attempt_name TEXT,
    attempt_contents INTEGER,
    attempt_generation INTEGER
  ) STRICT;
  CREATE TABLE attributes(
    item TEXT PRIMARY KEY,
    permissions INTEGER,             -- 0 to 0777
    modified REAL,
    content_tag INTEGER NOT NULL
  ) STRICT, WITHOUT ROWID;
)";

// Version 2 did not say what may have reached the server: it may be all of it.
constexpr const char* FROM_VERSION_2 = R"(
  ALTER TABLE edit ADD COLUMN attempt_folder TEXT;
  ALTER TABLE edit ADD COLUMN attempt_name TEXT;
  ALTER TABLE edit ADD COLUMN attempt_contents INTEGER;
  ALTER TABLE edit ADD COLUMN attempt_generation INTEGER;
  UPDATE edit SET attempt_folder = place_folder, attempt_name = place_name, attempt_contents = contents,
    attempt_generation = generation WHERE fields & 5;
)";

// From each version to the next; from none to the last.
constexpr const char* STEPS[] = {SCHEMA, FROM_VERSION_1, FROM_VERSION_2};

constexpr std::string_view COLUMNS =
    "id, item, folder, fields, place_folder, place_name, server_folder, server_name, content_version, "
    "metadata_version, contents, size, modified, generation, contents_generation, changed, attempts, next_try, "
    "last_error, attempt_folder, attempt_name, attempt_contents, attempt_generation";

Edit editOf(const sqlite::Statement& row) {
  Edit edit{.id = row.integer(0),
            .item = {row.text(1)},
            .isFolder = row.boolean(2),
            .fields = static_cast<std::uint32_t>(row.integer(3)),
            .place = {{row.text(4)}, row.text(5)},
            .serverPlace = std::nullopt,
            .baseVersion = {row.text(8), row.text(9)},
            .contents = row.integer(10),
            .size = row.integer(11),
            .modified = {row.real(12)},
            .generation = row.integer(13),
            .contentsGeneration = row.integer(14),
            .changedAt = {row.real(15)},
            .attempt = std::nullopt,
            .attempts = static_cast<int>(row.integer(16)),
            .nextTry = std::nullopt,
            .lastError = row.text(18)};
  if (!row.isNull(6)) edit.serverPlace = Place{{row.text(6)}, row.text(7)};
  if (!row.isNull(17)) edit.nextTry = Timestamp{row.real(17)};
  if (!row.isNull(19)) edit.attempt = Attempt{{{row.text(19)}, row.text(20)}, row.integer(21), row.integer(22)};
  return edit;
}

void bind(sqlite::Statement& statement, const Edit& edit) {
  statement.bind(1, edit.id).bind(2, edit.item.text).bind(3, edit.isFolder).bind(4, edit.fields);
  statement.bind(5, edit.place.folder.text).bind(6, edit.place.name);
  if (edit.serverPlace)
    statement.bind(7, edit.serverPlace->folder.text).bind(8, edit.serverPlace->name);
  else
    statement.bind(7, nullptr).bind(8, nullptr);
  statement.bindBlob(9, edit.baseVersion.contentVersion).bindBlob(10, edit.baseVersion.metadataVersion);
  statement.bind(11, edit.contents).bind(12, edit.size).bind(13, edit.modified.secondsSince1970);
  statement.bind(14, edit.generation).bind(15, edit.contentsGeneration).bind(16, edit.changedAt.secondsSince1970);
  statement.bind(17, edit.attempts);
  statement.bind(18, edit.nextTry ? std::optional(edit.nextTry->secondsSince1970) : std::nullopt);
  statement.bind(19, edit.lastError);
  if (const auto& attempt = edit.attempt)
    statement.bind(20, attempt->place.folder.text)
        .bind(21, attempt->place.name)
        .bind(22, attempt->contents)
        .bind(23, attempt->generation);
  else
    statement.bind(20, nullptr).bind(21, nullptr).bind(22, nullptr).bind(23, nullptr);
}

// Says which file it is and what a person can do.
Error unusable(const std::string& path, const Error& cause) {
  return Error(
             sqlite::ERROR_DOMAIN, cause.code,
             fmt::format("The changes that are not on the server yet cannot be read from {}: {}. Nothing was removed. "
                         "Keep a copy of the file and of the folder edits beside it, then repair it or move it away.",
                         path, cause.localizedDescription()))
      .withUnderlying(cause);
}

}  // namespace

EditStore::EditStore(std::string path) : path_(std::move(path)) {}

Result<EditStore> EditStore::open(const std::string& path) {
  EditStore store(path);
  auto database = sqlite::Database::open(path, {.synchronous = sqlite::Synchronous::normal});
  if (!database) return failure(unusable(path, database.error()));
  store.database_ = std::make_unique<sqlite::Database>(std::move(*database));
  if (const auto prepared = store.prepare(); !prepared) return failure(unusable(path, prepared.error()));
  return store;
}

Result<void> EditStore::prepare() {
  const auto version = database_->userVersion();
  if (!version) return failure(version.error());
  if (*version >= 0 && *version < VERSION) {
    auto transaction = sqlite::Transaction::begin(*database_);
    if (!transaction) return failure(transaction.error());
    for (auto from = *version; from < VERSION; from = from == 0 ? VERSION : from + 1)
      if (auto done = database_->execute(STEPS[from]); !done) return done;
    if (auto set = database_->setUserVersion(VERSION); !set) return set;
    if (auto committed = transaction->commit(); !committed) return committed;
  } else if (*version != VERSION) {
    return failure({sqlite::ERROR_DOMAIN, SQLITE_MISMATCH,
                    fmt::format("it is of version {}, which is newer than this program", *version)});
  }
  if (auto sound = check(); !sound) return sound;
  {
    auto last = database_->prepare("SELECT max(seq) FROM sqlite_sequence WHERE name = 'edit'");
    if (!last) return failure(last.error());
    if (const auto row = last->step(); !row) return failure(row.error());
    nextID_ = last->integer(0) + 1;
  }
  const auto keep = [this](std::unique_ptr<sqlite::Statement>& place, const std::string& sql) -> Result<void> {
    auto statement = database_->prepare(sql);
    if (!statement) return failure(statement.error());
    place = std::make_unique<sqlite::Statement>(std::move(*statement));
    return {};
  };
  if (auto kept = keep(put_, fmt::format("INSERT OR REPLACE INTO edit({}) VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,"
                                         "?12,?13,?14,?15,?16,?17,?18,?19,?20,?21,?22,?23)",
                                         COLUMNS));
      !kept)
    return kept;
  if (auto kept = keep(remove_, "DELETE FROM edit WHERE id = ?1"); !kept) return kept;
  if (auto kept = keep(putAttributes_, "INSERT OR REPLACE INTO attributes VALUES(?1,?2,?3,?4)"); !kept) return kept;
  return keep(removeAttributes_, "DELETE FROM attributes WHERE item = ?1");
}

// The queue is small, so it can be looked at as a whole.
Result<void> EditStore::check() {
  auto rows = database_->prepare("PRAGMA integrity_check(1)");
  if (!rows) return failure(rows.error());
  const auto row = rows->step();
  if (!row) return failure(row.error());
  if (!*row || rows->view(0) != "ok") return failure({sqlite::ERROR_DOMAIN, SQLITE_CORRUPT, rows->text(0)});
  return {};
}

Result<std::vector<Edit>> EditStore::edits() {
  auto rows = database_->prepare(fmt::format("SELECT {} FROM edit ORDER BY id", COLUMNS));
  if (!rows) return failure(unusable(path_, rows.error()));
  std::vector<Edit> edits;
  while (true) {
    const auto more = rows->step();
    if (!more) return failure(unusable(path_, more.error()));
    if (!*more) return edits;
    edits.push_back(editOf(*rows));
  }
}

Result<std::vector<LocalAttributes>> EditStore::attributes() {
  auto rows = database_->prepare("SELECT item, permissions, modified, content_tag FROM attributes");
  if (!rows) return failure(unusable(path_, rows.error()));
  std::vector<LocalAttributes> attributes;
  while (true) {
    const auto more = rows->step();
    if (!more) return failure(unusable(path_, more.error()));
    if (!*more) return attributes;
    LocalAttributes one{{rows->text(0)}, std::nullopt, std::nullopt, static_cast<std::uint64_t>(rows->integer(3))};
    if (!rows->isNull(1)) one.permissions = static_cast<std::uint32_t>(rows->integer(1));
    if (!rows->isNull(2)) one.modified = Timestamp{rows->real(2)};
    attributes.push_back(std::move(one));
  }
}

EditID EditStore::newID() {
  return nextID_++;
}

Result<void> EditStore::write(const EditBatch& batch) {
  if (batch.isEmpty()) return {};
  auto transaction = sqlite::Transaction::begin(*database_);
  if (!transaction) return failure(transaction.error());
  // An item may pass from one edit to another, so the removals come first.
  for (const EditID id : batch.removals)
    if (auto done = remove_->bindAll(id).run(); !done) return done;
  for (const Edit& edit : batch.edits) {
    bind(*put_, edit);
    if (auto done = put_->run(); !done) return done;
  }
  for (const auto& item : batch.attributeRemovals)
    if (auto done = removeAttributes_->bindAll(item.text).run(); !done) return done;
  for (const auto& [item, permissions, modified, tag] : batch.attributes) {
    putAttributes_->bind(1, item.text).bind(2, permissions);
    putAttributes_->bind(3, modified ? std::optional(modified->secondsSince1970) : std::nullopt).bind(4, tag);
    if (auto done = putAttributes_->run(); !done) return done;
  }
  return transaction->commit();
}

Result<void> EditStore::makeDurable() {
  // A commit syncs the log, and with it all that was committed before; it must change something to be one.
  if (auto set = database_->execute("PRAGMA synchronous = FULL"); !set) return set;
  auto synced = database_->execute(fmt::format("BEGIN IMMEDIATE; PRAGMA user_version = {}; COMMIT", VERSION));
  if (!synced && database_->inTransaction()) (void)database_->execute("ROLLBACK");
  if (auto reset = database_->execute("PRAGMA synchronous = NORMAL"); !reset && synced) return reset;
  return synced;
}

}  // namespace vondle
