#include "service/service_folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace vondle {

namespace {

bool isOwnFolder(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid();
}

Result<void> makePrivate(const std::string& path) {
  std::error_code parentError;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), parentError);
  if (parentError) return failure(Error::posix(parentError.value(), "making the folder above " + path));
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    return failure(Error::posix(errno, "making the folder " + path));
  }
  if (!isOwnFolder(path)) return failure(Error::posix(EACCES, path + " must be a folder of your own"));
  if (::chmod(path.c_str(), 0700) != 0) return failure(Error::posix(errno, "setting the rights of " + path));
  return {};
}

}  // namespace

ServiceFolders ServiceFolders::locate(const UserDatabase& users, const std::optional<std::string>& runtimeFolder) {
  ServiceFolders folders;
  folders.home = users.homeOfCurrentUser().value_or(users.fallbackHome());
  folders.configuration = folders.home + "/.vondle";
  folders.state = folders.home + "/.local/state/vondle";
  folders.contents = folders.home + "/.local/share/vondle";
  const bool usable = runtimeFolder && runtimeFolder->starts_with('/') && isOwnFolder(*runtimeFolder);
  folders.runtime = usable ? *runtimeFolder + "/vondle" : folders.state + "/run";
  return folders;
}

Result<void> ServiceFolders::create() const {
  for (const auto* folder : {&configuration, &state, &contents, &runtime}) {
    if (auto made = makePrivate(*folder); !made) return made;
  }
  return {};
}

std::optional<std::string> runtimeFolderOfEnvironment() {
  const char* value = std::getenv("XDG_RUNTIME_DIR");
  return value ? std::optional<std::string>(value) : std::nullopt;
}

}  // namespace vondle
