#include "state/cursor.h"

#include <cerrno>
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "config/paths.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

const std::string PATH = SimulatedFiles::containerPath(APPLICATION_GROUP) + "/cursor.json";

struct CursorTest : testing::Test {
  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  Cursor cursor{files};
};

TEST_F(CursorTest, StandsInTheContainerOfTheGroup) {
  EXPECT_EQ(cursor.fileURL(), PATH);
}

TEST_F(CursorTest, LoadsWhatWasSaved) {
  for (const std::int64_t value :
       {std::int64_t{4711}, std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max(),
        std::numeric_limits<std::int64_t>::min()}) {
    cursor.save(value);
    EXPECT_EQ(cursor.load(), value);
  }
}

TEST_F(CursorTest, SavesOneKeyCompactly) {
  cursor.save(0);
  EXPECT_EQ(files.contents(PATH), R"({"changeCursor":0})");
  EXPECT_EQ(cursor.load(), 0);
  cursor.save(4711);
  EXPECT_EQ(files.contents(PATH), R"({"changeCursor":4711})");
}

TEST_F(CursorTest, LoadsZeroFromAFileThatIsNotThereOrBroken) {
  EXPECT_EQ(cursor.load(), 0);
  for (const auto* text : {"", "[]", "[4711]", "4711", "{}", R"({"cursor":4711})", R"({"changeCursor":"4711"})",
                           R"({"changeCursor":null})", R"({"changeCursor":true})", R"({"changeCursor":4711)"}) {
    files.put(PATH, text);
    EXPECT_EQ(cursor.load(), 0) << text;
  }
}

TEST_F(CursorTest, CutsFractionsAndIgnoresOtherKeys) {
  files.put(PATH, R"({"other":1,"changeCursor":12.9})");
  EXPECT_EQ(cursor.load(), 12);
}

TEST_F(CursorTest, ReadsTheFileOnEveryLoad) {
  files.put(PATH, R"({"changeCursor":1})");
  EXPECT_EQ(cursor.load(), 1);
  files.put(PATH, R"({"changeCursor":2})");
  EXPECT_EQ(cursor.load(), 2);
}

TEST_F(CursorTest, KeepsTheOldFileWhenASaveFails) {
  cursor.save(1);
  files.fail(FileOperation::write, PATH, ENOSPC);
  cursor.save(2);
  EXPECT_EQ(cursor.load(), 1);
  cursor.save(3);
  EXPECT_EQ(cursor.load(), 3);
}

TEST_F(CursorTest, LoadsZeroAndSavesNothingWithoutAContainer) {
  cursor.save(1);
  files.setContainerAvailable(false);
  EXPECT_EQ(cursor.fileURL(), std::nullopt);
  EXPECT_EQ(cursor.load(), 0);
  cursor.save(2);
  files.setContainerAvailable(true);
  EXPECT_EQ(cursor.load(), 1);
}

TEST_F(CursorTest, LoadsZeroFromAFileThatIsCutAnywhere) {
  cursor.save(4711);
  const auto whole = *files.contents(PATH);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    files.put(PATH, whole.substr(0, length));
    EXPECT_EQ(cursor.load(), 0) << length;
  }
}

}  // namespace
}  // namespace vondle
