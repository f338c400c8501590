#pragma once

#include "platform/bundle_information.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/keychain.h"
#include "platform/log.h"
#include "platform/notify_centre.h"
#include "platform/preview_renderer.h"
#include "platform/process_control.h"
#include "platform/random_source.h"
#include "platform/scheduler.h"
#include "platform/url_session.h"
#include "platform/user_database.h"

namespace vondle {

// What the operating system gives, as one set of references: the real set (platform/linux/linux_platform.h) or the
// simulated one (testing/simulated_platform.h). Whoever made the set owns the objects; they outlive every user.
struct Platform {
  Clock& clock;
  Scheduler& scheduler;
  URLLoading& urlLoading;
  Files& files;
  Keychain& keychain;
  NotifyCentre& notifyCentre;
  UserDatabase& users;
  ProcessControl& process;
  RandomSource& random;
  PreviewRenderer& previews;
  BundleInformation bundle;
};

}  // namespace vondle
