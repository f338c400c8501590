#include "service/contents/file_copy.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace vondle {
namespace {

// What is between the two offsets; 0 or the error number.
int copyRange(int from, int to, off_t begin, off_t end) {
  if (::lseek(to, begin, SEEK_SET) < 0) return errno;
  while (begin < end) {
    constexpr off_t PIECE = 1 << 30;
    const auto count = ::sendfile(to, from, &begin, static_cast<std::size_t>(std::min(end - begin, PIECE)));
    if (count < 0 && errno != EINTR) return errno;
    if (count == 0) break;
  }
  return 0;
}

}  // namespace

int copyFileContents(int from, int to) {
  if (::ioctl(to, FICLONE, from) == 0) return 0;
  struct stat status{};
  if (::fstat(from, &status) != 0) return errno;
  for (off_t end = 0; end < status.st_size;) {
    const auto begin = ::lseek(from, end, SEEK_DATA);
    if (begin < 0 && errno == ENXIO) break;
    if (begin < 0) return errno;
    end = ::lseek(from, begin, SEEK_HOLE);
    if (end < 0) return errno;
    if (const int number = copyRange(from, to, begin, end); number != 0) return number;
  }
  // At the end, so that a copy that power loss has cut short is shorter.
  return ::ftruncate(to, status.st_size) == 0 ? 0 : errno;
}

}  // namespace vondle
