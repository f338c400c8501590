#include "service/contents/edited_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include <gtest/gtest.h>

namespace vondle {
namespace {

class EditedFileTest : public testing::Test {
 protected:
  ~EditedFileTest() override { std::filesystem::remove_all(folder_); }

  static std::string makeFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-edited-XXXXXX").native();
    return ::mkdtemp(pattern.data());
  }

  const std::string folder_ = makeFolder();
  const std::string path_ = folder_ + "/7";
};

TEST_F(EditedFileTest, SizeAndTimeAreTheFilesOwnWhoeverChangesIt) {
  const auto file = *EditedFile::make(path_, 7);
  EXPECT_EQ(file->number(), 7);
  EXPECT_EQ(file->size(), 0);
  ASSERT_EQ(::truncate(path_.c_str(), 12), 0);
  EXPECT_EQ(file->size(), 12);
  file->setModified({.tv_sec = 1'234'567'890, .tv_nsec = 500'000'000});
  EXPECT_EQ(file->modified(), Timestamp{1'234'567'890.5});
}

TEST_F(EditedFileTest, OneThatIsNotKeptGoesWithItsLastUser) {
  {
    const auto file = *EditedFile::make(path_, 7);
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
  {
    const auto file = *EditedFile::make(path_, 7);
    file->keep();
  }
  EXPECT_TRUE(std::filesystem::exists(path_));
  struct stat status{};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(EditedFileTest, WhetherItIsNeededIsKnownAlsoAfterTheProcess) {
  EXPECT_FALSE(EditedFile::isDoneWith(path_)) << "missing";
  const auto file = *EditedFile::make(path_, 7);
  EXPECT_TRUE(EditedFile::isDoneWith(path_)) << "nobody has recorded it yet";
  file->keep();
  EXPECT_FALSE(EditedFile::isDoneWith(path_));
  file->markDoneWith();
  EXPECT_TRUE(EditedFile::isDoneWith(path_));
  EXPECT_TRUE(EditedFile::open(path_, 7)) << "which ends nothing";
  file->keep(false);
  EXPECT_TRUE(EditedFile::isDoneWith(path_));
}

TEST_F(EditedFileTest, ANumberIsNotTakenTwiceAndAMissingFileIsAnError) {
  const auto file = *EditedFile::make(path_, 7);
  EXPECT_TRUE(EditedFile::make(path_, 7).error().is(POSIX_ERROR_DOMAIN, EEXIST));
  EXPECT_TRUE(EditedFile::open(folder_ + "/8", 8).error().is(POSIX_ERROR_DOMAIN, ENOENT));
}

TEST_F(EditedFileTest, NobodyWritesWhileItIsFrozenAndNobodyFreezesItWhileItIsWrittenTo) {
  const auto file = *EditedFile::make(path_, 7);
  {
    const EditedFile::Lease one(*file), other(*file);
    EXPECT_TRUE(one);
    EXPECT_TRUE(other) << "several may write";
    EXPECT_FALSE(file->freeze());
  }
  EXPECT_TRUE(file->freeze());
  EXPECT_FALSE(file->freeze()) << "twice";
  EXPECT_FALSE(EditedFile::Lease(*file));
  file->thaw();
  EXPECT_TRUE(EditedFile::Lease(*file));
}

TEST_F(EditedFileTest, AChangeIsToldOnce) {
  const auto file = *EditedFile::make(path_, 7);
  EXPECT_FALSE(file->takeChange());
  file->noteUse({seconds(3)}, true);
  file->noteUse({seconds(5)}, false);
  EXPECT_EQ(file->lastUse(), MonotonicTime{seconds(5)});
  EXPECT_TRUE(file->takeChange());
  EXPECT_FALSE(file->takeChange());
}

}  // namespace
}  // namespace vondle
