#include "testing/fake_extension.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <utility>

#include <fmt/format.h>

#include "fileprovider/error_codes.h"
#include "platform/content_types.h"

namespace vondle {

class FakeExtension::FolderEnumerator final : public Enumerator {
 public:
  FolderEnumerator(FakeExtension& extension, std::string container)
      : extension_(extension), container_(std::move(container)) {}

  void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page startingAt) override {
    extension_.giveOrHold([&extension = extension_, container = container_, observer = std::move(observer),
                           page = std::move(startingAt)] { extension.list(container, observer, page); });
  }
  void enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) override {
    observer->finishEnumeratingChangesUpToSyncAnchor(std::move(from), false);
  }
  void currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) override { std::move(completion)("0"); }
  void invalidate() override {}

 private:
  FakeExtension& extension_;
  const std::string container_;
};

FakeExtension::FakeExtension(std::string temporaryFolder) : temporaryFolder_(std::move(temporaryFolder)) {}

Item FakeExtension::folder(std::string identifier, std::string parent, std::string name) {
  Item item;
  item.itemIdentifier.text = std::move(identifier);
  item.parentItemIdentifier.text = std::move(parent);
  item.filename = std::move(name);
  item.contentType = FOLDER_CONTENT_TYPE;
  item.capabilities = 63;
  item.fileSystemFlags = USER_READABLE | USER_WRITABLE | USER_EXECUTABLE;
  item.contentModificationDate = Timestamp{1'700'000'000};
  item.itemVersion = {"1-0", "1-" + item.filename};
  return item;
}

Item FakeExtension::file(std::string identifier, std::string parent, std::string name, std::string_view contents,
                         int version) {
  Item item = folder(std::move(identifier), std::move(parent), std::move(name));
  item.contentType = GENERIC_DATA_CONTENT_TYPE;
  item.fileSystemFlags = USER_READABLE | USER_WRITABLE;
  item.documentSize = static_cast<std::int64_t>(contents.size());
  item.contentPolicy = ContentPolicy::downloadLazily;
  item.itemVersion.contentVersion = fmt::format("{}-{}", version, contents.size());
  item.itemVersion.metadataVersion = fmt::format("{}-{}", version, item.filename);
  return item;
}

Item FakeExtension::addFolder(std::string identifier, std::string parent, std::string name) {
  auto item = folder(std::move(identifier), std::move(parent), std::move(name));
  add(item);
  return item;
}

Item FakeExtension::addFile(std::string identifier, std::string parent, std::string name, std::string contents,
                            int version) {
  auto item = file(std::move(identifier), std::move(parent), std::move(name), contents, version);
  add(item, std::move(contents));
  return item;
}

void FakeExtension::add(Item item, std::string contents) {
  MutexLock hold(lock_);
  auto identifier = item.itemIdentifier.text;
  items_[std::move(identifier)] = {std::move(item), std::move(contents)};
}

void FakeExtension::remove(const std::string& identifier) {
  MutexLock hold(lock_);
  items_.erase(identifier);
}

void FakeExtension::setPageSize(std::size_t items) {
  MutexLock hold(lock_);
  pageSize_ = items;
}

void FakeExtension::failListings(std::optional<Error> error) {
  MutexLock hold(lock_);
  listingError_ = std::move(error);
}

void FakeExtension::failFetches(std::optional<Error> error) {
  MutexLock hold(lock_);
  fetchError_ = std::move(error);
}

void FakeExtension::cutContents(bool cut) {
  MutexLock hold(lock_);
  cutContents_ = cut;
}

void FakeExtension::beforeFetchAnswer(std::function<void()> action) {
  MutexLock hold(lock_);
  beforeFetchAnswer_ = std::move(action);
}

void FakeExtension::holdAnswers() {
  MutexLock hold(lock_);
  isHolding_ = true;
}

void FakeExtension::letAnswersGo() {
  {
    MutexLock hold(lock_);
    isHolding_ = false;
  }
  while (letOneGo()) {
  }
}

bool FakeExtension::letOneGo() {
  std::list<Held> one;
  {
    MutexLock hold(lock_);
    if (held_.empty()) return false;
    one.splice(one.end(), held_, held_.begin());
  }
  one.front().answer();
  return true;
}

std::size_t FakeExtension::heldCount() const {
  MutexLock hold(lock_);
  return held_.size();
}

int FakeExtension::listingsOf(const std::string& identifier) const {
  MutexLock hold(lock_);
  const auto found = listings_.find(identifier);
  return found == listings_.end() ? 0 : found->second;
}

int FakeExtension::fetchesOf(const std::string& identifier) const {
  MutexLock hold(lock_);
  const auto found = fetches_.find(identifier);
  return found == fetches_.end() ? 0 : found->second;
}

int FakeExtension::cancelledFetches() const {
  MutexLock hold(lock_);
  return cancelledFetches_;
}

Request FakeExtension::lastRequest() const {
  MutexLock hold(lock_);
  return lastRequest_;
}

std::uint64_t FakeExtension::giveOrHold(Task answer) {
  {
    MutexLock hold(lock_);
    if (isHolding_) {
      held_.push_back({++lastNumber_, std::move(answer)});
      return lastNumber_;
    }
  }
  answer();
  return 0;
}

bool FakeExtension::takeBack(std::uint64_t number) {
  std::list<Held> one;  // destroyed with no lock held
  MutexLock hold(lock_);
  const auto found = std::find_if(held_.begin(), held_.end(), [&](const Held& held) { return held.number == number; });
  if (found == held_.end()) return false;
  one.splice(one.end(), held_, found);
  return true;
}

std::shared_ptr<Progress> FakeExtension::itemForIdentifier(ItemIdentifier identifier, Request,
                                                           Completion<Result<Item>> completion) {
  std::optional<Item> item;
  {
    MutexLock hold(lock_);
    if (const auto found = items_.find(identifier.text); found != items_.end()) item = found->second.item;
  }
  if (item)
    std::move(completion)(std::move(*item));
  else
    std::move(completion)(failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}));
  return Progress::make();
}

std::shared_ptr<Enumerator> FakeExtension::enumeratorForContainer(ItemIdentifier container, Request request) {
  MutexLock hold(lock_);
  ++listings_[container.text];
  lastRequest_ = request;
  return std::make_shared<FolderEnumerator>(*this, std::move(container.text));
}

void FakeExtension::list(const std::string& container, const std::shared_ptr<EnumerationObserver>& observer,
                         const Page& page) {
  std::vector<Item> items;
  std::optional<Error> error;
  std::optional<Page> next;
  {
    MutexLock hold(lock_);
    error = listingError_;
    for (const auto& [identifier, stored] : items_)
      if (stored.item.parentItemIdentifier.text == container) items.push_back(stored.item);
    if (pageSize_ > 0) {
      std::size_t start = 0;
      std::from_chars(page.data(), page.data() + page.size(), start);
      if (start + pageSize_ < items.size()) next = std::to_string(start + pageSize_);
      items = {items.begin() + static_cast<std::ptrdiff_t>(std::min(start, items.size())),
               items.begin() + static_cast<std::ptrdiff_t>(std::min(start + pageSize_, items.size()))};
    }
  }
  if (error) return observer->finishEnumeratingWithError(std::move(*error));
  observer->didEnumerateItems(std::move(items));
  observer->finishEnumeratingUpToPage(std::move(next));
}

std::shared_ptr<Progress> FakeExtension::fetchContents(ItemIdentifier identifier, std::optional<ItemVersion>,
                                                       Request request,
                                                       Completion<Result<FetchedContents>> completion) {
  {
    MutexLock hold(lock_);
    ++fetches_[identifier.text];
    lastRequest_ = request;
  }
  auto progress = Progress::make();
  // Shared by the answer and the cancellation, one of which uses it.
  const auto answer = std::make_shared<Completion<Result<FetchedContents>>>(std::move(completion));
  const auto number = giveOrHold([this, identifier, answer] { std::move (*answer)(contentsOf(identifier.text)); });
  if (number == 0) return progress;
  progress->setCancellationHandler([this, number, answer] {
    if (!takeBack(number)) return;
    {
      MutexLock hold(lock_);
      ++cancelledFetches_;
    }
    std::move (*answer)(failure({COCOA_ERROR_DOMAIN, USER_CANCELLED}));
  });
  return progress;
}

Result<FetchedContents> FakeExtension::contentsOf(const std::string& identifier) {
  std::optional<Stored> stored;
  std::function<void()> before;
  std::string path;
  {
    MutexLock hold(lock_);
    if (fetchError_) return failure(*fetchError_);
    const auto found = items_.find(identifier);
    if (found == items_.end()) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
    stored = found->second;
    if (cutContents_ && !stored->contents.empty()) stored->contents.pop_back();
    before = beforeFetchAnswer_;
    path = fmt::format("{}/fetched-{}", temporaryFolder_, ++lastFile_);
  }
  std::ofstream(path, std::ios::binary) << stored->contents;
  if (before) before();
  return FetchedContents{path, stored->item};
}

}  // namespace vondle
