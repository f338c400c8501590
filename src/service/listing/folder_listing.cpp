#include "service/listing/folder_listing.h"

#include <utility>
#include <vector>

#include "fileprovider/error_codes.h"
#include "platform/linux/heap.h"

namespace vondle {
namespace {

// A reply with so many items takes tens of megabytes on its way into the tree.
constexpr std::size_t MANY_ITEMS = 20'000;
// When all those on the way have let go of them.
constexpr Duration UNTIL_FORGOTTEN = seconds(1);

}  // namespace

// One listing, from the question to the replica.
class FolderListing::Operation final : public EnumerationObserver, public std::enable_shared_from_this<Operation> {
 public:
  Operation(std::shared_ptr<FolderListing> owner, Inode folder) : owner_(std::move(owner)), folder_(folder) {}

  void start(ItemIdentifier identifier, Request request) {
    owner_->tree_.replica().beginListing(folder_);
    enumerator_ = owner_->extension_.enumeratorForContainer(std::move(identifier), request);
    ask({});
  }

  void didEnumerateItems(std::vector<Item> items) override {
    if (items_.size() + items.size() > MAX_ITEMS) {
      isTooLong_ = true;
      return;
    }
    items_.insert(items_.end(), std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
  }

  void finishEnumeratingUpToPage(std::optional<Page> nextPage) override {
    if (isTooLong_ || (nextPage && (*nextPage == page_ || ++pages_ == MAX_PAGES)))
      return finishEnumeratingWithError({COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN, "The folder has too many items."});
    if (nextPage) {
      page_ = *nextPage;
      return ask(std::move(*nextPage));
    }
    count_ = items_.size();
    owner_->tree_.applyListing(folder_, std::exchange(items_, {}),
                               [self = shared_from_this()](Result<void> result) { self->finish(std::move(result)); });
  }

  void finishEnumeratingWithError(Error error) override {
    owner_->tree_.replica().abandonListing(folder_);
    finish(failure(std::move(error)));
  }

 private:
  // An extension that answers within the question gets the next one when that has returned.
  void ask(Page page) EXCLUDES(lock_) {
    const auto enumerator = enumerator_;
    {
      MutexLock hold(lock_);
      if (isAsking_) {
        nextPage_ = std::move(page);
        return;
      }
      isAsking_ = true;
    }
    for (std::optional<Page> next = std::move(page); next;) {
      enumerator->enumerateItems(shared_from_this(), std::move(*next));
      MutexLock hold(lock_);
      next = std::exchange(nextPage_, std::nullopt);
      isAsking_ = next.has_value();
    }
  }

  void finish(Result<void> result) {
    if (const auto enumerator = std::exchange(enumerator_, nullptr)) enumerator->invalidate();
    owner_->finished(folder_, std::move(result));
    if (count_ >= MANY_ITEMS) owner_->scheduler_.global().after(UNTIL_FORGOTTEN, giveBackFreeMemory);
  }

  const std::shared_ptr<FolderListing> owner_;
  const Inode folder_;
  std::shared_ptr<Enumerator> enumerator_;
  std::vector<Item> items_;
  std::size_t count_ = 0;
  Page page_;
  std::size_t pages_ = 1;
  bool isTooLong_ = false;
  Mutex lock_;
  bool isAsking_ GUARDED_BY(lock_) = false;
  std::optional<Page> nextPage_ GUARDED_BY(lock_);
};

FolderListing::FolderListing(Tree& tree, ReplicatedExtension& extension, LastErrors& errors, Scheduler& scheduler,
                             const Clock& clock)
    : tree_(tree),
      extension_(extension),
      errors_(errors),
      scheduler_(scheduler),
      clock_(clock),
      waiting_(std::make_shared<WaitingRoom<Nothing>>(nullptr)) {}

void FolderListing::require(Inode folder, Request request, const std::shared_ptr<Progress>& wait,
                            Completion<std::optional<Error>> completion) {
  std::optional<Error> closed;
  {
    MutexLock hold(lock_);
    closed = closed_;
  }
  if (closed) return std::move(completion)(std::move(closed));
  if (tree_.replica().isListed(folder)) return std::move(completion)(std::nullopt);
  const bool isFirst =
      waiting_->enter(folder, wait, [completion = std::move(completion)](const Result<Nothing>& result) mutable {
        std::move(completion)(result ? std::nullopt : std::optional(result.error()));
      });
  // Not on the caller's thread, which may be the kernel's: the extension reads the keyring before it sends anything.
  if (isFirst) scheduler_.global().post([self = shared_from_this(), folder, request] { self->begin(folder, request); });
}

void FolderListing::begin(Inode folder, Request request) {
  const auto attributes = tree_.replica().attributes(folder);
  auto identifier = tree_.replica().identifierOf(folder);
  if (!attributes || !attributes->isFolder || !identifier)
    return finished(folder, failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}));
  std::make_shared<Operation>(shared_from_this(), folder)->start(std::move(*identifier), request);
}

void FolderListing::finished(Inode folder, Result<void> result) {
  if (result) {
    errors_.forget(folder);
    return waiting_->settle(folder, Nothing{});
  }
  errors_.note(folder, result.error(), clock_.now());
  waiting_->settle(folder, failure(std::move(result.error())));
}

void FolderListing::close(Error error) {
  {
    MutexLock hold(lock_);
    closed_ = error;
  }
  waiting_->settleAll(failure(error));
}

}  // namespace vondle
