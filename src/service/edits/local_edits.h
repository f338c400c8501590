#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "platform/clock.h"
#include "platform/random_source.h"
#include "service/edits/edit.h"
#include "service/edits/edit_store.h"
#include "service/replica/tree.h"

namespace vondle {

// What programs change in the folder, and what of it is not on the server yet. Each change of a program's is checked
// against the tree, recorded in the edit database and shown in the tree, in this order, on the tree's queue; then its
// completion runs (there), so that a program never hears of a change that the end of this process could undo. What
// sending has brought about is recorded the other way round, first in the tree: an edit that the end of this process
// leaves over finds that out again, but what neither knows of would be seen by nobody. News
// from the server never undoes one either: the tree keeps what an edit says of an item (its place, its contents, that
// it is gone) until the edit is done, and what the server has lost but an edit still needs is made anew there.
//
// Any thread may call; completions run on the tree's queue. Errors for programs are POSIX errors.
class LocalEdits : public std::enable_shared_from_this<LocalEdits> {
 public:
  using Made = Completion<Result<ItemAttributes>>;
  using Done = Completion<Result<void>>;

  // Reads the database and shows its edits in the tree: call it before anything else changes the tree. A database that
  // cannot be read is an error, never made anew: it tells of what is nowhere else.
  static Result<std::shared_ptr<LocalEdits>> open(const std::string& databasePath, Tree& tree, const Clock& clock,
                                                  RandomSource& random);

  // What programs do. The folders must be listed (Filesystem sees to it), names are local names. EEXIST, ENOENT,
  // ENOTDIR, EISDIR, ENOTEMPTY, EACCES (the server says that it is not for us to change), EINVAL (below itself).

  // An empty file with the private file of this number as its contents. Permissions: 0 to 0777.
  void createFile(Inode folder, std::string name, std::int64_t contents, unsigned permissions, Made completion);
  void createFolder(Inode folder, std::string name, unsigned permissions, Made completion);
  // What stands at the new place is replaced, if that is allowed; a file that replaces one takes its identity over: for
  // the server it is the same item with new contents.
  void rename(Inode fromFolder, std::string fromName, Inode toFolder, std::string toName, bool mayReplace,
              Done completion);
  void removeFile(Inode folder, std::string name, Done completion);
  // ENOTEMPTY unless it is listed and empty.
  void removeFolder(Inode folder, std::string name, Done completion);
  // The item goes to the trash, a folder with all that is in it. What of it the server does not have yet goes up
  // before.
  void trash(Inode folder, std::string name, Completion<Result<Edit>> completion);
  // What trash put into the queue is undone, and the item shows up where it was. EBUSY while it is on its way to the
  // server. `item` is what the server says of it, needed only after a start in between: ENODATA without. Answers 0 when
  // its folder is not listed and the item does not show up before that.
  void untrash(EditID id, std::optional<Item> item, Completion<Result<Inode>> completion);
  // What trash put into the queue and the server has never seen is gone for good. EBUSY when the server may have some
  // of it.
  void purgeTrashed(EditID id, Done completion);
  // The item's contents are the private file of this number from now on, and no longer what they were. It was made from
  // the contents with the tag: ESTALE, and nothing done, when the item has others by now. None: from nothing.
  // `isWanted` is asked right before it is recorded: ECANCELED, and nothing done, when it is not any more.
  void editContents(Inode inode, std::int64_t contents, std::optional<std::uint64_t> madeFrom, Done completion,
                    std::function<bool()> isWanted = {});
  // The private file has changed again: nothing is recorded but that it is to be sent (again).
  void touchContents(Inode inode, std::int64_t size, Timestamp modified);
  // What the private file of the edit is like, which is news only after a start; nothing is to be sent for it.
  void describeContents(EditID id, std::int64_t size, Timestamp modified);
  // Shown instead of what the server says until the contents change there.
  void setModified(Inode inode, Timestamp modified, Made completion);
  // Kept here; the server knows nothing of them. 0 to 0777.
  void setPermissions(Inode inode, unsigned permissions, Made completion);
  // After it, what was recorded before survives power loss.
  void makeDurable(Done completion);

  // What waits, in the order in which it was made. Any thread.
  [[nodiscard]] std::vector<Edit> pending() const;
  [[nodiscard]] std::size_t pendingCount() const;
  [[nodiscard]] std::optional<Edit> find(EditID id) const;
  [[nodiscard]] std::optional<Edit> ofItem(Inode inode) const;
  // Where the item of the edit is in the tree; 0 for a deleted one.
  [[nodiscard]] Inode inodeOf(EditID id) const;
  // Called on the tree's queue after edits were added, changed or removed by what is asked for from now on.
  void onChange(std::function<void()> changed);

  // The edit as it is now, which is about to be sent; none when it has gone. From here until one of the calls below has
  // its answer, the item neither takes over another's identity nor is forgotten when it is deleted, for the server may
  // have it already.
  void beginSending(EditID id, Completion<std::optional<Edit>> completion);
  // Sending was given up, with nothing learnt from it.
  void abandonSending(EditID id);
  // This is about to go to the server, and may be there from now on, even when this process ends. Until one of the
  // calls below says what became of it, or forgetAttempt, the item is treated as one that is being sent, and what the
  // server has at the place of a new item is not shown. ECANCELED when the item was deleted meanwhile.
  void noteAttempt(EditID id, Attempt attempt, Done completion);
  // It is not there.
  void forgetAttempt(EditID id, Done completion);
  // Somebody else may have put something into the folder that turned out to be there.
  void listAgain(ItemIdentifier folder);

  // What became of sending. `sent` is the edit as it was sent, `fields` what of it; what programs changed meanwhile
  // (another generation) stays to be sent. The answer says whether everything that was sent is done with: then, and
  // only then, the private file that was sent belongs to the caller again.
  struct Outcome {
    Inode inode = 0;               // 0: the item is gone
    bool isContentsDone = false;   // the private file that was sent is no longer the item's contents
    std::uint64_t contentTag = 0;  // of the item as it is now
  };
  // The item is on the server like this. A new item gets its identifier.
  void succeeded(const Edit& sent, std::uint32_t fields, SavedItem saved, Completion<Outcome> completion);
  void deleted(const Edit& sent, Done completion);
  void failed(const Edit& sent, std::string error, std::optional<Timestamp> nextTry, Done completion);
  // The server has the item no more: with contents it becomes a new one (the edit wins); without, the edit is dropped
  // and the item goes.
  void itemVanished(const Edit& sent, Done completion);
  // The server has the folder no more that the item was to go to.
  void folderVanished(const Edit& sent, Done completion);
  // The name is taken on the server: the item gets another one, "NAME (conflicted copy).EXT" or one with a number,
  // here too.
  void renameAside(const Edit& sent, Done completion);
  // The folder that it was to go to is below it on the server: it is where the server has it again.
  void undoMove(const Edit& sent, Done completion);
  // A deleted item that must not be deleted after all: it shows up again.
  void undelete(const Edit& sent, Done completion);

 private:
  // What a program does, thought through: first the edits are written, then the tree changes.
  struct Plan {
    struct Move {
      Inode inode = 0;
      Place place;
      std::string localName;
    };
    struct Heir {
      Inode inode = 0;
      ItemIdentifier item;
    };
    EditBatch edits;
    std::vector<Inode> gone;
    std::vector<Heir> heirs;    // nodes that become another item
    std::vector<EditID> shown;  // made when they are not here
    std::vector<Move> moves;
    std::vector<Inode> refreshed;
  };

  LocalEdits(EditStore store, Tree& tree, const Clock& clock, RandomSource& random);
  Result<void> restore();

  template <class Answer, class Work>
  void perform(Completion<Answer> completion, Work work);
  Result<void> write(const EditBatch& batch);
  void keep(const EditBatch& batch);
  Result<void> commit(const Plan& plan, bool isByProgram = true);
  void apply(const std::function<void(TreeEdit&)>& make, Replica::FirstWritten first = Replica::FirstWritten::edits);
  void tellChanged() const;
  void syncSoon();
  Result<void> sync();

  Result<ItemAttributes> make(Inode folder, const std::string& name, Edit edit, unsigned permissions);
  Result<void> moveTo(const ItemAttributes& item, const std::string& fromName, const ItemAttributes& toFolder,
                      const std::string& toName, bool mayReplace);
  Result<void> remove(Inode folder, const std::string& name, bool isFolder);
  Result<Edit> moveToTrash(Inode folder, const std::string& name);
  Result<Inode> takeFromTrash(EditID id, std::optional<Item> item);
  Result<void> dropFromTrash(EditID id);
  Result<void> changeContents(Inode inode, std::int64_t contents, std::optional<std::uint64_t> madeFrom);
  void noteContents(const Edit& edit);
  Result<ItemAttributes> setAttributes(Inode inode, const std::function<void(LocalAttributes&)>& set);
  Outcome settle(const Edit& sent, std::uint32_t fields, const SavedItem& saved);
  std::int64_t settleEdit(TreeEdit& tree, Edit edit, const Edit& sent, std::uint32_t fields, const SavedItem& saved);
  static void giveUpOther(TreeEdit& tree, const ItemIdentifier& identifier);
  static void takeIdentifier(TreeEdit& tree, Edit& edit, const ItemIdentifier& identifier);
  static void keepModified(TreeEdit& tree, Inode inode, const SavedItem& saved);
  Outcome settleDeleted(Edit edit, const SavedItem& saved);
  bool dropIfLost(EditID id);
  void dropAttempt(EditID id);
  void settleVanished(const Edit& edit);

  Edit newEdit();
  Edit editFor(const ItemAttributes& item);
  void setPlace(Edit& edit, const Place& place) const;
  void noteChange(Edit& edit) const;
  void noteContentsChange(Edit& edit) const;
  [[nodiscard]] bool mayBeOnServer(const Edit& edit) const;
  [[nodiscard]] bool mayTakeOver(const Edit& edit) const;
  [[nodiscard]] std::optional<Edit> heritageAt(const Place& place) const;
  [[nodiscard]] std::optional<Inode> heirAt(const Place& place, Inode except) const;
  void planDeletion(Plan& plan, const ItemAttributes& item);
  void planMovesUp(Plan& plan, const Edit& folder) const;
  void planHeritage(Plan& plan, Edit former, Inode heir, const Place& place);
  [[nodiscard]] std::string nameAside(const Edit& edit) const;

  Tree& tree_;
  Replica& replica_;
  const Clock& clock_;
  RandomSource& random_;
  std::function<void()> changed_;

  // Used on the tree's queue.
  EditStore store_;
  std::unordered_map<EditID, Item> trashed_;  // what the server said of what was trashed since the start
  std::vector<EditBatch> unwritten_;          // what news made of edits and could not be written yet
  bool isOwnChange_ = false;
  bool isSyncDue_ = false;
  std::vector<Done> waitingForSync_;
};

}  // namespace vondle
