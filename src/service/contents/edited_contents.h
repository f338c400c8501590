#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"
#include "fileprovider/request.h"
#include "platform/clock.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/contents/edited_file.h"
#include "service/edits/local_edits.h"
#include "service/waiting_room.h"

namespace vondle {

// The contents that programs have written and the server has not: one private file per item, named by a number that is
// never used again, in a folder of their own that nothing evicts from and nothing overwrites. The file's own size and
// time of modification are those of the item. Any thread.
class EditedContents : public std::enable_shared_from_this<EditedContents> {
 public:
  using Answer = Completion<const Result<std::shared_ptr<EditedFile>>&>;

  // How often an edit is begun anew because the contents changed on the server meanwhile.
  static constexpr int MAX_ATTEMPTS = 5;
  // A file that is no longer needed is removed this much later, when the queue's database is sure to know: one removal
  // in that time is as good as a thousand.
  static constexpr Duration REMOVAL_DELAY = seconds(1);

  // Opens the files that the edits name, also of items that the tree does not show (yet): after a replica was made
  // anew, those are found when their folder has been listed. Others in the folder are left over from edits that were
  // done, and removed. A file that is missing is an error in the log and an empty answer of find. Call it before
  // anything else changes the tree, which it subscribes to.
  static Result<std::shared_ptr<EditedContents>> open(std::string folder, std::shared_ptr<ContentStore> contents,
                                                      std::shared_ptr<LocalEdits> edits, Tree& tree,
                                                      Scheduler& scheduler, const Clock& clock);

  // What programs read and write; null when the item is as on the server.
  [[nodiscard]] std::shared_ptr<EditedFile> find(Inode inode) EXCLUDES(lock_);

  // An empty file, for an item that is about to be made; one that is never kept is removed with its last user. keep
  // makes it the contents of the inode, in the place of what they were.
  [[nodiscard]] Result<std::shared_ptr<EditedFile>> makeEmpty();
  void keep(Inode inode, const std::shared_ptr<EditedFile>& file) EXCLUDES(lock_);

  // The file to write to, made from what the item has now: downloaded first when it is not here, or empty when the
  // contents are not needed. Recorded in the queue before it completes; everyone who wants the same item shares that.
  // It may be frozen again by then. Errors: as ContentStore::require; ENOSPC. `wait` may be null.
  void require(Inode inode, bool keepsContents, Request request, const std::shared_ptr<Progress>& wait, Answer answer)
      EXCLUDES(lock_);
  // A copy of a file that is open at the descriptor as long as `source` lives, for programs that write to what is gone.
  void copy(std::shared_ptr<const void> source, int descriptor, Answer answer);

  // After it, what was written to the file before (null: no file) and everything recorded before survives power loss.
  void makeDurable(std::shared_ptr<EditedFile> file, LocalEdits::Done completion);

  // A program has the file open for writing (or no longer).
  void openedForWriting(Inode inode) EXCLUDES(lock_);
  void closedForWriting(Inode inode) EXCLUDES(lock_);
  // Tells the queue of what was written since it was last told. False when there is nothing.
  bool tellOfChange(Inode inode) EXCLUDES(lock_);
  // When it may be sent: at once (none), or not before this time, if nothing happens until then.
  [[nodiscard]] std::optional<Timestamp> busyUntil(Inode inode, Duration settle, Duration settleWhileOpen) const
      EXCLUDES(lock_);

  struct Outgoing {
    std::string path;  // a second name of the file, with the extension of the item's
    std::int64_t number = 0;
    std::int64_t size = 0;
    Timestamp modified;
  };
  // From here to endSending the file does not change: who writes gets a copy. EBUSY while it is being written to,
  // ENOENT when it is missing. Also for one that a suspended sending, or a queue's edit at the start (see Attempt),
  // left as it was sent.
  Result<Outgoing> beginSending(std::int64_t number, const std::string& filename) EXCLUDES(lock_);
  // The server has what was sent, so that it is not kept for the user when nothing names it at the next start. To be
  // called before the queue is told, which may be the last that this process does.
  void noteSent(const Outgoing& outgoing) EXCLUDES(lock_);
  // When the contents are done with (see LocalEdits::Outcome) and the server has just these bytes, the file becomes the
  // item's downloaded copy; when it has others, it goes; else it can be written to again.
  void endSending(const Outgoing& outgoing, const LocalEdits::Outcome& outcome, bool serverHasTheseBytes)
      EXCLUDES(lock_);

  // Nobody knows whether the server has them. The file stays as it is until it is sent again, or asked after.
  void suspendSending(const Outgoing& outgoing) EXCLUDES(lock_);
  // Suspended ones go whose edits were dropped, for nobody will ask after them any more.
  void dropUnasked() EXCLUDES(lock_);

  // Of an edit whose item may be out of sight; null when there is none.
  [[nodiscard]] std::shared_ptr<EditedFile> findNumber(std::int64_t number) EXCLUDES(lock_);
  // What was written to items that are out of sight goes when no edit names it any more.
  void dropUnnamed() EXCLUDES(lock_);

  // Called on any thread when the contents of an item are the server's again: with their tag when they are what was
  // here, without it when programs see others from now on.
  using Settled = std::function<void(Inode inode, std::optional<std::uint64_t> tag)>;
  void onSettled(Settled settled) EXCLUDES(lock_);

  [[nodiscard]] const std::string& folder() const { return folder_; }

 private:
  class Claim;
  struct Claimed {
    std::shared_ptr<Claim> claim;
    bool keepsContents = true;
    Request request;
  };
  struct Sending {
    std::shared_ptr<EditedFile> file;
    Inode inode = 0;
    std::uint64_t contentTag = 0;  // of the item, as it was when it began
    bool isSuspended = false;
    std::vector<std::shared_ptr<Claim>> claims;  // that go on when it has ended
  };

  EditedContents(std::string folder, std::shared_ptr<ContentStore> contents, std::shared_ptr<LocalEdits> edits,
                 Tree& tree, Scheduler& scheduler, const Clock& clock);
  [[nodiscard]] std::int64_t newNumber() { return ++lastNumber_; }
  // The numbers of the files that are there.
  Result<std::set<std::int64_t>> readFolder();
  Result<void> openEdits() EXCLUDES(lock_);
  void apply(const std::vector<ReplicaChange>& changes) EXCLUDES(lock_);
  std::shared_ptr<EditedFile> takeOut(Inode inode) EXCLUDES(lock_);
  bool keepIfNeeded(const std::shared_ptr<EditedFile>& file) EXCLUDES(lock_);
  [[nodiscard]] std::string pathOf(std::int64_t number) const;
  // Of an item that is shown by now.
  std::shared_ptr<EditedFile> findHidden(Inode inode) EXCLUDES(lock_);
  void begin(Inode inode, bool keepsContents, Request request) EXCLUDES(lock_);
  void finished(Inode inode, bool wasAbandoned, const Result<std::shared_ptr<EditedFile>>& result) EXCLUDES(lock_);
  void abandoned(Inode inode) EXCLUDES(lock_);
  // Of the item whose file is being sent; none when it is not any more.
  [[nodiscard]] std::optional<std::uint64_t> tagWhileSending(std::int64_t number) const EXCLUDES(lock_);
  // Starts the claim when the file is not being sent (any more).
  void startAfterSending(std::int64_t number, const std::shared_ptr<Claim>& claim) EXCLUDES(lock_);
  // The file is no longer the inode's contents, if it is.
  void letGo(Inode inode, const std::shared_ptr<EditedFile>& file, std::optional<std::uint64_t> tag) EXCLUDES(lock_);
  void sendingEnded(std::int64_t number) EXCLUDES(lock_);
  void keepAsSent(const Edit& edit) EXCLUDES(lock_);
  void startAll(const std::vector<std::shared_ptr<Claim>>& claims);
  void removeLater(const std::shared_ptr<EditedFile>& file) EXCLUDES(lock_);
  void removeNow() EXCLUDES(lock_);
  int sync(const std::shared_ptr<EditedFile>& file);

  const std::string folder_;
  const std::shared_ptr<ContentStore> contents_;
  const std::shared_ptr<LocalEdits> edits_;
  Tree& tree_;
  const Clock& clock_;
  // What takes as long as files are large: copies on the one, waiting for the disk on the other.
  std::shared_ptr<Queue> copies_;
  std::shared_ptr<Queue> syncs_;
  std::shared_ptr<WaitingRoom<std::shared_ptr<EditedFile>>> waiting_;
  std::atomic<std::int64_t> lastNumber_ = 0;
  std::atomic<std::size_t> count_ = 0;  // of files_
  std::atomic<bool> hasHidden_ = false;
  std::atomic<bool> hasNewNames_ = false;  // in the folder, since it was synchronised

  mutable Mutex lock_;
  std::unordered_map<Inode, std::shared_ptr<EditedFile>> files_ GUARDED_BY(lock_);
  std::unordered_map<std::int64_t, Inode> inodes_ GUARDED_BY(lock_);  // of files_, by number
  // By number: of items that the tree does not show (yet, or any more).
  std::unordered_map<std::int64_t, std::shared_ptr<EditedFile>> hidden_ GUARDED_BY(lock_);
  std::unordered_map<std::int64_t, Sending> sending_ GUARDED_BY(lock_);  // by number
  std::unordered_map<Inode, std::size_t> writers_ GUARDED_BY(lock_);     // programs that have it open for writing
  std::unordered_map<Inode, Claimed> claims_ GUARDED_BY(lock_);
  std::vector<std::string> removals_ GUARDED_BY(lock_);
  Settled settled_ GUARDED_BY(lock_);
};

}  // namespace vondle
