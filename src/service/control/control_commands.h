#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/json.h"
#include "platform/clock.h"
#include "platform/scheduler.h"
#include "service/contents/cache_limiter.h"
#include "service/contents/content_store.h"
#include "service/control/control_server.h"
#include "service/control/trash_operation.h"
#include "service/edits/edit_sender.h"
#include "service/edits/local_edits.h"
#include "service/follow/follower.h"
#include "service/follow/keep_action.h"
#include "service/follow/keeper.h"
#include "service/last_errors.h"
#include "service/replica/tree.h"

namespace vondle {

// What the control socket can be asked for, each with its own keys:
//   status                      the mount, changes, items, edits, transfers, problems
//   sync                        reads the server's changes now; answers when the folder shows them. Edits are tried at
//                               once, whatever their next try was
//   info     inode: N           what is known of an item
//   fetch    inodes: [N, …]     downloads files, with progress; ends with how many are done and which failed
//   evict    inodes: [N, …]     drops local copies
//   keep     inodes: [N, …], wait: BOOLEAN
//                               keeps items downloaded; with wait, ends when all is here, with progress
//   unkeep   inodes: [N, …]     keeps them no more and drops their local copies
//   thumbnail  inode: N, width: N, height: N
//                               answers an image as the server has it, in base64
//   drain                       sends all edits, with progress; ends with those that are left and why
//   trash                       lists the server's trash
//   trash-restore  ids: [ID, …] brings back what is in the trash, with progress; ends with how many and which failed
//   trash-delete   ids: [ID, …] removes it for good, likewise
//   trash-empty                 removes everything that is in the trash
//   stop                        unmounts and ends the service; answers before it does
// Any thread; answers at once or from the threads of those it asks.
class ControlCommands {
 public:
  struct Parts {
    Tree& tree;
    std::shared_ptr<ContentStore> contents;
    LastErrors& errors;
    std::shared_ptr<Follower> follower;
    std::shared_ptr<Keeper> keeper;
    std::shared_ptr<CacheLimiter> limiter;
    std::shared_ptr<LocalEdits> edits;
    std::shared_ptr<EditSender> sender;
    ReplicatedExtension& extension;
    Scheduler& scheduler;
    const Clock& clock;
    std::function<void()> waitUntilShown;  // blocks until the folder shows what the tree knows
    std::function<void()> stop;
    std::string mountPath;
    std::string editedFiles;  // the folder of the private files
    bool readOnly = false;
    int pid = 0;
  };

  // Names and errors that a status lists at most.
  static constexpr std::size_t MAX_PROBLEMS = 100;
  // Files that one fetch has under way at a time.
  static constexpr std::size_t FETCHES_AT_ONCE = 8;
  static constexpr Duration PROGRESS_INTERVAL = seconds(0.5);

  explicit ControlCommands(Parts parts);

  void handle(const json::Object& request, const std::shared_ptr<ControlReply>& reply);

 private:
  [[nodiscard]] json::Object status() const;
  void sync(const std::shared_ptr<ControlReply>& reply);
  void info(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const;
  void fetch(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const;
  void evict(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const;
  void keep(KeepAction::Kind action, const json::Object& request, const std::shared_ptr<ControlReply>& reply) const;
  void thumbnail(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const;
  void drain(const std::shared_ptr<ControlReply>& reply) const;
  void trash(TrashOperation::Action action, const json::Object& request, bool isAll,
             const std::shared_ptr<ControlReply>& reply) const;
  [[nodiscard]] json::Object editStatus() const;
  [[nodiscard]] json::Object cacheStatus() const;
  // What of it, or of what is in it, is here.
  void tellWhatIsHere(Inode inode, bool isFolder, json::Object& object) const;
  void tellEdit(Inode inode, json::Object& object) const;

  const Parts parts_;
  const std::shared_ptr<Queue> waiting_;  // for what blocks: one at a time, so that it takes up one thread at most
  const MonotonicTime started_;
};

}  // namespace vondle
