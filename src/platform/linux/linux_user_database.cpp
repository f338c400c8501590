#include "platform/linux/linux_user_database.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace vondle {

std::optional<std::string> LinuxUserDatabase::homeOfCurrentUser() const {
  constexpr std::size_t LARGEST_RECORD = 1 << 20;
  passwd record{};
  passwd* found = nullptr;
  std::vector<char> buffer(1024);
  while (true) {
    const int error = getpwuid_r(getuid(), &record, buffer.data(), buffer.size(), &found);
    if (error != ERANGE || buffer.size() >= LARGEST_RECORD) break;
    buffer.resize(buffer.size() * 2);
  }
  if (!found || !found->pw_dir || *found->pw_dir == '\0') return std::nullopt;
  return found->pw_dir;
}

std::string LinuxUserDatabase::fallbackHome() const {
  const char* home = std::getenv("HOME");
  return home && *home ? home : "/";
}

}  // namespace vondle
