#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kernel.h"
#include "platform/linux/linux_files.h"
#include "provider/process.h"
#include "provider/vondle_file_provider.h"
#include "service/manager/service_manager.h"
#include "service/mount/writable_filesystem.h"
#include "service/service_core.h"
#include "testing/scripted_url_session.h"
#include "testing/simulated_keychain.h"
#include "testing/simulated_notify_centre.h"
#include "testing/simulated_preview_renderer.h"
#include "testing/simulated_process_control.h"
#include "testing/simulated_random.h"
#include "testing/simulated_user_database.h"
#include "testing/virtual_scheduler.h"

namespace vondle::sim {

// One life of the service's process: the extension and the service's core over the files of a home folder, in virtual
// time, with the simulated kernel in place of the mount. One whose process has died is left alone, never destroyed.
class Installation {
 public:
  Installation(const std::string& home, std::uint64_t seed, Timestamp now, CacheLimits cache);

  // Throws std::runtime_error when a part refuses to open.
  void start();

  [[nodiscard]] ReplicatedExtension& extension() { return *extension_; }
  [[nodiscard]] ServiceCore& core() { return *core_; }
  [[nodiscard]] Replica& tree() { return core_->replica(); }
  [[nodiscard]] LocalEdits& edits() { return *core_->edits(); }
  [[nodiscard]] Kernel& kernel() { return *kernel_; }
  [[nodiscard]] const ServiceFolders& folders() const { return folders_; }

  VirtualScheduler scheduler;
  SimulatedUserDatabase users;
  LinuxFiles files{users};
  ScriptedURLLoading urlLoading{scheduler, files};

 private:
  SimulatedKeychain keychain_;
  SimulatedNotifyCentre notifyCentre_;
  SimulatedProcessControl process_;
  SimulatedRandom random_;
  SimulatedPreviewRenderer previews_{scheduler};
  Platform platform_;
  const CacheLimits cache_;
  ServiceFolders folders_;
  std::unique_ptr<Process> extensionProcess_;
  std::shared_ptr<VondleFileProvider> extension_;
  std::shared_ptr<Manager> manager_;
  std::unique_ptr<ServiceCore> core_;
  std::shared_ptr<WritableFilesystem> filesystem_;
  std::unique_ptr<Kernel> kernel_;
};

}  // namespace vondle::sim
