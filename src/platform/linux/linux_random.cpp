#include "platform/linux/linux_random.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>

namespace vondle {

std::string LinuxRandom::uuid() {
  std::array<std::uint8_t, 16> bytes;
  // So few bytes come whole or, before the kernel has gathered entropy and a signal arrives, not at all.
  while (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    if (errno != EINTR) std::abort();
  return formatUUID(bytes);
}

}  // namespace vondle
