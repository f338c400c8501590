#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bundle_information.h"
#include "platform/files.h"
#include "platform/notify_centre.h"
#include "platform/process_control.h"

namespace vondle {

// Lets the companion make running extension processes quit, so that the service starts the build that is installed now.
// The extension listens; ask and retireOlder are the companion's. Any thread.
class ExtensionRestart {
 public:
  static constexpr std::string_view note = "com.ferrow.vondle.extension.exit";

  ExtensionRestart(Files& files, NotifyCentre& notifyCentre, ProcessControl& process, const BundleInformation& bundle);

  // Leaves this process's build and id in the record, and ends the process at once, without clean-up, when the note
  // arrives. Only the first call counts.
  void listen();
  // Ends every listening process of the user's, whatever its build.
  void ask();
  // What the record says; 0 when there is none.
  std::int64_t runningBuild();
  // Asks when the record is of an older build than this; true when it did.
  bool retireOlder();

  // "extension.json" in the container of the application group; none when there is no container.
  std::optional<std::string> recordURL();
  // "CFBundleVersion" as a whole number; 0 when it is none.
  [[nodiscard]] std::int64_t thisBuild() const { return thisBuild_; }

 private:
  Files& files_;
  NotifyCentre& notifyCentre_;
  ProcessControl& process_;
  const std::int64_t thisBuild_;
  std::atomic<bool> listening_ = false;
};

}  // namespace vondle
