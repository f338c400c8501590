#include "platform/linux/linux_platform.h"

#include "platform/bundle.h"
#include "platform/linux/asio_scheduler.h"
#include "platform/linux/curl_url_session.h"
#include "platform/linux/helper_preview_renderer.h"
#include "platform/linux/inotify_notify_centre.h"
#include "platform/linux/journal_log.h"
#include "platform/linux/libsecret_keychain.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_files.h"
#include "platform/linux/linux_process_control.h"
#include "platform/linux/linux_random.h"
#include "platform/linux/linux_user_database.h"
#include "platform/linux/stderr_log.h"

namespace vondle {
namespace {

std::unique_ptr<LogSink> makeLogSink(const Clock& clock) {
  if (JournalLog::isConnectedToStderr()) return std::make_unique<JournalLog>();
  return std::make_unique<StderrLog>(clock);
}

// Takes the process's log for its lifetime.
class InstalledLogSink {
 public:
  explicit InstalledLogSink(std::unique_ptr<LogSink> sink)
      : sink_(std::move(sink)), previous_(setLogSink(sink_.get())) {}
  ~InstalledLogSink() { setLogSink(previous_); }

 private:
  const std::unique_ptr<LogSink> sink_;
  LogSink* const previous_;
};

}  // namespace

// Those with threads, which may log, go before the log does.
struct LinuxPlatform::Parts {
  explicit Parts(std::string_view applicationGroup)
      : notifyCentre(notificationFolders(files.applicationGroupContainer(applicationGroup))) {}

  LinuxClock clock;
  InstalledLogSink log{makeLogSink(clock)};
  LinuxUserDatabase users;
  LinuxFiles files{users};
  LinuxProcessControl process;
  LinuxRandom random;
  LibsecretKeychain keychain{clock};
  CurlURLLoading urlLoading;
  InotifyNotifyCentre notifyCentre;
  AsioScheduler scheduler;
  HelperPreviewRenderer previews;
};

LinuxPlatform::LinuxPlatform(std::string_view applicationGroup) : parts_(std::make_unique<Parts>(applicationGroup)) {}

LinuxPlatform::~LinuxPlatform() = default;

Platform LinuxPlatform::platform() {
  return {parts_->clock,    parts_->scheduler,    parts_->urlLoading, parts_->files,
          parts_->keychain, parts_->notifyCentre, parts_->users,      parts_->process,
          parts_->random,   parts_->previews,     bundleInformation()};
}

}  // namespace vondle
