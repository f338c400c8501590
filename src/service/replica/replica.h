#pragma once

#include <cstdint>
#include <functional>
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
#include "fileprovider/item.h"
#include "service/edits/edit.h"
#include "service/inode.h"
#include "service/replica/local_name.h"
#include "service/replica/replica_change.h"
#include "service/replica/replica_store.h"
#include "service/replica/tree_edit.h"
#include "service/replica/tree_state.h"

namespace vondle {

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

// The tree as the server last told it, with what programs changed of it since: a folder's children are taken over whole
// when it is first listed, and kept true by updates and deletions. Answers from memory; a SQLite database keeps it over
// restarts (what it keeps can be had again from the server, or is in the edits).
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
  // Among the children that are known, which are all of them in a folder that is listed, and were when it was listed
  // last.
  [[nodiscard]] std::optional<ItemAttributes> lookup(Inode folder, std::string_view localName) const EXCLUDES(lock_);
  [[nodiscard]] bool isListed(Inode folder) const EXCLUDES(lock_);
  // Listed, without children, and without items that programs moved there and that are not here yet; what they put into
  // the trash from there does not count.
  [[nodiscard]] bool isEmptyFolder(Inode folder) const EXCLUDES(lock_);
  // In no particular order; those that are known.
  [[nodiscard]] std::vector<Inode> children(Inode folder) const EXCLUDES(lock_);
  // Those of the inodes that are still children of the folder.
  [[nodiscard]] std::vector<DirectoryEntry> entries(Inode folder, std::span<const Inode> inodes) const EXCLUDES(lock_);
  [[nodiscard]] std::optional<Inode> inodeOf(const ItemIdentifier& identifier) const EXCLUDES(lock_);
  [[nodiscard]] std::optional<ItemIdentifier> identifierOf(Inode inode) const EXCLUDES(lock_);
  // Empty for the root, and for one that is not known.
  [[nodiscard]] std::string nameOf(Inode inode) const EXCLUDES(lock_);
  // Below the mount point, starting with a slash; "/" for the root.
  [[nodiscard]] std::optional<std::string> pathOf(Inode inode) const EXCLUDES(lock_);
  // Through folders that are listed.
  [[nodiscard]] std::optional<Inode> inodeAtPath(std::string_view path) const EXCLUDES(lock_);
  // Everything the server said of it; reads the database, so not for the kernel's requests. NO_SUCH_ITEM when unknown.
  [[nodiscard]] Result<Item> item(Inode inode) const;
  // The first is the second or above it.
  [[nodiscard]] bool isAtOrAbove(Inode candidate, Inode inode) const EXCLUDES(lock_);
  // The item itself or the nearest folder above it whose own policy is to be kept downloaded, with all that is in it.
  [[nodiscard]] std::optional<Inode> keptBy(Inode inode) const EXCLUDES(lock_);
  // All items of such a policy, in no particular order.
  [[nodiscard]] std::vector<Inode> keptItems() const EXCLUDES(lock_);
  [[nodiscard]] std::size_t keptCount() const EXCLUDES(lock_);
  // Its folder and its server name; none for the root.
  [[nodiscard]] std::optional<Place> placeOf(Inode inode) const EXCLUDES(lock_);
  [[nodiscard]] std::vector<NamedDifferently> problems() const EXCLUDES(lock_);
  [[nodiscard]] std::size_t itemCount() const EXCLUDES(lock_);  // the root not counted

  // What programs changed and the server has not. Ordered by id.
  [[nodiscard]] std::vector<Edit> edits() const EXCLUDES(lock_);
  [[nodiscard]] std::size_t editCount() const EXCLUDES(lock_);
  [[nodiscard]] std::optional<Edit> edit(EditID id) const EXCLUDES(lock_);
  [[nodiscard]] std::optional<Edit> editOf(const ItemIdentifier& identifier) const EXCLUDES(lock_);
  [[nodiscard]] std::vector<Edit> editsOnServerAt(const Place& place) const EXCLUDES(lock_);
  // Of new and moved items, also of those in the trash.
  [[nodiscard]] std::vector<Edit> editsPlacedIn(const ItemIdentifier& folder) const EXCLUDES(lock_);
  [[nodiscard]] bool isSending(EditID id) const EXCLUDES(lock_);
  void setSending(EditID id, bool isSending) EXCLUDES(lock_);
  [[nodiscard]] std::optional<LocalAttributes> localAttributesOf(const ItemIdentifier& identifier) const
      EXCLUDES(lock_);

  // From here until applyListing or abandonListing, news is remembered for that folder. Any thread; once per folder at
  // a time.
  void beginListing(Inode folder) EXCLUDES(lock_);
  void abandonListing(Inode folder) EXCLUDES(lock_);

  // Changing. Each answers what follows from it, in order.

  // The folder's children are exactly these. NO_SUCH_ITEM when the folder has gone.
  Result<std::vector<ReplicaChange>> applyListing(Inode folder, const std::vector<Item>& items) EXCLUDES(lock_);
  // New or changed items, then deletions; names count only after all of it, so that an item can take the name of one
  // that goes. Deleting the root means that everything may have changed: it is listed again on next need.
  std::vector<ReplicaChange> applyNews(const std::vector<Item>& updates, const std::vector<ItemIdentifier>& deletions)
      EXCLUDES(lock_);
  // The same, of a page of changes that is asked for by beginPage, one at a time. What noteNews tells in between may be
  // older or newer than the page.
  void beginPage() EXCLUDES(lock_);
  std::vector<ReplicaChange> applyPage(const std::vector<Item>& updates, const std::vector<ItemIdentifier>& deletions)
      EXCLUDES(lock_);
  // Of a change of both: what stands when this process ends before the other is written.
  enum class FirstWritten { edits, tree };
  // What `make` does to the tree and to the edits.
  std::vector<ReplicaChange> change(const std::function<void(TreeEdit&)>& make,
                                    FirstWritten first = FirstWritten::edits) EXCLUDES(lock_);
  // What became of this item is news for folders that are being listed, too.
  void noteNews(const std::vector<Item>& updates, const std::vector<ItemIdentifier>& deletions) EXCLUDES(lock_);
  // Given each change of the edits that follows from news or from change, when the tree has changed in memory; an empty
  // one, too, before news is written. The edits are made by `newEdit`: with an id, an identifier and the time.
  using EditKeeper = std::function<void(const EditBatch&)>;
  void keepEdits(EditKeeper keeper, std::function<Edit()> newEdit) EXCLUDES(lock_);
  // Shows these edits, after which they are kept: before anything else is changed.
  void restoreEdits(const EditBatch& edits) EXCLUDES(lock_);
  // What the server said of the item, for its version; unlike item, for the thread that changes.
  [[nodiscard]] Result<Item> storedItem(Inode inode);

 private:
  // What came while a folder was being listed.
  struct News {
    std::vector<Item> updates;
    std::vector<ItemIdentifier> deletions;
  };
  struct Listing {
    std::vector<News> news;
    std::size_t count = 0;  // updates and deletions
  };
  static constexpr std::size_t MAX_NEWS = 100'000;

  explicit Replica(ReplicaStore store);
  Result<void> load();
  void reserveInodesFor(std::size_t items);
  void write(const ReplicaStore::Batch& batch, const EditBatch& edits, bool isNews);
  void writeTreeFirst(const ReplicaStore::Batch& batch, const EditBatch& edits);
  std::vector<ReplicaChange> applyNews(const std::vector<Item>& updates, const std::vector<ItemIdentifier>& deletions,
                                       const std::unordered_set<std::string>& answered) EXCLUDES(lock_);
  void rememberNews(const std::vector<Item>& updates, const std::vector<ItemIdentifier>& deletions) REQUIRES(lock_);

  mutable Mutex lock_;
  TreeState state_ GUARDED_BY(lock_);
  std::unordered_map<Inode, Listing> listings_ GUARDED_BY(lock_);
  std::unordered_set<std::string> answered_ GUARDED_BY(lock_);  // identifiers, since beginPage

  // Used by the thread that changes.
  ReplicaStore store_;
  Inode nextInode_;
  EditKeeper keepEdits_;
};

}  // namespace vondle
