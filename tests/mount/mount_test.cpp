#include "service/mount/mount.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "mount_rig.h"

namespace vondle {
namespace {

using testing::HasSubstr;

const std::string ROOT = ROOT_CONTAINER.text;

std::string readAll(int descriptor) {
  std::string text(1 << 16, '\0');
  const auto count = ::pread(descriptor, text.data(), text.size(), 0);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return text;
}

// A descriptor that closes itself.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path, int flags = O_RDONLY) : descriptor_(::open(path.c_str(), flags)) {}
  ~OpenFile() { ::close(descriptor_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  operator int() const { return descriptor_; }  // NOLINT(google-explicit-constructor)

 private:
  int descriptor_;
};

class MountTest : public testing::Test {
 protected:
  struct stat statusOf(const std::string& below) {
    struct stat status{};
    EXPECT_EQ(::lstat(rig_.path(below).c_str(), &status), 0) << below;
    return status;
  }
  int errnoOf(const std::string& below) {
    struct stat status{};
    return ::lstat(rig_.path(below).c_str(), &status) == 0 ? 0 : errno;
  }
  std::unique_ptr<Program> run(std::vector<std::string> arguments) {
    return std::make_unique<Program>(std::move(arguments), fmt::format("{}/program-{}", scratch_.path(), ++programs_));
  }

  ScratchFolder scratch_;
  MountRig rig_{scratch_};
  int programs_ = 0;
};

TEST_F(MountTest, ShowsFoldersAndFiles) {
  rig_.extension.addFolder("10", ROOT, "Documents");
  rig_.extension.addFile("11", "10", "thesis.txt", "To be or not to be\n");
  rig_.start();
  EXPECT_EQ(rig_.shell("ls"), "Documents\n");
  EXPECT_EQ(rig_.shell("ls -a Documents"), ".\n..\nthesis.txt\n");
  EXPECT_EQ(rig_.shell("cat Documents/thesis.txt"), "To be or not to be\n");
  EXPECT_EQ(rig_.shell("find . | sort"), ".\n./Documents\n./Documents/thesis.txt\n");
}

TEST_F(MountTest, AttributesAreTheItems) {
  auto item = FakeExtension::file("11", ROOT, "a", "12345");
  item.contentModificationDate = Timestamp{1'234'567'890.5};
  item.fileSystemFlags = USER_READABLE;
  rig_.extension.add(item, "12345");
  rig_.extension.addFolder("12", ROOT, "f");
  rig_.start();
  const auto file = statusOf("/a");
  EXPECT_EQ(file.st_mode, static_cast<mode_t>(S_IFREG | 0400));
  EXPECT_EQ(file.st_size, 5);
  EXPECT_EQ(file.st_mtim.tv_sec, 1'234'567'890);
  EXPECT_EQ(file.st_mtim.tv_nsec, 0);
  EXPECT_EQ(file.st_uid, ::geteuid());
  EXPECT_EQ(file.st_ino, *rig_.replica->inodeOf({"11"}));
  EXPECT_EQ(statusOf("/f").st_mode, static_cast<mode_t>(S_IFDIR | 0700));
  EXPECT_EQ(statusOf("").st_ino, ROOT_INODE);
}

TEST_F(MountTest, LookingAtAFolderListsItOnceAndDownloadsNothing) {
  rig_.extension.addFile("11", ROOT, "a", "x");
  rig_.start();
  EXPECT_EQ(rig_.extension.listingsOf(ROOT), 0);
  rig_.shell("ls -l; ls -l; stat a; stat b; test -e c");
  EXPECT_EQ(rig_.extension.listingsOf(ROOT), 1);
  EXPECT_TRUE(rig_.extension.lastRequest().isFileViewerRequest);
  OpenFile file(rig_.path("/a"));
  EXPECT_GE(file, 0);
  EXPECT_EQ(rig_.extension.fetchesOf("11"), 0) << "opening is not reading";
}

TEST_F(MountTest, LargeFoldersAreReadWholeAndEachNameOnce) {
  rig_.extension.setPageSize(700);
  for (int i = 0; i < 2'000; ++i)
    rig_.extension.addFile(fmt::format("{}", 100 + i), ROOT, fmt::format("file {}", i), "");
  rig_.start();
  EXPECT_EQ(rig_.shell("ls -f | grep -c file"), "2000\n");
  EXPECT_EQ(rig_.shell("ls | sort -u | wc -l"), "2000\n");
}

TEST_F(MountTest, ManyReadersShareOneDownload) {
  const std::string contents(3'000'000, 'x');
  rig_.extension.addFile("11", ROOT, "big", contents);
  rig_.start();
  rig_.shell("ls");
  rig_.extension.holdAnswers();
  std::vector<std::unique_ptr<Program>> readers;
  for (int i = 0; i < 8; ++i) readers.push_back(run({"cksum", rig_.path("/big")}));
  ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() == 1; }));
  rig_.extension.letAnswersGo();
  for (auto& reader : readers) {
    EXPECT_EQ(reader->wait(), 0);
    EXPECT_EQ(reader->output(), readers[0]->output());
  }
  EXPECT_THAT(readers[0]->output(), HasSubstr(" 3000000 "));
  EXPECT_EQ(rig_.extension.fetchesOf("11"), 1);
}

TEST_F(MountTest, AReadyFileIsReadWhileManyWaitForOthers) {
  rig_.extension.addFile("5", ROOT, "ready", "here");
  for (int i = 0; i < 40; ++i) rig_.extension.addFile(fmt::format("{}", 100 + i), ROOT, fmt::format("slow{}", i), "z");
  rig_.start();
  EXPECT_EQ(rig_.shell("cat ready"), "here");
  rig_.extension.holdAnswers();
  std::vector<std::unique_ptr<Program>> readers;
  for (int i = 0; i < 40; ++i) readers.push_back(run({"cat", rig_.path(fmt::format("/slow{}", i))}));
  ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() == 40; }));
  OpenFile fresh(rig_.path("/ready"));
  ::posix_fadvise(fresh, 0, 0, POSIX_FADV_DONTNEED);
  EXPECT_EQ(readAll(fresh), "here");
  rig_.extension.letAnswersGo();
  for (auto& reader : readers) EXPECT_EQ(reader->wait(), 0);
}

TEST_F(MountTest, AReaderThatWaitsCanBeKilledAndTheDownloadIsCancelled) {
  rig_.extension.addFile("11", ROOT, "big", "contents");
  rig_.start();
  rig_.shell("ls");
  for (const int signal : {SIGINT, SIGKILL}) {
    rig_.extension.holdAnswers();
    auto reader = run({"cat", rig_.path("/big")});
    ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() == 1; }));
    ::kill(reader->pid(), signal);
    EXPECT_EQ(reader->wait(), -signal);
    EXPECT_TRUE(eventually([&] { return rig_.extension.heldCount() == 0; }));
    rig_.extension.letAnswersGo();
  }
  EXPECT_EQ(rig_.extension.cancelledFetches(), 2);
  EXPECT_EQ(rig_.shell("cat big"), "contents");
}

TEST_F(MountTest, OneOfTwoReadersKilledLeavesTheOtherItsDownload) {
  rig_.extension.addFile("11", ROOT, "big", "contents");
  rig_.start();
  rig_.shell("ls");
  rig_.extension.holdAnswers();
  auto first = run({"cat", rig_.path("/big")});
  auto second = run({"dd", "iflag=direct", "status=none", "if=" + rig_.path("/big")});
  const Inode inode = *rig_.replica->inodeOf({"11"});
  ASSERT_TRUE(eventually([&] { return rig_.contents->waitersFor(inode) == 2; }));
  ::kill(first->pid(), SIGKILL);
  EXPECT_EQ(first->wait(), -SIGKILL);
  rig_.extension.letAnswersGo();
  EXPECT_EQ(second->wait(), 0);
  EXPECT_EQ(second->output(), "contents");
  EXPECT_EQ(rig_.extension.cancelledFetches(), 0);
}

TEST_F(MountTest, ALookIntoAFolderThatIsBeingListedCanBeInterrupted) {
  rig_.extension.addFile("11", ROOT, "a", "x");
  rig_.start();
  rig_.extension.holdAnswers();
  for (const auto& arguments : {std::vector<std::string>{"ls", rig_.path()}, {"stat", rig_.path("/a")}}) {
    auto looker = run(arguments);
    ASSERT_TRUE(eventually([&] { return rig_.listing->waitersFor(ROOT_INODE) == 1; }));
    ::kill(looker->pid(), SIGINT);
    EXPECT_EQ(looker->wait(), -SIGINT);
  }
  rig_.extension.letAnswersGo();
  EXPECT_EQ(rig_.shell("ls"), "a\n");
  EXPECT_EQ(rig_.extension.listingsOf(ROOT), 1) << "the listing that nobody waited for serves the next";
}

TEST_F(MountTest, ErrorsOfTheServerReachPrograms) {
  rig_.extension.addFile("11", ROOT, "a", "x");
  rig_.extension.addFolder("12", ROOT, "f");
  rig_.start();
  rig_.shell("ls");
  const std::vector<std::pair<Error, int>> cases = {
      {{URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST}, EHOSTUNREACH},
      {{URL_ERROR_DOMAIN, URL_TIMED_OUT}, ETIMEDOUT},
      {{API_ERROR_DOMAIN, 401}, EACCES},
      {{API_ERROR_DOMAIN, 500}, EIO},
  };
  for (const auto& [error, number] : cases) {
    rig_.extension.failListings(error);
    EXPECT_EQ(errnoOf("/f/x"), number);
    rig_.extension.failFetches(error);
    OpenFile file(rig_.path("/a"));
    char byte = 0;
    EXPECT_EQ(::read(file, &byte, 1), -1);
    EXPECT_EQ(errno, number);
  }
  rig_.extension.failListings(std::nullopt);
  rig_.extension.failFetches(std::nullopt);
  EXPECT_EQ(errnoOf("/f/x"), ENOENT);
  EXPECT_EQ(rig_.shell("cat a"), "x");
}

TEST_F(MountTest, ANameThatWasNotThereAppears) {
  rig_.start();
  EXPECT_EQ(errnoOf("/new"), ENOENT);
  rig_.announce({FakeExtension::file("11", ROOT, "new", "12")});
  EXPECT_EQ(statusOf("/new").st_size, 2);
}

TEST_F(MountTest, ARenamedFileHasItsNewNameOnlyAndKeepsItsInode) {
  rig_.extension.addFile("11", ROOT, "old", "contents");
  rig_.extension.addFolder("12", ROOT, "f");
  rig_.start();
  const auto inode = statusOf("/old").st_ino;
  EXPECT_EQ(errnoOf("/new"), ENOENT);
  OpenFile open(rig_.path("/old"));
  rig_.announce({rig_.extension.addFile("11", ROOT, "new", "contents")});
  EXPECT_EQ(errnoOf("/old"), ENOENT);
  EXPECT_EQ(statusOf("/new").st_ino, inode);
  EXPECT_EQ(readAll(open), "contents");
  rig_.shell("ls f");
  rig_.announce({rig_.extension.addFile("11", "12", "inner", "contents")});
  EXPECT_EQ(errnoOf("/new"), ENOENT);
  EXPECT_EQ(statusOf("/f/inner").st_ino, inode);
}

TEST_F(MountTest, ADeletedFileGoesAndStaysReadableForThoseWhoHaveItOpen) {
  rig_.extension.addFile("11", ROOT, "a", "contents");
  rig_.start();
  OpenFile open(rig_.path("/a"));
  EXPECT_EQ(readAll(open), "contents");
  const auto before = statusOf("/a");
  rig_.announce({}, {{"11"}});
  EXPECT_EQ(errnoOf("/a"), ENOENT);
  EXPECT_EQ(rig_.shell("ls"), "");
  ::posix_fadvise(open, 0, 0, POSIX_FADV_DONTNEED);
  EXPECT_EQ(readAll(open), "contents");
  struct stat status{};
  EXPECT_EQ(::fstat(open, &status), 0);
  EXPECT_EQ(status.st_ino, before.st_ino);
  EXPECT_EQ(status.st_size, 8);
  EXPECT_TRUE(std::filesystem::is_empty(scratch_.path() + "/contents")) << "its room is given back";
}

TEST_F(MountTest, ADeletedFolderGoesWithEverythingInItEvenWhenAProgramIsInIt) {
  rig_.extension.addFolder("10", ROOT, "f");
  rig_.extension.addFile("11", "10", "a", "contents");
  rig_.start();
  EXPECT_EQ(statusOf("/f/a").st_size, 8);
  OpenFile inside(rig_.path("/f"), O_RDONLY | O_DIRECTORY);
  rig_.announce({}, {{"10"}});
  EXPECT_EQ(errnoOf("/f"), ENOENT);
  EXPECT_EQ(errnoOf("/f/a"), ENOENT);
  struct stat status{};
  EXPECT_EQ(::fstatat(inside, "a", &status, 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(MountTest, OpenFilesAndMappingsSeeChangedContents) {
  rig_.extension.addFile("11", ROOT, "a", "first contents", 1);
  rig_.start();
  OpenFile open(rig_.path("/a"));
  EXPECT_EQ(readAll(open), "first contents");
  auto* const mapped = static_cast<const char*>(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, open, 0));
  ASSERT_NE(mapped, MAP_FAILED);
  EXPECT_EQ(std::string_view(mapped, 5), "first");
  rig_.announce({rig_.extension.addFile("11", ROOT, "a", "second, longer contents", 2)});
  EXPECT_EQ(statusOf("/a").st_size, 23);
  EXPECT_EQ(readAll(open), "second, longer contents");
  EXPECT_EQ(std::string_view(mapped, 6), "second");
  ::munmap(const_cast<char*>(mapped), 4096);
  EXPECT_EQ(rig_.shell("cat a"), "second, longer contents");
  EXPECT_EQ(rig_.extension.fetchesOf("11"), 2);
}

TEST_F(MountTest, ContentsThatChangeWhileAReaderWaitsReachItAndHoldNobodyUp) {
  rig_.extension.addFile("11", ROOT, "a", "first", 1);
  rig_.extension.addFile("12", ROOT, "b", "other");
  rig_.start();
  EXPECT_EQ(statusOf("/b").st_size, 5);
  EXPECT_EQ(statusOf("/a").st_size, 5);
  rig_.extension.holdAnswers();
  auto reader = run({"cat", rig_.path("/a")});
  ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() == 1; }));
  rig_.announce({rig_.extension.addFile("11", ROOT, "a", "second", 2)}, {{"12"}});
  EXPECT_EQ(errnoOf("/b"), ENOENT) << "the kernel heard of it although a read is parked";
  rig_.extension.letAnswersGo();
  EXPECT_EQ(reader->wait(), 0);
  rig_.mount->waitUntilShown();
  EXPECT_EQ(rig_.shell("cat a"), "second");
}

TEST_F(MountTest, ANewerVersionThatOnlyTheDownloadTellsOfIsShown) {
  rig_.extension.addFile("11", ROOT, "a", "first", 1);
  rig_.start();
  EXPECT_EQ(statusOf("/a").st_size, 5);
  rig_.extension.addFile("11", ROOT, "a", "second", 2);
  rig_.shell("cat a");
  rig_.mount->waitUntilShown();
  EXPECT_EQ(rig_.shell("cat a"), "second");
  EXPECT_EQ(statusOf("/a").st_size, 6);
}

TEST_F(MountTest, AfterARestartInodesContentsAndListingsAreAsBeforeWithoutTheServer) {
  rig_.extension.addFolder("10", ROOT, "f");
  rig_.extension.addFile("11", "10", "a", "contents");
  rig_.start();
  EXPECT_EQ(rig_.shell("cat f/a"), "contents");
  const auto folder = statusOf("/f").st_ino;
  const auto file = statusOf("/f/a").st_ino;
  rig_.extension.failListings(Error(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST));
  rig_.extension.failFetches(Error(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST));
  rig_.restart();
  EXPECT_EQ(statusOf("/f").st_ino, folder);
  EXPECT_EQ(statusOf("/f/a").st_ino, file);
  EXPECT_EQ(rig_.shell("cat f/a; ls f"), "contentsa\n");
}

TEST_F(MountTest, NothingCanBeChanged) {
  rig_.extension.addFile("11", ROOT, "a", "contents");
  rig_.start();
  rig_.shell("ls");
  const std::vector<std::function<int()>> changes = {
      [&] { return ::open(rig_.path("/a").c_str(), O_WRONLY); },
      [&] { return ::open(rig_.path("/a").c_str(), O_RDONLY | O_TRUNC); },
      [&] { return ::open(rig_.path("/new").c_str(), O_WRONLY | O_CREAT, 0600); },
      [&] { return ::mkdir(rig_.path("/new").c_str(), 0700); },
      [&] { return ::unlink(rig_.path("/a").c_str()); },
      [&] { return ::rename(rig_.path("/a").c_str(), rig_.path("/b").c_str()); },
      [&] { return ::truncate(rig_.path("/a").c_str(), 0); },
      [&] { return ::chmod(rig_.path("/a").c_str(), 0600); },
      [&] { return ::symlink("a", rig_.path("/link").c_str()); },
      [&] { return ::link(rig_.path("/a").c_str(), rig_.path("/link").c_str()); },
  };
  for (const auto& change : changes) {
    errno = 0;
    EXPECT_EQ(change(), -1);
    EXPECT_EQ(errno, EROFS) << &change - changes.data();
  }
  EXPECT_EQ(rig_.shell("cat a"), "contents");
}

TEST_F(MountTest, NamesThatCannotStandAreShownUnderOthers) {
  rig_.extension.addFile("11", ROOT, "../../etc/passwd", "harmless");
  rig_.extension.addFile("12", ROOT, "same", "one");
  rig_.extension.addFile("13", ROOT, "same", "two");
  rig_.start();
  EXPECT_EQ(rig_.shell("cat '%=..%2F..%2Fetc%2Fpasswd'"), "harmless");
  EXPECT_EQ(rig_.shell("cat same"), "one");
  EXPECT_EQ(rig_.shell("cat '%=same'*"), "two");
  EXPECT_EQ(rig_.shell("ls | wc -l"), "3\n");
  EXPECT_EQ(rig_.replica->problems().size(), 2U);
}

TEST_F(MountTest, TooLongANameIsRefused) {
  rig_.start();
  EXPECT_EQ(errnoOf("/" + std::string(255, 'x')), ENOENT);
  EXPECT_EQ(errnoOf("/" + std::string(256, 'x')), ENAMETOOLONG);
}

TEST_F(MountTest, ADeadMountIsCleanedUp) {
  ::mkdir(rig_.path().c_str(), 0700);
  const int device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
  ASSERT_GE(device, 0);
  ASSERT_EQ(::mount("Vondle", rig_.path().c_str(), "fuse.vondle", MS_NOSUID | MS_NODEV,
                    fmt::format("fd={},rootmode=40000,user_id=0,group_id=0", device).c_str()),
            0);
  ::close(device);  // nobody answers any more
  ASSERT_EQ(errnoOf(""), ENOTCONN);
  rig_.extension.addFile("11", ROOT, "a", "x");
  rig_.start();
  EXPECT_EQ(rig_.shell("ls"), "a\n");
  rig_.stop();
  EXPECT_TRUE(std::filesystem::is_empty(rig_.path())) << "one mount, and it is gone";
}

TEST_F(MountTest, AFolderThatIsNotEmptyIsRefused) {
  ::mkdir(rig_.path().c_str(), 0700);
  std::ofstream(rig_.path("/mine")) << "precious";
  const auto error = rig_.tryToStart();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, ENOTEMPTY);
  EXPECT_THAT(error->description, HasSubstr("is not empty"));
  EXPECT_TRUE(std::filesystem::exists(rig_.path("/mine")));
}

TEST_F(MountTest, AFileAndALiveMountAreRefused) {
  std::ofstream(rig_.path()) << "a file";
  EXPECT_EQ(rig_.tryToStart()->code, ENOTDIR);
  std::filesystem::remove(rig_.path());
  rig_.start();
  EXPECT_EQ(rig_.tryToMountAgain()->code, EBUSY);
  EXPECT_EQ(rig_.shell("ls"), "") << "the first still answers";
}

TEST_F(MountTest, UnmountingFromOutsideIsNoticed) {
  rig_.start();
  std::atomic<int> noticed = 0;
  rig_.mount->onUnmountedByOthers([&] { ++noticed; });
  ASSERT_EQ(run({"fusermount3", "-u", rig_.path()})->wait(), 0);
  EXPECT_TRUE(eventually([&] { return noticed == 1; }));
  rig_.stop();
  EXPECT_EQ(noticed, 1);
}

TEST_F(MountTest, StoppingEndsWhatWaitsAndIsNotTakenForUnmounting) {
  rig_.extension.addFile("11", ROOT, "a", "contents");
  rig_.extension.addFolder("12", ROOT, "f");
  rig_.start();
  rig_.shell("ls");
  rig_.extension.holdAnswers();
  auto reader = run({"cat", rig_.path("/a")});
  auto looker = run({"ls", rig_.path("/f")});
  ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() == 2; }));
  std::atomic<int> noticed = 0;
  rig_.mount->onUnmountedByOthers([&] { ++noticed; });
  rig_.stop();
  EXPECT_THAT(reader->wait(), testing::Optional(testing::Ne(0)));
  EXPECT_THAT(looker->wait(), testing::Optional(testing::Ne(0)));
  EXPECT_EQ(noticed, 0);
}

TEST_F(MountTest, EvictedContentsStayWithThoseWhoReadThemAndAreFetchedAgainByOthers) {
  rig_.extension.addFile("11", ROOT, "a", "contents");
  rig_.start();
  OpenFile open(rig_.path("/a"));
  EXPECT_EQ(readAll(open), "contents");
  const Inode inode = *rig_.replica->inodeOf({"11"});
  EXPECT_FALSE(rig_.contents->evict(inode));
  EXPECT_EQ(rig_.contents->state(inode), ContentState::absent);
  ::posix_fadvise(open, 0, 0, POSIX_FADV_DONTNEED);
  EXPECT_EQ(readAll(open), "contents");
  EXPECT_EQ(rig_.extension.fetchesOf("11"), 1);
}

TEST_F(MountTest, FreeRoomIsThatOfTheContents) {
  rig_.start();
  EXPECT_THAT(rig_.shell("df -P . | tail -1"), HasSubstr("Vondle"));
}

}  // namespace
}  // namespace vondle
