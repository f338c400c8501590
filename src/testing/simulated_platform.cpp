#include "testing/simulated_platform.h"

namespace vondle {

SimulatedPlatform::SimulatedPlatform(std::optional<std::uint64_t> seed)
    : scheduler(seed),
      files(scheduler),
      urlLoading(scheduler, files),
      random(seed.value_or(1)),
      previews(scheduler),
      bundle({{"CFBundleShortVersionString", "1.4"},
              {"CFBundleVersion", "57"},
              {"CFBundleExecutable", "VondleFileProvider"}}) {
  users.home = SimulatedFiles::HOME;
}

Platform SimulatedPlatform::platform() {
  return {scheduler, scheduler, urlLoading, files, keychain, notifyCentre, users, process, random, previews, bundle};
}

}  // namespace vondle
