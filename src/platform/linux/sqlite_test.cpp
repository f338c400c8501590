#include "platform/linux/sqlite.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

namespace vondle::sqlite {
namespace {

class SqliteTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-sqlite-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string path() const { return folder_ + "/test.db"; }

  Database openWithTable() {
    auto database = Database::open(path());
    EXPECT_TRUE(database) << database.error().localizedDescription();
    EXPECT_TRUE(database->execute("CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, name TEXT UNIQUE, n)"));
    return std::move(*database);
  }

  static std::int64_t count(Database& database) {
    auto statement = database.prepare("SELECT count(*) FROM t");
    EXPECT_TRUE(*statement->step());
    return statement->integer(0);
  }

  std::string folder_;
};

TEST_F(SqliteTest, ValuesComeBackAsTheyWereBound) {
  auto database = openWithTable();
  auto statement = database.prepare("SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7");
  ASSERT_TRUE(statement);
  statement->bind(1, "text").bind(2, std::string_view("a\0b", 3)).bind(3, std::int64_t{-5}).bind(4, 2.5);
  statement->bind(5, std::optional<std::string>()).bind(6, true).bindBlob(7, std::string_view("\xff\0", 2));
  ASSERT_TRUE(*statement->step());
  EXPECT_EQ(statement->text(0), "text");
  EXPECT_EQ(statement->view(1), std::string_view("a\0b", 3));
  EXPECT_EQ(statement->integer(2), -5);
  EXPECT_EQ(statement->real(3), 2.5);
  EXPECT_TRUE(statement->isNull(4));
  EXPECT_EQ(statement->optionalText(4), std::nullopt);
  EXPECT_EQ(statement->optionalInteger(4), std::nullopt);
  EXPECT_EQ(statement->optionalInteger(2), -5);
  EXPECT_TRUE(statement->boolean(5));
  EXPECT_EQ(statement->view(6), std::string_view("\xff\0", 2));
  EXPECT_FALSE(*statement->step());
}

TEST_F(SqliteTest, AnEmptyTextIsNotNull) {
  auto database = openWithTable();
  auto statement = database.prepare("SELECT ?1");
  statement->bind(1, std::string_view());
  ASSERT_TRUE(*statement->step());
  EXPECT_FALSE(statement->isNull(0));
  EXPECT_EQ(statement->optionalText(0), "");
}

TEST_F(SqliteTest, AStatementRunsAgainAfterItsEnd) {
  auto database = openWithTable();
  auto insert = database.prepare("INSERT INTO t (name) VALUES (?1)");
  ASSERT_TRUE(insert);
  ASSERT_TRUE(insert->bindAll("a").run());
  ASSERT_TRUE(insert->bindAll("b").run());
  EXPECT_EQ(database.lastInsertedRow(), 2);
  EXPECT_EQ(count(database), 2);
}

TEST_F(SqliteTest, ErrorsCarryTheExtendedCodeAndTheStatementCanBeUsedAgain) {
  auto database = openWithTable();
  auto insert = database.prepare("INSERT INTO t (name) VALUES (?1)");
  ASSERT_TRUE(insert->bindAll("a").run());
  const auto again = insert->run();
  ASSERT_FALSE(again);
  EXPECT_TRUE(again.error().is(ERROR_DOMAIN, SQLITE_CONSTRAINT_UNIQUE));
  EXPECT_TRUE(insert->bindAll("b").run());

  EXPECT_FALSE(database.prepare("SELEKT"));
  EXPECT_FALSE(database.prepare("  "));
  EXPECT_FALSE(database.execute("INSERT INTO nowhere VALUES (1)"));
}

TEST_F(SqliteTest, ABindingThatDoesNotExistFailsTheStep) {
  auto database = openWithTable();
  auto statement = database.prepare("SELECT ?1");
  statement->bind(2, 1);
  const auto row = statement->step();
  ASSERT_FALSE(row);
  EXPECT_EQ(row.error().code, SQLITE_RANGE);
}

TEST_F(SqliteTest, ATransactionIsUndoneUnlessCommitted) {
  auto database = openWithTable();
  {
    auto transaction = Transaction::begin(database);
    ASSERT_TRUE(transaction);
    ASSERT_TRUE(database.run("INSERT INTO t (name) VALUES (?1)", "a"));
    EXPECT_EQ(database.changedRows(), 1);
    EXPECT_FALSE(Transaction::begin(database));
  }
  EXPECT_EQ(count(database), 0);
  EXPECT_FALSE(database.inTransaction());
  {
    auto transaction = Transaction::begin(database);
    ASSERT_TRUE(database.run("INSERT INTO t (name) VALUES (?1)", "a"));
    ASSERT_TRUE(transaction->commit());
  }
  EXPECT_EQ(count(database), 1);
}

TEST_F(SqliteTest, CommittedRowsAreThereAfterReopening) {
  {
    auto database = openWithTable();
    ASSERT_TRUE(database.run("INSERT INTO t (name, n) VALUES (?1, ?2)", "a", 1));
    ASSERT_TRUE(database.setUserVersion(7));
  }
  auto database = openWithTable();
  EXPECT_EQ(count(database), 1);
  EXPECT_EQ(database.userVersion(), 7);
}

TEST_F(SqliteTest, TheFilesAreForTheOwnerOnly) {
  auto database = openWithTable();
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    struct stat found{};
    ASSERT_EQ(stat(entry.path().c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0600U) << entry.path();
  }
}

TEST_F(SqliteTest, AFileThatIsNoDatabaseIsRefused) {
  FILE* file = fopen(path().c_str(), "w");
  for (int i = 0; i < 200; ++i) fputs("this is not a database ", file);
  fclose(file);
  const auto database = Database::open(path());
  ASSERT_FALSE(database);
  EXPECT_EQ(database.error().code, SQLITE_NOTADB);
  EXPECT_NE(database.error().description.find(path()), std::string::npos);
  EXPECT_FALSE(Database::open(folder_ + "/missing/test.db"));
}

TEST_F(SqliteTest, AReaderSeesTheStateBeforeAWriteInProgress) {
  auto writer = openWithTable();
  auto reader = Database::open(path(), {.readOnly = true});
  ASSERT_TRUE(reader) << reader.error().description;
  auto transaction = Transaction::begin(writer);
  ASSERT_TRUE(writer.run("INSERT INTO t (name) VALUES ('a')"));
  EXPECT_EQ(count(*reader), 0);
  ASSERT_TRUE(transaction->commit());
  EXPECT_EQ(count(*reader), 1);
  EXPECT_FALSE(reader->run("INSERT INTO t (name) VALUES ('b')"));
}

TEST_F(SqliteTest, ASecondWriterIsToldThatTheDatabaseIsBusy) {
  auto first = openWithTable();
  auto second = Database::open(path(), {.busyTimeout = std::chrono::milliseconds(0)});
  ASSERT_TRUE(second);
  auto transaction = Transaction::begin(first);
  ASSERT_TRUE(transaction);
  const auto refused = Transaction::begin(*second);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code & 0xff, SQLITE_BUSY);
}

TEST_F(SqliteTest, CommitsAreSyncedAsAsked) {
  for (const auto& [asked, expected] : {std::pair(Synchronous::full, 2), std::pair(Synchronous::normal, 1)}) {
    auto database = Database::open(path(), {.synchronous = asked});
    ASSERT_TRUE(database);
    auto statement = database->prepare("PRAGMA synchronous");
    ASSERT_TRUE(*statement->step());
    EXPECT_EQ(statement->integer(0), expected);
    auto mode = database->prepare("PRAGMA journal_mode");
    ASSERT_TRUE(*mode->step());
    EXPECT_EQ(mode->text(0), "wal");
  }
}

}  // namespace
}  // namespace vondle::sqlite
