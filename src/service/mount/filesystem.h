#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/progress.h"
#include "service/contents/content_store.h"
#include "service/listing/folder_listing.h"
#include "service/mount/fuse_handler.h"
#include "service/replica/tree.h"

namespace vondle {

// Answers the kernel from the replica and the downloaded contents. What needs the network is parked: the first look
// into a folder waits for its listing, a read waits for the contents; the answer is given by whoever brings them, and
// an interrupted program gets EINTR.
class Filesystem final : public FuseHandler, public std::enable_shared_from_this<Filesystem> {
 public:
  // `used` is called for each request; it must be cheap, and may be empty.
  Filesystem(Tree& tree, FolderListing& listing, ContentStore& contents, const Clock& clock,
             std::function<void()> used = {});

  void lookup(FuseRequest request, Inode folder, std::string name) override;
  void attributes(FuseRequest request, Inode inode) override;
  void open(FuseRequest request, Inode inode) override;
  void read(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) override;
  void flush(FuseRequest request, Inode inode) override;
  void release(FuseRequest request, Inode inode) override;
  void openFolder(FuseRequest request, Inode folder) override;
  void readFolder(FuseRequest request, Inode folder, std::uint64_t handle, std::int64_t offset,
                  std::size_t room) override;
  void releaseFolder(FuseRequest request, std::uint64_t handle) override;
  void statistics(FuseRequest request) override;
  void forget(Inode inode) override;

  // Takes note of the changes and answers those that the kernel must hear of now. News of contents that a read waits
  // for is held back until that is answered, for telling the kernel would wait for it: `later` gets it then.
  std::vector<ReplicaChange> apply(const std::vector<ReplicaChange>& changes) EXCLUDES(lock_);
  void onLater(std::function<void(std::vector<ReplicaChange>)> later) { later_ = std::move(later); }

  // Fails what is parked, and everything from now on, with ENOTCONN.
  void close() EXCLUDES(lock_);

  [[nodiscard]] MonotonicTime lastUse() const { return {Duration(lastUse_.load())}; }

 private:
  // A file that programs have open.
  struct OpenFile {
    std::size_t count = 0;
    ItemAttributes attributes;                // the latest known, for when the item is gone
    std::shared_ptr<const ContentFile> file;  // what it reads, once it has read
  };
  struct ParkedRead {
    std::uint64_t number;  // in parked_
    int pid;
  };
  using Snapshot = std::shared_ptr<const std::vector<Inode>>;

  // False, and the request failed, when the mount is closed.
  bool begin(FuseRequest& request);
  void whenListed(FuseRequest request, Inode folder, std::function<void(Filesystem&, FuseRequest)> next);
  void answerLookup(FuseRequest request, Inode folder, const std::string& name);
  void answerPage(FuseRequest request, Inode folder, const Snapshot& snapshot, std::int64_t offset, std::size_t room);
  [[nodiscard]] std::shared_ptr<const ContentFile> fileFor(Inode inode) EXCLUDES(lock_);
  void keepOpen(Inode inode, const std::shared_ptr<const ContentFile>& file) EXCLUDES(lock_);
  std::uint64_t park(FuseRequest& request, const std::shared_ptr<Progress>& wait) EXCLUDES(lock_);
  // The number for errno of a wait that failed.
  int unpark(std::uint64_t number, const Error* error) EXCLUDES(lock_);
  void readIsAnswered(Inode inode, std::uint64_t number) EXCLUDES(lock_);

  Tree& tree_;
  FolderListing& listing_;
  ContentStore& contents_;
  const Clock& clock_;
  const std::function<void()> used_;
  std::function<void(std::vector<ReplicaChange>)> later_;
  std::atomic<std::int64_t> lastUse_;
  std::atomic<bool> isClosed_ = false;

  Mutex lock_;
  std::unordered_map<Inode, OpenFile> openFiles_ GUARDED_BY(lock_);
  std::unordered_map<Inode, std::uint64_t> cachedTags_ GUARDED_BY(lock_);  // of the contents the kernel may have cached
  std::unordered_map<std::uint64_t, Snapshot> openFolders_ GUARDED_BY(lock_);
  std::uint64_t lastFolder_ GUARDED_BY(lock_) = 0;
  std::unordered_map<std::uint64_t, std::shared_ptr<Progress>> parked_ GUARDED_BY(lock_);
  std::uint64_t lastParked_ GUARDED_BY(lock_) = 0;
  std::unordered_map<Inode, std::vector<ParkedRead>> parkedReads_ GUARDED_BY(lock_);
  std::unordered_set<Inode> heldBack_ GUARDED_BY(lock_);  // contents changed, while a read is parked
};

}  // namespace vondle
