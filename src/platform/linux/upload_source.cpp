#include "platform/linux/upload_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace vondle {
namespace {

Error unreadable(int errorNumber, const std::string& path) {
  const auto code = errorNumber == ENOENT ? URL_FILE_DOES_NOT_EXIST : URL_NO_PERMISSIONS_TO_READ_FILE;
  return Error(URL_ERROR_DOMAIN, code, "The file to upload can't be read.")
      .withUnderlying(Error::posix(errorNumber, path));
}

}  // namespace

UploadSource::UploadSource(std::string bytes)
    : bytes_(std::move(bytes)), length_(static_cast<std::int64_t>(bytes_.size())) {}

UploadSource::UploadSource(int descriptor, std::int64_t length) : descriptor_(descriptor), length_(length) {}

UploadSource::~UploadSource() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

Result<std::unique_ptr<UploadSource>> UploadSource::openFile(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe must not block here
  if (descriptor < 0) return failure(unreadable(errno, path));
  struct stat found{};
  const int errorNumber = ::fstat(descriptor, &found) != 0 ? errno : S_ISREG(found.st_mode) ? 0 : EINVAL;
  if (errorNumber != 0) {
    ::close(descriptor);
    return failure(unreadable(errorNumber, path));
  }
  return std::unique_ptr<UploadSource>(new UploadSource(descriptor, found.st_size));
}

Result<std::size_t> UploadSource::readAt(std::int64_t offset, std::span<char> buffer) const {
  const auto wanted = std::min(buffer.size(), static_cast<std::size_t>(std::max<std::int64_t>(length_ - offset, 0)));
  if (descriptor_ < 0) {
    std::memcpy(buffer.data(), bytes_.data() + offset, wanted);
    return wanted;
  }
  std::size_t done = 0;
  while (done < wanted) {
    const ssize_t n = ::pread(descriptor_, buffer.data() + done, wanted - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return failure(unreadable(errno, "reading"));
    if (n == 0)
      return failure({URL_ERROR_DOMAIN, URL_REQUEST_BODY_STREAM_EXHAUSTED,
                      "The file to upload became shorter while it was being sent."});
    done += static_cast<std::size_t>(n);
  }
  return done;
}

}  // namespace vondle
