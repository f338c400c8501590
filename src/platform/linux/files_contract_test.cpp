// What every file system keeps, the real one and the simulated one.

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_files.h"
#include "testing/simulated_files.h"
#include "testing/simulated_user_database.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

std::vector<std::string> namesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::ranges::sort(names);
  return names;
}

// A fresh file system: an empty folder to work in, which also is the user's home.
class RealDisk {
 public:
  RealDisk() {
    std::string pattern = std::filesystem::temp_directory_path() / "vondle-files-XXXXXX";
    folder_ = mkdtemp(pattern.data());
    users_.home = folder_;
  }
  ~RealDisk() { std::filesystem::remove_all(folder_); }

  Files& files() { return files_; }
  const Clock& clock() { return clock_; }
  std::string folder() { return folder_; }
  std::vector<std::string> list(const std::string& folder) { return namesIn(folder); }
  SimulatedUserDatabase& users() { return users_; }

 private:
  std::string folder_;
  LinuxClock clock_;
  SimulatedUserDatabase users_;
  LinuxFiles files_{users_};
};

class SimulatedDisk {
 public:
  Files& files() { return files_; }
  const Clock& clock() { return scheduler_; }
  std::string folder() { return SimulatedFiles::HOME; }
  std::vector<std::string> list(const std::string& folder) { return files_.list(folder); }

 private:
  VirtualScheduler scheduler_;
  SimulatedFiles files_{scheduler_};
};

template <class Disk>
class FilesContract : public testing::Test {
 protected:
  std::string path(const std::string& name) { return disk_.folder() + "/" + name; }
  std::vector<std::string> names() { return disk_.list(disk_.folder()); }
  void write(const std::string& name, std::string_view bytes) {
    ASSERT_TRUE(files_.writeAtomically(path(name), bytes));
  }
  std::string contents(const std::string& name) {
    const auto bytes = files_.read(path(name));
    return bytes ? *bytes : bytes.error().description;
  }
  static int errorOf(const auto& result) {
    if (result) return 0;
    EXPECT_EQ(result.error().domain, POSIX_ERROR_DOMAIN);
    EXPECT_FALSE(result.error().description.empty());
    return static_cast<int>(result.error().code);
  }

  Disk disk_;
  Files& files_ = disk_.files();
};

using Disks = testing::Types<RealDisk, SimulatedDisk>;
TYPED_TEST_SUITE(FilesContract, Disks);

TYPED_TEST(FilesContract, ReadsWhatWasWritten) {
  const std::string large(200'000, 'x');
  for (const std::string& bytes :
       {std::string(), std::string("text\n"), std::string("\0\xFF\n", 3), large, std::string(65536, 'y')}) {
    this->write("file", bytes);
    EXPECT_EQ(this->contents("file"), bytes);
  }
  EXPECT_THAT(this->names(), ElementsAre("file")) << "no temporary file stays";
}

TYPED_TEST(FilesContract, SaysWhyItCannotRead) {
  EXPECT_EQ(this->errorOf(this->files_.read(this->path("missing"))), ENOENT);
  EXPECT_EQ(this->errorOf(this->files_.read(this->path("no/folder"))), ENOENT);
  this->write("file", "x");
  EXPECT_EQ(this->errorOf(this->files_.read(this->path("file/below"))), ENOTDIR);
  EXPECT_EQ(this->errorOf(this->files_.read(this->disk_.folder())), EISDIR);
  EXPECT_EQ(this->errorOf(this->files_.open(this->path("missing"))), ENOENT);
  EXPECT_EQ(this->errorOf(this->files_.open(this->disk_.folder())), EISDIR);
  EXPECT_EQ(this->errorOf(this->files_.read("")), ENOENT);
}

TYPED_TEST(FilesContract, GivesANewFileThePermissionsAskedForAndLeavesAnOldOneItsOwn) {
  const auto permissions = [this] { return this->files_.attributes(this->path("file"))->permissions; };
  this->write("file", "1");
  EXPECT_EQ(permissions(), 0600U);
  ASSERT_TRUE(this->files_.setPermissions(this->path("file"), 0640));
  this->write("file", "2");
  EXPECT_EQ(permissions(), 0640U);
  ASSERT_TRUE(this->files_.remove(this->path("file")));
  ASSERT_TRUE(this->files_.writeAtomically(this->path("file"), "3", 0644));
  EXPECT_EQ(permissions(), 0644U);
}

TYPED_TEST(FilesContract, ReplacesAFileThatIsReadOnly) {
  this->write("file", "1");
  ASSERT_TRUE(this->files_.setPermissions(this->path("file"), 0400));
  this->write("file", "2");
  EXPECT_EQ(this->contents("file"), "2");
}

TYPED_TEST(FilesContract, LeavesOpenReadersTheBytesTheyOpened) {
  this->write("file", "old");
  const auto reader = this->files_.open(this->path("file"));
  ASSERT_TRUE(reader);
  this->write("file", "new bytes");
  std::array<std::byte, 10> buffer;
  EXPECT_EQ((*reader)->readAt(0, buffer), 3U);
}

TYPED_TEST(FilesContract, SaysWhyItCannotWrite) {
  EXPECT_EQ(this->errorOf(this->files_.writeAtomically(this->path("no/file"), "x")), ENOENT);
  EXPECT_EQ(this->errorOf(this->files_.writeAtomically(this->disk_.folder(), "x")), EISDIR);
  this->write("file", "x");
  EXPECT_EQ(this->errorOf(this->files_.writeAtomically(this->path("file/below"), "x")), ENOTDIR);
  EXPECT_THAT(this->names(), ElementsAre("file"));
}

TYPED_TEST(FilesContract, DescribesFilesAndFolders) {
  const double before = this->disk_.clock().now().secondsSince1970;
  this->write("file", "12345");
  const auto file = this->files_.attributes(this->path("file"));
  ASSERT_TRUE(file);
  EXPECT_EQ(file->size, 5);
  EXPECT_FALSE(file->isFolder);
  EXPECT_NEAR(file->modified.secondsSince1970, before, 60);
  ASSERT_TRUE(this->files_.createFolder(this->path("folder")));
  const auto folder = this->files_.attributes(this->path("folder"));
  ASSERT_TRUE(folder);
  EXPECT_TRUE(folder->isFolder);
  EXPECT_EQ(folder->permissions, 0700U);
  EXPECT_EQ(this->errorOf(this->files_.attributes(this->path("missing"))), ENOENT);
}

TYPED_TEST(FilesContract, AnswersTheShortQuestions) {
  EXPECT_FALSE(this->files_.exists(this->path("file")));
  EXPECT_EQ(this->files_.modificationTime(this->path("file")), std::nullopt);
  this->write("file", "");
  EXPECT_TRUE(this->files_.exists(this->path("file")));
  EXPECT_TRUE(this->files_.exists(this->disk_.folder()));
  EXPECT_EQ(this->files_.modificationTime(this->path("file")), this->files_.attributes(this->path("file"))->modified);
}

TYPED_TEST(FilesContract, RemovesFilesOnly) {
  this->write("file", "x");
  EXPECT_EQ(this->errorOf(this->files_.remove(this->path("file"))), 0);
  EXPECT_EQ(this->errorOf(this->files_.remove(this->path("file"))), ENOENT);
  ASSERT_TRUE(this->files_.createFolder(this->path("folder")));
  EXPECT_EQ(this->errorOf(this->files_.remove(this->path("folder"))), EISDIR);
  EXPECT_TRUE(this->files_.exists(this->path("folder")));
}

TYPED_TEST(FilesContract, RenamesOverAnOldFile) {
  this->write("from", "new");
  this->write("to", "old");
  EXPECT_TRUE(this->files_.rename(this->path("from"), this->path("to")));
  EXPECT_EQ(this->contents("to"), "new");
  EXPECT_THAT(this->names(), ElementsAre("to"));
  EXPECT_TRUE(this->files_.rename(this->path("to"), this->path("to")));
  EXPECT_EQ(this->contents("to"), "new");
}

TYPED_TEST(FilesContract, RenamesFoldersWithAllBelow) {
  ASSERT_TRUE(this->files_.createFolder(this->path("a/inner")));
  this->write("a/inner/file", "x");
  this->write("a-sibling", "stays");
  EXPECT_TRUE(this->files_.rename(this->path("a"), this->path("b")));
  EXPECT_EQ(this->contents("b/inner/file"), "x");
  EXPECT_THAT(this->names(), ElementsAre("a-sibling", "b"));
}

TYPED_TEST(FilesContract, SaysWhyItCannotRename) {
  this->write("file", "x");
  ASSERT_TRUE(this->files_.createFolder(this->path("folder/inner")));
  ASSERT_TRUE(this->files_.createFolder(this->path("empty")));
  const auto rename = [this](const std::string& from, const std::string& to) {
    return this->errorOf(this->files_.rename(this->path(from), this->path(to)));
  };
  EXPECT_EQ(rename("missing", "new"), ENOENT);
  EXPECT_EQ(rename("file", "no/folder"), ENOENT);
  EXPECT_EQ(rename("file", "folder"), EISDIR);
  EXPECT_EQ(rename("folder", "file"), ENOTDIR);
  EXPECT_EQ(rename("empty", "folder"), ENOTEMPTY);
  EXPECT_EQ(rename("folder", "folder/inner/deeper"), EINVAL);
  EXPECT_EQ(rename("folder/inner", "empty"), 0);
  EXPECT_THAT(this->names(), ElementsAre("empty", "file", "folder"));
}

TYPED_TEST(FilesContract, GivesAFileASecondName) {
  this->write("one", "x");
  EXPECT_EQ(this->errorOf(this->files_.hardLink(this->path("one"), this->path("two"))), 0);
  const auto writer = this->files_.create(this->path("one"));
  ASSERT_TRUE(writer);
  ASSERT_TRUE((*writer)->write(std::as_bytes(std::span(std::string_view("both")))));
  EXPECT_EQ(this->contents("two"), "both");
  this->write("one", "replaced");
  EXPECT_EQ(this->contents("two"), "both") << "replacing gives the name to another file";
  EXPECT_TRUE(this->files_.remove(this->path("one")));
  EXPECT_EQ(this->contents("two"), "both");
}

TYPED_TEST(FilesContract, SaysWhyItCannotLink) {
  this->write("one", "1");
  this->write("two", "2");
  ASSERT_TRUE(this->files_.createFolder(this->path("folder")));
  const auto link = [this](const std::string& from, const std::string& to) {
    return this->errorOf(this->files_.hardLink(this->path(from), this->path(to)));
  };
  EXPECT_EQ(link("missing", "new"), ENOENT);
  EXPECT_EQ(link("one", "two"), EEXIST);
  EXPECT_EQ(link("folder", "new"), EPERM);
  EXPECT_EQ(this->contents("two"), "2");
}

TYPED_TEST(FilesContract, CreatesFoldersWithThoseAboveAndIsContentWithOldOnes) {
  EXPECT_TRUE(this->files_.createFolder(this->path("a/b/c")));
  EXPECT_TRUE(this->files_.createFolder(this->path("a/b/c")));
  EXPECT_TRUE(this->files_.createFolder("/"));
  for (const char* name : {"a", "a/b", "a/b/c"})
    EXPECT_EQ(this->files_.attributes(this->path(name))->permissions, 0700U);
  this->write("a/file", "x");
  EXPECT_EQ(this->errorOf(this->files_.createFolder(this->path("a/file"))), EEXIST);
  EXPECT_EQ(this->errorOf(this->files_.createFolder(this->path("a/file/b"))), ENOTDIR);
}

TYPED_TEST(FilesContract, WritesAFileInPieces) {
  this->write("file", "what was there before");
  ASSERT_TRUE(this->files_.setPermissions(this->path("file"), 0640));
  auto file = this->files_.create(this->path("file"));
  ASSERT_TRUE(file);
  EXPECT_EQ(this->contents("file"), "") << "emptied";
  EXPECT_EQ(this->files_.attributes(this->path("file"))->permissions, 0640U);
  for (const std::string_view piece : {"one ", "", "two"}) EXPECT_TRUE((*file)->write(std::as_bytes(std::span(piece))));
  EXPECT_TRUE((*file)->close());
  EXPECT_EQ(this->contents("file"), "one two");
  EXPECT_EQ(this->errorOf((*file)->write(std::as_bytes(std::span("late", 4)))), EBADF);
}

TYPED_TEST(FilesContract, MakesNewFilesPrivate) {
  ASSERT_TRUE(this->files_.create(this->path("new")));
  EXPECT_EQ(this->files_.attributes(this->path("new"))->permissions, 0600U);
  EXPECT_EQ(this->errorOf(this->files_.create(this->path("no/folder"))), ENOENT);
  EXPECT_EQ(this->errorOf(this->files_.create(this->disk_.folder())), EISDIR);
}

TYPED_TEST(FilesContract, ReadsAtAnyOffset) {
  this->write("file", "0123456789");
  const auto file = this->files_.open(this->path("file"));
  ASSERT_TRUE(file);
  const auto readAt = [&](std::int64_t offset, std::size_t length) {
    std::string bytes(length, '?');
    const auto got = (*file)->readAt(offset, std::as_writable_bytes(std::span(bytes)));
    return got ? bytes.substr(0, *got) : "error " + std::to_string(got.error().code);
  };
  EXPECT_EQ(readAt(0, 4), "0123");
  EXPECT_EQ(readAt(8, 4), "89");
  EXPECT_EQ(readAt(3, 1), "3");
  EXPECT_EQ(readAt(10, 4), "");
  EXPECT_EQ(readAt(1000, 4), "");
  EXPECT_EQ(readAt(0, 0), "");
  EXPECT_EQ(readAt(-1, 4), "error " + std::to_string(EINVAL));
}

TYPED_TEST(FilesContract, ReadsOnFromAFileThatHasNoNameAnyMore) {
  this->write("file", "still here");
  const auto file = this->files_.open(this->path("file"));
  ASSERT_TRUE(file);
  ASSERT_TRUE(this->files_.remove(this->path("file")));
  std::array<std::byte, 10> buffer;
  EXPECT_EQ((*file)->readAt(0, buffer), 10U);
}

TYPED_TEST(FilesContract, TellsHowMuchRoomThereIs) {
  const auto space = this->files_.space(this->disk_.folder());
  ASSERT_TRUE(space);
  EXPECT_GT(space->size, 0);
  EXPECT_GT(space->free, 0);
  EXPECT_LE(space->free, space->size);
  EXPECT_EQ(this->errorOf(this->files_.space(this->path("missing"))), ENOENT);
}

TYPED_TEST(FilesContract, HasATemporaryFolder) {
  const std::string folder = this->files_.temporaryFolder();
  EXPECT_TRUE(this->files_.attributes(folder)->isFolder);
  EXPECT_TRUE(this->files_.writeAtomically(folder + "/x", "x"));
  EXPECT_FALSE(folder.ends_with('/'));
}

TYPED_TEST(FilesContract, HasAPrivateFolderForAnApplicationGroup) {
  const std::string expected = this->path(".local/share/group.com.example");
  EXPECT_FALSE(this->files_.exists(expected));
  EXPECT_EQ(this->files_.applicationGroupContainer("group.com.example"), expected);
  EXPECT_EQ(this->files_.attributes(expected)->permissions, 0700U);
  ASSERT_TRUE(this->files_.writeAtomically(expected + "/cursor", "1"));
  EXPECT_EQ(this->files_.applicationGroupContainer("group.com.example"), expected);
  EXPECT_TRUE(this->files_.exists(expected + "/cursor"));
  EXPECT_EQ(this->files_.applicationGroupContainer(""), std::nullopt);
  EXPECT_EQ(this->files_.applicationGroupContainer("../up"), std::nullopt);
  EXPECT_EQ(this->files_.applicationGroupContainer(".."), std::nullopt);
}

class LinuxFilesTest : public testing::Test {
 protected:
  std::string path(const std::string& name) { return disk_.folder() + "/" + name; }

  RealDisk disk_;
  Files& files_ = disk_.files();
};

TEST_F(LinuxFilesTest, KeepsASymbolicLinkAndReplacesWhatItLeadsTo) {
  ASSERT_TRUE(files_.createFolder(path("dotfiles")));
  ASSERT_TRUE(files_.writeAtomically(path("dotfiles/config"), "old", 0640));
  std::filesystem::create_symlink("dotfiles/config", path("config"));
  ASSERT_TRUE(files_.writeAtomically(path("config"), "new"));
  EXPECT_TRUE(std::filesystem::is_symlink(path("config")));
  EXPECT_EQ(files_.read(path("dotfiles/config")), "new");
  EXPECT_EQ(files_.attributes(path("config"))->permissions, 0640U);
  EXPECT_THAT(namesIn(path("dotfiles")), ElementsAre("config"));
}

TEST_F(LinuxFilesTest, ReplacesASymbolicLinkThatLeadsNowhere) {
  std::filesystem::create_symlink("missing", path("config"));
  ASSERT_TRUE(files_.writeAtomically(path("config"), "new"));
  EXPECT_EQ(files_.read(path("config")), "new");
}

TEST_F(LinuxFilesTest, CreatesNothingThroughASymbolicLink) {
  ASSERT_TRUE(files_.writeAtomically(path("target"), "safe"));
  std::filesystem::create_symlink("target", path("link"));
  const auto created = files_.create(path("link"));
  ASSERT_FALSE(created);
  EXPECT_EQ(created.error().code, ELOOP);
  EXPECT_EQ(files_.read(path("target")), "safe");
}

TEST_F(LinuxFilesTest, RefusesToWaitForAFIFO) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(files_.read(path("fifo")).error().code, EINVAL);
  EXPECT_EQ(files_.open(path("fifo")).error().code, EINVAL);
}

TEST_F(LinuxFilesTest, LeavesTheOldFileAndNoOtherWhenTheNewOneDoesNotFit) {
  ASSERT_TRUE(files_.writeAtomically(path("file"), "old"));
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small = {1000, before.rlim_max};
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const auto written = files_.writeAtomically(path("file"), std::string(2000, 'x'));
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, oldHandler);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().code, EFBIG);
  EXPECT_EQ(files_.read(path("file")), "old");
  EXPECT_THAT(namesIn(disk_.folder()), ElementsAre("file"));
}

TEST_F(LinuxFilesTest, HasNoContainerWithoutAHomeInTheUserDatabase) {
  disk_.users().home = std::nullopt;
  disk_.users().fallback = disk_.folder();
  EXPECT_EQ(files_.applicationGroupContainer("group.com.example"), std::nullopt);
  EXPECT_EQ(files_.temporaryFolder(), path(".local/share/vondle/temporary"));
}

TEST_F(LinuxFilesTest, TellsModificationTimesMoreExactlyThanSeconds) {
  ASSERT_TRUE(files_.writeAtomically(path("file"), "x"));
  const auto moment = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(path("file"), moment);
  const auto first = files_.modificationTime(path("file"));
  std::filesystem::last_write_time(path("file"), moment + std::chrono::milliseconds(1));
  EXPECT_NE(files_.modificationTime(path("file")), first);
}

}  // namespace
}  // namespace vondle
