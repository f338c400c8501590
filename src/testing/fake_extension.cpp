#include "testing/fake_extension.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "fileprovider/error_codes.h"
#include "platform/content_types.h"

namespace vondle {

namespace {

std::string bytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Error clash() {
  return {API_ERROR_DOMAIN, 409, "HTTP 409"};
}

// As errors of transfers reach the service.
Error wrapped(Error cause) {
  return Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "the upload failed").withUnderlying(std::move(cause));
}

std::string conflictedName(const std::string& name) {
  const auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return name + " (conflicted copy)";
  return name.substr(0, dot) + " (conflicted copy)" + name.substr(dot);
}

}  // namespace

class FakeExtension::FolderEnumerator final : public Enumerator {
 public:
  FolderEnumerator(FakeExtension& extension, std::string container)
      : extension_(extension), container_(std::move(container)) {}

  void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page startingAt) override {
    extension_.giveListing(container_, std::move(observer), std::move(startingAt));
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
  removed_.insert(identifier);
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

void FakeExtension::addThumbnail(std::string identifier, std::string image) {
  MutexLock hold(lock_);
  thumbnails_[std::move(identifier)] = std::move(image);
}

void FakeExtension::failLookups(std::optional<Error> error) {
  MutexLock hold(lock_);
  lookupError_ = std::move(error);
}

void FakeExtension::failChanges(std::optional<Error> error) {
  MutexLock hold(lock_);
  changeError_ = std::move(error);
}

void FakeExtension::failNextChanges(int count, Error error) {
  MutexLock hold(lock_);
  for (int i = 0; i < count; ++i) nextChangeErrors_.push_back(error);
}

void FakeExtension::loseNextAnswer(Error error) {
  MutexLock hold(lock_);
  lostAnswer_ = std::move(error);
}

void FakeExtension::trashWholeFolders() {
  MutexLock hold(lock_);
  trashesWholeFolders_ = true;
}

std::vector<std::string> FakeExtension::trash() const {
  MutexLock hold(lock_);
  std::vector<std::string> names;
  for (const auto& [identifier, stored] : items_)
    if (stored.item.parentItemIdentifier == TRASH_CONTAINER) names.push_back(stored.item.filename);
  std::ranges::sort(names);
  return names;
}

std::string FakeExtension::pathOf(const Item& item) const {
  auto path = item.filename;
  for (auto found = items_.find(item.parentItemIdentifier.text); found != items_.end();
       found = items_.find(found->second.item.parentItemIdentifier.text))
    path = found->second.item.filename + "/" + path;
  return path;
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

void FakeExtension::holdActions() {
  MutexLock hold(lock_);
  isHoldingActions_ = true;
}

void FakeExtension::holdListings() {
  MutexLock hold(lock_);
  isHoldingListings_ = true;
}

void FakeExtension::letAnswersGo() {
  {
    MutexLock hold(lock_);
    isHolding_ = isHoldingActions_ = isHoldingListings_ = false;
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

std::vector<std::string> FakeExtension::changes() const {
  MutexLock hold(lock_);
  return changes_;
}

std::size_t FakeExtension::mostChangesAtOnce() const {
  MutexLock hold(lock_);
  return mostChangesAtOnce_;
}

std::vector<std::string> FakeExtension::tree() const {
  MutexLock hold(lock_);
  std::vector<std::string> paths;
  for (const auto& [identifier, stored] : items_) {
    auto path = stored.item.filename + (stored.item.isFolder() ? "/" : "=" + stored.contents);
    auto parent = stored.item.parentItemIdentifier.text;
    for (auto found = items_.find(parent); found != items_.end(); found = items_.find(parent)) {
      path = found->second.item.filename + "/" + path;
      parent = found->second.item.parentItemIdentifier.text;
    }
    if (parent == ROOT_CONTAINER.text) paths.push_back(std::move(path));
  }
  std::ranges::sort(paths);
  return paths;
}

std::optional<Item> FakeExtension::itemNamed(const std::string& name) const {
  MutexLock hold(lock_);
  for (const auto& [identifier, stored] : items_) {
    if (stored.item.filename == name) return stored.item;
  }
  return std::nullopt;
}

std::vector<std::string> FakeExtension::mistakes() const {
  MutexLock hold(lock_);
  return mistakes_;
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
    const auto found = items_.find(identifier.text);
    if (found != items_.end() && !lookupError_) item = found->second.item;
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

void FakeExtension::giveListing(std::string container, std::shared_ptr<EnumerationObserver> observer, Page page) {
  bool isHeld = false;
  {
    MutexLock hold(lock_);
    isHeld = isHoldingListings_;
  }
  if (!isHeld) {
    giveOrHold([this, container = std::move(container), observer = std::move(observer), page = std::move(page)] {
      list(container, observer, page)();
    });
    return;
  }
  auto answer = list(container, std::move(observer), page);
  MutexLock hold(lock_);
  held_.push_back({++lastNumber_, std::move(answer)});
}

Task FakeExtension::list(const std::string& container, std::shared_ptr<EnumerationObserver> observer,
                         const Page& page) {
  std::vector<Item> items;
  std::optional<Error> error;
  std::optional<Page> next;
  {
    MutexLock hold(lock_);
    error = listingError_;
    if (!error && removed_.contains(container)) error = Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM);
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
  return [observer = std::move(observer), error = std::move(error), items = std::move(items),
          next = std::move(next)]() mutable {
    if (error) return observer->finishEnumeratingWithError(std::move(*error));
    observer->didEnumerateItems(std::move(items));
    observer->finishEnumeratingUpToPage(std::move(next));
  };
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

std::shared_ptr<Progress> FakeExtension::createItem(Item basedOn, std::uint32_t, std::optional<std::string> contents,
                                                    std::uint32_t, Request request,
                                                    Completion<Result<SavedItem>> completion) {
  auto what = "create " + basedOn.filename;
  const bool isFile = !basedOn.isFolder();
  if (isFile && contents && !contents->ends_with(basedOn.filename.substr(basedOn.filename.rfind('.') + 1))) {
    MutexLock hold(lock_);
    if (basedOn.filename.contains('.'))
      mistakes_.push_back("the contents of " + basedOn.filename + " are named otherwise");
  }
  return change(
      std::move(what), request, contents,
      [this, basedOn = std::move(basedOn), isFile](std::string bytes) -> Result<SavedItem> {
        MutexLock hold(lock_);
        auto saved = create(basedOn, isFile ? std::optional(std::move(bytes)) : std::nullopt);
        if (!saved && isFile && saved.error() == clash()) return failure(wrapped(saved.error()));
        return saved;
      },
      std::move(completion));
}

std::shared_ptr<Progress> FakeExtension::modifyItem(Item item, ItemVersion baseVersion, std::uint32_t changedFields,
                                                    std::optional<std::string> contents, std::uint32_t, Request request,
                                                    Completion<Result<SavedItem>> completion) {
  const auto name = nameOf(item.itemIdentifier.text);
  auto what = "place " + name + " -> " + item.filename;
  if (item.parentItemIdentifier == TRASH_CONTAINER) what = "trash " + name;
  if (changedFields & FIELD_CONTENTS) what = "contents " + name;
  return change(
      std::move(what), request, contents,
      [this, item = std::move(item), baseVersion = std::move(baseVersion),
       changedFields](std::string bytes) -> Result<SavedItem> {
        MutexLock hold(lock_);
        if (changedFields & FIELD_CONTENTS) return write(item, baseVersion, std::move(bytes));
        return place(item, changedFields);
      },
      std::move(completion));
}

std::shared_ptr<Progress> FakeExtension::deleteItem(ItemIdentifier identifier, ItemVersion, std::uint32_t,
                                                    Request request, Completion<std::optional<Error>> completion) {
  auto what = "delete " + nameOf(identifier.text);
  return change(
      std::move(what), request, std::nullopt,
      [this, identifier = std::move(identifier)](const std::string&) -> Result<SavedItem> {
        MutexLock hold(lock_);
        const auto found = items_.find(identifier.text);
        if (found == items_.end()) return SavedItem();
        if (found->second.item.parentItemIdentifier == TRASH_CONTAINER)
          items_.erase(found);
        else
          found->second.item.parentItemIdentifier = TRASH_CONTAINER;
        return SavedItem();
      },
      [completion = std::move(completion)](const Result<SavedItem>& result) mutable {
        std::move(completion)(result ? std::nullopt : std::optional(result.error()));
      });
}

std::shared_ptr<Progress> FakeExtension::performAction(std::string action, std::vector<ItemIdentifier> identifiers,
                                                       Completion<std::optional<Error>> completion) {
  {
    MutexLock hold(lock_);
    const bool isKept = action.ends_with(".keepDownloaded");
    for (const auto& identifier : identifiers) {
      const auto found = items_.find(identifier.text);
      if (found == items_.end()) continue;
      auto& item = found->second.item;
      item.contentPolicy = isKept            ? ContentPolicy::downloadEagerlyAndKeepDownloaded
                           : item.isFolder() ? ContentPolicy::inherited
                                             : ContentPolicy::downloadLazily;
    }
  }
  Task answer = [completion = std::move(completion)]() mutable { std::move(completion)(std::nullopt); };
  {
    MutexLock hold(lock_);
    if (isHoldingActions_) held_.push_back({++lastNumber_, std::exchange(answer, nullptr)});
  }
  if (answer) answer();
  return Progress::make();
}

std::shared_ptr<Progress> FakeExtension::fetchThumbnails(std::vector<ItemIdentifier> identifiers, ThumbnailSize,
                                                         ThumbnailReceiver receiver,
                                                         Completion<std::optional<Error>> completion) {
  for (const auto& identifier : identifiers) {
    std::optional<std::string> image;
    {
      MutexLock hold(lock_);
      if (const auto found = thumbnails_.find(identifier.text); found != thumbnails_.end()) image = found->second;
    }
    receiver(identifier, std::move(image));
  }
  std::move(completion)(std::nullopt);
  return Progress::make();
}

std::shared_ptr<Progress> FakeExtension::change(std::string what, Request request, std::optional<std::string> contents,
                                                std::function<Result<SavedItem>(std::string bytes)> make,
                                                Completion<Result<SavedItem>> completion) {
  const auto before = contents ? bytesOf(*contents) : std::string();
  {
    MutexLock hold(lock_);
    changes_.push_back(std::move(what));
    lastRequest_ = request;
    mostChangesAtOnce_ = std::max(mostChangesAtOnce_, ++changesUnderWay_);
  }
  auto progress = Progress::make(1);
  const auto answer = std::make_shared<Completion<Result<SavedItem>>>(std::move(completion));
  const auto number = giveOrHold([this, answer, contents, before, make = std::move(make)] {
    auto result = makeChange(contents, before, make);
    std::move (*answer)(std::move(result));
  });
  if (number == 0) return progress;
  progress->setCancellationHandler([this, number, answer] {
    if (!takeBack(number)) return;
    {
      MutexLock hold(lock_);
      --changesUnderWay_;
    }
    std::move (*answer)(failure({COCOA_ERROR_DOMAIN, USER_CANCELLED}));
  });
  return progress;
}

Result<SavedItem> FakeExtension::makeChange(const std::optional<std::string>& path, const std::string& bytesBefore,
                                            const std::function<Result<SavedItem>(std::string bytes)>& make) {
  auto bytes = path ? bytesOf(*path) : std::string();
  std::optional<Error> lost;
  {
    MutexLock hold(lock_);
    --changesUnderWay_;
    if (bytes != bytesBefore) mistakes_.push_back("the contents changed while they were sent: " + *path);
    if (changeError_) return failure(*changeError_);
    if (!nextChangeErrors_.empty()) {
      auto error = nextChangeErrors_.front();
      nextChangeErrors_.pop_front();
      return failure(std::move(error));
    }
    lost = std::exchange(lostAnswer_, std::nullopt);
  }
  auto result = make(std::move(bytes));
  if (lost) return failure(std::move(*lost));
  return result;
}

Result<SavedItem> FakeExtension::create(const Item& basedOn, std::optional<std::string> bytes) {
  const auto& parent = basedOn.parentItemIdentifier.text;
  if (!isFolder(parent)) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  if (isTaken(parent, basedOn.filename)) return failure(clash());
  const bool isFile = bytes.has_value();
  auto contents = std::move(bytes).value_or("");
  auto item = isFile ? file(newIdentifier(), parent, basedOn.filename, contents)
                     : folder(newIdentifier(), parent, basedOn.filename);
  items_[item.itemIdentifier.text] = {item, std::move(contents)};
  return SavedItem{.item = std::move(item), .hasGivenContents = isFile};
}

Result<SavedItem> FakeExtension::write(const Item& item, const ItemVersion& baseVersion, std::string bytes) {
  const auto found = items_.find(item.itemIdentifier.text);
  if (found == items_.end()) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  auto& stored = found->second;
  if (stored.item.itemVersion.contentVersion != baseVersion.contentVersion) {
    Item copy = stored.item;
    copy.filename = conflictedName(copy.filename);
    auto kept = create(copy, std::move(bytes));
    if (!kept) return failure(wrapped(kept.error()));
    return SavedItem{.item = stored.item};
  }
  int version = 0;
  const auto& text = baseVersion.contentVersion;
  std::from_chars(text.data(), text.data() + text.size(), version);
  stored.item =
      file(item.itemIdentifier.text, stored.item.parentItemIdentifier.text, stored.item.filename, bytes, version + 1);
  stored.contents = std::move(bytes);
  return SavedItem{.item = stored.item, .hasGivenContents = true};
}

Result<SavedItem> FakeExtension::place(const Item& item, std::uint32_t fields) {
  const auto& identifier = item.itemIdentifier.text;
  const auto found = items_.find(identifier);
  if (found == items_.end()) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  auto& stored = found->second.item;
  auto parent =
      fields & FIELD_PARENT_ITEM_IDENTIFIER ? item.parentItemIdentifier.text : stored.parentItemIdentifier.text;
  if (parent == TRASH_CONTAINER.text) {
    if (stored.parentItemIdentifier == TRASH_CONTAINER) return failure(clash());
    for (const auto& [child, inside] : items_) {
      if (inside.item.parentItemIdentifier.text == identifier && !trashesWholeFolders_)
        mistakes_.push_back("the folder " + stored.filename + " was trashed with " + inside.item.filename + " in it");
    }
    origins_[identifier] = stored.parentItemIdentifier.text;
    stored.restorePath = pathOf(stored);
    stored.parentItemIdentifier = TRASH_CONTAINER;
    return SavedItem{.item = stored};
  }
  if (const auto origin = origins_.find(identifier);
      origin != origins_.end() && stored.parentItemIdentifier == TRASH_CONTAINER) {
    if (isTaken(origin->second, stored.filename)) return failure(clash());
    stored.restorePath.reset();
    stored.parentItemIdentifier.text = origin->second;
    origins_.erase(origin);
    return SavedItem{.item = stored};
  }
  const auto name = fields & FIELD_FILENAME ? item.filename : stored.filename;
  if (!isFolder(parent)) return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  if (parent == stored.parentItemIdentifier.text && name == stored.filename) return SavedItem{.item = stored};
  if (isTaken(parent, name) || isBelow(parent, identifier)) return failure(clash());
  stored.parentItemIdentifier.text = std::move(parent);
  stored.filename = name;
  stored.itemVersion.metadataVersion += "+" + name;
  return SavedItem{.item = stored};
}

bool FakeExtension::isFolder(const std::string& identifier) const {
  if (identifier == ROOT_CONTAINER.text) return true;
  const auto found = items_.find(identifier);
  return found != items_.end() && found->second.item.isFolder();
}

bool FakeExtension::isTaken(const std::string& parent, const std::string& name) const {
  return std::ranges::any_of(items_, [&](const auto& each) {
    const auto& item = each.second.item;
    return item.parentItemIdentifier.text == parent && item.filename == name;
  });
}

bool FakeExtension::isBelow(std::string identifier, const std::string& folder) const {
  while (identifier != folder) {
    const auto found = items_.find(identifier);
    if (found == items_.end()) return false;
    identifier = found->second.item.parentItemIdentifier.text;
  }
  return true;
}

std::string FakeExtension::nameOf(const std::string& identifier) const {
  MutexLock hold(lock_);
  const auto found = items_.find(identifier);
  return found == items_.end() ? "?" : found->second.item.filename;
}

std::string FakeExtension::newIdentifier() {
  return fmt::format("new-{}", ++lastIdentifier_);
}

}  // namespace vondle
