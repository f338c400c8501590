#include "platform/linux/inotify_notify_centre.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log LOG{"com.ferrow.vondle.platform", "notify"};

// How often a folder that can't be watched is tried again.
constexpr int RETRY_MILLISECONDS = 1000;

bool isName(std::string_view name) {
  return !name.empty() && name.front() != '.' && name.size() <= 255 && std::ranges::all_of(name, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-';
  });
}

// Makes the folder when it is missing; true when nobody else can put anything into it.
bool isOurs(const std::string& folder) {
  mkdir(folder.c_str(), 0700);
  struct stat found;
  return lstat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == geteuid() &&
         (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool isUsable(const std::string& folder) {
  return isOurs(std::filesystem::path(folder).parent_path()) && isOurs(folder);
}

}  // namespace

std::vector<std::string> notificationFolders(const std::optional<std::string>& sharedContainer) {
  std::vector<std::string> folders;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string byUser = "/run/user/" + std::to_string(getuid());
  if (runtime && *runtime == '/') {
    folders.push_back(std::string(runtime) + "/vondle/notify");
  } else if (access(byUser.c_str(), W_OK) == 0) {
    folders.push_back(byUser + "/vondle/notify");
  }
  if (sharedContainer) folders.push_back(*sharedContainer + "/notify");
  return folders;
}

InotifyNotifyCentre::InotifyNotifyCentre(std::vector<std::string> folders) : folders_(std::move(folders)) {}

InotifyNotifyCentre::~InotifyNotifyCentre() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(stop_, &one, sizeof one);
    thread_.join();
  }
  if (inotify_ >= 0) close(inotify_);
  if (stop_ >= 0) close(stop_);
}

void InotifyNotifyCentre::observe(std::string_view name, std::function<void()> callback) {
  assert(isName(name));
  {
    const MutexLock lock(lock_);
    observers_.emplace(name, std::make_shared<const std::function<void()>>(std::move(callback)));
  }
  std::call_once(started_, [this] { start(); });
}

// Watches before it returns, so that no later post is missed.
void InotifyNotifyCentre::start() {
  inotify_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  stop_ = eventfd(0, EFD_CLOEXEC);
  if (inotify_ < 0 || stop_ < 0) {
    LOG.error("can't watch for notifications: %{public}@", std::strerror(errno));
    return;
  }
  for (const auto& folder : folders_) watches_.push_back({.folder = folder});
  if (!watchFolders()) LOG.log("can't watch every folder of notifications yet");
  thread_ = std::thread([this] { run(); });
}

void InotifyNotifyCentre::post(std::string_view name) {
  assert(isName(name));
  for (const auto& folder : folders_) {
    if (!isUsable(folder)) continue;
    const std::string path = folder + "/" + std::string(name);
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file < 0) continue;
    close(file);
    return;
  }
  LOG.error("can't post %{public}@: no folder for notifications", name);
}

void InotifyNotifyCentre::run() {
  bool allWatched = watchFolders();
  while (true) {
    std::array<pollfd, 2> ready = {
        {{.fd = stop_, .events = POLLIN, .revents = 0}, {.fd = inotify_, .events = POLLIN, .revents = 0}}};
    const int count = poll(ready.data(), ready.size(), allWatched ? -1 : RETRY_MILLISECONDS);
    if (ready[0].revents != 0) return;
    if (count > 0) readEvents();
    allWatched = watchFolders();
  }
}

// True when every folder is watched.
bool InotifyNotifyCentre::watchFolders() {
  bool all = true;
  for (auto& watch : watches_) {
    if (watch.descriptor < 0 && isUsable(watch.folder)) {
      watch.descriptor =
          inotify_add_watch(inotify_, watch.folder.c_str(),
                            IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW);
    }
    all = all && watch.descriptor >= 0;
  }
  return all;
}

void InotifyNotifyCentre::readEvents() {
  alignas(inotify_event) std::array<char, 8192> buffer;
  ssize_t length = 0;
  while ((length = read(inotify_, buffer.data(), buffer.size())) > 0) {
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if ((event->mask & IN_MOVE_SELF) != 0) inotify_rm_watch(inotify_, event->wd);  // answers with IN_IGNORED
      if ((event->mask & IN_IGNORED) != 0) {
        for (auto& watch : watches_) {
          if (watch.descriptor == event->wd) watch.descriptor = -1;
        }
      }
      if (event->len > 0 && (event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) notify(event->name);
    }
  }
}

void InotifyNotifyCentre::notify(const std::string& name) {
  std::vector<Callback> callbacks;
  {
    const MutexLock lock(lock_);
    const auto [first, last] = observers_.equal_range(name);
    for (auto it = first; it != last; ++it) callbacks.push_back(it->second);
  }
  for (const auto& callback : callbacks) (*callback)();
}

}  // namespace vondle
