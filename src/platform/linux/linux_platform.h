#pragma once

#include <memory>
#include <string_view>

#include "platform/platform.h"

namespace vondle {

// The machine this process runs on: one of each real part. While it lives, the process's log lines go to the journal if
// stderr leads there, else to stderr. Everything made with platform() must be gone before this is. Its threads take
// whatever signals the thread that makes it takes, so block first what main wants to wait for.
class LinuxPlatform {
 public:
  // Notifications between processes go through the group's container where the user has no runtime folder.
  explicit LinuxPlatform(std::string_view applicationGroup);
  ~LinuxPlatform();
  LinuxPlatform(const LinuxPlatform&) = delete;
  LinuxPlatform& operator=(const LinuxPlatform&) = delete;

  Platform platform();

 private:
  struct Parts;
  const std::unique_ptr<Parts> parts_;
};

}  // namespace vondle
