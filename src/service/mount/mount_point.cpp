#include "service/mount/mount_point.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "mount");

constexpr const char* FILE_SYSTEM_TYPE = "fuse.vondle";
constexpr const char* DEVICE = "/dev/fuse";
constexpr int MAX_STACKED_MOUNTS = 16;

struct MountEntry {
  std::string id;
  std::string type;
};

// Of /proc/self/mountinfo, which writes blanks, tabs, line breaks and backslashes as \ooo.
std::string unescaped(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

// The topmost mount at the path.
std::optional<MountEntry> mountAt(const std::string& path) {
  std::ifstream file("/proc/self/mountinfo");
  std::optional<MountEntry> found;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string id, ignored, where, word, type;
    words >> id >> ignored >> ignored >> ignored >> where;
    while (words >> word && word != "-") {
    }
    words >> type;
    if (unescaped(where) == path) found = {id, type};
  }
  return found;
}

Error refusal(int number, std::string text) {
  return {POSIX_ERROR_DOMAIN, number, std::move(text)};
}

// Runs fusermount3, the helper that may mount for ordinary users, and answers whether it succeeded. `socket` is left
// open in it; -1 for none.
bool runHelper(std::vector<std::string> arguments, int socket) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::vector<std::string> variables;
  for (char** variable = environ; *variable; ++variable)
    if (!std::string_view(*variable).starts_with("_FUSE_COMMFD=")) variables.emplace_back(*variable);
  if (socket >= 0) variables.push_back(fmt::format("_FUSE_COMMFD={}", socket));
  std::vector<char*> environment;
  for (auto& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  if (socket >= 0) ::posix_spawn_file_actions_adddup2(&actions, socket, socket);  // without close-on-exec
  pid_t pid = 0;
  const int failed = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environment.data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return false;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void detach(const std::string& path) {
  if (::umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) return;
  if (errno == EPERM && runHelper({"fusermount3", "-u", "-z", "-q", "--", path}, -1)) return;
  slog.error("%{public}@ could not be unmounted", path);
}

// 0 or the error number. The kernel may still know the attributes of a dead mount's root, so a mount of ours is asked
// something that it never remembers.
int lookAt(const std::string& path, struct stat& status) {
  if (::lstat(path.c_str(), &status) != 0) return errno;
  const auto mount = mountAt(path);
  if (!mount || mount->type != FILE_SYSTEM_TYPE) return 0;
  struct statfs answer{};
  return ::statfs(path.c_str(), &answer) == 0 ? 0 : errno;
}

Result<void> makeReady(const std::string& path) {
  struct stat status{};
  for (int i = 0;; ++i) {
    const int number = lookAt(path, status);
    if (number == 0) break;
    if (number == ENOENT) {
      if (::mkdir(path.c_str(), 0700) != 0) return failure(Error::posix(errno, path));
      continue;
    }
    const auto dead = mountAt(path);
    if (number != ENOTCONN || !dead || dead->type != FILE_SYSTEM_TYPE || i == MAX_STACKED_MOUNTS)
      return failure(Error::posix(number, path));
    slog.log("cleaning up the dead mount at %{public}@", path);
    detach(path);
  }
  if (S_ISLNK(status.st_mode))
    return failure(refusal(ENOTDIR, fmt::format("{} is a symbolic link; name the folder that it leads to.", path)));
  if (!S_ISDIR(status.st_mode)) return failure(refusal(ENOTDIR, fmt::format("{} is not a folder.", path)));
  if (const auto other = mountAt(path); other && other->type == FILE_SYSTEM_TYPE)
    return failure(
        refusal(EBUSY, fmt::format("{} is mounted already; unmount it first, or name another folder.", path)));
  std::error_code error;
  const bool isEmpty = std::filesystem::is_empty(path, error);
  if (error) return failure(Error::posix(error.value(), path));
  if (!isEmpty)
    return failure(refusal(
        ENOTEMPTY, fmt::format("{} is not empty; move what is in it elsewhere, or name another folder.", path)));
  return {};
}

Result<int> mountAsRoot(const std::string& path, const std::string& name, bool readOnly) {
  const int device = ::open(DEVICE, O_RDWR | O_CLOEXEC);
  if (device < 0) return failure(Error::posix(errno, DEVICE));
  const auto options =
      fmt::format("fd={},rootmode=40000,user_id={},group_id={},default_permissions", device, ::geteuid(), ::getegid());
  const unsigned long flags = MS_NOSUID | MS_NODEV | (readOnly ? MS_RDONLY : 0);
  if (::mount(name.c_str(), path.c_str(), FILE_SYSTEM_TYPE, flags, options.c_str()) == 0) return device;
  const int number = errno;
  ::close(device);
  return failure(Error::posix(number, path));
}

// The helper sends the descriptor through the socket.
std::optional<int> receiveDescriptor(int socket) {
  char byte = 0;
  iovec piece{.iov_base = &byte, .iov_len = 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t count = 0;
  while ((count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
  }
  const cmsghdr* const header = count > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (!header || header->cmsg_type != SCM_RIGHTS || header->cmsg_len != CMSG_LEN(sizeof(int))) return std::nullopt;
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
  return descriptor;
}

Result<int> mountThroughHelper(const std::string& path, const std::string& name, bool readOnly) {
  std::array<int, 2> sockets{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0)
    return failure(Error::posix(errno, "socketpair"));
  const auto options =
      fmt::format("{},nosuid,nodev,default_permissions,subtype=vondle,fsname={}", readOnly ? "ro" : "rw", name);
  const bool isMounted = runHelper({"fusermount3", "-o", options, "--", path}, sockets[1]);
  ::close(sockets[1]);
  const auto device = isMounted ? receiveDescriptor(sockets[0]) : std::nullopt;
  ::close(sockets[0]);
  if (device) return *device;
  return failure(refusal(
      EPERM, fmt::format("{} cannot be mounted. Is the package fuse3 installed, and may you use {}?", path, DEVICE)));
}

}  // namespace

Result<std::unique_ptr<MountPoint>> MountPoint::mount(const std::string& path, const std::string& name, bool readOnly) {
  // The path itself may be a dead mount, which cannot be looked into.
  const std::filesystem::path given(path.ends_with('/') ? path.substr(0, path.size() - 1) : path);
  std::error_code error;
  const auto parent = std::filesystem::canonical(given.parent_path(), error);
  if (error) return failure(Error::posix(error.value(), given.parent_path().native()));
  const auto real = (parent / given.filename()).native();
  if (auto ready = makeReady(real); !ready) return std::unexpected(ready.error());
  auto plainName = name;
  std::replace_if(plainName.begin(), plainName.end(), [](char c) { return c == ',' || c == '\\' || c == '\n'; }, '_');
  auto device =
      ::geteuid() == 0 ? mountAsRoot(real, plainName, readOnly) : mountThroughHelper(real, plainName, readOnly);
  if (!device) return std::unexpected(device.error());
  const auto entry = mountAt(real);
  return std::unique_ptr<MountPoint>(new MountPoint(real, *device, entry ? entry->id : std::string()));
}

MountPoint::~MountPoint() {
  unmount();
  if (device_ >= 0) ::close(device_);
}

int MountPoint::takeDevice() {
  return std::exchange(device_, -1);
}

void MountPoint::unmount() {
  const auto ours = std::exchange(mountID_, {});
  if (ours.empty()) return;
  if (const auto entry = mountAt(path_); entry && entry->id == ours) detach(path_);
}

}  // namespace vondle
