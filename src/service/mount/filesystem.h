#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/progress.h"
#include "service/contents/content_store.h"
#include "service/contents/edited_contents.h"
#include "service/listing/folder_listing.h"
#include "service/mount/extended_attributes.h"
#include "service/mount/fuse_handler.h"
#include "service/replica/tree.h"
#include "service/thumbnails/thumbnails.h"

namespace vondle {

// Answers the kernel from the replica, the downloaded contents and what programs have edited; what would change
// something is refused. What needs the network is parked: the first look into a folder waits for its listing, a read
// waits for the contents; the answer is given by whoever brings them, and an interrupted program gets EINTR.
class Filesystem : public FuseHandler, public std::enable_shared_from_this<Filesystem> {
 public:
  // `edited` may be null: then nothing is. `used` is called for each request; it must be cheap, and may be empty.
  Filesystem(Tree& tree, FolderListing& listing, ContentStore& contents, std::shared_ptr<EditedContents> edited,
             const Clock& clock, std::function<void()> used = {});

  void lookup(FuseRequest request, Inode folder, std::string name) override;
  void attributes(FuseRequest request, Inode inode) override;
  void open(FuseRequest request, Inode inode, OpenMode mode) override;
  void read(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) override;
  void flush(FuseRequest request, Inode inode) override;
  void release(FuseRequest request, Inode inode, OpenMode mode) override;
  void openFolder(FuseRequest request, Inode folder) override;
  void readFolder(FuseRequest request, Inode folder, std::uint64_t handle, std::int64_t offset,
                  std::size_t room) override;
  void releaseFolder(FuseRequest request, std::uint64_t handle) override;
  void statistics(FuseRequest request) override;
  void forget(Inode inode) override;

  void create(FuseRequest request, Inode folder, std::string name, unsigned permissions, OpenMode mode,
              bool mayExist) override;
  void makeFile(FuseRequest request, Inode folder, std::string name, unsigned permissions) override;
  void makeFolder(FuseRequest request, Inode folder, std::string name, unsigned permissions) override;
  void removeFile(FuseRequest request, Inode folder, std::string name) override;
  void removeFolder(FuseRequest request, Inode folder, std::string name) override;
  void rename(FuseRequest request, Inode folder, std::string name, Inode toFolder, std::string toName,
              bool mayReplace) override;
  void change(FuseRequest request, Inode inode, const AttributeChange& change) override;
  void write(FuseRequest request, Inode inode, std::string_view data, std::int64_t offset, bool isAppend) override;
  void allocate(FuseRequest request, Inode inode, int mode, std::int64_t offset, std::int64_t length) override;
  void readAttribute(FuseRequest request, Inode inode, std::string name, std::size_t room) override;
  void setAttribute(FuseRequest request, Inode inode, std::string name, std::optional<std::string> value,
                    int flags) override;
  void sync(FuseRequest request, Inode inode) override;

  // Before the first request; without, items have no extended attributes.
  void showAttributes(std::shared_ptr<ExtendedAttributes> extended) { extended_ = std::move(extended); }

  // Takes note of the changes and answers those that the kernel must hear of now; it knows of what programs did. News
  // of contents that a read or write waits for is held back until that is answered, for telling the kernel would wait
  // for it: `later` gets it then.
  std::vector<ReplicaChange> apply(const std::vector<ReplicaChange>& changes) EXCLUDES(lock_);
  // Before the first request; null: nobody brings any. Where somebody does, programs that make small pictures for file
  // managers find those, and get no contents that are not here.
  void bringThumbnails(std::shared_ptr<Thumbnails> thumbnails) { thumbnails_ = std::move(thumbnails); }
  void onLater(std::function<void(std::vector<ReplicaChange>)> later) { later_ = std::move(later); }

  // What was edited is as on the server again, where the contents have this tag; or, with none, programs see what the
  // server has from now on.
  void contentsSettled(Inode inode, std::optional<std::uint64_t> tag) EXCLUDES(lock_);

  // By programs.
  [[nodiscard]] bool isOpen(Inode inode) EXCLUDES(lock_);

  // Fails what is parked, and everything from now on, with ENOTCONN.
  void close() EXCLUDES(lock_);

  [[nodiscard]] MonotonicTime lastUse() const { return {Duration(lastUse_.load())}; }

 protected:
  static constexpr Request VIEWER{.isFileViewerRequest = true};
  using Next = std::function<void(Filesystem&, FuseRequest)>;

  // False, and the request failed, when the mount is closed.
  bool begin(FuseRequest& request);
  void whenListed(FuseRequest request, Inode folder, Next next);
  std::uint64_t park(FuseRequest& request, const std::shared_ptr<Progress>& wait) EXCLUDES(lock_);
  // The number for errno of a wait that failed.
  int unpark(std::uint64_t number, const Error* error) EXCLUDES(lock_);
  // From here until it is answered the kernel holds pages of the file for the parked request.
  void holdsPages(Inode inode, std::uint64_t number, int pid) EXCLUDES(lock_);
  void letsGoOfPages(Inode inode, std::uint64_t number) EXCLUDES(lock_);

  // As programs see it.
  [[nodiscard]] NodeAttributes nodeOf(const ItemAttributes& item) const;
  // Also of one that is gone but open.
  [[nodiscard]] std::optional<NodeAttributes> nodeFor(Inode inode) EXCLUDES(lock_);
  // What programs have written, also when the item is gone and they still have it open; null when there is nothing.
  [[nodiscard]] std::shared_ptr<EditedFile> editedFor(Inode inode) EXCLUDES(lock_);
  // Notes that a program has it open; answers whether what the kernel has cached is still true.
  bool noteOpened(const ItemAttributes& item, std::shared_ptr<const ContentFile> file) EXCLUDES(lock_);
  void noteEdited(Inode inode) EXCLUDES(lock_);
  // What those who have it open read when the item is gone.
  void keepOpen(Inode inode, std::shared_ptr<const ContentFile> file) EXCLUDES(lock_);
  void keepOpen(Inode inode, std::shared_ptr<EditedFile> file) EXCLUDES(lock_);
  [[nodiscard]] std::vector<Inode> openInodes() EXCLUDES(lock_);
  // What is kept of a file that is open.
  struct Kept {
    std::shared_ptr<const ContentFile> file;
    std::shared_ptr<EditedFile> edited;
  };
  [[nodiscard]] Kept keptOpen(Inode inode) EXCLUDES(lock_);
  // Those who read the file are to read it anew.
  void tellContents(Inode inode) EXCLUDES(lock_);

  Tree& tree_;
  ContentStore& contents_;
  const std::shared_ptr<EditedContents> edited_;

 private:
  // A file that programs have open.
  struct OpenFile {
    std::size_t count = 0;
    ItemAttributes attributes;  // the latest known, for when the item is gone
    Kept kept;                  // what it reads, once it has read
  };
  struct PageHolder {
    std::uint64_t number;  // in parked_
    int pid;
  };
  using Snapshot = std::shared_ptr<const std::vector<Inode>>;

  void answerLookup(FuseRequest request, Inode folder, const std::string& name);
  void answerPage(FuseRequest request, Inode folder, const Snapshot& snapshot, std::int64_t offset, std::size_t room);
  [[nodiscard]] std::shared_ptr<const ContentFile> fileFor(Inode inode) EXCLUDES(lock_);
  // A program that makes thumbnails goes on when that of a file whose contents are not here has come, or will not.
  void whenPictured(FuseRequest request, Inode inode, Next next) EXCLUDES(lock_);
  void refuseThumbnail(FuseRequest request, Inode inode) EXCLUDES(lock_);
  [[nodiscard]] bool awaitsPicture(const ItemAttributes& item, std::string_view name) const;
  [[nodiscard]] NodeAttributes nodeOf(const ItemAttributes& item, std::string_view name) const;

  FolderListing& listing_;
  std::shared_ptr<ExtendedAttributes> extended_;
  const Clock& clock_;
  const std::function<void()> used_;
  std::function<void(std::vector<ReplicaChange>)> later_;
  std::shared_ptr<Thumbnails> thumbnails_;
  std::atomic<std::int64_t> lastUse_;
  std::atomic<double> rootModified_;  // when what is in it changed last, or it was mounted
  std::atomic<bool> isClosed_ = false;

  Mutex lock_;
  std::unordered_map<Inode, OpenFile> openFiles_ GUARDED_BY(lock_);
  std::unordered_map<Inode, std::uint64_t> cachedTags_ GUARDED_BY(lock_);  // of the contents the kernel may have cached
  std::unordered_map<std::uint64_t, Snapshot> openFolders_ GUARDED_BY(lock_);
  std::uint64_t lastFolder_ GUARDED_BY(lock_) = 0;
  std::unordered_map<std::uint64_t, std::shared_ptr<Progress>> parked_ GUARDED_BY(lock_);
  std::uint64_t lastParked_ GUARDED_BY(lock_) = 0;
  std::unordered_map<Inode, std::vector<PageHolder>> pageHolders_ GUARDED_BY(lock_);
  std::unordered_set<Inode> heldBack_ GUARDED_BY(lock_);  // contents changed, while pages are held
};

}  // namespace vondle
