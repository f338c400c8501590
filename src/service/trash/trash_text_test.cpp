#include "service/trash/trash_text.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace vondle {
namespace {

// Times are written for where the user is.
class TrashTextTest : public testing::Test {
 protected:
  TrashTextTest() { setZone("CET-1"); }
  ~TrashTextTest() override {
    ::unsetenv("TZ");
    ::tzset();
  }
  static void setZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
};

TEST_F(TrashTextTest, TheFolderIsNamedByItsUser) {
  EXPECT_EQ(trashFolderName(0), ".Trash-0");
  EXPECT_EQ(trashFolderName(1000), ".Trash-1000");
}

TEST_F(TrashTextTest, AnInfoFileHasPathAndLocalTimeOfDeletion) {
  EXPECT_EQ(trashInfoText("a/b.txt", {1'714'558'830}),
            "[Trash Info]\nPath=a/b.txt\nDeletionDate=2024-05-01T11:20:30\n");
  setZone("EST5");
  EXPECT_EQ(trashInfoText("a", {1'704'070'800.9}), "[Trash Info]\nPath=a\nDeletionDate=2023-12-31T20:00:00\n");
}

TEST_F(TrashTextTest, PathsAreWrittenSoThatEveryProgramReadsThemBack) {
  const struct {
    const char* path;
    const char* written;
  } cases[] = {
      {"My letters/to you.txt", "My%20letters/to%20you.txt"},
      {"F\xC3\xBCr Zo\xC3\xAB.txt", "F%C3%BCr%20Zo%C3%AB.txt"},
      {"#1 100% why?.txt", "%231%20100%25%20why%3F.txt"},
      {"[a](b){c}<d>", "%5Ba%5D%28b%29%7Bc%7D%3Cd%3E"},
      {"'single' \"double\" `back`", "%27single%27%20%22double%22%20%60back%60"},
      {"two\nlines\tand\rmore", "two%0Alines%09and%0Dmore"},
      {"a-b_c.d~e/0Z", "a-b_c.d~e/0Z"},
      {"a=b&c;d:e@f$g!h*i,j+k\\l|m^n", "a%3Db%26c%3Bd%3Ae%40f%24g%21h%2Ai%2Cj%2Bk%5Cl%7Cm%5En"},
      {"\x7f\xff", "%7F%FF"},
  };
  for (const auto& [path, written] : cases)
    EXPECT_EQ(trashInfoText(path, {}),
              std::string("[Trash Info]\nPath=") + written + "\nDeletionDate=1970-01-01T01:00:00\n");
}

TEST_F(TrashTextTest, AServersPathNeverLeadsOutOfTheFolder) {
  const struct {
    const char* server;
    const char* local;
  } cases[] = {
      {"a/b.txt", "a/b.txt"},
      {"a", "a"},
      {"../../etc/passwd", "%=../%=../etc/passwd"},
      {"/etc", "%=/etc"},
      {"a//b", "a/%=/b"},
      {"", "%="},
      {"a/.", "a/%=."},
      {"\xff/b", "%=%FF/b"},
  };
  for (const auto& [server, local] : cases) EXPECT_EQ(localPath(server), local) << server;
}

}  // namespace
}  // namespace vondle
