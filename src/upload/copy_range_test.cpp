#include "upload/copy_range.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

constexpr const char* FROM = "/home/tester/film.mov";
constexpr const char* TO = "/tmp/vondle-part-1";
constexpr std::int64_t MEBIBYTE = 1024 * 1024;

struct CopyRangeTest : testing::Test {
  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
};

TEST_F(CopyRangeTest, CopiesExactlyTheseBytes) {
  files.put(FROM, "0123456789");
  const struct {
    std::int64_t offset;
    std::int64_t length;
    const char* bytes;
  } cases[] = {{0, 10, "0123456789"}, {0, 1, "0"}, {9, 1, "9"}, {3, 4, "3456"}, {5, 0, ""}};
  for (const auto& test : cases) {
    EXPECT_TRUE(copyRange(files, FROM, test.offset, test.length, TO));
    EXPECT_EQ(files.contents(TO), test.bytes) << test.offset;
  }
}

TEST_F(CopyRangeTest, HoldsFourMebibytesAtATime) {
  std::string bytes(9 * MEBIBYTE, 'x');
  for (std::size_t i = 0; i < bytes.size(); i += 4099) bytes[i] = static_cast<char>('a' + i % 26);
  files.put(FROM, bytes);
  ASSERT_TRUE(copyRange(files, FROM, 1, 8 * MEBIBYTE + 1, TO));
  EXPECT_TRUE(files.contents(TO) == bytes.substr(1, 8 * MEBIBYTE + 1));
  EXPECT_EQ(files.readCount(FROM), 3);
  EXPECT_EQ(files.writeCount(TO), 3);
}

TEST_F(CopyRangeTest, RefusesAFileThatEndsTooEarlyAndLeavesNothing) {
  files.put(FROM, "0123456789");
  for (const auto& [offset, length] : {std::pair{0, 11}, {9, 2}, {10, 1}, {20, 1}}) {
    const auto copied = copyRange(files, FROM, offset, length, TO);
    ASSERT_FALSE(copied) << offset;
    EXPECT_TRUE(copied.error().is(COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN));
    EXPECT_FALSE(files.exists(TO));
  }
}

TEST_F(CopyRangeTest, FailsWithTheErrorOfTheFileAndLeavesNothing) {
  const auto expectFailure = [&](int errorNumber) {
    const auto copied = copyRange(files, FROM, 0, 10, TO);
    ASSERT_FALSE(copied);
    EXPECT_TRUE(copied.error().is(POSIX_ERROR_DOMAIN, errorNumber)) << copied.error().localizedDescription();
    EXPECT_FALSE(files.exists(TO));
  };
  expectFailure(ENOENT);
  files.put(FROM, "0123456789", 0);
  expectFailure(EACCES);
  files.put(FROM, "0123456789");
  files.fail(FileOperation::read, FROM, EIO);
  expectFailure(EIO);
  files.fail(FileOperation::create, TO, EMFILE);
  expectFailure(EMFILE);
  files.setFreeSpace(9);
  expectFailure(ENOSPC);
}

}  // namespace
}  // namespace vondle
