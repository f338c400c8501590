#pragma once

#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/notify_centre.h"

namespace vondle {

// One machine's notifications: processes that share it hear each other. Posting runs the observers before it returns.
class SimulatedNotifyCentre : public NotifyCentre {
 public:
  [[nodiscard]] std::vector<std::string> posted() EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    return posted_;
  }
  [[nodiscard]] std::size_t observerCount(const std::string& name) EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    return observers_.count(name);
  }

  void observe(std::string_view name, std::function<void()> callback) override EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    observers_.emplace(name, std::move(callback));
  }
  void post(std::string_view name) override EXCLUDES(lock_) {
    std::vector<std::function<void()>> callbacks;
    {
      const MutexLock lock(lock_);
      posted_.emplace_back(name);
      const auto [first, last] = observers_.equal_range(std::string(name));
      for (auto it = first; it != last; ++it) callbacks.push_back(it->second);
    }
    for (const auto& callback : callbacks) callback();
  }

 private:
  Mutex lock_;
  std::vector<std::string> posted_ GUARDED_BY(lock_);
  std::multimap<std::string, std::function<void()>> observers_ GUARDED_BY(lock_);
};

}  // namespace vondle
