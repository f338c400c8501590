#pragma once

#include <map>
#include <optional>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "platform/desktop_notices.h"

namespace vondle {

// org.freedesktop.Notifications on the session bus. A thread of its own speaks to it, and may wait for it; meanwhile
// only the latest of each tag is kept.
class DBusDesktopNotices final : public DesktopNotices {
 public:
  DBusDesktopNotices();
  // Waits for the call that is under way.
  ~DBusDesktopNotices() override;
  DBusDesktopNotices(const DBusDesktopNotices&) = delete;
  DBusDesktopNotices& operator=(const DBusDesktopNotices&) = delete;

  void show(std::string_view tag, std::string_view title, std::string_view text) override;
  void withdraw(std::string_view tag) override;

 private:
  class Bus;
  struct Notice {
    std::string title;
    std::string text;
  };

  // None: withdrawn.
  void leave(std::string_view tag, std::optional<Notice> notice) EXCLUDES(lock_);
  void run() EXCLUDES(lock_);

  Mutex lock_;
  ConditionVariable woken_;
  std::map<std::string, std::optional<Notice>> waiting_ GUARDED_BY(lock_);
  bool isStopped_ GUARDED_BY(lock_) = false;
  std::thread thread_;  // last: runs from the end of construction
};

}  // namespace vondle
