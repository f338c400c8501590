#include "platform/linux/sqlite.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vondle::sqlite {
namespace {

Error failed(sqlite3* connection, int resultCode, std::string_view sql) {
  std::string text =
      connection && sqlite3_errcode(connection) != SQLITE_OK ? sqlite3_errmsg(connection) : sqlite3_errstr(resultCode);
  if (!sql.empty()) text += " in: " + std::string(sql);
  return {ERROR_DOMAIN, resultCode, std::move(text)};
}

}  // namespace

Statement& Statement::noteBinding(int resultCode) {
  if (resultCode != SQLITE_OK) bindingFailure_ = resultCode;
  return *this;
}

Statement& Statement::bind(int parameter, std::string_view text) {
  // A null pointer would bind NULL instead of the empty text.
  return noteBinding(sqlite3_bind_text64(statement_.get(), parameter, text.data() ? text.data() : "", text.size(),
                                         SQLITE_TRANSIENT, SQLITE_UTF8));
}

Statement& Statement::bind(int parameter, double number) {
  return noteBinding(sqlite3_bind_double(statement_.get(), parameter, number));
}

Statement& Statement::bind(int parameter, std::nullptr_t) {
  return noteBinding(sqlite3_bind_null(statement_.get(), parameter));
}

Statement& Statement::bindInteger(int parameter, std::int64_t number) {
  return noteBinding(sqlite3_bind_int64(statement_.get(), parameter, number));
}

Statement& Statement::bindBlob(int parameter, std::string_view bytes) {
  return noteBinding(sqlite3_bind_blob64(statement_.get(), parameter, bytes.data() ? bytes.data() : "", bytes.size(),
                                         SQLITE_TRANSIENT));
}

Result<bool> Statement::step() {
  const char* sql = sqlite3_sql(statement_.get());
  if (bindingFailure_ != SQLITE_OK) return failure(failed(nullptr, bindingFailure_, sql));
  const int code = sqlite3_step(statement_.get());
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) {
    reset();
    return false;
  }
  auto error = failed(sqlite3_db_handle(statement_.get()), code, sql);
  reset();
  return failure(std::move(error));
}

Result<void> Statement::run() {
  for (;;) {
    const auto row = step();
    if (!row) return failure(row.error());
    if (!*row) return {};
  }
}

void Statement::reset() {
  sqlite3_reset(statement_.get());
}

std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

double Statement::real(int column) const {
  return sqlite3_column_double(statement_.get(), column);
}

std::string_view Statement::view(int column) const {
  const void* bytes = sqlite3_column_type(statement_.get(), column) == SQLITE_BLOB
                          ? sqlite3_column_blob(statement_.get(), column)
                          : sqlite3_column_text(statement_.get(), column);
  if (!bytes) return {};
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::optional<std::string> Statement::optionalText(int column) const {
  return isNull(column) ? std::nullopt : std::optional(text(column));
}

std::optional<std::int64_t> Statement::optionalInteger(int column) const {
  return isNull(column) ? std::nullopt : std::optional(integer(column));
}

Result<Database> Database::open(const std::string& path, OpenOptions options) {
  // SQLite would make the file readable for everybody; what it makes beside it takes over the file's permissions.
  if (path != ":memory:" && !options.readOnly) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) return failure(Error::posix(errno, "cannot open the database " + path));
    ::close(descriptor);
  }

  sqlite3* raw = nullptr;
  const int flags = (options.readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
                    SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  const int code = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  Database database(raw);
  if (code != SQLITE_OK) {
    auto error = failed(raw, code, {});
    error.description = "cannot open the database " + path + ": " + error.description;
    return failure(std::move(error));
  }
  sqlite3_busy_timeout(raw, static_cast<int>(options.busyTimeout.count()));

  std::string settings = "PRAGMA foreign_keys = ON;";
  if (!options.readOnly) {
    settings += "PRAGMA journal_mode = WAL;";
    settings +=
        options.synchronous == Synchronous::full ? "PRAGMA synchronous = FULL;" : "PRAGMA synchronous = NORMAL;";
  }
  if (auto done = database.execute(settings); !done) {
    done.error().description = "cannot open the database " + path + ": " + done.error().description;
    return failure(std::move(done.error()));
  }
  return database;
}

Result<Statement> Database::prepare(std::string_view sql) {
  sqlite3_stmt* raw = nullptr;
  const int code = sqlite3_prepare_v3(connection_.get(), sql.data(), static_cast<int>(sql.size()),
                                      SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
  if (code != SQLITE_OK) return failure(failed(connection_.get(), code, sql));
  if (!raw) return failure({ERROR_DOMAIN, SQLITE_MISUSE, "no statement in: " + std::string(sql)});
  return Statement(raw);
}

Result<void> Database::execute(std::string_view sql) {
  const int code = sqlite3_exec(connection_.get(), std::string(sql).c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) return failure(failed(connection_.get(), code, sql));
  return {};
}

Result<std::int64_t> Database::userVersion() {
  auto statement = prepare("PRAGMA user_version");
  if (!statement) return failure(std::move(statement.error()));
  if (auto row = statement->step(); !row) return failure(std::move(row.error()));
  return statement->integer(0);
}

Result<void> Database::setUserVersion(std::int64_t version) {
  return execute("PRAGMA user_version = " + std::to_string(version));
}

Result<Transaction> Transaction::begin(Database& database) {
  if (auto done = database.execute("BEGIN IMMEDIATE"); !done) return failure(std::move(done.error()));
  return Transaction(database);
}

Transaction::~Transaction() {
  // Some failures have rolled back already.
  if (database_ && database_->inTransaction()) (void)database_->execute("ROLLBACK");
}

Result<void> Transaction::commit() {
  auto done = database_->execute("COMMIT");
  if (!done && database_->inTransaction()) (void)database_->execute("ROLLBACK");
  database_ = nullptr;
  return done;
}

}  // namespace vondle::sqlite
