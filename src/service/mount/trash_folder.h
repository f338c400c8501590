#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/mutex.h"
#include "service/mount/filesystem.h"
#include "service/mount/fuse_handler.h"
#include "service/mount/writable_filesystem.h"
#include "service/trash/trash.h"

namespace vondle {

// Shows the trash as desktops look for it in the top folder of a file system, by the conventions of freedesktop.org:
// a folder .Trash-$UID with `files`, `info` and, for programs that move what they delete there first, `expunged`. It is
// nowhere but in the answers to the kernel; everything else is passed on to the file system below.
//
// - Moving something into `files` trashes it, moving it out restores it, removing it there is for good. Moving within
//   the trash names it differently, until the end.
// - The top folder does not list it, though it is found by its name, which is all that desktops need: what walks the
//   folder (backups, search, `rm -r`) is to leave the trash alone.
// - What programs write into a new .trashinfo is kept in memory until the item comes that it tells of; from then on it
//   says what is known of that. One can be removed for a while after its item has gone, and while that is there
//   removing it does nothing.
// - Trashed files can be read; nothing can be written. Trashed folders look empty: the server lists nothing in them.
class TrashFolder final : public FuseHandler, public std::enable_shared_from_this<TrashFolder> {
 public:
  struct Parts {
    std::shared_ptr<Filesystem> below;
    std::shared_ptr<WritableFilesystem> writable;  // the same; null when nothing can be changed
    std::shared_ptr<Trash> trash;
    const Clock& clock;
    std::string name;  // in the top folder
  };
  explicit TrashFolder(Parts parts) : parts_(std::move(parts)) {}

  // Hears of names that no longer lead where the kernel thinks. Before the first request.
  void onMoved(std::function<void(std::vector<ReplicaChange>)> moved) { moved_ = std::move(moved); }

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

 private:
  // A .trashinfo that a program has written and whose item has not come (yet), or has gone.
  struct Info {
    std::uint64_t number = 0;
    std::string text;
    Timestamp modified;
    std::optional<MonotonicTime> until;  // of one whose item has gone: not listed, and removable until then
  };
  struct OpenFile {
    std::size_t count = 0;
    Trash::Contents contents;
  };
  using Next = std::move_only_function<void(TrashFolder&, FuseRequest)>;

  [[nodiscard]] bool isTrashName(Inode folder, const std::string& name) const;
  // On the trash's queue.
  void run(FuseRequest request, Next next);
  // The same after the trash was listed; an interrupted program does not wait.
  void whenListed(FuseRequest request, Next next);
  void whenKnown(FuseRequest request, Next next);
  [[nodiscard]] bool isFormer(Inode inode) EXCLUDES(lock_);

  // On the queue.
  [[nodiscard]] std::optional<NodeAttributes> nodeOf(Inode inode);
  [[nodiscard]] std::string nameOf(Inode inode) const;
  [[nodiscard]] std::optional<Inode> find(Inode folder, const std::string& name);
  [[nodiscard]] const TrashItem* itemOf(Inode inode) const;
  [[nodiscard]] Info* infoOf(Inode inode);
  [[nodiscard]] std::string infoText(const TrashItem& item) const;
  [[nodiscard]] std::vector<Inode> list(Inode folder);
  void answer(FuseRequest request, Inode inode);
  Result<Inode> makeInfo(const std::string& name, bool mayExist);
  void removeInfo(FuseRequest request, const std::string& name);
  void renameInfo(FuseRequest request, const std::string& name, const std::string& toName, bool mayReplace);
  void leaveInfo(const std::string& itemName);
  void tidyInfos(MonotonicTime now);
  void remove(FuseRequest request, Inode folder, const std::string& name, bool isFolder);
  void renameWithin(FuseRequest request, Inode folder, const std::string& name, Inode toFolder,
                    const std::string& toName, bool mayReplace);
  void moveIn(FuseRequest request, Inode folder, std::string name, Inode toFolder, std::string toName);
  void moveOut(FuseRequest request, Inode folder, const std::string& name, Inode toFolder, const std::string& toName,
               bool mayReplace);
  void readItem(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size);
  static void answerContents(FuseRequest request, const Trash::Contents& contents, std::int64_t offset,
                             std::size_t size);

  const Parts parts_;
  std::function<void(std::vector<ReplicaChange>)> moved_;

  // Inodes of the tree that the kernel still may have in the place where they were moved to; whoever comes with one is
  // to look the name up again.
  Mutex lock_;
  std::unordered_set<Inode> former_ GUARDED_BY(lock_);
  std::atomic<std::size_t> formerCount_ = 0;

  // Used on the trash's queue.
  std::map<std::string, Info> infos_;                              // by name
  std::unordered_map<std::uint64_t, std::string> infoNames_;       // by number
  std::unordered_map<std::uint64_t, std::vector<Inode>> folders_;  // that are open, by handle
  std::unordered_map<Inode, OpenFile> files_;
  MonotonicTime tidyInfosAt_{};
  std::uint64_t lastInfo_ = 0;
  std::uint64_t lastFolder_ = 0;
};

}  // namespace vondle
