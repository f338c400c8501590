#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "fileprovider/replicated_extension.h"
#include "platform/scheduler.h"
#include "testing/read_only_extension.h"

namespace vondle {

// An extension without a server: a tree in memory that a test fills, whose answers can be held back and made to fail.
// Answers come on the thread that asks or, when held back, on the one that lets them go. Any thread.
class FakeExtension final : public ReadOnlyExtension {
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
  // Every listing or fetch fails with it; none: they succeed again.
  void failListings(std::optional<Error> error) EXCLUDES(lock_);
  void failFetches(std::optional<Error> error) EXCLUDES(lock_);
  // Fetches deliver a file that lacks its last byte.
  void cutContents(bool cut) EXCLUDES(lock_);
  // Runs when a fetch has been decided and before it is answered.
  void beforeFetchAnswer(std::function<void()> action) EXCLUDES(lock_);

  // Answers are kept from now on; what they say is decided when they are let go.
  void holdAnswers() EXCLUDES(lock_);
  // Those kept are given, and later ones come at once.
  void letAnswersGo() EXCLUDES(lock_);
  // Gives the oldest; false when there is none.
  bool letOneGo() EXCLUDES(lock_);
  [[nodiscard]] std::size_t heldCount() const EXCLUDES(lock_);

  [[nodiscard]] int listingsOf(const std::string& identifier) const EXCLUDES(lock_);
  [[nodiscard]] int fetchesOf(const std::string& identifier) const EXCLUDES(lock_);
  [[nodiscard]] int cancelledFetches() const EXCLUDES(lock_);
  // Of the latest fetch or listing.
  [[nodiscard]] Request lastRequest() const EXCLUDES(lock_);

  void invalidate() override {}
  std::shared_ptr<Progress> itemForIdentifier(ItemIdentifier identifier, Request request,
                                              Completion<Result<Item>> completion) override;
  std::shared_ptr<Enumerator> enumeratorForContainer(ItemIdentifier container, Request request) override;
  std::shared_ptr<Progress> fetchContents(ItemIdentifier identifier, std::optional<ItemVersion> version,
                                          Request request, Completion<Result<FetchedContents>> completion) override;

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
  void list(const std::string& container, const std::shared_ptr<EnumerationObserver>& observer, const Page& page)
      EXCLUDES(lock_);
  Result<FetchedContents> contentsOf(const std::string& identifier) EXCLUDES(lock_);

  const std::string temporaryFolder_;
  mutable Mutex lock_;
  std::map<std::string, Stored> items_ GUARDED_BY(lock_);
  std::map<std::string, int> listings_ GUARDED_BY(lock_);
  std::map<std::string, int> fetches_ GUARDED_BY(lock_);
  std::list<Held> held_ GUARDED_BY(lock_);
  std::uint64_t lastNumber_ GUARDED_BY(lock_) = 0;
  bool isHolding_ GUARDED_BY(lock_) = false;
  std::size_t pageSize_ GUARDED_BY(lock_) = 0;
  std::optional<Error> listingError_ GUARDED_BY(lock_);
  std::optional<Error> fetchError_ GUARDED_BY(lock_);
  bool cutContents_ GUARDED_BY(lock_) = false;
  std::function<void()> beforeFetchAnswer_ GUARDED_BY(lock_);
  int cancelledFetches_ GUARDED_BY(lock_) = 0;
  Request lastRequest_ GUARDED_BY(lock_);
  int lastFile_ GUARDED_BY(lock_) = 0;
};

}  // namespace vondle
