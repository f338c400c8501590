#include "service/service.h"

#include <utility>

#include <fmt/format.h>

#include "config/paths.h"
#include "platform/linux/helper_picture_scaler.h"
#include "platform/log.h"
#include "service/leftovers.h"
#include "service/stable_hash.h"

namespace vondle {

namespace {

constexpr Log LOG("com.ferrow.vondle.service", "service");
constexpr std::string_view DOMAIN_IDENTIFIER = "com.ferrow.vondle.account";

// After a process that was killed while it wrote. The caller holds the lock of the state folder.
void clearUp(const ServiceFolders& folders, Files& files) {
  removeLeftovers(folders.state, REPLACEMENT_PREFIX);
  if (const auto container = files.applicationGroupContainer(APPLICATION_GROUP))
    removeLeftovers(*container, REPLACEMENT_PREFIX);
  // It may be one that others use too.
  if (const auto temporary = files.temporaryFolder(); temporary.starts_with(folders.contents + "/"))
    removeLeftovers(temporary, "");
}

}  // namespace

void Service::Managers::set(std::shared_ptr<Manager> manager) {
  const MutexLock guard(lock_);
  manager_ = std::move(manager);
}

std::shared_ptr<Manager> Service::Managers::get() {
  const MutexLock guard(lock_);
  return manager_;
}

Result<std::unique_ptr<Service>> Service::start(const ServiceOptions& options, const ServiceFolders& folders,
                                                const Platform& platform, const ExtensionMaker& makeExtension,
                                                std::function<void()> stop) {
  if (auto made = folders.create(); !made) return failure(made.error());
  if (auto guarded = folders.guardConfiguration(); !guarded) return failure(guarded.error());
  std::unique_ptr<Service> service(new Service());

  auto stateLock = InstanceLock::acquire(folders.stateLock(), "the state folder " + folders.state);
  if (!stateLock) return failure(stateLock.error());
  service->locks_.push_back(std::move(*stateLock));
  const auto mountLockPath = fmt::format("{}/mount-{:016x}.lock", folders.runtime, stableHash(options.mountPath));
  auto mountLock = InstanceLock::acquire(mountLockPath, "the folder " + options.mountPath);
  if (!mountLock) return failure(mountLock.error());
  service->locks_.push_back(std::move(*mountLock));

  clearUp(folders, platform.files);

  service->extension_ = makeExtension({.identifier = std::string(DOMAIN_IDENTIFIER), .displayName = options.name},
                                      [managers = service->managers_](const Domain& domain) {
                                        return domain.identifier == DOMAIN_IDENTIFIER ? managers->get() : nullptr;
                                      });
  if (options.desktop)
    service->notices_ = std::make_shared<Notices>(options.desktop, options.name, platform.scheduler, platform.clock);
  auto core =
      ServiceCore::open({.extension = *service->extension_,
                         .platform = platform,
                         .folders = folders,
                         .cache = options.cache,
                         .temporaryNames = options.localOnly ? TemporaryNames(*options.localOnly) : TemporaryNames(),
                         .notices = service->notices_,
                         // It starts when the folder is mounted.
                         .lastUse = [mounted = &service->mount_] { return (*mounted)->lastUse(); }});
  if (!core) return failure(core.error());
  service->core_ = std::move(*core);
  if (options.thumbnails) service->makeThumbnails(options, folders, platform);

  ServiceCore& parts = *service->core_;
  auto mount =
      Mount::start({.path = options.mountPath,
                    .name = options.name,
                    .readOnly = options.readOnly,
                    .used = [&parts] { parts.noteUse(); },
                    .thumbnails = service->thumbnails_,
                    .keep = [keepParts = KeepAction::Parts{.tree = parts.tree(),
                                                           .extension = *service->extension_,
                                                           .contents = parts.contents(),
                                                           .scheduler = platform.scheduler}](
                                Inode inode, KeepAction::Kind kind,
                                auto completion) { KeepAction::start(keepParts, kind, inode, std::move(completion)); },
                    .extension = service->extension_.get(),
                    .sendNow = [sender = parts.sender()] { sender->sendNow(); }},
                   parts.tree(), *parts.listing(), *parts.contents(), platform.scheduler, platform.clock,
                   {.edits = parts.edits(), .contents = parts.edited()});
  if (!mount) return failure(mount.error());
  service->mount_ = std::move(*mount);
  service->mount_->onUnmountedByOthers(stop);
  service->managers_->set(std::make_shared<ServiceManager>(options.mountPath, parts.tree(), parts.contents(),
                                                           parts.follower(), platform.scheduler));
  parts.start();

  service->commands_ = std::make_unique<ControlCommands>(
      ControlCommands::Parts{.tree = parts.tree(),
                             .contents = parts.contents(),
                             .errors = parts.errors(),
                             .follower = parts.follower(),
                             .keeper = parts.keeper(),
                             .limiter = parts.limiter(),
                             .edits = parts.edits(),
                             .sender = parts.sender(),
                             .extension = *service->extension_,
                             .scheduler = platform.scheduler,
                             .clock = platform.clock,
                             .waitUntilShown = [mounted = service->mount_.get()] { mounted->waitUntilShown(); },
                             .stop = std::move(stop),
                             .mountPath = options.mountPath,
                             .editedFiles = folders.editedFiles(),
                             .readOnly = options.readOnly,
                             .pid = platform.process.pid()});
  auto control = ControlServer::listen(
      folders.socket(),
      [commands = service->commands_.get()](const json::Object& request, const std::shared_ptr<ControlReply>& reply) {
        commands->handle(request, reply);
      });
  if (!control) {
    service->stop();
    return failure(control.error());
  }
  service->control_ = std::move(*control);
  LOG.log("mounted at %{public}@", options.mountPath);
  return service;
}

void Service::makeThumbnails(const ServiceOptions& options, const ServiceFolders& folders, const Platform& platform) {
  scaler_ = std::make_unique<HelperPictureScaler>();
  thumbnails_ = std::make_shared<Thumbnails>(
      Thumbnails::Parts{.tree = core_->tree(),
                        .extension = *extension_,
                        .isEdited = [edited = core_->edited()](Inode inode) { return edited->find(inode) != nullptr; },
                        .scaler = *scaler_,
                        .cache = {ThumbnailCache::folderOfEnvironment(folders.home),
                                  platform.bundle.text("CFBundleShortVersionString").value_or("0")},
                        .scheduler = platform.scheduler,
                        .clock = platform.clock,
                        .mountPath = options.mountPath,
                        .keepsFailures = options.thumbnailFailures});
  core_->tree().subscribe([thumbnails = thumbnails_](const auto& changes) { thumbnails->apply(changes); });
}

void Service::stop() {
  control_.reset();
  if (thumbnails_) thumbnails_->stop();
  core_->stop();
  mount_->stop();
  LOG.log("unmounted");
}

}  // namespace vondle
