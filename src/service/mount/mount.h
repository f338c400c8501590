#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/error.h"
#include "platform/clock.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/last_errors.h"
#include "service/listing/folder_listing.h"
#include "service/replica/tree.h"

namespace vondle {

struct MountOptions {
  std::string path;             // absolute; an empty folder
  std::string name = "Vondle";  // what mount and df call it
};

// The folder that programs see: from the mount on the file system to the answers to the kernel. Made and ended on one
// thread. The parts given outlive it.
class Mount {
 public:
  // Returns when the folder answers. A dead mount at the path (of a process that was killed) is cleaned up first; a
  // folder that is not empty, not a folder or another live mount is refused with an error that says what to do.
  static Result<std::unique_ptr<Mount>> start(const MountOptions& options, Tree& tree, FolderListing& listing,
                                              ContentStore& contents, LastErrors& errors, Scheduler& scheduler,
                                              const Clock& clock);
  // Stops if that has not been done.
  ~Mount();

  // Takes the folder off the file system, ends what waits, and returns when the last kernel request is answered. Files
  // that are still open in programs answer ENOTCONN from then on.
  void stop();

  // Runs once, on a thread of the mount's, when somebody else has taken the folder off (umount, fusermount3 -u): call
  // stop from elsewhere then.
  void onUnmountedByOthers(std::function<void()> handler);

  // When a program last used the folder.
  [[nodiscard]] MonotonicTime lastUse() const;

 private:
  class Parts;
  explicit Mount(std::unique_ptr<Parts> parts);
  std::unique_ptr<Parts> parts_;
};

}  // namespace vondle
