#include "service/service_folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "platform/log.h"

namespace vondle {

namespace {

constexpr Log LOG("com.ferrow.vondle.service", "service");

constexpr mode_t WRITABLE_BY_OTHERS = S_IWGRP | S_IWOTH;
constexpr mode_t RIGHTS_OF_OTHERS = S_IRWXG | S_IRWXO;

bool isOwnFolder(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid();
}

Error refusal(std::string text) {
  return {POSIX_ERROR_DOMAIN, EACCES, std::move(text)};
}

Result<void> checkWriters(const std::string& folder) {
  struct stat status{};
  if (::stat(folder.c_str(), &status) != 0 || !(status.st_mode & WRITABLE_BY_OTHERS)) return {};
  return failure(
      refusal(fmt::format("Other users can write to {0} and may have changed what is in it. Look at its files, "
                          "then say \"chmod go-w {0}\".",
                          folder)));
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
  if (auto checked = checkWriters(configuration); !checked) return checked;
  for (const auto* folder : {&configuration, &state, &contents, &runtime}) {
    if (auto made = makePrivate(*folder); !made) return made;
  }
  return {};
}

Result<void> ServiceFolders::guardConfiguration() const {
  std::error_code error;
  const auto path = std::filesystem::canonical(configurationFile(), error).native();
  struct stat status{};
  if (error || ::stat(path.c_str(), &status) != 0) return {};
  if (auto checked = checkWriters(path.substr(0, path.rfind('/'))); !checked) return checked;
  if (status.st_uid != ::geteuid()) {
    return failure(
        refusal(fmt::format("{} belongs to another user (number {}), who could have the key sent anywhere. "
                            "Remove it and sign in with \"vondle login\".",
                            path, status.st_uid)));
  }
  if (!(status.st_mode & RIGHTS_OF_OTHERS)) return {};
  if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) return failure(Error::posix(errno, "making " + path + " private"));
  LOG.error("other users had rights to %{public}@; now it is private", path);
  return {};
}

std::optional<std::string> runtimeFolderOfEnvironment() {
  const char* value = std::getenv("XDG_RUNTIME_DIR");
  return value ? std::optional<std::string>(value) : std::nullopt;
}

}  // namespace vondle
