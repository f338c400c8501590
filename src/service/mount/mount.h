#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "platform/clock.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/contents/edited_contents.h"
#include "service/edits/local_edits.h"
#include "service/listing/folder_listing.h"
#include "service/mount/extended_attributes.h"
#include "service/replica/tree.h"

namespace vondle {

class Thumbnails;

struct MountOptions {
  std::string path;             // absolute
  std::string name = "Vondle";  // what mount and df call it
  bool readOnly = false;
  // Called for each request of a program's, on the threads that answer: must be cheap. May be empty.
  std::function<void()> used = {};
  // Puts pictures where file managers look for them; null: nobody does.
  std::shared_ptr<Thumbnails> thumbnails = nullptr;
  // What a program asks for by an extended attribute; without, there are none.
  ExtendedAttributes::Keep keep = {};
  // Whose trash the folder shows; null: it shows none.
  ReplicatedExtension* extension = nullptr;
  // What programs changed is to go up without delay. May be empty.
  std::function<void()> sendNow = {};
};

// What makes the folder one that programs can change.
struct LocalChanges {
  std::shared_ptr<LocalEdits> edits;
  std::shared_ptr<EditedContents> contents;
};

class Filesystem;
class FuseSession;
class KernelNotifier;
class MountPoint;
class Trash;
class TrashFolder;
class WritableFilesystem;

// The folder that programs see: from the mount on the file system to the answers to the kernel. Made and ended on one
// thread. The parts given outlive it.
class Mount {
 public:
  // Mounts, for reading alone without `changes`, and returns when the folder answers. A missing folder is made. A dead
  // mount at the path (of a process that was killed) is cleaned up first; a folder that is not empty, not a folder or
  // another live mount is refused with an error that says what to do. Call it before anything changes the tree.
  static Result<std::unique_ptr<Mount>> start(const MountOptions& options, Tree& tree, FolderListing& listing,
                                              ContentStore& contents, Scheduler& scheduler, const Clock& clock,
                                              LocalChanges changes = {});
  // Stops if that has not been done.
  ~Mount();

  // Takes the folder off the file system, ends what waits, and returns when the last kernel request is answered. Files
  // that are still open in programs answer ENOTCONN from then on.
  void stop();

  // Runs once, on a thread of the mount's, when somebody else has taken the folder off (umount, fusermount3 -u): call
  // stop from elsewhere then.
  void onUnmountedByOthers(std::function<void()> handler);

  // Returns when the folder shows what the tree was told before.
  void waitUntilShown();

  // When a program last used the folder.
  [[nodiscard]] MonotonicTime lastUse() const;

 private:
  class EndSignal;
  Mount();
  void addTrash(const MountOptions& options, Tree& tree, Scheduler& scheduler, const Clock& clock,
                const std::shared_ptr<LocalEdits>& edits, const std::shared_ptr<WritableFilesystem>& writable);

  std::shared_ptr<EndSignal> endSignal_;
  std::shared_ptr<EditedContents> edited_;
  std::shared_ptr<Filesystem> filesystem_;
  std::shared_ptr<Trash> trash_;              // null when none is shown
  std::shared_ptr<TrashFolder> trashFolder_;  // the same
  std::unique_ptr<MountPoint> mountPoint_;
  std::unique_ptr<FuseSession> session_;
  std::shared_ptr<KernelNotifier> notifier_;
};

}  // namespace vondle
