#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "mount_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const std::string ROOT = ROOT_CONTAINER.text;
const std::string TRASH = TRASH_CONTAINER.text;

int numberOf(int result) {
  return result == 0 ? 0 : errno;
}

std::string textOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::set<std::string> namesIn(const std::string& path) {
  std::set<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error))
    names.insert(entry->path().filename().native());
  if (error) names.insert(error.message());
  return names;
}

int sizeOf(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_size) : -errno;
}

Error unreachable() {
  return Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "out of reach")
      .withUnderlying({URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST});
}

class MountTrashTest : public testing::Test {
 protected:
  MountTrashTest() {
    rig.makeWritable();
    rig.showTrash();
    rig.extension.trashWholeFolders();
    rig.extension.addFolder("d", ROOT, "d");
    rig.extension.addFile("a", "d", "a.txt", "hello");
    rig.extension.addFile("b", ROOT, "b.txt", "world");
  }
  ~MountTrashTest() override { rig.stop(); }

  [[nodiscard]] std::string in(const std::string& below) const { return rig.path("/" + below); }
  [[nodiscard]] std::string trash(const std::string& below = {}) const {
    return rig.path(fmt::format("/.Trash-{}{}", ::geteuid(), below));
  }
  // As desktops do it.
  int trashAs(const std::string& path, const std::string& name) {
    const auto info = trash("/info/" + name + ".trashinfo");
    const int file = ::open(info.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (file < 0) return errno;
    const std::string text = "[Trash Info]\nPath=somewhere\nDeletionDate=2000-01-01T00:00:00\n";
    EXPECT_EQ(::write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(file);
    EXPECT_EQ(textOf(info), text);
    const int number = numberOf(::rename(in(path).c_str(), trash("/files/" + name).c_str()));
    if (number != 0) ::unlink(info.c_str());
    return number;
  }
  int move(const std::string& from, const std::string& to) { return numberOf(::rename(from.c_str(), to.c_str())); }

  ScratchFolder scratch;
  MountRig rig{scratch};
};

TEST_F(MountTrashTest, IsThereByItsNameAloneAndOurs) {
  rig.start();
  struct stat status{};
  ASSERT_EQ(::lstat(trash().c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  EXPECT_EQ(status.st_uid, ::geteuid());
  EXPECT_THAT(namesIn(trash()), ElementsAre("files", "info"));
  EXPECT_THAT(namesIn(in("")), ElementsAre("b.txt", "d")) << "what walks the folder leaves it alone";
  EXPECT_EQ(numberOf(::mkdir(trash().c_str(), 0700)), EEXIST);
  EXPECT_EQ(numberOf(::mkdir(trash("/files").c_str(), 0700)), EEXIST);
  EXPECT_EQ(numberOf(::rmdir(trash().c_str())), EBUSY);
  EXPECT_EQ(move(trash(), in("x")), EBUSY);
  EXPECT_EQ(move(in("d"), trash()), EBUSY);
}

TEST_F(MountTrashTest, ShowsTheServersTrashWithItsInfo) {
  auto item = rig.extension.file("1", TRASH, "F\xC3\xBCr #1.txt", "hello");
  item.restorePath = "d/F\xC3\xBCr #1.txt";
  rig.extension.add(item, "hello");
  rig.extension.addFile("2", TRASH, "x/y", "hostile");
  rig.extension.addFolder("3", TRASH, "folder");
  rig.start();
  EXPECT_THAT(namesIn(trash("/files")), ElementsAre("%=x%2Fy", "F\xC3\xBCr #1.txt", "folder"));
  EXPECT_THAT(namesIn(trash("/info")),
              ElementsAre("%=x%2Fy.trashinfo", "F\xC3\xBCr #1.txt.trashinfo", "folder.trashinfo"));
  EXPECT_THAT(textOf(trash("/info/F\xC3\xBCr #1.txt.trashinfo")),
              StartsWith("[Trash Info]\nPath=d/F%C3%BCr%20%231.txt\nDeletionDate=20"));
  EXPECT_EQ(textOf(trash("/files/F\xC3\xBCr #1.txt")), "hello");
  EXPECT_EQ(sizeOf(trash("/files/F\xC3\xBCr #1.txt")), 5);
  EXPECT_THAT(namesIn(trash("/files/folder")), IsEmpty());
  EXPECT_EQ(::open(trash("/files/folder/x").c_str(), O_RDONLY), -1);
}

TEST_F(MountTrashTest, WhatDesktopsPutThereIsThereAtOnceAndComesBack) {
  rig.start();
  EXPECT_EQ(textOf(in("d/a.txt")), "hello");
  ASSERT_EQ(trashAs("d/a.txt", "a.2.txt"), 0);
  EXPECT_EQ(sizeOf(in("d/a.txt")), -ENOENT);
  EXPECT_THAT(namesIn(in("d")), IsEmpty());
  EXPECT_THAT(namesIn(trash("/files")), ElementsAre("a.2.txt"));
  EXPECT_EQ(sizeOf(trash("/files/a.2.txt")), 5);
  EXPECT_EQ(textOf(trash("/files/a.2.txt")), "hello");
  EXPECT_THAT(textOf(trash("/info/a.2.txt.trashinfo")), HasSubstr("\nPath=d/a.txt\n"))
      << "what is known of it, not what was written";
  EXPECT_EQ(trashAs("b.txt", "a.2.txt"), EEXIST);
  ASSERT_EQ(move(trash("/files/a.2.txt"), in("d/a.txt")), 0);
  EXPECT_EQ(numberOf(::unlink(trash("/info/a.2.txt.trashinfo").c_str())), 0) << "as programs do afterwards";
  EXPECT_EQ(sizeOf(trash("/info/a.2.txt.trashinfo")), -ENOENT);
  EXPECT_EQ(textOf(in("d/a.txt")), "hello");
  EXPECT_THAT(namesIn(trash("/files")), IsEmpty());
  EXPECT_EQ(rig.edits->pendingCount(), 0U);
}

TEST_F(MountTrashTest, TheKernelFollowsWhatMovesToAndFroForLong) {
  rig.start();
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(move(in("d"), trash("/files/d")), 0) << i;
    struct stat status{};
    ASSERT_EQ(::stat(trash("/files/d").c_str(), &status), 0) << i;
    ASSERT_THAT(namesIn(trash("/files/d")), IsEmpty()) << i;
    ASSERT_EQ(move(trash("/files/d"), in("d")), 0) << i;
    ASSERT_EQ(textOf(in("d/a.txt")), "hello") << i;
    ASSERT_EQ(move(in("b.txt"), trash("/files/b.txt")), 0) << i;
    ASSERT_EQ(textOf(trash("/files/b.txt")), "world") << i;
    ASSERT_EQ(move(trash("/files/b.txt"), in("b.txt")), 0) << i;
    ASSERT_EQ(textOf(in("b.txt")), "world") << i;
  }
}

TEST_F(MountTrashTest, WhatIsOpenStaysReadableAndWritableWhenItIsTrashed) {
  rig.start();
  const int file = ::open(in("d/a.txt").c_str(), O_RDWR);
  ASSERT_GE(file, 0);
  ASSERT_EQ(::pwrite(file, "J", 1, 0), 1);
  ASSERT_EQ(move(in("d"), trash("/files/d")), 0);
  char bytes[6] = {};
  EXPECT_EQ(::pread(file, bytes, 5, 0), 5);
  EXPECT_STREQ(bytes, "Jello");
  EXPECT_EQ(::pwrite(file, "C", 1, 0), 1);
  struct stat status{};
  EXPECT_EQ(::fstat(file, &status), 0);
  ::close(file);
  ASSERT_EQ(move(trash("/files/d"), in("d")), 0);
  EXPECT_THAT(textOf(in("d/a.txt")), HasSubstr("ello"));
}

TEST_F(MountTrashTest, RemovingThereIsForGood) {
  rig.extension.addFile("1", TRASH, "x", "");
  rig.extension.addFolder("2", TRASH, "y");
  rig.start();
  EXPECT_EQ(numberOf(::unlink(trash("/files/y").c_str())), EISDIR);
  EXPECT_EQ(numberOf(::rmdir(trash("/files/x").c_str())), ENOTDIR);
  EXPECT_EQ(rig.shell(fmt::format("rm -r .Trash-{0}/files/x .Trash-{0}/files/y", ::geteuid())), "");
  EXPECT_THAT(rig.extension.trash(), IsEmpty());
  EXPECT_EQ(numberOf(::unlink(trash("/info/x.trashinfo").c_str())), 0);
  EXPECT_EQ(numberOf(::unlink(trash("/info/x.trashinfo").c_str())), ENOENT);
}

TEST_F(MountTrashTest, WhatIsMovedOutOfSightFirstIsRemovedThere) {
  rig.extension.addFile("1", TRASH, "x", "");
  rig.start();
  EXPECT_EQ(numberOf(::mkdir(trash("/expunged").c_str(), 0700)), EEXIST);
  ASSERT_EQ(move(trash("/files/x"), trash("/expunged/123")), 0);
  EXPECT_EQ(numberOf(::unlink(trash("/info/x.trashinfo").c_str())), 0);
  EXPECT_THAT(namesIn(trash("/files")), IsEmpty());
  EXPECT_THAT(namesIn(trash()), ElementsAre("expunged", "files", "info"));
  EXPECT_EQ(numberOf(::unlink(trash("/expunged/123").c_str())), 0);
  EXPECT_THAT(rig.extension.trash(), IsEmpty());
}

TEST_F(MountTrashTest, NothingElseCanBeMadeOrChangedThere) {
  rig.extension.addFile("1", TRASH, "x", "hello");
  rig.start();
  const auto openNumber = [](const std::string& path, int flags) {
    const int file = ::open(path.c_str(), flags, 0600);
    if (file >= 0) ::close(file);
    return file < 0 ? errno : 0;
  };
  EXPECT_EQ(openNumber(trash("/files/new"), O_WRONLY | O_CREAT), EPERM);
  EXPECT_EQ(openNumber(trash("/new"), O_WRONLY | O_CREAT), EPERM);
  EXPECT_EQ(numberOf(::mkdir(trash("/files/new").c_str(), 0700)), EPERM);
  EXPECT_EQ(openNumber(trash("/files/x"), O_WRONLY), EACCES);
  EXPECT_EQ(openNumber(trash("/files/x"), O_RDWR | O_TRUNC), EACCES);
  EXPECT_EQ(openNumber(trash("/info/x.trashinfo"), O_WRONLY), EACCES);
  EXPECT_EQ(numberOf(::truncate(trash("/files/x").c_str(), 0)), EPERM);
  EXPECT_EQ(numberOf(::chmod(trash("/files/x").c_str(), 0777)), EPERM);
  EXPECT_EQ(move(in("b.txt"), trash("/info/b.txt.trashinfo")), EPERM);
  EXPECT_EQ(move(trash("/info/x.trashinfo"), in("x")), EPERM);
  EXPECT_THAT(rig.shell(fmt::format("cp b.txt .Trash-{}/files/", ::geteuid())), HasSubstr("not permitted"));
  EXPECT_EQ(textOf(in("b.txt")), "world");
  EXPECT_EQ(textOf(trash("/files/x")), "hello");
  EXPECT_THAT(rig.extension.changes(), IsEmpty());
}

TEST_F(MountTrashTest, WithoutTheServerTrashingWorksAndTheRestIsRefused) {
  rig.extension.addFile("1", TRASH, "x", "hello");
  rig.start();
  EXPECT_THAT(namesIn(trash("/files")), ElementsAre("x"));
  EXPECT_THAT(namesIn(in("d")), ElementsAre("a.txt"));
  rig.extension.failListings(unreachable());
  rig.extension.failChanges(unreachable());
  rig.extension.failFetches(unreachable());
  rig.extension.failLookups(unreachable());
  EXPECT_EQ(trashAs("d/a.txt", "a.txt"), 0);
  EXPECT_THAT(namesIn(trash("/files")), ElementsAre("a.txt", "x"));
  EXPECT_EQ(move(trash("/files/x"), in("x")), EHOSTUNREACH);
  EXPECT_EQ(sizeOf(in("x")), -ENOENT);
  EXPECT_EQ(numberOf(::unlink(trash("/files/x").c_str())), EHOSTUNREACH);
  const int file = ::open(trash("/files/x").c_str(), O_RDONLY);
  char byte = 0;
  EXPECT_EQ(::read(file, &byte, 1), -1);
  EXPECT_EQ(errno, EHOSTUNREACH);
  ::close(file);
  EXPECT_EQ(move(trash("/files/a.txt"), in("d/b.txt")), 0) << "it has not left yet";
  EXPECT_THAT(namesIn(in("d")), ElementsAre("b.txt"));
}

TEST_F(MountTrashTest, AFolderForReadingShowsItAndChangesNothing) {
  rig.extension.addFile("1", TRASH, "x", "hello");
  rig.makeReadOnly();
  rig.start();
  EXPECT_EQ(textOf(trash("/files/x")), "hello");
  EXPECT_EQ(move(in("b.txt"), trash("/files/b.txt")), EROFS);
  EXPECT_EQ(move(trash("/files/x"), in("x")), EROFS);
  EXPECT_EQ(numberOf(::unlink(trash("/files/x").c_str())), EROFS);
  EXPECT_EQ(::open(trash("/info/b.trashinfo").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600), -1);
  EXPECT_EQ(errno, EROFS);
}

TEST_F(MountTrashTest, AnItemOfThatNameGetsAnother) {
  const auto name = fmt::format(".Trash-{}", ::geteuid());
  rig.extension.addFolder("t", ROOT, name);
  rig.extension.addFile("u", "t", "inside", "kept");
  rig.extension.addFolder("v", "d", name);
  rig.start();
  EXPECT_THAT(namesIn(in("d")), ElementsAre(name, "a.txt")) << "elsewhere it is a name like any other";
  const auto problems = rig.replica->problems();
  ASSERT_EQ(problems.size(), 1U);
  EXPECT_EQ(problems[0].serverName, name);
  EXPECT_EQ(textOf(in(problems[0].localName + "/inside")), "kept");
  EXPECT_THAT(namesIn(trash()), ElementsAre("files", "info"));
  rig.restart();
  EXPECT_EQ(textOf(in(problems[0].localName + "/inside")), "kept");
}

}  // namespace
}  // namespace vondle
