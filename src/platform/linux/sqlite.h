#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <sqlite3.h>

#include "base/error.h"

// A thin owner of SQLite: handles close themselves and errors are values. Neither class is thread-safe: a Database and
// everything prepared on it belong to one thread at a time; guard them with a lock or give each thread its own.
namespace vondle::sqlite {

// Domain of the errors; the code is SQLite's extended result code (SQLITE_CONSTRAINT_UNIQUE and so on).
inline constexpr std::string_view ERROR_DOMAIN = "VondleSQLiteError";

// One prepared statement. Parameters count from 1, columns from 0. Run it with step() and read the columns until step()
// answers false, or with run(); then reset() lets it run again (bindings stay until they are replaced).
class Statement {
 public:
  Statement(Statement&&) = default;
  Statement& operator=(Statement&&) = default;

  // Texts are copied. nullptr and std::nullopt bind NULL. Binding to a parameter that does not exist is remembered and
  // fails the next step. The statement must be fresh or reset.
  Statement& bind(int parameter, std::string_view text);
  Statement& bind(int parameter, const char* text) { return bind(parameter, std::string_view(text)); }
  Statement& bind(int parameter, const std::string& text) { return bind(parameter, std::string_view(text)); }
  Statement& bind(int parameter, double number);
  Statement& bind(int parameter, std::nullptr_t);
  Statement& bind(int parameter, std::nullopt_t) { return bind(parameter, nullptr); }
  template <class T>
    requires std::is_integral_v<T>
  Statement& bind(int parameter, T number) {
    return bindInteger(parameter, static_cast<std::int64_t>(number));
  }
  template <class T>
  Statement& bind(int parameter, const std::optional<T>& value) {
    return value ? bind(parameter, *value) : bind(parameter, nullptr);
  }
  Statement& bindBlob(int parameter, std::string_view bytes);

  // Binds parameters 1, 2, … in order.
  template <class... Args>
  Statement& bindAll(const Args&... args) {
    int parameter = 0;
    (bind(++parameter, args), ...);
    return *this;
  }

  // True: there is a row to read. False: done, and the statement is reset.
  Result<bool> step();
  // Runs to the end, rows ignored, and resets.
  Result<void> run();
  void reset();

  // Of the current row; SQLite converts between types as it does. Views live until the next step or reset.
  [[nodiscard]] std::int64_t integer(int column) const;
  [[nodiscard]] bool boolean(int column) const { return integer(column) != 0; }
  [[nodiscard]] double real(int column) const;
  [[nodiscard]] std::string_view view(int column) const;  // text or blob; empty when NULL
  [[nodiscard]] std::string text(int column) const { return std::string(view(column)); }
  [[nodiscard]] bool isNull(int column) const;
  [[nodiscard]] std::optional<std::string> optionalText(int column) const;
  [[nodiscard]] std::optional<std::int64_t> optionalInteger(int column) const;

 private:
  friend class Database;
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
  Statement& bindInteger(int parameter, std::int64_t number);
  Statement& noteBinding(int resultCode);

  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  int bindingFailure_ = SQLITE_OK;
};

// How sure a commit is: full survives power loss; normal survives the death of the process, and after power loss the
// database is whole but may lack the latest commits.
enum class Synchronous { normal, full };

struct OpenOptions {
  Synchronous synchronous = Synchronous::full;
  bool readOnly = false;
  std::chrono::milliseconds busyTimeout{5000};
};

// One connection, in write-ahead mode with foreign keys enforced. Statements must not outlive it.
class Database {
 public:
  // Makes the file, 0600, when it is missing; ":memory:" is a database of its own. The folder must exist.
  static Result<Database> open(const std::string& path, OpenOptions options = {});

  Database(Database&&) = default;
  Database& operator=(Database&&) = default;

  Result<Statement> prepare(std::string_view sql);
  // One or more statements without parameters, separated by semicolons.
  Result<void> execute(std::string_view sql);

  // prepare, bindAll and run.
  template <class... Args>
  Result<void> run(std::string_view sql, const Args&... args) {
    auto statement = prepare(sql);
    if (!statement) return std::unexpected(std::move(statement.error()));
    return statement->bindAll(args...).run();
  }

  [[nodiscard]] std::int64_t lastInsertedRow() const { return sqlite3_last_insert_rowid(connection_.get()); }
  // Rows changed by the last insert, update or delete.
  [[nodiscard]] std::int64_t changedRows() const { return sqlite3_changes64(connection_.get()); }
  [[nodiscard]] bool inTransaction() const { return sqlite3_get_autocommit(connection_.get()) == 0; }

  // PRAGMA user_version, for migrations; 0 in a new database.
  Result<std::int64_t> userVersion();
  Result<void> setUserVersion(std::int64_t version);

 private:
  struct Close {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
  };
  explicit Database(sqlite3* connection) : connection_(connection) {}

  std::unique_ptr<sqlite3, Close> connection_;
};

// A write transaction for a scope: begun at once (BEGIN IMMEDIATE), rolled back unless committed. They do not nest.
class Transaction {
 public:
  static Result<Transaction> begin(Database& database);
  Transaction(Transaction&& other) noexcept : database_(std::exchange(other.database_, nullptr)) {}
  Transaction& operator=(Transaction&&) = delete;
  ~Transaction();

  // After a failure nothing of the transaction has happened.
  Result<void> commit();

 private:
  explicit Transaction(Database& database) : database_(&database) {}
  Database* database_;
};

}  // namespace vondle::sqlite
