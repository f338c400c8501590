#include "service/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <string_view>
#include <thread>
#include <utility>

#include <fmt/format.h>

namespace vondle {

namespace {

// A process that was killed keeps its locks until all of it is taken apart, which takes a moment.
constexpr std::chrono::milliseconds ENDING_TIME(5000);
constexpr std::chrono::milliseconds ENDING_POLL(10);

// The digits in the file; empty when there are none.
std::string ownerIn(int descriptor) {
  std::array<char, 32> text{};
  const auto length = ::pread(descriptor, text.data(), text.size(), 0);
  const std::string_view digits(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  return std::string(digits.substr(0, digits.find_first_not_of("0123456789")));
}

// Its command line goes first.
bool isEnding(const std::string& process) {
  return !process.empty() && std::ifstream("/proc/" + process + "/cmdline").peek() == std::ifstream::traits_type::eof();
}

// 0 or the error number.
int lockFile(int descriptor) {
  for (auto waited = std::chrono::milliseconds(0);; waited += ENDING_POLL) {
    if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) return 0;
    if (errno != EWOULDBLOCK || waited >= ENDING_TIME || !isEnding(ownerIn(descriptor))) return errno;
    std::this_thread::sleep_for(ENDING_POLL);
  }
}

}  // namespace

Result<InstanceLock> InstanceLock::acquire(const std::string& path, const std::string& what) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return failure(Error::posix(errno, "opening " + path));
  InstanceLock lock(descriptor);
  if (const int number = lockFile(descriptor); number != 0) {
    if (number != EWOULDBLOCK) return failure(Error::posix(number, "locking " + path));
    const auto owner = ownerIn(descriptor);
    return failure(
        Error(POSIX_ERROR_DOMAIN, EBUSY,
              fmt::format("{} is in use by {}", what, owner.empty() ? "another process" : "process " + owner)));
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
