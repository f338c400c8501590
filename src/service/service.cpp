#include "service/service.h"

#include <cstdlib>
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

Error stopping() {
  return {COCOA_ERROR_DOMAIN, USER_CANCELLED, "the service is ending"};
}

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

  auto replica = Replica::open(folders.replicaDatabase());
  if (!replica) return failure(replica.error());
  service->replica_ = std::move(*replica);
  service->tree_ = std::make_unique<Tree>(*service->replica_, platform.scheduler);

  service->extension_ = makeExtension({.identifier = std::string(DOMAIN_IDENTIFIER), .displayName = options.name},
                                      [managers = service->managers_](const Domain& domain) {
                                        return domain.identifier == DOMAIN_IDENTIFIER ? managers->get() : nullptr;
                                      });
  service->tellOnDesktop(options, platform);
  auto contents = ContentStore::open(folders.contentFiles(), *service->tree_, *service->extension_, service->errors_,
                                     platform.scheduler, platform.clock);
  if (!contents) return failure(contents.error());
  service->contents_ = std::move(*contents);
  service->tree_->subscribe([store = service->contents_](const auto& changes) { store->apply(changes); });
  service->limitContents(options.cache, platform.files);
  if (auto opened = service->openEdits(options, folders, platform); !opened) return failure(opened.error());
  service->listing_ = std::make_shared<FolderListing>(*service->tree_, *service->extension_, service->errors_,
                                                      platform.scheduler, platform.clock);

  service->keeper_ =
      std::make_shared<Keeper>(*service->tree_, service->contents_, service->listing_, platform.scheduler);
  service->tree_->subscribe([keeper = service->keeper_](const auto& changes) { keeper->apply(changes); });

  if (options.thumbnails) service->makeThumbnails(options, folders, platform);

  // It starts when the folder is mounted.
  service->follower_ = std::make_shared<Follower>(*service->extension_, *service->tree_, platform.scheduler,
                                                  platform.clock, platform.files, folders.anchorFile(),
                                                  [mounted = &service->mount_] { return (*mounted)->lastUse(); });
  auto mount =
      Mount::start({.path = options.mountPath,
                    .name = options.name,
                    .readOnly = options.readOnly,
                    .used =
                        [follower = service->follower_, limiter = service->limiter_] {
                          follower->noteUse();
                          limiter->noteUse();
                        },
                    .listed =
                        [thumbnails = service->thumbnails_](Inode folder) {
                          if (thumbnails) thumbnails->folderListed(folder);
                        },
                    .keep = [parts = KeepAction::Parts{.tree = *service->tree_,
                                                       .extension = *service->extension_,
                                                       .contents = service->contents_,
                                                       .scheduler = platform.scheduler}](
                                Inode inode, KeepAction::Kind kind,
                                auto completion) { KeepAction::start(parts, kind, inode, std::move(completion)); },
                    .extension = service->extension_.get(),
                    .sendNow = [sender = service->sender_] { sender->sendNow(); }},
                   *service->tree_, *service->listing_, *service->contents_, platform.scheduler, platform.clock,
                   {.edits = service->edits_, .contents = service->edited_});
  if (!mount) return failure(mount.error());
  service->mount_ = std::move(*mount);
  service->mount_->onUnmountedByOthers(stop);
  service->managers_->set(std::make_shared<ServiceManager>(options.mountPath, *service->tree_, service->contents_,
                                                           service->follower_, platform.scheduler));
  if (service->notices_)
    service->follower_->onRun([notices = service->notices_](const std::optional<Error>& error) {
      error ? notices->failed(*error) : notices->answered();
    });
  service->follower_->start();
  service->sender_->start();
  service->keeper_->start();
  service->contents_->checkServerWith([weak = std::weak_ptr(service->follower_)](auto completion) {
    if (const auto follower = weak.lock()) return follower->sync(std::move(completion));
    std::move(completion)(stopping());
  });

  service->commands_ = std::make_unique<ControlCommands>(
      ControlCommands::Parts{.tree = *service->tree_,
                             .contents = service->contents_,
                             .errors = service->errors_,
                             .follower = service->follower_,
                             .keeper = service->keeper_,
                             .limiter = service->limiter_,
                             .edits = service->edits_,
                             .sender = service->sender_,
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

void Service::limitContents(const CacheLimits& limits, Files& files) {
  limiter_ = std::make_shared<CacheLimiter>(limits, *replica_, contents_, files);
  contents_->reserveWith([weak = std::weak_ptr(limiter_)](Inode inode, std::int64_t bytes, auto answer) {
    if (const auto limiter = weak.lock()) return limiter->reserve(inode, bytes, std::move(answer));
    std::move(answer)(failure(stopping()));
  });
  tree_->subscribe([limiter = limiter_](const auto&) { limiter->noteUse(); });
  // The bounds may have been others before.
  limiter_->noteUse();
}

void Service::tellOnDesktop(const ServiceOptions& options, const Platform& platform) {
  if (!options.desktop) return;
  notices_ = std::make_shared<Notices>(options.desktop, options.name, platform.scheduler, platform.clock);
  errors_.onNote([notices = notices_](const Error& error) { notices->failed(error); });
}

Result<void> Service::openEdits(const ServiceOptions& options, const ServiceFolders& folders,
                                const Platform& platform) {
  auto edits = LocalEdits::open(folders.editDatabase(), *tree_, platform.clock, platform.random);
  if (!edits) return failure(edits.error());
  edits_ = std::move(*edits);
  auto edited =
      EditedContents::open(folders.editedFiles(), contents_, edits_, *tree_, platform.scheduler, platform.clock);
  if (!edited) return failure(edited.error());
  edited_ = std::move(*edited);
  sender_ =
      EditSender::make({.services = {.extension = *extension_,
                                     .edits = edits_,
                                     .contents = edited_,
                                     .sync = [this](auto completion) { follower_->sync(std::move(completion)); },
                                     .scheduler = platform.scheduler},
                        .tree = *tree_,
                        .errors = errors_,
                        .clock = platform.clock,
                        .temporaryNames = options.localOnly ? TemporaryNames(*options.localOnly) : TemporaryNames(),
                        .notices = notices_});
  return {};
}

void Service::makeThumbnails(const ServiceOptions& options, const ServiceFolders& folders, const Platform& platform) {
  const char* cacheHome = std::getenv("XDG_CACHE_HOME");
  scaler_ = std::make_unique<HelperPictureScaler>();
  thumbnails_ = std::make_shared<Thumbnails>(
      Thumbnails::Parts{.tree = *tree_,
                        .extension = *extension_,
                        .isEdited = [edited = edited_](Inode inode) { return edited->find(inode) != nullptr; },
                        .scaler = *scaler_,
                        .cache = {ThumbnailCache::folderOf(
                                      folders.home, cacheHome ? std::optional<std::string>(cacheHome) : std::nullopt),
                                  platform.bundle.text("CFBundleShortVersionString").value_or("0")},
                        .scheduler = platform.scheduler,
                        .clock = platform.clock,
                        .mountPath = options.mountPath,
                        .keepsFailures = options.thumbnailFailures});
  tree_->subscribe([thumbnails = thumbnails_](const auto& changes) { thumbnails->apply(changes); });
}

void Service::stop() {
  control_.reset();
  if (thumbnails_) thumbnails_->stop();
  sender_->stop();
  keeper_->stop();
  follower_->stop();
  listing_->close(stopping());
  contents_->close(stopping());
  mount_->stop();
  LOG.log("unmounted");
}

}  // namespace vondle
