#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/completion.h"
#include "platform/scheduler.h"
#include "service/replica/replica.h"

namespace vondle {

// The one door through which the replica changes: brings news of any thread into one order and tells the subscribers
// what follows from it.
class Tree {
 public:
  // Called on the tree's queue after the replica has changed; must return quickly and not wait for anything.
  using Subscriber = std::function<void(const std::vector<ReplicaChange>& changes)>;

  Tree(Replica& replica, Scheduler& scheduler);

  // Hears of the changes that are asked for from now on. Any thread.
  void subscribe(Subscriber subscriber);

  // Any thread. The completions run on the tree's queue, after the subscribers.
  void applyListing(Inode folder, std::vector<Item> items, Completion<Result<void>> completion);
  // The updates and then the deletions, as one change. Of a page of changes that Replica::beginPage was told of:
  void applyPage(std::vector<Item> updates, std::vector<ItemIdentifier> deletions, Completion<> completion);
  void applyNews(std::vector<Item> updates, std::vector<ItemIdentifier> deletions, Completion<> completion);
  void applyUpdates(std::vector<Item> items, Completion<> completion);
  void applyDeletions(std::vector<ItemIdentifier> identifiers, Completion<> completion);

  // For LocalEdits, which changes the replica on this queue, too, and then tells what follows.
  void perform(Task task) { queue_->post(std::move(task)); }
  void performAfter(Duration delay, Task task) { queue_->after(delay, std::move(task)); }
  void tell(const std::vector<ReplicaChange>& changes) const;

  // No item of the top folder is shown under this name from now on: one that has it gets another. Before anything else
  // changes the tree.
  void reserveTopName(const std::string& name);

  [[nodiscard]] Replica& replica() { return replica_; }

 private:
  Replica& replica_;
  std::vector<Subscriber> subscribers_;  // used on the queue alone
  std::shared_ptr<Queue> queue_;
};

}  // namespace vondle
