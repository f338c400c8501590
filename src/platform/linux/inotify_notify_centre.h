#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "platform/notify_centre.h"

namespace vondle {

// Where the notifications of this user's processes go, best first: vondle/notify in the user's runtime folder
// ($XDG_RUNTIME_DIR, else /run/user/<uid> where it exists), then notify in the container that the processes share.
std::vector<std::string> notificationFolders(const std::optional<std::string>& sharedContainer);

// Notifications as files: posting a name rewrites the empty file of that name in the first folder that can be used, and
// observers hear of it through inotify, in every folder, so that processes that see different folders still meet. Needs
// no session bus. A folder is used only if it is this user's and nobody else may write to it; it is made (0700) when
// missing, also later. Two posts in quick succession may arrive as one.
class InotifyNotifyCentre : public NotifyCentre {
 public:
  explicit InotifyNotifyCentre(std::vector<std::string> folders);
  ~InotifyNotifyCentre() override;  // not from a callback
  InotifyNotifyCentre(const InotifyNotifyCentre&) = delete;
  InotifyNotifyCentre& operator=(const InotifyNotifyCentre&) = delete;

  void observe(std::string_view name, std::function<void()> callback) override EXCLUDES(lock_);
  void post(std::string_view name) override;

 private:
  using Callback = std::shared_ptr<const std::function<void()>>;
  struct Watch {
    std::string folder;
    int descriptor = -1;  // of inotify; -1: not watched now
  };

  void start();
  void run();
  [[nodiscard]] bool watchFolders();
  void readEvents();
  void notify(const std::string& name) EXCLUDES(lock_);

  const std::vector<std::string> folders_;
  Mutex lock_;
  std::multimap<std::string, Callback, std::less<>> observers_ GUARDED_BY(lock_);
  std::once_flag started_;
  int inotify_ = -1;            // set before the thread starts
  int stop_ = -1;               // event descriptor: readable ends the thread
  std::vector<Watch> watches_;  // the thread's, once it runs
  std::thread thread_;
};

}  // namespace vondle
