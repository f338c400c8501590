#include "cli/item_locator.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace vondle {

namespace {

ExitCode exitCodeForErrno(int number) {
  switch (number) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG:
      return ExitCode::noSuchItem;
    case EHOSTUNREACH:
    case ETIMEDOUT:
      return ExitCode::serverUnreachable;
    case EACCES:
      return ExitCode::notAuthenticated;
    case ENOTCONN:
      return ExitCode::serviceNotRunning;
    default:
      return ExitCode::failed;
  }
}

}  // namespace

Outcome<Inode> locateItem(const std::string& path, const std::string& mountPath) {
  struct stat root{};
  if (::stat(mountPath.c_str(), &root) != 0) {
    return fail(exitCodeForErrno(errno), mountPath + ": " + std::strerror(errno));
  }
  struct stat item{};
  if (::lstat(path.c_str(), &item) != 0) return fail(exitCodeForErrno(errno), path + ": " + std::strerror(errno));
  if (item.st_dev != root.st_dev) return fail(ExitCode::failed, path + " is not in the Vondle folder " + mountPath);
  return item.st_ino;
}

}  // namespace vondle
