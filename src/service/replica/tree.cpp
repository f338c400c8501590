#include "service/replica/tree.h"

#include <utility>

namespace vondle {

Tree::Tree(Replica& replica, Scheduler& scheduler)
    : replica_(replica), queue_(scheduler.makeSerialQueue("com.ferrow.vondle.service.tree")) {}

void Tree::subscribe(Subscriber subscriber) {
  queue_->post([this, subscriber = std::move(subscriber)]() mutable { subscribers_.push_back(std::move(subscriber)); });
}

void Tree::applyListing(Inode folder, std::vector<Item> items, Completion<Result<void>> completion) {
  queue_->post([this, folder, items = std::move(items), completion = std::move(completion)]() mutable {
    const auto changes = replica_.applyListing(folder, items);
    if (!changes) return std::move(completion)(std::unexpected(changes.error()));
    tell(*changes);
    std::move(completion)({});
  });
}

void Tree::applyNews(std::vector<Item> updates, std::vector<ItemIdentifier> deletions, Completion<> completion) {
  queue_->post([this, updates = std::move(updates), deletions = std::move(deletions),
                completion = std::move(completion)]() mutable {
    tell(replica_.applyNews(updates, deletions));
    std::move(completion)();
  });
}

void Tree::applyPage(std::vector<Item> updates, std::vector<ItemIdentifier> deletions, Completion<> completion) {
  queue_->post([this, updates = std::move(updates), deletions = std::move(deletions),
                completion = std::move(completion)]() mutable {
    tell(replica_.applyPage(updates, deletions));
    std::move(completion)();
  });
}

void Tree::applyUpdates(std::vector<Item> items, Completion<> completion) {
  applyNews(std::move(items), {}, std::move(completion));
}

void Tree::applyDeletions(std::vector<ItemIdentifier> identifiers, Completion<> completion) {
  applyNews({}, std::move(identifiers), std::move(completion));
}

void Tree::reserveTopName(const std::string& name) {
  queue_->post([this, name] { tell(replica_.change([&](TreeEdit& tree) { tree.reserveTopName(name); })); });
}

void Tree::tell(const std::vector<ReplicaChange>& changes) const {
  if (changes.empty()) return;
  for (const auto& subscriber : subscribers_) subscriber(changes);
}

}  // namespace vondle
