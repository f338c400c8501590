#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/json.h"
#include "fileprovider/replicated_extension.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/control/control_server.h"
#include "service/follow/keeper.h"
#include "service/replica/tree.h"

namespace vondle {

// Has the extension keep items downloaded, or stop keeping them, for a control client; brings what became of the items
// into the tree, and waits, if asked, until what is kept is here, telling how far it is. When the client goes away the
// wait ends, and nothing else. Kept alive by what it waits for.
class KeepOperation : public std::enable_shared_from_this<KeepOperation> {
 public:
  struct Parts {
    Tree& tree;
    ReplicatedExtension& extension;
    std::shared_ptr<ContentStore> contents;
    std::shared_ptr<Keeper> keeper;
    Scheduler& scheduler;
  };
  enum class Action { keep, stopKeeping };

  KeepOperation(Parts parts, Action action, std::vector<Inode> inodes, bool waits, std::shared_ptr<ControlReply> reply);

  void start();

 private:
  void choose();
  // Why the action is not for this item.
  [[nodiscard]] std::optional<Error> refusal(Inode inode) const;
  void perform();
  void performed(const std::optional<Error>& error);
  void lookUp();
  void lookedUp(const ItemIdentifier& identifier, Result<Item> item);
  void applied();
  void evict();
  void wait();
  void note(Inode inode, const Error& error);
  void finish();

  const Parts parts_;
  const Action action_;
  const bool waits_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<ControlReply> reply_;

  // Used on the queue alone.
  std::vector<Inode> inodes_;
  std::vector<ItemIdentifier> identifiers_;  // of the same
  std::vector<Item> items_;                  // as they have become
  std::size_t answers_ = 0;
  bool isAbandoned_ = false;
  json::Array failures_;
  json::Object result_;
};

}  // namespace vondle
