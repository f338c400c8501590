#include "testing/simulated_files.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

class SimulatedFilesTest : public testing::Test {
 protected:
  static std::int64_t errorOf(const auto& result) { return result ? 0 : result.error().code; }

  VirtualScheduler time_;
  SimulatedFiles files_{time_};
  const std::string path_ = std::string(SimulatedFiles::HOME) + "/file";
};

TEST_F(SimulatedFilesTest, TakesModificationTimesFromTheVirtualClock) {
  ASSERT_TRUE(files_.writeAtomically(path_, "1"));
  EXPECT_EQ(files_.modificationTime(path_), VirtualScheduler::START);
  time_.advance(seconds(5));
  EXPECT_EQ(files_.modificationTime(path_), VirtualScheduler::START);
  ASSERT_TRUE(files_.writeAtomically(path_, "2"));
  EXPECT_EQ(files_.modificationTime(path_), time_.now());
  files_.setModificationTime(path_, {77});
  EXPECT_EQ(files_.modificationTime(path_), Timestamp{77});
}

TEST_F(SimulatedFilesTest, CountsOperationsByPathFailedOnesToo) {
  EXPECT_FALSE(files_.read(path_));
  ASSERT_TRUE(files_.writeAtomically(path_, "1"));
  EXPECT_TRUE(files_.read(path_));
  files_.modificationTime(path_);
  files_.exists(path_);
  EXPECT_EQ(files_.readCount(path_), 2);
  EXPECT_EQ(files_.writeCount(path_), 1);
  EXPECT_EQ(files_.attributesCount(path_), 2);
  EXPECT_EQ(files_.readCount(path_ + "2"), 0);
  EXPECT_EQ(files_.count(FileOperation::remove, path_), 0);
}

TEST_F(SimulatedFilesTest, CountsNothingOfTheTestsOwnHand) {
  files_.put(path_, "1");
  EXPECT_EQ(files_.contents(path_), "1");
  EXPECT_EQ(files_.contents(SimulatedFiles::HOME), std::nullopt);
  EXPECT_EQ(files_.writeCount(path_), 0);
  EXPECT_EQ(files_.readCount(path_), 0);
}

TEST_F(SimulatedFilesTest, PutsFilesWithTheFoldersAboveThem) {
  files_.put("/a/b/c", "x");
  files_.put("/a/z", "x");
  EXPECT_THAT(files_.list("/a"), ElementsAre("b", "z"));
  EXPECT_THAT(files_.list("/"), ElementsAre("a", "home", "tmp"));
}

TEST_F(SimulatedFilesTest, FailsAsOftenAsTold) {
  files_.put(path_, "1");
  files_.fail(FileOperation::read, path_, EIO, 2);
  EXPECT_EQ(errorOf(files_.read(path_)), EIO);
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, "2")), 0) << "another operation";
  EXPECT_EQ(errorOf(files_.read(path_)), EIO);
  EXPECT_EQ(errorOf(files_.read(path_)), 0);
  files_.fail(FileOperation::write, path_, ENOSPC, SimulatedFiles::ALWAYS);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(errorOf(files_.writeAtomically(path_, "3")), ENOSPC);
  files_.fail(FileOperation::write, path_, 0, 0);
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, "4")), 0);
}

TEST_F(SimulatedFilesTest, LeavesTheOldBytesWhenAWriteFails) {
  files_.put(path_, "old");
  files_.fail(FileOperation::write, path_, EIO);
  EXPECT_FALSE(files_.writeAtomically(path_, "new"));
  EXPECT_EQ(files_.contents(path_), "old");
}

TEST_F(SimulatedFilesTest, FailsEveryKindOfOperation) {
  using enum FileOperation;
  files_.put(path_, "x");
  const std::string other = path_ + "2";
  for (const FileOperation operation :
       {read, write, attributes, setPermissions, remove, rename, hardLink, createFolder, create, open})
    files_.fail(operation, path_, EDQUOT);
  EXPECT_EQ(errorOf(files_.read(path_)), EDQUOT);
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, "")), EDQUOT);
  EXPECT_EQ(errorOf(files_.attributes(path_)), EDQUOT);
  EXPECT_EQ(errorOf(files_.setPermissions(path_, 0)), EDQUOT);
  EXPECT_EQ(errorOf(files_.remove(path_)), EDQUOT);
  EXPECT_EQ(errorOf(files_.rename(path_, other)), EDQUOT);
  EXPECT_EQ(errorOf(files_.hardLink(path_, other)), EDQUOT);
  EXPECT_EQ(errorOf(files_.createFolder(path_)), EDQUOT);
  EXPECT_EQ(errorOf(files_.create(path_)), EDQUOT);
  EXPECT_EQ(errorOf(files_.open(path_)), EDQUOT);
  EXPECT_EQ(files_.contents(path_), "x");
}

TEST_F(SimulatedFilesTest, FailsWritesToOpenFiles) {
  const auto file = files_.create(path_);
  ASSERT_TRUE(file);
  const std::byte one[] = {std::byte{'x'}};
  EXPECT_TRUE((*file)->write(one));
  files_.fail(FileOperation::write, path_, EIO);
  EXPECT_EQ(errorOf((*file)->write(one)), EIO);
  EXPECT_EQ(files_.contents(path_), "x");
}

TEST_F(SimulatedFilesTest, RunsOutOfSpaceAfterSoManyBytes) {
  files_.setFreeSpace(5);
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, "123")), 0);
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, "456")), ENOSPC);
  EXPECT_EQ(files_.contents(path_), "123");
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, "45")), 0);
  files_.setFreeSpace(std::nullopt);
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, std::string(1000, 'x'))), 0);
}

TEST_F(SimulatedFilesTest, HeedsPermissions) {
  files_.put(path_, "x", 0200);
  EXPECT_EQ(errorOf(files_.read(path_)), EACCES);
  EXPECT_EQ(errorOf(files_.open(path_)), EACCES);
  ASSERT_TRUE(files_.setPermissions(path_, 0400));
  EXPECT_EQ(errorOf(files_.read(path_)), 0);
  EXPECT_EQ(errorOf(files_.create(path_)), EACCES);
  ASSERT_TRUE(files_.setPermissions(SimulatedFiles::HOME, 0500));
  EXPECT_EQ(errorOf(files_.writeAtomically(path_, "y")), EACCES);
  EXPECT_EQ(errorOf(files_.create(path_ + "2")), EACCES);
  EXPECT_EQ(errorOf(files_.remove(path_)), EACCES);
  EXPECT_EQ(errorOf(files_.createFolder(path_ + "2/a")), EACCES);
}

TEST_F(SimulatedFilesTest, CanBeWithoutTheContainer) {
  files_.setContainerAvailable(false);
  EXPECT_EQ(files_.applicationGroupContainer("group"), std::nullopt);
  files_.setContainerAvailable(true);
  EXPECT_EQ(files_.applicationGroupContainer("group"), SimulatedFiles::containerPath("group"));
}

using SimulatedFilesDeathTest = SimulatedFilesTest;

TEST_F(SimulatedFilesDeathTest, AbortsOnOtherSpellingsOfAPath) {
  for (const char* path : {"relative", "/a//b", "/a/", "/a/../b", "/a/./b"})
    EXPECT_DEATH((void)files_.read(path), "not an absolute path in its plain form") << path;
}

}  // namespace
}  // namespace vondle
