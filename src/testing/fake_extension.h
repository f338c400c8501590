#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "fileprovider/replicated_extension.h"
#include "platform/scheduler.h"

namespace vondle {

// An extension without a server: a tree in memory that a test fills, whose answers can be held back and made to fail.
// Answers come on the thread that asks or, when held back, on the one that lets them go. Any thread.
//
// It takes changes as the real one does: a name that is taken clashes, contents made from another version than the
// current one are kept as a conflicted copy. What the service must never do is noted as a mistake.
class FakeExtension final : public ReplicatedExtension {
 public:
  // Fetched contents are written into the folder, which must exist.
  explicit FakeExtension(std::string temporaryFolder);

  static Item folder(std::string identifier, std::string parent, std::string name);
  static Item file(std::string identifier, std::string parent, std::string name, std::string_view contents,
                   int version = 1);

  // What the server has; an item of the same identifier is replaced. The parent of an item in the root is
  // ROOT_CONTAINER.text. Answers the item.
  Item addFolder(std::string identifier, std::string parent, std::string name) EXCLUDES(lock_);
  Item addFile(std::string identifier, std::string parent, std::string name, std::string contents, int version = 1)
      EXCLUDES(lock_);
  void add(Item item, std::string contents = {}) EXCLUDES(lock_);
  void remove(const std::string& identifier) EXCLUDES(lock_);

  // Listings come in pages of that many items; 0: in one.
  void setPageSize(std::size_t items) EXCLUDES(lock_);
  // What there is to see of an item, without which it has no thumbnail.
  void addThumbnail(std::string identifier, std::string image) EXCLUDES(lock_);
  // Every listing or fetch fails with it; none: they succeed again.
  void failListings(std::optional<Error> error) EXCLUDES(lock_);
  void failFetches(std::optional<Error> error) EXCLUDES(lock_);
  // Every lookup, and every change, fails with it; none: they succeed again.
  void failLookups(std::optional<Error> error) EXCLUDES(lock_);
  void failChanges(std::optional<Error> error) EXCLUDES(lock_);
  // The next so many changes fail with it.
  void failNextChanges(int count, Error error) EXCLUDES(lock_);
  // The next change is made, but its answer is the error.
  void loseNextAnswer(Error error) EXCLUDES(lock_);
  // Folders may go to the trash with what is in them.
  void trashWholeFolders() EXCLUDES(lock_);
  // The names of what lies in the trash.
  [[nodiscard]] std::vector<std::string> trash() const EXCLUDES(lock_);
  // Fetches deliver a file that lacks its last byte.
  void cutContents(bool cut) EXCLUDES(lock_);
  // Runs when a fetch has been decided and before it is answered.
  void beforeFetchAnswer(std::function<void()> action) EXCLUDES(lock_);

  // Answers are kept from now on; what they say is decided when they are let go.
  void holdAnswers() EXCLUDES(lock_);
  // The same for listings alone, and what they say is decided when they are asked for.
  void holdListings() EXCLUDES(lock_);
  // The same for actions, which holdAnswers leaves alone.
  void holdActions() EXCLUDES(lock_);
  // Those kept are given, and later ones come at once.
  void letAnswersGo() EXCLUDES(lock_);
  // Gives the oldest; false when there is none.
  bool letOneGo() EXCLUDES(lock_);
  [[nodiscard]] std::size_t heldCount() const EXCLUDES(lock_);

  [[nodiscard]] int listingsOf(const std::string& identifier) const EXCLUDES(lock_);
  [[nodiscard]] int fetchesOf(const std::string& identifier) const EXCLUDES(lock_);
  [[nodiscard]] int cancelledFetches() const EXCLUDES(lock_);
  // Of the latest fetch, listing or change.
  [[nodiscard]] Request lastRequest() const EXCLUDES(lock_);

  // All changes that were asked for, as "create a", "contents a", "place a -> b", "trash a" or "delete a", by the name
  // at that time.
  [[nodiscard]] std::vector<std::string> changes() const EXCLUDES(lock_);
  [[nodiscard]] std::size_t mostChangesAtOnce() const EXCLUDES(lock_);
  // Every file and folder that is not in the trash, as "a/b" and "a/"; with "=contents" after files.
  [[nodiscard]] std::vector<std::string> tree() const EXCLUDES(lock_);
  [[nodiscard]] std::optional<Item> itemNamed(const std::string& name) const EXCLUDES(lock_);
  [[nodiscard]] std::vector<std::string> mistakes() const EXCLUDES(lock_);

  void invalidate() override {}
  std::shared_ptr<Progress> itemForIdentifier(ItemIdentifier identifier, Request request,
                                              Completion<Result<Item>> completion) override;
  std::shared_ptr<Enumerator> enumeratorForContainer(ItemIdentifier container, Request request) override;
  std::shared_ptr<Progress> fetchContents(ItemIdentifier identifier, std::optional<ItemVersion> version,
                                          Request request, Completion<Result<FetchedContents>> completion) override;
  std::shared_ptr<Progress> createItem(Item basedOn, std::uint32_t fields, std::optional<std::string> contents,
                                       std::uint32_t options, Request request,
                                       Completion<Result<SavedItem>> completion) override;
  std::shared_ptr<Progress> modifyItem(Item item, ItemVersion baseVersion, std::uint32_t changedFields,
                                       std::optional<std::string> contents, std::uint32_t options, Request request,
                                       Completion<Result<SavedItem>> completion) override;
  std::shared_ptr<Progress> deleteItem(ItemIdentifier identifier, ItemVersion baseVersion, std::uint32_t options,
                                       Request request, Completion<std::optional<Error>> completion) override;
  // An action whose name ends in ".keepDownloaded" makes the items' policy so; every other undoes that.
  std::shared_ptr<Progress> performAction(std::string action, std::vector<ItemIdentifier> identifiers,
                                          Completion<std::optional<Error>> completion) override;
  std::shared_ptr<Progress> fetchThumbnails(std::vector<ItemIdentifier> identifiers, ThumbnailSize requestedSize,
                                            ThumbnailReceiver receiver,
                                            Completion<std::optional<Error>> completion) override;

 private:
  class FolderEnumerator;
  struct Stored {
    Item item;
    std::string contents;
  };
  struct Held {
    std::uint64_t number;
    Task answer;
  };

  // Gives the answer now, or keeps it; the number takes it back.
  std::uint64_t giveOrHold(Task answer) EXCLUDES(lock_);
  bool takeBack(std::uint64_t number) EXCLUDES(lock_);
  // The answer as it is now.
  Task list(const std::string& container, std::shared_ptr<EnumerationObserver> observer, const Page& page)
      EXCLUDES(lock_);
  void giveListing(std::string container, std::shared_ptr<EnumerationObserver> observer, Page page) EXCLUDES(lock_);
  Result<FetchedContents> contentsOf(const std::string& identifier) EXCLUDES(lock_);

  // Gives or holds the answer of a change, which a cancellation takes back.
  std::shared_ptr<Progress> change(std::string what, Request request, std::optional<std::string> contents,
                                   std::function<Result<SavedItem>(std::string bytes)> make,
                                   Completion<Result<SavedItem>> completion) EXCLUDES(lock_);
  Result<SavedItem> makeChange(const std::optional<std::string>& path, const std::string& bytesBefore,
                               const std::function<Result<SavedItem>(std::string bytes)>& make) EXCLUDES(lock_);
  Result<SavedItem> create(const Item& basedOn, std::optional<std::string> bytes) REQUIRES(lock_);
  Result<SavedItem> write(const Item& item, const ItemVersion& baseVersion, std::string bytes) REQUIRES(lock_);
  Result<SavedItem> place(const Item& item, std::uint32_t fields) REQUIRES(lock_);
  [[nodiscard]] bool isFolder(const std::string& identifier) const REQUIRES(lock_);
  [[nodiscard]] bool isTaken(const std::string& parent, const std::string& name) const REQUIRES(lock_);
  [[nodiscard]] bool isBelow(std::string identifier, const std::string& folder) const REQUIRES(lock_);
  [[nodiscard]] std::string pathOf(const Item& item) const REQUIRES(lock_);
  [[nodiscard]] std::string nameOf(const std::string& identifier) const EXCLUDES(lock_);
  std::string newIdentifier() REQUIRES(lock_);

  const std::string temporaryFolder_;
  mutable Mutex lock_;
  std::map<std::string, Stored> items_ GUARDED_BY(lock_);
  std::set<std::string> removed_ GUARDED_BY(lock_);               // which cannot be listed
  std::map<std::string, std::string> origins_ GUARDED_BY(lock_);  // the folders of what was trashed
  bool trashesWholeFolders_ GUARDED_BY(lock_) = false;
  std::map<std::string, int> listings_ GUARDED_BY(lock_);
  std::map<std::string, int> fetches_ GUARDED_BY(lock_);
  std::map<std::string, std::string> thumbnails_ GUARDED_BY(lock_);
  std::list<Held> held_ GUARDED_BY(lock_);
  std::uint64_t lastNumber_ GUARDED_BY(lock_) = 0;
  bool isHolding_ GUARDED_BY(lock_) = false;
  bool isHoldingListings_ GUARDED_BY(lock_) = false;
  bool isHoldingActions_ GUARDED_BY(lock_) = false;
  std::size_t pageSize_ GUARDED_BY(lock_) = 0;
  std::optional<Error> listingError_ GUARDED_BY(lock_);
  std::optional<Error> fetchError_ GUARDED_BY(lock_);
  std::optional<Error> lookupError_ GUARDED_BY(lock_);
  std::optional<Error> changeError_ GUARDED_BY(lock_);
  std::list<Error> nextChangeErrors_ GUARDED_BY(lock_);
  std::optional<Error> lostAnswer_ GUARDED_BY(lock_);
  std::vector<std::string> changes_ GUARDED_BY(lock_);
  std::vector<std::string> mistakes_ GUARDED_BY(lock_);
  std::size_t changesUnderWay_ GUARDED_BY(lock_) = 0;
  std::size_t mostChangesAtOnce_ GUARDED_BY(lock_) = 0;
  int lastIdentifier_ GUARDED_BY(lock_) = 0;
  bool cutContents_ GUARDED_BY(lock_) = false;
  std::function<void()> beforeFetchAnswer_ GUARDED_BY(lock_);
  int cancelledFetches_ GUARDED_BY(lock_) = 0;
  Request lastRequest_ GUARDED_BY(lock_);
  int lastFile_ GUARDED_BY(lock_) = 0;
};

}  // namespace vondle
