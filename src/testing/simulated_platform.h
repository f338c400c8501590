#pragma once

#include <cstdint>
#include <optional>

#include "platform/platform.h"
#include "testing/scripted_url_session.h"
#include "testing/simulated_files.h"
#include "testing/simulated_keychain.h"
#include "testing/simulated_notify_centre.h"
#include "testing/simulated_preview_renderer.h"
#include "testing/simulated_process_control.h"
#include "testing/simulated_random.h"
#include "testing/simulated_user_database.h"
#include "testing/virtual_scheduler.h"

namespace vondle {

// A whole machine for tests: one of each simulated part, on one thread and in virtual time. Parts are set up and looked
// into directly; what is under test gets platform(). Code under test must be gone before this is.
struct SimulatedPlatform {
  // The seed draws the order of tasks and makes the names; none: the order of posting.
  explicit SimulatedPlatform(std::optional<std::uint64_t> seed = std::nullopt);

  Platform platform();

  VirtualScheduler scheduler;  // the clock too
  SimulatedFiles files;
  ScriptedURLLoading urlLoading;
  SimulatedKeychain keychain;
  SimulatedNotifyCentre notifyCentre;
  SimulatedUserDatabase users;
  SimulatedProcessControl process;
  SimulatedRandom random;
  SimulatedPreviewRenderer previews;
  BundleInformation bundle;
};

}  // namespace vondle
