#include "config/server_migration.h"

#include <cerrno>

#include <gmock/gmock.h>

#include "platform/url.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

constexpr auto* PATH = "/home/tester/.vondle/config.json";

struct ServerMigrationTest : testing::Test {
  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  ServerMigration migration{files, {"https://now.example", {"old.example", "older.example", "oldest.example"}}};
};

TEST_F(ServerMigrationTest, NormalisesAddresses) {
  const struct {
    std::string_view text, normal;
  } CASES[] = {
      {"", "https://now.example"},
      {" \t\r\n", "https://now.example"},
      {"\u00A0\u3000", "https://now.example"},
      {"a.example", "https://a.example"},
      {"  a.example\n", "https://a.example"},
      {"\u2003a.example\u2028", "https://a.example"},
      {"http://a.example", "http://a.example"},
      {"https://a.example/", "https://a.example"},
      {"https://a.example///", "https://a.example"},
      {"a.example/api/", "https://a.example/api"},
      {"https://", "https:"},
      {"/", "https:"},
  };
  for (const auto& [text, normal] : CASES) EXPECT_EQ(migration.normaliseServer(text), normal) << text;
}

TEST_F(ServerMigrationTest, RecognisesRetiredHostsByTheHostAlone) {
  for (const auto* text :
       {"https://old.example", "old.example", "older.example/", "https://oldest.example//", "https://OLD.Example",
        "https://old.example.", "OLD.EXAMPLE.", "http://old.example:8080", "https://old.example/api", " old.example ",
        "https://old.example:1/a/b?c#d", "ftp://old.example", "https://ann@old.example"}) {
    EXPECT_EQ(migration.migratedServer(text), "https://now.example") << text;
  }
}

TEST_F(ServerMigrationTest, LeavesOtherHostsAlone) {
  for (const auto* text :
       {"", " \n", "https://now.example", "https://new.old.example", "https://old.example.org", "old.example..",
        "https://a.example/old.example", "https://old .example", "https://", "://old.example", "old", "mailto:a"}) {
    EXPECT_EQ(migration.migratedServer(text), std::nullopt) << text;
  }
}

TEST_F(ServerMigrationTest, RewritesTheServerAndKeepsTheRest) {
  files.put(
      PATH,
      R"({"server":"https://old.example/api/","max_upload_kbps":300,"api_key":"k","list":[1,{"b":null,"a":1.5}]})",
      0644);
  EXPECT_EQ(migration.migrateSavedServer(PATH),
            (ServerMigration::Move{"https://old.example/api/", "https://now.example"}));
  EXPECT_EQ(files.contents(PATH), R"({
  "api_key": "k",
  "list": [
    1,
    {
      "a": 1.5E0,
      "b": null
    }
  ],
  "max_upload_kbps": 300,
  "server": "https://now.example"
}
)");
  EXPECT_EQ(files.attributes(PATH)->permissions, 0600U);
}

TEST_F(ServerMigrationTest, RewritesOnce) {
  files.put(PATH, R"({"server":"old.example"})");
  EXPECT_TRUE(migration.migrateSavedServer(PATH));
  EXPECT_FALSE(migration.migrateSavedServer(PATH));
  EXPECT_EQ(files.writeCount(PATH), 1);
}

TEST_F(ServerMigrationTest, LeavesAFileThatNeedsNoMoveAsItIs) {
  for (const auto* text :
       {"", "{", "[]", "\"old.example\"", "{}", R"({"server":1})", R"({"server":""})", R"({"server":"a.example"})",
        R"({"server":"https://now.example"})", R"({"Server":"old.example"})"}) {
    files.put(PATH, text, 0640);
    EXPECT_EQ(migration.migrateSavedServer(PATH), std::nullopt) << text;
    EXPECT_EQ(files.contents(PATH), text);
    EXPECT_EQ(files.attributes(PATH)->permissions, 0640U);
  }
  EXPECT_EQ(files.writeCount(PATH), 0);
}

TEST_F(ServerMigrationTest, LeavesTheFileWhenTheNewAddressIsTheOldOne) {
  ServerMigration toItself(files, {"https://old.example", {"old.example"}});
  files.put(PATH, R"({"server":"https://old.example"})");
  EXPECT_EQ(toItself.migrateSavedServer(PATH), std::nullopt);
  EXPECT_EQ(files.writeCount(PATH), 0);
}

TEST_F(ServerMigrationTest, ReportsNothingWithoutAFile) {
  EXPECT_EQ(migration.migrateSavedServer(PATH), std::nullopt);
}

TEST_F(ServerMigrationTest, TriesAgainAfterAFailedWrite) {
  files.put(PATH, R"({"server":"old.example"})");
  files.fail(FileOperation::write, PATH, EACCES);
  EXPECT_EQ(migration.migrateSavedServer(PATH), std::nullopt);
  EXPECT_EQ(files.contents(PATH), R"({"server":"old.example"})");
  EXPECT_TRUE(migration.migrateSavedServer(PATH));
}

TEST_F(ServerMigrationTest, ReportsARewriteWhosePermissionsCouldNotBeSet) {
  files.put(PATH, R"({"server":"old.example"})");
  files.fail(FileOperation::setPermissions, PATH, EPERM);
  EXPECT_TRUE(migration.migrateSavedServer(PATH));
}

TEST(ServerDirectory, OfThisBuildNamesOneServerAndThreeHostsThatItLeft) {
  const auto& directory = ServerDirectory::ofThisBuild();
  const auto server = parseURL(directory.defaultServer);
  ASSERT_TRUE(server);
  EXPECT_EQ(directory.defaultServer, "https://" + server->host);
  EXPECT_EQ(directory.retiredHosts.size(), 3U);
  EXPECT_FALSE(directory.retiredHosts.contains(server->host));
}

}  // namespace
}  // namespace vondle
