#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/mutex.h"
#include "fileprovider/domain.h"
#include "fileprovider/replicated_extension.h"
#include "platform/desktop_notices.h"
#include "platform/picture_scaler.h"
#include "platform/platform.h"
#include "service/contents/cache_rules.h"
#include "service/control/control_commands.h"
#include "service/control/control_server.h"
#include "service/instance_lock.h"
#include "service/manager/service_manager.h"
#include "service/mount/mount.h"
#include "service/notices/notices.h"
#include "service/service_core.h"
#include "service/service_folders.h"
#include "service/thumbnails/thumbnails.h"

namespace vondle {

struct ServiceOptions {
  std::string mountPath;  // absolute
  std::string name = "Vondle";
  bool readOnly = false;
  // Patterns of new files that stay here; see ServiceSettings.
  std::optional<std::vector<std::string>> localOnly = {};
  CacheLimits cache = {};
  bool thumbnails = true;                        // for file managers
  bool thumbnailFailures = false;                // also where there are none
  std::shared_ptr<DesktopNotices> desktop = {};  // null: the user is told nothing there
};

// The file-provider service of one account: the core, and before it the folder, the control socket and the desktop,
// over one extension. There is one per process.
//
// It is made to be killed: everything that must last is on disk when it counts, and the next start takes it from there.
// So the way to end the process after stop() is _exit, with the threads still there.
class Service {
 public:
  using ExtensionMaker = std::function<std::shared_ptr<ReplicatedExtension>(Domain, ManagerForDomain)>;

  // Returns when the folder answers. Errors say what to do. `stop` is called on any thread when the service is to end:
  // by the control socket, or because somebody unmounted the folder.
  static Result<std::unique_ptr<Service>> start(const ServiceOptions& options, const ServiceFolders& folders,
                                                const Platform& platform, const ExtensionMaker& makeExtension,
                                                std::function<void()> stop);

  // Takes the folder away and ends what waits. What is not on the server yet goes there after the next start.
  void stop();

 private:
  // The extension may ask for its manager before that is there.
  class Managers {
   public:
    void set(std::shared_ptr<Manager> manager) EXCLUDES(lock_);
    std::shared_ptr<Manager> get() EXCLUDES(lock_);

   private:
    Mutex lock_;
    std::shared_ptr<Manager> manager_ GUARDED_BY(lock_);
  };

  Service() = default;
  void makeThumbnails(const ServiceOptions& options, const ServiceFolders& folders, const Platform& platform);

  std::vector<InstanceLock> locks_;
  std::shared_ptr<Managers> managers_ = std::make_shared<Managers>();
  std::shared_ptr<ReplicatedExtension> extension_;
  std::shared_ptr<Notices> notices_;  // null when the user is to be told nothing
  std::unique_ptr<ServiceCore> core_;
  std::unique_ptr<PictureScaler> scaler_;
  std::shared_ptr<Thumbnails> thumbnails_;  // null when they are not wanted
  std::unique_ptr<Mount> mount_;
  std::unique_ptr<ControlCommands> commands_;
  std::unique_ptr<ControlServer> control_;
};

}  // namespace vondle
