#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "mount_rig.h"

namespace vondle {
namespace {

using testing::HasSubstr;

const std::string ROOT = ROOT_CONTAINER.text;

// A descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(const std::string& path, int flags = O_RDONLY, mode_t mode = 0644)
      : descriptor_(::open(path.c_str(), flags, mode)), number_(descriptor_ < 0 ? errno : 0) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  operator int() const { return descriptor_; }          // NOLINT(google-explicit-constructor)
  [[nodiscard]] int number() const { return number_; }  // for errno, of opening
  int close() {
    const int descriptor = std::exchange(descriptor_, -1);
    return descriptor < 0 ? 0 : ::close(descriptor);
  }

 private:
  int descriptor_;
  int number_;
};

int numberOf(int result) {
  return result == 0 ? 0 : errno;
}

std::string textAt(int descriptor, std::size_t size = 1 << 16, off_t offset = 0) {
  std::string text(size, '\0');
  const auto count = ::pread(descriptor, text.data(), text.size(), offset);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return text;
}

std::string textOf(const std::string& path) {
  const Descriptor file(path);
  EXPECT_GE(file, 0) << path << " " << file.number();
  return textAt(file);
}

ssize_t put(int descriptor, std::string_view text) {
  return ::write(descriptor, text.data(), text.size());
}

ssize_t putAt(int descriptor, std::string_view text, off_t offset) {
  return ::pwrite(descriptor, text.data(), text.size(), offset);
}

void putFile(const std::string& path, std::string_view text) {
  const Descriptor file(path, O_WRONLY | O_CREAT | O_TRUNC);
  EXPECT_EQ(put(file, text), static_cast<ssize_t>(text.size())) << path;
}

// For what takes its time on a busy machine.
std::optional<int> waitLong(Program& program) {
  for (int i = 0; i < 10; ++i)
    if (const auto status = program.wait()) return status;
  return std::nullopt;
}

class MountWritingTest : public testing::Test {
 protected:
  MountWritingTest() { rig_.makeWritable(); }

  // A file of the server's that is not here.
  void serverHas(const std::string& name, const std::string& contents) {
    rig_.extension.addFile("of " + name, ROOT, name, contents);
  }
  std::string path(const std::string& below) const { return rig_.path(below); }
  // Of an extended attribute, or the name of the errno.
  std::string valueOf(const std::string& below, const char* name) const {
    char text[256];
    const auto size = ::getxattr(path(below).c_str(), name, text, sizeof text);
    return size < 0 ? ::strerrorname_np(errno) : std::string(text, static_cast<std::size_t>(size));
  }
  struct stat statusOf(const std::string& below) {
    struct stat status{};
    EXPECT_EQ(::lstat(path(below).c_str(), &status), 0) << below;
    return status;
  }
  std::int64_t sizeOf(const std::string& below) { return statusOf(below).st_size; }
  Inode inodeOf(const std::string& below) { return statusOf(below).st_ino; }
  bool isThere(const std::string& below) { return ::access(path(below).c_str(), F_OK) == 0; }
  std::unique_ptr<Program> run(std::vector<std::string> arguments) {
    return std::make_unique<Program>(std::move(arguments), fmt::format("{}/program-{}", scratch_.path(), ++programs_));
  }
  // As if its upload began.
  EditedContents::Outgoing beginSending(const std::string& below) {
    const auto file = rig_.edited->find(inodeOf(below));
    EXPECT_TRUE(file) << below;
    const auto outgoing = rig_.edited->beginSending(file->number(), "name");
    EXPECT_TRUE(outgoing) << (outgoing ? "" : outgoing.error().localizedDescription());
    return outgoing.value_or(EditedContents::Outgoing());
  }

  ScratchFolder scratch_;
  MountRig rig_{scratch_};
  int programs_ = 0;
};

// Making, writing, reading

TEST_F(MountWritingTest, AFileThatIsMadeReadsBackAsItWasWritten) {
  rig_.start();
  const Descriptor file(path("/new"), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(file, 0) << file.number();
  EXPECT_EQ(put(file, "hello"), 5);
  EXPECT_EQ(textAt(file), "hello");
  EXPECT_EQ(sizeOf("/new"), 5);
  EXPECT_EQ(rig_.shell("ls -l | tail -1 | cut -c1-10; cat new"), "-rw-------\nhello");
  EXPECT_EQ(rig_.extension.fetchesOf("new"), 0);
}

TEST_F(MountWritingTest, ExclusiveMakingOfWhatIsThereIsRefused) {
  serverHas("a", "contents");
  rig_.start();
  EXPECT_EQ(Descriptor(path("/a"), O_WRONLY | O_CREAT | O_EXCL).number(), EEXIST);
  EXPECT_EQ(textOf(path("/a")), "contents");
}

TEST_F(MountWritingTest, ANameThatWasNotThereCanBeMade) {
  rig_.start();
  EXPECT_FALSE(isThere("/later"));
  putFile(path("/later"), "now");
  EXPECT_TRUE(isThere("/later"));
  EXPECT_EQ(textOf(path("/later")), "now");
}

TEST_F(MountWritingTest, FilesAndFoldersAreMadeInFolders) {
  rig_.extension.addFolder("10", ROOT, "there");
  rig_.start();
  EXPECT_EQ(rig_.shell("mkdir -p there/a/b && echo x > there/a/b/c && find there | sort"),
            "there\nthere/a\nthere/a/b\nthere/a/b/c\n");
  EXPECT_EQ(numberOf(::mkdir(path("/there").c_str(), 0700)), EEXIST);
  EXPECT_EQ(numberOf(::mkdir(path("/none/x").c_str(), 0700)), ENOENT);
  EXPECT_EQ(numberOf(::mkdir(path("/there/a/b/c/d").c_str(), 0700)), ENOTDIR);
}

TEST_F(MountWritingTest, WhatTheServerCannotKeepIsRefused) {
  serverHas("a", "x");
  rig_.start();
  EXPECT_EQ(numberOf(::symlink("a", path("/link").c_str())), EPERM);
  EXPECT_EQ(numberOf(::link(path("/a").c_str(), path("/link").c_str())), EPERM);
  EXPECT_EQ(numberOf(::mkfifo(path("/fifo").c_str(), 0600)), EPERM);
  EXPECT_EQ(numberOf(::mknod(path("/socket").c_str(), S_IFSOCK | 0600, 0)), EPERM);
  EXPECT_EQ(numberOf(::mknod(path("/device").c_str(), S_IFCHR | 0600, makedev(1, 3))), EPERM);
  EXPECT_EQ(numberOf(::chown(path("/a").c_str(), ::geteuid() + 1, static_cast<gid_t>(-1))), EPERM);
  EXPECT_EQ(numberOf(::chown(path("/a").c_str(), ::geteuid(), ::getegid())), 0);
  EXPECT_EQ(::setxattr(path("/a").c_str(), "user.x", "y", 1, 0), -1);
  EXPECT_EQ(errno, EOPNOTSUPP);
  EXPECT_EQ(numberOf(::mknod(path("/file").c_str(), S_IFREG | 0600, 0)), 0);
  EXPECT_EQ(sizeOf("/file"), 0);
}

TEST_F(MountWritingTest, NamesThatCannotBeAreRefused) {
  rig_.start();
  EXPECT_EQ(Descriptor(path("/" + std::string(256, 'x')), O_WRONLY | O_CREAT).number(), ENAMETOOLONG);
  EXPECT_EQ(numberOf(::mkdir(path("/\xff\xfe").c_str(), 0700)), EILSEQ);
  EXPECT_EQ(Descriptor(path("/" + std::string(255, 'x')), O_WRONLY | O_CREAT).number(), 0);
}

TEST_F(MountWritingTest, AReadOnlyFileCanBeMadeAndFilledByItsMaker) {
  rig_.start();
  const Descriptor file(path("/object"), O_RDWR | O_CREAT | O_EXCL, 0444);
  ASSERT_GE(file, 0);
  EXPECT_EQ(put(file, "x"), 1);
  EXPECT_EQ(statusOf("/object").st_mode & 0777, 0444U);
}

TEST_F(MountWritingTest, AnExecutableStaysOne) {
  rig_.start();
  EXPECT_EQ(rig_.shell("printf '#!/bin/sh\\necho ran\\n' > script && chmod 755 script && ./script"), "ran\n");
  EXPECT_EQ(statusOf("/script").st_mode & 0777, 0755U);
  EXPECT_EQ(numberOf(::chmod(path("/script").c_str(), 0500)), 0);
  EXPECT_EQ(statusOf("/script").st_mode & 0777, 0500U);
}

TEST_F(MountWritingTest, PermissionsOfTheGroupAndOfOthersAreKept) {
  serverHas("a", "contents");
  rig_.start();
  const auto before = ::umask(0);
  for (const mode_t mode : {0640U, 0604U, 0777U}) {
    const auto name = fmt::format("/{:o}", mode);
    const Descriptor file(path(name), O_WRONLY | O_CREAT | O_EXCL, mode);
    EXPECT_EQ(statusOf(name).st_mode & 0777, mode);
    EXPECT_EQ(numberOf(::mkdir(path(name + "d").c_str(), mode)), 0);
    EXPECT_EQ(statusOf(name + "d").st_mode & 0777, mode);
  }
  ::umask(before);
  EXPECT_EQ(numberOf(::chmod(path("/a").c_str(), 0664)), 0);
  EXPECT_EQ(numberOf(::chmod(path("/").c_str(), 0755)), 0);
  EXPECT_EQ(textOf(path("/a")), "contents");
  rig_.restart();
  EXPECT_EQ(statusOf("/a").st_mode & 0777, 0664U);
  EXPECT_EQ(statusOf("/604").st_mode & 0777, 0604U);
  EXPECT_EQ(statusOf("/777d").st_mode & 0777, 0777U);
  EXPECT_EQ(statusOf("/").st_mode & 0777, 0755U);
}

TEST_F(MountWritingTest, AFileThatReplacesAnotherBringsItsPermissions) {
  serverHas("a", "contents");
  rig_.start();
  EXPECT_EQ(numberOf(::chmod(path("/a").c_str(), 0640)), 0);
  {
    const Descriptor file(path("/new"), O_WRONLY | O_CREAT, 0600);
  }
  EXPECT_EQ(numberOf(::rename(path("/new").c_str(), path("/a").c_str())), 0);
  EXPECT_EQ(statusOf("/a").st_mode & 0777, 0600U);
  rig_.restart();
  EXPECT_EQ(statusOf("/a").st_mode & 0777, 0600U);
}

TEST_F(MountWritingTest, ExtendedAttributesOfProgramsAreNotSupportedAndSaySo) {
  serverHas("a", "contents");
  rig_.start();
  const auto a = path("/a");
  for (int i = 0; i < 2; ++i) {
    char text[8];
    EXPECT_EQ(numberOf(::setxattr(a.c_str(), "user.colour", "red", 3, 0)), ENOTSUP);
    EXPECT_EQ(valueOf("/a", "user.colour"), "ENODATA");
    EXPECT_EQ(valueOf("/a", "security.selinux"), "EOPNOTSUPP");
    EXPECT_EQ(valueOf("/a", "system.posix_acl_access"), "EOPNOTSUPP");
    EXPECT_EQ(numberOf(static_cast<int>(::listxattr(a.c_str(), text, sizeof text))), ENOTSUP);
    EXPECT_EQ(numberOf(::removexattr(a.c_str(), "user.colour")), ENODATA);
  }
}

TEST_F(MountWritingTest, AnItemTellsOfItselfByExtendedAttributes) {
  auto shared = FakeExtension::folder("20", ROOT, "shared");
  shared.isShared = true;
  shared.ownerNameComponents = parsePersonName("Ann Ärmel");
  rig_.extension.add(shared);
  serverHas("a", "contents");
  rig_.start();
  EXPECT_EQ(valueOf("/a", "user.vondle.state"), "on the server only");
  EXPECT_EQ(valueOf("/a", "user.vondle.id"), rig_.extension.itemNamed("a")->itemIdentifier.text);
  EXPECT_EQ(valueOf("/a", "user.vondle.version"), rig_.extension.itemNamed("a")->itemVersion.contentVersion);
  EXPECT_EQ(valueOf("/a", "user.vondle.policy"), "downloaded when read");
  EXPECT_EQ(valueOf("/a", "user.vondle.shared"), "ENODATA");
  EXPECT_EQ(valueOf("/a", "user.vondle.owner"), "ENODATA");
  EXPECT_EQ(textOf(path("/a")), "contents");
  EXPECT_EQ(valueOf("/a", "user.vondle.state"), "here");
  EXPECT_EQ(valueOf("/shared", "user.vondle.state"), "ENODATA");
  EXPECT_EQ(valueOf("/shared", "user.vondle.policy"), "as its folder");
  EXPECT_EQ(valueOf("/shared", "user.vondle.shared"), "with you");
  EXPECT_EQ(valueOf("/shared", "user.vondle.owner"), "Ann Ärmel");
  EXPECT_EQ(valueOf("/", "user.vondle.policy"), "as its folder");

  char text[18];
  EXPECT_EQ(::getxattr(path("/a").c_str(), "user.vondle.state", nullptr, 0), 4);
  EXPECT_EQ(::getxattr(path("/a").c_str(), "user.vondle.state", text, 4), 4);
  EXPECT_EQ(numberOf(static_cast<int>(::getxattr(path("/a").c_str(), "user.vondle.state", text, 3))), ERANGE);
}

TEST_F(MountWritingTest, AttributesAreThoseOfTheItemWhateverItsName) {
  const std::string odd = "Für \"Zoë\" #1 (100%3F)? [draft] 'x'.txt";
  auto folder = FakeExtension::folder("20", ROOT, "folder of " + odd);
  folder.isShared = folder.isSharedByCurrentUser = true;
  folder.ownerNameComponents = parsePersonName(odd);
  rig_.extension.add(folder);
  rig_.extension.addFile("21", "20", odd, "x");
  rig_.extension.addFile("22", "20", "\n" + odd, "x");
  rig_.start();
  const auto below = "/folder of " + odd;
  EXPECT_EQ(valueOf(below, "user.vondle.id"), "20");
  EXPECT_EQ(valueOf(below, "user.vondle.shared"), "by you");
  EXPECT_EQ(valueOf(below, "user.vondle.owner"), odd);
  EXPECT_EQ(valueOf(below + "/" + odd, "user.vondle.id"), "21");
  EXPECT_EQ(valueOf(below + "/\n" + odd, "user.vondle.id"), "22");
  EXPECT_EQ(numberOf(::setxattr(path(below + "/" + odd).c_str(), "user.vondle.policy", "keep", 4, 0)), 0);
  EXPECT_EQ(valueOf(below + "/" + odd, "user.vondle.policy"), "kept downloaded");
  EXPECT_EQ(valueOf(below + "/\n" + odd, "user.vondle.policy"), "downloaded when read");
}

TEST_F(MountWritingTest, AProgramHasAnItemKeptByItsAttribute) {
  serverHas("a", "contents");
  rig_.extension.addFolder("10", ROOT, "folder");
  rig_.extension.addFile("11", "10", "inside", "x");
  rig_.start();
  constexpr auto POLICY = "user.vondle.policy";
  const auto set = [this](const std::string& below, const std::string& value, int flags = 0) {
    return numberOf(::setxattr(path(below).c_str(), POLICY, value.data(), value.size(), flags));
  };
  EXPECT_EQ(set("/a", "keep"), 0);
  EXPECT_EQ(valueOf("/a", POLICY), "kept downloaded");
  EXPECT_EQ(set("/a", "default", XATTR_REPLACE), 0);
  EXPECT_EQ(valueOf("/a", POLICY), "downloaded when read");
  EXPECT_EQ(set("/folder", "keep"), 0);
  EXPECT_EQ(valueOf("/folder/inside", POLICY), "kept downloaded with its folder");
  EXPECT_EQ(set("/folder/inside", "default"), EBUSY);
  EXPECT_EQ(numberOf(::removexattr(path("/folder").c_str(), POLICY)), 0);
  EXPECT_EQ(valueOf("/folder", POLICY), "as its folder");

  EXPECT_EQ(set("/a", "keep", XATTR_CREATE), EEXIST);
  EXPECT_EQ(set("/a", "kept downloaded"), EINVAL);
  EXPECT_EQ(set("/a", ""), EINVAL);
  EXPECT_EQ(set("/", "keep"), EPERM);
  EXPECT_EQ(numberOf(::setxattr(path("/a").c_str(), "user.vondle.id", "x", 1, 0)), EPERM);
  EXPECT_EQ(numberOf(::removexattr(path("/a").c_str(), "user.vondle.owner")), EPERM);
  EXPECT_EQ(valueOf("/a", POLICY), "downloaded when read");
}

TEST_F(MountWritingTest, SettingThePolicyWaitsForTheExtensionAndCanBeInterrupted) {
  serverHas("a", "contents");
  rig_.start();
  ASSERT_EQ(rig_.shell("ls"), "a\n");
  rig_.extension.holdActions();
  const auto setting =
      run({"python3", "-c", "import os, sys; os.setxattr(sys.argv[1], 'user.vondle.policy', b'keep')", path("/a")});
  ASSERT_TRUE(eventually([this] { return rig_.extension.heldCount() > 0; }));
  EXPECT_EQ(::kill(setting->pid(), SIGINT), 0);
  EXPECT_NE(setting->wait().value_or(0), 0);
  rig_.extension.letAnswersGo();
  EXPECT_TRUE(eventually([this] { return valueOf("/a", "user.vondle.policy") == "kept downloaded"; }));
}

TEST_F(MountWritingTest, ToolsThatCopyExtendedAttributesWorkInTheFolder) {
  serverHas("a", "contents");
  rig_.start();
  const auto out = scratch_.path() + "/out";
  std::filesystem::create_directory(out);
  for (const std::string copy :
       {"cp -a a {0}/1 && cp -a {0}/1 b && cp -a b c && cp --preserve=all c d",
        "rsync -aX a {0}/ && rsync -aX {0}/a e && rsync -aX e f",
        "tar --xattrs -cf {0}/t a b 2>{0}/said && mkdir g && tar --xattrs -xf {0}/t -C g", "mv d {0}/2 && mv {0}/2 h"})
    EXPECT_EQ(rig_.shell(fmt::format("{{ {} || echo failed; }} 2>&1", fmt::format(fmt::runtime(copy), out))), "");
  EXPECT_EQ(
      rig_.shell("cat a b c e f g/a g/b h | sort | uniq -c | tr -s ' '; ls"),
      fmt::format(" 1 {}\na\nb\nc\ne\nf\ng\nh\n", "contentscontentscontentscontentscontentscontentscontentscontents"));
}

TEST_F(MountWritingTest, ALargeFileIsCopiedInAndOutWhole) {
  rig_.start();
  constexpr std::size_t SIZE = 300 << 20;
  const auto source = scratch_.path() + "/source";
  {
    std::ofstream file(source, std::ios::binary);
    std::string piece(1 << 20, '\0');
    for (std::size_t i = 0; i < SIZE / piece.size(); ++i) {
      for (std::size_t at = 0; at < piece.size(); at += 4096) piece[at] = static_cast<char>(i * 31 + at / 4096);
      file << piece;
    }
  }
  auto copy = run({"cp", source, path("/big")});
  EXPECT_EQ(waitLong(*copy), 0);
  EXPECT_EQ(sizeOf("/big"), static_cast<std::int64_t>(SIZE));
  auto compare = run({"cmp", source, path("/big")});
  EXPECT_EQ(waitLong(*compare), 0) << compare->output();
}

// Opening in its ways

TEST_F(MountWritingTest, AppendingGoesToTheEndWhoeverMovedIt) {
  serverHas("log", "one\n");
  rig_.start();
  const Descriptor first(path("/log"), O_WRONLY | O_APPEND), second(path("/log"), O_WRONLY | O_APPEND);
  EXPECT_EQ(put(first, "two\n"), 4);
  EXPECT_EQ(put(second, "three\n"), 6);
  EXPECT_EQ(put(first, "four\n"), 5);
  EXPECT_EQ(textOf(path("/log")), "one\ntwo\nthree\nfour\n");
  EXPECT_EQ(::truncate(path("/log").c_str(), 4), 0);
  EXPECT_EQ(put(second, "2\n"), 2);
  EXPECT_EQ(textOf(path("/log")), "one\n2\n");
  rig_.shell("for i in 1 2 3 4; do (for j in $(seq 100); do echo line >> log; done) & done; wait");
  EXPECT_EQ(rig_.shell("grep -c '^line$' log; wc -c < log"), "400\n2006\n");
}

TEST_F(MountWritingTest, TruncatingOnOpeningDownloadsNothing) {
  serverHas("a", "contents of some length");
  rig_.start();
  rig_.extension.failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  putFile(path("/a"), "new");
  EXPECT_EQ(textOf(path("/a")), "new");
  EXPECT_EQ(rig_.extension.fetchesOf("of a"), 0);
}

TEST_F(MountWritingTest, OpeningForWritingWithoutWritingChangesNothing) {
  serverHas("a", "contents");
  rig_.start();
  Descriptor file(path("/a"), O_RDWR);
  ASSERT_GE(file, 0);
  EXPECT_EQ(file.close(), 0);
  EXPECT_EQ(rig_.edited->find(inodeOf("/a")), nullptr);
  EXPECT_EQ(rig_.extension.fetchesOf("of a"), 0);
}

TEST_F(MountWritingTest, WritingIntoAFileThatIsNotHereFetchesItOnce) {
  serverHas("a", "0123456789");
  rig_.start();
  const Descriptor file(path("/a"), O_RDWR);
  rig_.extension.holdAnswers();
  std::thread writer([&] { EXPECT_EQ(putAt(file, "ab", 2), 2); });
  ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() > 0; }));
  rig_.extension.letAnswersGo();
  writer.join();
  EXPECT_EQ(textAt(file), "01ab456789");
  EXPECT_EQ(rig_.extension.fetchesOf("of a"), 1);
}

TEST_F(MountWritingTest, AWriteThatWaitsForADownloadCanBeInterrupted) {
  serverHas("a", "0123456789");
  rig_.start();
  rig_.shell("ls");
  rig_.extension.holdAnswers();
  auto program = run({"dd", "if=/dev/zero", "of=" + path("/a"), "bs=1", "count=1", "conv=notrunc", "status=none"});
  ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() == 1; }));
  ::kill(program->pid(), SIGKILL);
  EXPECT_EQ(program->wait(), -SIGKILL);
  EXPECT_TRUE(eventually([&] { return rig_.extension.cancelledFetches() == 1; }));
  rig_.extension.letAnswersGo();
  EXPECT_EQ(textOf(path("/a")), "0123456789");
}

TEST_F(MountWritingTest, AWriteFailsWithTheErrorOfTheDownload) {
  serverHas("a", "0123456789");
  rig_.start();
  rig_.extension.failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  const Descriptor file(path("/a"), O_WRONLY);
  EXPECT_EQ(putAt(file, "x", 3), -1);
  EXPECT_EQ(errno, EHOSTUNREACH);
  rig_.extension.failFetches(std::nullopt);
  EXPECT_EQ(putAt(file, "x", 3), 1);
  EXPECT_EQ(textOf(path("/a")), "012x456789");
}

TEST_F(MountWritingTest, OpenersSeeEachOthersWrites) {
  serverHas("a", "0123456789");
  rig_.start();
  const Descriptor reader(path("/a"));
  EXPECT_EQ(textAt(reader), "0123456789");
  const Descriptor first(path("/a"), O_RDWR), second(path("/a"), O_RDWR);
  EXPECT_EQ(putAt(first, "ABC", 0), 3);
  EXPECT_EQ(putAt(second, "XYZ", 7), 3);
  EXPECT_EQ(textAt(reader), "ABC3456XYZ");
  EXPECT_EQ(textAt(first), "ABC3456XYZ");
  EXPECT_EQ(textAt(second), "ABC3456XYZ");
}

TEST_F(MountWritingTest, WhatTheServerDoesNotLetUsChangeIsRefused) {
  auto item = FakeExtension::file("11", ROOT, "a", "contents");
  item.capabilities = ALLOWS_READING;
  item.fileSystemFlags = USER_READABLE;
  rig_.extension.add(item, "contents");
  rig_.start();
  EXPECT_EQ(Descriptor(path("/a"), O_WRONLY).number(), EACCES);
  EXPECT_EQ(numberOf(::truncate(path("/a").c_str(), 0)), EACCES);
  EXPECT_EQ(textOf(path("/a")), "contents");
}

// Sizes and times

TEST_F(MountWritingTest, TruncatingUpAndDownIsExact) {
  serverHas("a", "0123456789");
  rig_.start();
  EXPECT_EQ(::truncate(path("/a").c_str(), 4), 0);
  EXPECT_EQ(sizeOf("/a"), 4);
  EXPECT_EQ(::truncate(path("/a").c_str(), 8), 0);
  EXPECT_EQ(textOf(path("/a")), std::string("0123\0\0\0\0", 8));
  const Descriptor file(path("/a"), O_RDWR);
  EXPECT_EQ(::ftruncate(file, 2), 0);
  EXPECT_EQ(textAt(file), "01");
  EXPECT_EQ(::ftruncate(file, 3), 0);
  EXPECT_EQ(textAt(file), std::string("01\0", 3));
}

TEST_F(MountWritingTest, AFileWithHolesIsOne) {
  rig_.start();
  const Descriptor file(path("/sparse"), O_RDWR | O_CREAT);
  constexpr off_t FAR = off_t{5} << 30;
  EXPECT_EQ(putAt(file, "end", FAR), 3);
  EXPECT_EQ(sizeOf("/sparse"), FAR + 3);
  EXPECT_EQ(textAt(file, 4, 1 << 20), std::string(4, '\0'));
  EXPECT_EQ(textAt(file, 10, FAR), "end");
  struct stat status{};
  const auto privateFile = rig_.edited->find(inodeOf("/sparse"));
  ASSERT_TRUE(privateFile);
  ASSERT_EQ(::fstat(privateFile->descriptor(), &status), 0);
  EXPECT_LT(status.st_blocks, 1024);
}

TEST_F(MountWritingTest, RoomIsAllocatedAndHolesArePunched) {
  serverHas("a", "0123456789");
  rig_.start();
  const Descriptor file(path("/a"), O_RDWR);
  EXPECT_EQ(numberOf(::fallocate(file, 0, 0, 8192)), 0);
  EXPECT_EQ(sizeOf("/a"), 8192);
  EXPECT_EQ(textAt(file, 10), "0123456789");
  EXPECT_EQ(numberOf(::fallocate(file, FALLOC_FL_KEEP_SIZE, 8192, 8192)), 0);
  EXPECT_EQ(sizeOf("/a"), 8192);
  EXPECT_EQ(numberOf(::fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 2, 3)), 0);
  EXPECT_EQ(textAt(file, 10), std::string("01\0\0\00056789", 10));
  EXPECT_EQ(numberOf(::fallocate(file, FALLOC_FL_ZERO_RANGE, 8, 8192)), 0);
  EXPECT_EQ(sizeOf("/a"), 8200);
  EXPECT_EQ(textAt(file, 10), std::string("01\0\0\000567\0\0", 10));
  EXPECT_EQ(numberOf(::fallocate(file, FALLOC_FL_COLLAPSE_RANGE, 0, 4096)), EOPNOTSUPP);
}

TEST_F(MountWritingTest, TheTopFolderWasModifiedWhenItWasMountedOrLaterChanged) {
  const auto now = [] { return ::time(nullptr); };
  const auto mounted = now();
  serverHas("a", "contents");
  rig_.start();
  const auto shown = statusOf("/").st_mtim;
  EXPECT_GE(shown.tv_sec, mounted);
  EXPECT_LE(shown.tv_sec, now());
  EXPECT_EQ(numberOf(::mkdir(path("/new").c_str(), 0700)), 0);
  const auto changed = statusOf("/").st_mtim;
  EXPECT_GT(std::tie(changed.tv_sec, changed.tv_nsec), std::tie(shown.tv_sec, shown.tv_nsec));
  const timespec times[] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 1'234'567'890, .tv_nsec = 0}};
  EXPECT_EQ(::utimensat(AT_FDCWD, path("/").c_str(), times, 0), 0);
  rig_.restart();
  EXPECT_EQ(statusOf("/").st_mtim.tv_sec, 1'234'567'890);
}

TEST_F(MountWritingTest, TimesAreWhatProgramsSet) {
  serverHas("a", "contents");
  rig_.start();
  const timespec times[] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 1'234'567'890, .tv_nsec = 250'001'000}};
  EXPECT_EQ(::utimensat(AT_FDCWD, path("/a").c_str(), times, 0), 0);
  EXPECT_EQ(statusOf("/a").st_mtim.tv_sec, 1'234'567'890);
  EXPECT_EQ(statusOf("/a").st_mtim.tv_nsec, 250'001'000);
  EXPECT_EQ(rig_.extension.fetchesOf("of a"), 0) << "a time needs no contents";
  putFile(path("/b"), "x");
  EXPECT_GT(statusOf("/b").st_mtim.tv_sec, 1'700'000'000);
  EXPECT_EQ(::utimensat(AT_FDCWD, path("/b").c_str(), times, 0), 0);
  EXPECT_EQ(statusOf("/b").st_mtim.tv_sec, 1'234'567'890);
  EXPECT_EQ(statusOf("/b").st_mtim.tv_nsec, 250'001'000);
  EXPECT_EQ(::utimensat(AT_FDCWD, path("/b").c_str(), nullptr, 0), 0);
  EXPECT_GT(statusOf("/b").st_mtim.tv_sec, 1'700'000'000);
}

TEST_F(MountWritingTest, AttributesAndListingsAreExactAfterAWrite) {
  rig_.start();
  const Descriptor file(path("/a"), O_RDWR | O_CREAT);
  for (int i = 1; i <= 100; ++i) {
    EXPECT_EQ(put(file, "x"), 1);
    struct stat status{};
    EXPECT_EQ(::fstat(file, &status), 0);
    EXPECT_EQ(status.st_size, i);
    EXPECT_EQ(sizeOf("/a"), i);
  }
  EXPECT_THAT(rig_.shell("ls -l"), HasSubstr(" 100 "));
}

// Mappings

TEST_F(MountWritingTest, SharedMappingsWriteTheFile) {
  serverHas("a", std::string(10'000, '.'));
  rig_.start();
  const auto name = path("/a");
  std::array<int, 2> synced{}, seen{};
  ASSERT_EQ(::pipe(synced.data()), 0);
  ASSERT_EQ(::pipe(seen.data()), 0);
  ChildProcess child([&] {
    const int file = ::open(name.c_str(), O_RDWR);
    auto* const map = static_cast<char*>(::mmap(nullptr, 10'000, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    if (map == MAP_FAILED) return false;
    map[0] = 'A';
    map[9'999] = 'Z';
    if (::msync(map, 10'000, MS_SYNC) != 0) return false;
    char byte = '!';
    if (::write(synced[1], &byte, 1) != 1 || ::read(seen[0], &byte, 1) != 1) return false;
    map[1] = 'B';
    return ::munmap(map, 10'000) == 0 && ::close(file) == 0;
  });
  char byte = 0;
  EXPECT_EQ(::read(synced[0], &byte, 1), 1);
  const auto written = rig_.edited->find(inodeOf("/a"));
  ASSERT_TRUE(written);
  EXPECT_EQ(textAt(written->descriptor(), 1, 9'999), "Z") << "msync is through";
  EXPECT_EQ(::write(seen[1], &byte, 1), 1);
  EXPECT_TRUE(child.succeeds());
  for (const int end : {synced[0], synced[1], seen[0], seen[1]}) ::close(end);
  const auto text = textOf(path("/a"));
  EXPECT_EQ(text.substr(0, 3), "AB.");
  EXPECT_EQ(text.back(), 'Z');
  EXPECT_EQ(text.size(), 10'000U);
}

TEST_F(MountWritingTest, AMappingOutlivesItsDescriptor) {
  rig_.start();
  const auto name = path("/a");
  ChildProcess child([&] {
    const int file = ::open(name.c_str(), O_RDWR | O_CREAT, 0600);
    if (::ftruncate(file, 5'000) != 0) return false;
    auto* const map = static_cast<char*>(::mmap(nullptr, 5'000, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    if (map == MAP_FAILED || ::close(file) != 0) return false;
    map[4'999] = '!';
    return ::munmap(map, 5'000) == 0;
  });
  EXPECT_TRUE(child.succeeds());
  const auto file = rig_.edited->find(inodeOf("/a"));
  ASSERT_TRUE(file);
  EXPECT_EQ(textAt(file->descriptor(), 1, 4'999), "!");
  EXPECT_EQ(textOf(path("/a")).back(), '!');
}

// Removing and renaming

TEST_F(MountWritingTest, AnOpenFileThatIsRemovedStaysReadableAndWritable) {
  serverHas("fetched", "0123456789");
  serverHas("other", "abcdefghij");
  rig_.start();
  putFile(path("/made"), "made here");
  EXPECT_EQ(textOf(path("/fetched")), "0123456789");
  for (const auto& [name, text] : std::map<std::string, std::string>{
           {"/made", "made here"}, {"/fetched", "0123456789"}, {"/other", "abcdefghij"}}) {
    const Descriptor file(path(name), O_RDWR);
    ASSERT_GE(file, 0);
    EXPECT_EQ(::unlink(path(name).c_str()), 0) << name;
    EXPECT_FALSE(isThere(name));
    EXPECT_EQ(textAt(file), text);
    EXPECT_EQ(putAt(file, "XY", 1), 2) << name;
    EXPECT_EQ(textAt(file), text.substr(0, 1) + "XY" + text.substr(3));
    struct stat status{};
    EXPECT_EQ(::ftruncate(file, 4), 0);
    EXPECT_EQ(::fstat(file, &status), 0);
    EXPECT_EQ(status.st_size, 4);
    EXPECT_EQ(status.st_nlink, 0U);
    EXPECT_EQ(::fsync(file), 0);
  }
  EXPECT_EQ(rig_.shell("ls"), "");
}

TEST_F(MountWritingTest, AnOpenFileIsFetchedBeforeItGoes) {
  serverHas("a", "0123456789");
  rig_.start();
  const Descriptor file(path("/a"));
  ASSERT_GE(file, 0);
  rig_.extension.holdAnswers();
  std::thread remover([&] { EXPECT_EQ(::unlink(path("/a").c_str()), 0); });
  ASSERT_TRUE(eventually([&] { return rig_.extension.heldCount() == 1; }));
  rig_.extension.letAnswersGo();
  remover.join();
  EXPECT_EQ(textAt(file), "0123456789");
}

TEST_F(MountWritingTest, WhatCannotBeFetchedGoesAllTheSame) {
  serverHas("a", "0123456789");
  rig_.start();
  const Descriptor file(path("/a"));
  rig_.extension.failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  EXPECT_EQ(::unlink(path("/a").c_str()), 0);
  EXPECT_FALSE(isThere("/a"));
}

TEST_F(MountWritingTest, AFileThatNobodyHasOpenGoesWithoutBeingFetched) {
  serverHas("a", "0123456789");
  rig_.start();
  EXPECT_EQ(::unlink(path("/a").c_str()), 0);
  EXPECT_EQ(rig_.extension.fetchesOf("of a"), 0);
}

TEST_F(MountWritingTest, WhoHasAReplacedFileOpenGoesOnWithTheOld) {
  serverHas("a", "the old");
  rig_.start();
  const Descriptor file(path("/a"));
  putFile(path("/temporary"), "the new");
  EXPECT_EQ(::rename(path("/temporary").c_str(), path("/a").c_str()), 0);
  EXPECT_EQ(textAt(file), "the old");
  EXPECT_EQ(textOf(path("/a")), "the new");
  EXPECT_EQ(rig_.shell("ls"), "a\n");
}

TEST_F(MountWritingTest, ATemporaryFileThatIsOpenIsRenamedOver) {
  serverHas("a", "the old");
  rig_.start();
  const Descriptor file(path("/.goutputstream-1"), O_RDWR | O_CREAT | O_EXCL);
  EXPECT_EQ(put(file, "the "), 4);
  EXPECT_EQ(::rename(path("/.goutputstream-1").c_str(), path("/a").c_str()), 0);
  EXPECT_EQ(put(file, "new"), 3);
  EXPECT_EQ(textOf(path("/a")), "the new");
}

TEST_F(MountWritingTest, RenamingFollowsTheRules) {
  rig_.extension.addFolder("10", ROOT, "full");
  rig_.extension.addFile("11", "10", "inside", "x");
  rig_.extension.addFolder("12", ROOT, "empty");
  rig_.extension.addFolder("13", ROOT, "other");
  rig_.extension.addFile("14", "13", "kept", "y");
  serverHas("file", "the file");
  serverHas("second", "the second");
  rig_.start();
  const auto rename = [&](const std::string& from, const std::string& to, unsigned flags = 0) {
    return numberOf(::renameat2(AT_FDCWD, path(from).c_str(), AT_FDCWD, path(to).c_str(), flags));
  };
  EXPECT_EQ(rename("/file", "/second", RENAME_NOREPLACE), EEXIST);
  EXPECT_EQ(rename("/file", "/second", RENAME_EXCHANGE), EINVAL);
  EXPECT_EQ(rename("/file", "/empty"), EISDIR);
  EXPECT_EQ(rename("/empty", "/file"), ENOTDIR);
  EXPECT_EQ(rename("/other", "/full"), ENOTEMPTY);
  EXPECT_EQ(rename("/other", "/other/below"), EINVAL);
  EXPECT_EQ(rename("/none", "/file"), ENOENT);
  EXPECT_EQ(rename("/file", "/file"), 0);
  EXPECT_EQ(rename("/other", "/empty"), 0) << "over an empty folder";
  EXPECT_EQ(textOf(path("/empty/kept")), "y");
  EXPECT_FALSE(isThere("/other"));
  EXPECT_EQ(rename("/file", "/second"), 0);
  EXPECT_EQ(textOf(path("/second")), "the file");
  EXPECT_FALSE(isThere("/file"));
  EXPECT_EQ(rename("/second", "/full/moved", RENAME_NOREPLACE), 0);
  EXPECT_EQ(rig_.shell("find . | sort"), ".\n./empty\n./empty/kept\n./full\n./full/inside\n./full/moved\n");
}

TEST_F(MountWritingTest, AFolderGoesOnlyWhenItIsEmpty) {
  rig_.extension.addFolder("10", ROOT, "full");
  rig_.extension.addFile("11", "10", "inside", "x");
  serverHas("file", "x");
  rig_.start();
  EXPECT_EQ(numberOf(::rmdir(path("/full").c_str())), ENOTEMPTY) << "although it was never looked into";
  EXPECT_EQ(numberOf(::rmdir(path("/file").c_str())), ENOTDIR);
  EXPECT_EQ(numberOf(::unlink(path("/full").c_str())), EISDIR);
  EXPECT_EQ(numberOf(::unlink(path("/full/inside").c_str())), 0);
  EXPECT_EQ(numberOf(::rmdir(path("/full").c_str())), 0);
  EXPECT_FALSE(isThere("/full"));
}

TEST_F(MountWritingTest, SavingByRenamingShowsTheNewFileOnly) {
  serverHas("text", "before");
  rig_.start();
  EXPECT_EQ(textOf(path("/text")), "before");
  ASSERT_EQ(::rename(path("/text").c_str(), path("/text~").c_str()), 0);
  putFile(path("/text"), "after");
  ASSERT_EQ(::unlink(path("/text~").c_str()), 0);
  EXPECT_EQ(rig_.shell("ls; cat text"), "text\nafter");
}

// Synchronising, room, sending

TEST_F(MountWritingTest, FilesAndFoldersAreSynchronised) {
  serverHas("a", "contents");
  rig_.start();
  const Descriptor file(path("/a"), O_RDWR), folder(path("/"), O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(::fsync(file), 0) << "nothing was changed";
  EXPECT_EQ(putAt(file, "C", 0), 1);
  EXPECT_EQ(::fsync(file), 0);
  EXPECT_EQ(::fdatasync(file), 0);
  EXPECT_EQ(::fsync(folder), 0);
}

class FullDiskTest : public MountWritingTest {
 protected:
  FullDiskTest() {
    std::filesystem::create_directory(room_);
    EXPECT_EQ(::mount("tmpfs", room_.c_str(), "tmpfs", 0, "size=2m"), 0);
  }
  ~FullDiskTest() override {
    rig_.stop();
    ::umount2(room_.c_str(), MNT_DETACH);
  }

  const std::string room_ = scratch_.path() + "/edits";
};

TEST_F(FullDiskTest, AWriterHearsThatThereIsNoRoomAndGoesOnWhenThereIs) {
  serverHas("a", "contents");
  rig_.start();
  const Descriptor file(path("/big"), O_RDWR | O_CREAT);
  const std::string piece(1 << 16, 'x');
  ssize_t written = 0;
  while (true) {
    const auto count = put(file, piece);
    if (count < 0) break;
    written += count;
  }
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_GT(written, 1 << 20);
  EXPECT_EQ(sizeOf("/big"), written);
  EXPECT_EQ(textAt(file, 10, written - 10), std::string(10, 'x'));
  const Descriptor other(path("/a"), O_RDWR);
  EXPECT_EQ(put(other, "C"), -1) << "the copy that it would be in has no room either";
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(textOf(path("/a")), "contents");
  EXPECT_EQ(::ftruncate(file, 10), 0);
  EXPECT_EQ(putAt(file, "y", 10), 1);
  EXPECT_EQ(textAt(file), "xxxxxxxxxxy");
  EXPECT_EQ(put(other, "C"), 1);
  EXPECT_EQ(textOf(path("/a")), "Contents") << "across file systems";
}

TEST_F(MountWritingTest, WhatIsBeingSentDoesNotChange) {
  rig_.start();
  putFile(path("/a"), "first");
  const Descriptor file(path("/a"), O_RDWR);
  const auto outgoing = beginSending("/a");
  EXPECT_EQ(textOf(outgoing.path), "first");
  EXPECT_EQ(put(file, "SECOND"), 6);
  EXPECT_EQ(textOf(path("/a")), "SECOND");
  EXPECT_EQ(textOf(outgoing.path), "first");
  EXPECT_EQ(outgoing.size, 5);
  rig_.edited->endSending(outgoing, {}, false);
  EXPECT_EQ(textOf(path("/a")), "SECOND");
  EXPECT_NE(rig_.edited->find(inodeOf("/a"))->number(), outgoing.number);
}

TEST_F(MountWritingTest, AFileThatIsBeingSentCanBeRemovedAndGoneOnWith) {
  rig_.start();
  putFile(path("/a"), "first");
  const Descriptor file(path("/a"), O_RDWR);
  const auto outgoing = beginSending("/a");
  ASSERT_EQ(::unlink(path("/a").c_str()), 0);
  EXPECT_EQ(put(file, "SECOND"), 6);
  EXPECT_EQ(textAt(file), "SECOND");
  EXPECT_EQ(textOf(outgoing.path), "first");
  rig_.edited->endSending(outgoing, {}, false);
  EXPECT_EQ(textAt(file), "SECOND");
}

TEST_F(MountWritingTest, EditedFilesAreNotEvicted) {
  rig_.start();
  putFile(path("/a"), "precious");
  const auto refusal = rig_.contents->evict(inodeOf("/a"));
  ASSERT_TRUE(refusal);
  EXPECT_TRUE(refusal->is(POSIX_ERROR_DOMAIN, EBUSY));
  EXPECT_EQ(textOf(path("/a")), "precious");
}

TEST_F(MountWritingTest, WhatWasEditedIsThereAfterARestart) {
  serverHas("a", "0123456789");
  rig_.start();
  putFile(path("/new"), "made here");
  {
    const Descriptor file(path("/a"), O_RDWR);
    EXPECT_EQ(putAt(file, "ab", 2), 2);
  }
  ASSERT_EQ(::mkdir(path("/folder").c_str(), 0700), 0);
  putFile(path("/folder/inside"), "below");
  const auto inode = inodeOf("/new");
  rig_.restart();
  EXPECT_EQ(rig_.shell("find . -type f | sort"), "./a\n./folder/inside\n./new\n");
  EXPECT_EQ(textOf(path("/new")), "made here");
  EXPECT_EQ(textOf(path("/a")), "01ab456789");
  EXPECT_EQ(textOf(path("/folder/inside")), "below");
  EXPECT_EQ(sizeOf("/a"), 10);
  EXPECT_EQ(inodeOf("/new"), inode);
}

TEST_F(MountWritingTest, NewsOfOtherFilesArrivesWhileOneIsEdited) {
  serverHas("a", "contents");
  rig_.start();
  const Descriptor file(path("/mine"), O_RDWR | O_CREAT);
  EXPECT_EQ(put(file, "mine"), 4);
  EXPECT_EQ(textOf(path("/a")), "contents");
  EXPECT_FALSE(isThere("/b"));
  rig_.announce(
      {rig_.extension.addFile("of a", ROOT, "a", "changed", 2), rig_.extension.addFile("12", ROOT, "b", "y")});
  EXPECT_EQ(textOf(path("/a")), "changed");
  EXPECT_EQ(textOf(path("/b")), "y");
  EXPECT_EQ(textOf(path("/mine")), "mine");
}

TEST_F(MountWritingTest, AnAppenderThatHasNotHeardOfALongerFileDoesNotOverwriteIt) {
  serverHas("log", "one\n");
  rig_.start();
  const Descriptor file(path("/log"), O_WRONLY | O_APPEND);
  EXPECT_EQ(textOf(path("/log")), "one\n");
  rig_.announce({rig_.extension.addFile("of log", ROOT, "log", "one\ntwo\nthree\n", 2)});
  EXPECT_EQ(put(file, "four\n"), 5);
  ASSERT_TRUE(eventually([&] { return textOf(path("/log")) == "one\ntwo\nthree\nfour\n"; })) << textOf(path("/log"));
}

}  // namespace
}  // namespace vondle
