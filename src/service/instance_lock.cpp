#include "service/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace vondle {

namespace {

std::string ownerIn(int descriptor) {
  std::array<char, 32> text{};
  const auto length = ::pread(descriptor, text.data(), text.size(), 0);
  std::string_view digits(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  digits = digits.substr(0, digits.find_first_not_of("0123456789"));
  return digits.empty() ? "another process" : "process " + std::string(digits);
}

}  // namespace

Result<InstanceLock> InstanceLock::acquire(const std::string& path, const std::string& what) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return failure(Error::posix(errno, "opening " + path));
  InstanceLock lock(descriptor);
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return failure(Error::posix(errno, "locking " + path));
    return failure(Error(POSIX_ERROR_DOMAIN, EBUSY, fmt::format("{} is in use by {}", what, ownerIn(descriptor))));
  }
  const auto text = fmt::format("{}\n", ::getpid());
  if (::ftruncate(descriptor, 0) != 0 ||
      ::pwrite(descriptor, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    return failure(Error::posix(errno, "writing " + path));
  }
  return lock;
}

InstanceLock::InstanceLock(InstanceLock&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

InstanceLock::~InstanceLock() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

}  // namespace vondle
