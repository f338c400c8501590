#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "platform/clock.h"
#include "platform/scheduler.h"
#include "service/contents/edited_contents.h"
#include "service/edits/local_edits.h"
#include "service/replica/tree.h"
#include "service/trash/trash_names.h"

namespace vondle {

// One file or folder in the trash.
struct TrashItem {
  std::uint64_t number = 0;  // its own, as long as the folder is mounted
  std::string name;
  bool isExpunged = false;  // a program has moved it out of sight, to delete it there
  ItemIdentifier item;
  std::string serverName;
  bool isFolder = false;
  std::int64_t size = 0;
  Timestamp modified;
  std::string path;   // where it was, below the top folder; the name alone when that is not known
  Timestamp deleted;  // when it was seen there first, for nobody says more of what others put there
  ItemVersion version;
  EditID edit = 0;            // of one whose way to the server's trash is not over
  std::uint64_t arrival = 0;  // once that edit is done: the first listing that knows what became of it
  bool isBusy = false;        // is being restored or purged
};

// What the user has put into the trash: what the server lists there, and what is still on its way. Listed anew when
// somebody looks and it is older than a few seconds, or when the tree had news. Everything here happens on the trash's
// own queue: come through perform, and expect completions there. Errors for programs are POSIX errors or as errorNumber
// takes them.
class Trash : public std::enable_shared_from_this<Trash> {
 public:
  struct Parts {
    ReplicatedExtension& extension;
    Tree& tree;
    std::shared_ptr<LocalEdits> edits;         // null: nothing can be changed
    std::shared_ptr<EditedContents> contents;  // null with it
    Scheduler& scheduler;
    const Clock& clock;
    std::function<void()> sendNow = {};  // edits are to go up without delay; may be empty
  };

  // Older, it is listed again when somebody looks.
  static constexpr Duration MAX_AGE = seconds(10);
  // Or when an item is to be restored or purged: elsewhere the same requests would move or trash it.
  static constexpr Duration MAX_AGE_FOR_CHANGES = seconds(2);
  // But it serves for so many times as long as listing took, lest a large trash is listed all the time.
  static constexpr int LISTING_SHARE = 10;
  // How long somebody who asks for one name waits for the server.
  static constexpr Duration LOOKUP_PATIENCE = seconds(3);
  // How long an item may be on its way to the server's trash before it can be purged.
  static constexpr Duration SENDING_PATIENCE = seconds(30);

  static std::shared_ptr<Trash> make(Parts parts);

  // Any thread.
  void perform(Task task) { queue_->post(std::move(task)); }
  // Nothing is listed any more; who waits is told.
  void close();

  // The rest is for the queue.

  using Done = Completion<Result<void>>;
  // Lists if need be. An error only when nothing is known; else what was known before stays.
  void whenListed(Done completion);
  // Never longer than LOOKUP_PATIENCE, and not again soon when that was in vain: what is known then counts.
  void whenKnown(Completion<> completion);

  // Null: none. Live until the next change.
  [[nodiscard]] const TrashItem* find(std::uint64_t number) const;
  [[nodiscard]] const TrashItem* find(bool isExpunged, const std::string& name) const;
  [[nodiscard]] std::vector<std::uint64_t> list(bool isExpunged) const;
  [[nodiscard]] Timestamp modified() const { return modified_; }

  // The item of the tree goes to the trash, under this name. EEXIST when that is taken.
  void put(Inode folder, std::string name, std::string trashName, bool isExpunged, Done completion);
  // EEXIST; ENOENT. Known here alone, until the end.
  Result<void> rename(std::uint64_t number, bool isExpunged, const std::string& name);
  // Back into the folder under the name: to where it came from, and from there to here. When only the second fails it
  // stays there. EHOSTUNREACH while the server cannot be reached, EEXIST when the name was taken, EBUSY.
  void restore(std::uint64_t number, Inode folder, std::string name, bool mayReplace, Done completion);
  // For good, if it is in the trash now; what has gone from there counts as purged.
  void purge(std::uint64_t number, Done completion);
  // What a program reads.
  struct Contents {
    std::shared_ptr<const ContentFile> fetched;
    std::shared_ptr<EditedFile> edited;  // what this machine has alone
  };
  std::shared_ptr<Progress> read(std::uint64_t number, Completion<Result<Contents>> completion);

 private:
  friend class TrashRestore;
  friend class TrashPurge;

  explicit Trash(Parts parts);
  void start();
  void relist(Done completion);
  void whenListedWithin(Duration age, Done completion);
  [[nodiscard]] Duration sinceListed() const;
  [[nodiscard]] bool isFresh(Duration age) const;
  [[nodiscard]] bool isFreshToLook() const;
  void hearOf(const std::vector<ReplicaChange>& changes);
  void listed(Result<std::vector<Item>> items);
  void take(const std::vector<Item>& items);
  TrashItem* adopt(const Item& item, const std::vector<std::uint64_t>& arrived);
  void takeItem(TrashItem& known, const Item& item);
  void takeEdit(const Edit& edit, const std::optional<std::string>& path);
  TrashItem& add(const ItemIdentifier& item);
  void remove(std::uint64_t number);
  void followEdits();
  // Whether the listing that came last knows more of the item than we do.
  [[nodiscard]] bool isTold(const TrashItem& item) const;
  [[nodiscard]] TrashItem* entry(std::uint64_t number);
  void setBusy(std::uint64_t number, bool isBusy);
  // What became of the edit by which the item goes to the trash: true when it is there.
  [[nodiscard]] bool hasArrived(std::uint64_t number);
  [[nodiscard]] std::string pathOf(Inode folder, const std::string& name) const;

  const Parts parts_;
  const std::shared_ptr<Queue> queue_;
  std::map<std::uint64_t, TrashItem> items_;
  std::unordered_map<std::string, std::uint64_t> byItem_;      // by identifier
  std::unordered_map<std::string, std::uint64_t> byName_;      // of those in sight
  std::unordered_map<std::string, std::uint64_t> byExpunged_;  // of the others
  std::map<EditID, std::uint64_t> byEdit_;
  TrashNames names_;
  std::uint64_t lastNumber_ = 0;
  Timestamp modified_;
  std::optional<MonotonicTime> listedAt_;  // when the listing that is known began
  MonotonicTime listingSince_;
  Duration listingTook_{};                // the last one
  MonotonicTime followEditsAt_{};         // not before
  std::optional<MonotonicTime> triedAt_;  // in vain
  bool isListing_ = false;
  std::uint64_t listings_ = 0;  // that have begun
  std::unordered_set<std::string> goneWhileListing_;
  bool isStale_ = false;   // something has changed since
  bool isToCome_ = false;  // programs have removed what the server is yet to trash, or has after that listing
  bool isClosed_ = false;
  std::vector<Done> waiting_;
};

}  // namespace vondle
