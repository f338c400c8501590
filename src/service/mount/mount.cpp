#include "service/mount/mount.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/mutex.h"
#include "service/mount/filesystem.h"
#include "service/mount/fuse_session.h"
#include "service/mount/kernel_notifier.h"
#include "service/mount/mount_point.h"
#include "service/mount/trash_folder.h"
#include "service/mount/writable_filesystem.h"
#include "service/trash/trash.h"
#include "service/trash/trash_text.h"

namespace vondle {

// Passes on, once, that the mount was ended from outside.
class Mount::EndSignal {
 public:
  void ended() EXCLUDES(lock_) {
    std::function<void()> handler;
    {
      MutexLock hold(lock_);
      hasEnded_ = true;
      handler = std::exchange(handler_, nullptr);
    }
    if (handler) handler();
  }

  void set(std::function<void()> handler) EXCLUDES(lock_) {
    {
      MutexLock hold(lock_);
      if (!hasEnded_) {
        handler_ = std::move(handler);
        return;
      }
    }
    if (handler) handler();
  }

 private:
  Mutex lock_;
  bool hasEnded_ GUARDED_BY(lock_) = false;
  std::function<void()> handler_ GUARDED_BY(lock_);
};

Mount::Mount() : endSignal_(std::make_shared<EndSignal>()) {}

Mount::~Mount() {
  stop();
}

Result<std::unique_ptr<Mount>> Mount::start(const MountOptions& options, Tree& tree, FolderListing& listing,
                                            ContentStore& contents, Scheduler& scheduler, const Clock& clock,
                                            LocalChanges changes) {
  std::unique_ptr<Mount> mount(new Mount);
  const bool readOnly = options.readOnly || !changes.edits || !changes.contents;
  mount->edited_ = changes.contents;
  std::shared_ptr<WritableFilesystem> writable;
  if (readOnly)
    mount->filesystem_ = std::make_shared<Filesystem>(tree, listing, contents, changes.contents, clock, options.used);
  else
    mount->filesystem_ = writable = std::make_shared<WritableFilesystem>(tree, listing, contents, changes.contents,
                                                                         changes.edits, clock, options.used);
  if (options.keep)
    mount->filesystem_->showAttributes(std::make_shared<ExtendedAttributes>(tree, contents, scheduler, options.keep));
  mount->filesystem_->bringThumbnails(options.thumbnails);
  mount->addTrash(options, tree, scheduler, clock, changes.edits, writable);
  FuseHandler& handler = mount->trashFolder_ ? static_cast<FuseHandler&>(*mount->trashFolder_) : *mount->filesystem_;
  auto mountPoint = MountPoint::mount(options.path, options.name, readOnly);
  if (!mountPoint) return std::unexpected(mountPoint.error());
  mount->mountPoint_ = std::move(*mountPoint);
  auto session = FuseSession::open(mount->mountPoint_->takeDevice(), handler, scheduler,
                                   [signal = mount->endSignal_] { signal->ended(); });
  if (!session) return std::unexpected(session.error());
  mount->session_ = std::move(*session);
  mount->notifier_ = std::make_shared<KernelNotifier>(*mount->session_);
  const auto tell = [weak = std::weak_ptr(mount->notifier_)](const std::vector<ReplicaChange>& changed) {
    if (const auto notifier = weak.lock()) notifier->tell(changed);
  };
  mount->filesystem_->onLater(tell);
  if (mount->trashFolder_) mount->trashFolder_->onMoved(tell);
  if (mount->edited_)
    mount->edited_->onSettled(
        [weak = std::weak_ptr(mount->filesystem_)](Inode inode, std::optional<std::uint64_t> tag) {
          if (const auto filesystem = weak.lock()) filesystem->contentsSettled(inode, tag);
        });
  tree.subscribe([filesystem = std::weak_ptr(mount->filesystem_),
                  notifier = std::weak_ptr(mount->notifier_)](const std::vector<ReplicaChange>& news) {
    const auto answering = filesystem.lock();
    const auto telling = notifier.lock();
    if (answering && telling) telling->tell(answering->apply(news));
  });
  mount->session_->serve();
  struct stat status{};
  if (::stat(options.path.c_str(), &status) != 0) return failure(Error::posix(errno, options.path));
  return mount;
}

void Mount::addTrash(const MountOptions& options, Tree& tree, Scheduler& scheduler, const Clock& clock,
                     const std::shared_ptr<LocalEdits>& edits, const std::shared_ptr<WritableFilesystem>& writable) {
  if (!options.extension) return;
  const auto name = trashFolderName(::geteuid());
  tree.reserveTopName(name);
  trash_ = Trash::make({.extension = *options.extension,
                        .tree = tree,
                        .edits = edits,
                        .contents = edited_,
                        .scheduler = scheduler,
                        .clock = clock,
                        .sendNow = options.sendNow});
  trashFolder_ = std::make_shared<TrashFolder>(
      TrashFolder::Parts{.below = filesystem_, .writable = writable, .trash = trash_, .clock = clock, .name = name});
}

void Mount::stop() {
  endSignal_->set(nullptr);
  if (trash_) trash_->close();
  if (filesystem_) filesystem_->close();
  if (mountPoint_) mountPoint_->unmount();
  // The requests that the notifier may be waiting for are still being answered.
  if (notifier_) notifier_->stop();
  if (session_) session_->stop();
  session_ = nullptr;
}

void Mount::onUnmountedByOthers(std::function<void()> handler) {
  endSignal_->set(std::move(handler));
}

void Mount::waitUntilShown() {
  notifier_->drain();
}

MonotonicTime Mount::lastUse() const {
  return filesystem_->lastUse();
}

}  // namespace vondle
