#pragma once

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/inode.h"
#include "service/replica/tree.h"

namespace vondle {

// Has the extension keep items downloaded, or stop keeping them; brings what became of the items into the tree, and
// drops the local copies of what is kept no more. Fetching what is kept is the Keeper's. Kept alive by what it waits
// for.
class KeepAction : public std::enable_shared_from_this<KeepAction> {
 public:
  struct Parts {
    Tree& tree;
    ReplicatedExtension& extension;
    std::shared_ptr<ContentStore> contents;
    Scheduler& scheduler;
  };
  enum class Kind { keep, stopKeeping };
  struct Outcome {
    std::vector<Inode> done;  // each once, in the order given
    // Those it is not for: NO_SUCH_ITEM; EINVAL for the whole folder; EBUSY for what is not on the server yet, and for
    // stopping with what is kept with its folder.
    std::vector<std::pair<Inode, Error>> refused;
  };

  // For one item; the completion hears also why it is not for that.
  static void start(Parts parts, Kind kind, Inode inode, Completion<std::optional<Error>> completion);

  KeepAction(Parts parts, Kind kind, std::vector<Inode> inodes, Completion<Result<Outcome>> completion);

  // The completion comes on a queue's thread, with the extension's error if it has one.
  void start();

 private:
  void choose();
  [[nodiscard]] std::optional<Error> refusal(Inode inode) const;
  void perform();
  void performed(const std::optional<Error>& error);
  void lookUp();
  [[nodiscard]] Result<Item> asKnown(const ItemIdentifier& identifier) const;
  void lookedUp(const ItemIdentifier& identifier, Result<Item> item);
  void applied();
  void finish(std::optional<Error> error = std::nullopt);

  const Parts parts_;
  const Kind kind_;
  const std::shared_ptr<Queue> queue_;

  // Used on the queue alone.
  const std::vector<Inode> inodes_;
  Outcome outcome_;
  std::vector<ItemIdentifier> identifiers_;  // of those that are to be done
  std::vector<Item> items_;                  // as they have become
  std::size_t answers_ = 0;
  Completion<Result<Outcome>> completion_;
};

}  // namespace vondle
