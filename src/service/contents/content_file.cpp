#include "service/contents/content_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace vondle {

Result<std::shared_ptr<const ContentFile>> ContentFile::open(const std::string& path, std::uint64_t tag) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (descriptor < 0) return failure(Error::posix(errno, path));
  struct stat status{};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    const int number = errno;
    ::close(descriptor);
    return failure(Error::posix(S_ISREG(status.st_mode) ? number : EINVAL, path));
  }
  return std::shared_ptr<const ContentFile>(new ContentFile(descriptor, status.st_size, tag));
}

ContentFile::~ContentFile() {
  ::close(descriptor_);
}

}  // namespace vondle
