#include "service/listing/whole_listing.h"

#include <memory>
#include <optional>
#include <utility>

#include "base/mutex.h"
#include "service/listing/folder_listing.h"

namespace vondle {

namespace {

class WholeListing final : public EnumerationObserver, public std::enable_shared_from_this<WholeListing> {
 public:
  WholeListing(std::shared_ptr<Enumerator> enumerator, std::function<bool(const Item&)> isWanted,
               Completion<Result<std::vector<Item>>> completion)
      : enumerator_(std::move(enumerator)), isWanted_(std::move(isWanted)), completion_(std::move(completion)) {}

  // An extension that answers within the question gets the next one when that has returned.
  void ask(Page page) EXCLUDES(lock_) {
    {
      const MutexLock hold(lock_);
      nextPage_ = std::move(page);
      if (std::exchange(isAsking_, true)) return;
    }
    while (const auto next = takeNext()) enumerator_->enumerateItems(shared_from_this(), *next);
  }

  void didEnumerateItems(std::vector<Item> items) override {
    count_ += items.size();
    for (auto& item : items) {
      if (isWanted_(item)) items_.push_back(std::move(item));
    }
  }

  void finishEnumeratingUpToPage(std::optional<Page> nextPage) override {
    if (count_ > FolderListing::MAX_ITEMS || (nextPage && *nextPage == page_))
      return finishEnumeratingWithError({COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN, "The folder has too many items."});
    if (!nextPage) return finish(std::move(items_));
    page_ = *nextPage;
    ask(std::move(*nextPage));
  }

  void finishEnumeratingWithError(Error error) override { finish(failure(std::move(error))); }

 private:
  std::optional<Page> takeNext() EXCLUDES(lock_) {
    const MutexLock hold(lock_);
    isAsking_ = nextPage_.has_value();
    return std::exchange(nextPage_, std::nullopt);
  }

  void finish(Result<std::vector<Item>> result) {
    enumerator_->invalidate();
    std::move(completion_)(std::move(result));
  }

  const std::shared_ptr<Enumerator> enumerator_;
  const std::function<bool(const Item&)> isWanted_;
  Completion<Result<std::vector<Item>>> completion_;
  std::vector<Item> items_;
  std::size_t count_ = 0;
  Page page_;
  Mutex lock_;
  bool isAsking_ GUARDED_BY(lock_) = false;
  std::optional<Page> nextPage_ GUARDED_BY(lock_);
};

}  // namespace

void listWhole(ReplicatedExtension& extension, ItemIdentifier container, Request request,
               std::function<bool(const Item&)> isWanted, Completion<Result<std::vector<Item>>> completion) {
  std::make_shared<WholeListing>(extension.enumeratorForContainer(std::move(container), request), std::move(isWanted),
                                 std::move(completion))
      ->ask({});
}

}  // namespace vondle
