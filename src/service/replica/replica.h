#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"
#include "fileprovider/item.h"
#include "service/inode.h"
#include "service/replica/item_index.h"
#include "service/replica/local_name.h"
#include "service/replica/replica_change.h"
#include "service/replica/replica_store.h"

namespace vondle {

// What the kernel and the contents store need to know of an item.
struct ItemAttributes {
  Inode inode = 0;
  Inode parent = 0;
  bool isFolder = false;
  bool isListed = false;  // of a folder: all its children are here
  std::int64_t size = 0;
  Timestamp modified;
  std::uint32_t capabilities = 0;     // ItemCapabilities
  std::uint32_t fileSystemFlags = 0;  // FileSystemFlags
  bool keepDownloaded = false;
  std::uint64_t contentTag = 0;  // changes with the content version; tells apart items as well
};

struct DirectoryEntry {
  std::string name;  // local
  ItemAttributes attributes;
};

// An item whose server name cannot stand in its folder.
struct NamedDifferently {
  Inode inode = 0;
  std::string serverName;
  std::string localName;
  NameProblem problem;
};

// The tree as the server last told it: a folder's children are taken over whole when it is first listed, and kept true
// by updates and deletions. Answers from memory; a SQLite database keeps it over restarts (what it keeps can be had
// again from the server).
//
// Whatever the items say, the tree stays a tree below the root: an item whose parent is unknown or trashed, that is its
// own ancestor or that changes between file and folder leaves it (the last one comes back as a new item). Items of a
// folder that was never listed are left out until it is; those known from elsewhere keep their inode when they move
// there. News that arrives while a folder is being listed is applied again on top of the listing, which may be older.
//
// Reading: any thread. Changing (the calls after "Changing"): one thread at a time; see Tree.
class Replica {
 public:
  // The database is made when missing, and made anew when it cannot be read.
  static Result<std::unique_ptr<Replica>> open(const std::string& databasePath);
  ~Replica();

  [[nodiscard]] std::optional<ItemAttributes> attributes(Inode inode) const EXCLUDES(lock_);
  // Absent as well when the folder is unknown or not listed.
  [[nodiscard]] std::optional<ItemAttributes> lookup(Inode folder, std::string_view localName) const EXCLUDES(lock_);
  [[nodiscard]] bool isListed(Inode folder) const EXCLUDES(lock_);
  // In no particular order; empty unless listed.
  [[nodiscard]] std::vector<Inode> children(Inode folder) const EXCLUDES(lock_);
  // Those of the inodes that are still children of the folder.
  [[nodiscard]] std::vector<DirectoryEntry> entries(Inode folder, std::span<const Inode> inodes) const EXCLUDES(lock_);
  [[nodiscard]] std::optional<Inode> inodeOf(const ItemIdentifier& identifier) const EXCLUDES(lock_);
  [[nodiscard]] std::optional<ItemIdentifier> identifierOf(Inode inode) const EXCLUDES(lock_);
  // Below the mount point, starting with a slash; "/" for the root.
  [[nodiscard]] std::optional<std::string> pathOf(Inode inode) const EXCLUDES(lock_);
  // Through folders that are listed.
  [[nodiscard]] std::optional<Inode> inodeAtPath(std::string_view path) const EXCLUDES(lock_);
  // Everything the server said of it; reads the database, so not for the kernel's requests. NO_SUCH_ITEM when unknown.
  [[nodiscard]] Result<Item> item(Inode inode) const;
  [[nodiscard]] std::vector<NamedDifferently> problems() const EXCLUDES(lock_);
  [[nodiscard]] std::size_t itemCount() const EXCLUDES(lock_);  // the root not counted

  // From here until applyListing or abandonListing, news is remembered for that folder. Any thread; once per folder at
  // a time.
  void beginListing(Inode folder) EXCLUDES(lock_);
  void abandonListing(Inode folder) EXCLUDES(lock_);

  // Changing. Each answers what follows from it, in order.

  // The folder's children are exactly these. NO_SUCH_ITEM when the folder has gone.
  Result<std::vector<ReplicaChange>> applyListing(Inode folder, std::vector<Item> items) EXCLUDES(lock_);
  std::vector<ReplicaChange> applyUpdates(std::vector<Item> items) EXCLUDES(lock_);
  // Deleting the root means that everything may have changed: it is listed again on next need.
  std::vector<ReplicaChange> applyDeletions(const std::vector<ItemIdentifier>& identifiers) EXCLUDES(lock_);

 private:
  class Edit;
  // News during a listing: an item, or an identifier that was deleted.
  struct News {
    Item item;
    bool isDeletion = false;
  };
  static constexpr std::size_t MAX_NEWS = 100'000;

  explicit Replica(ReplicaStore store);
  void rememberNews(const std::vector<Item>& items, const std::vector<ItemIdentifier>& deletions) REQUIRES(lock_);
  void persist(Edit& edit) EXCLUDES(lock_);

  mutable Mutex lock_;
  ItemIndex index_ GUARDED_BY(lock_);
  std::unordered_map<Inode, std::vector<News>> listings_ GUARDED_BY(lock_);
  ReplicaStore store_;  // used by the thread that changes
};

}  // namespace vondle
