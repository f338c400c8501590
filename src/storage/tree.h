#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "storage/metadata_store.h"
#include "storage/refusal.h"

namespace vondle::storage {

// The folder at the top of an account that holds what others share with it. It is there while there is something in it;
// its name is kept free for it in every account.
inline constexpr std::string_view ROOT_ID = "root";
inline constexpr std::string_view SHARED_ID = "shared";
inline constexpr std::string_view SHARED_NAME = "Shared with me";

// An item as one account sees it.
struct View {
  Item item;            // of the container of shared items: id 0
  std::string id = {};  // "root", "shared" or the item's number
  std::string parentId = {};
  std::string name = {};       // the item's, or the one that it has among the shared items
  std::string path = {};       // below the account's root; of trash: where it was
  std::string role = {};       // "owner", "read", "write" or "container"
  std::string ownerName = {};  // of another account's item, else empty
  bool shared = false;         // the account shares it with others
  bool trashed = false;        // it, or a folder above it, is in the trash

  [[nodiscard]] bool isSharedContainer() const { return item.id == 0; }
  [[nodiscard]] bool isRoot() const { return id == ROOT_ID; }
  [[nodiscard]] bool isWritable() const { return role == "owner" || role == "write"; }
};

// A folder and what lies in it, in name order.
struct Listing {
  View folder;
  std::vector<View> folders = {};
  std::vector<View> files = {};
};

struct ChangePage {
  struct Entry {
    std::string id;
    std::optional<View> view;  // none: gone, or no longer to be seen by this account
  };
  std::vector<Entry> changes = {};
  std::int64_t seq = 0;
  std::int64_t head = 0;
  bool more = false;
};

// What one account can see and do in its tree: the rules of names, rights, trash, sharing and the change feed. One
// transaction's worth: made in one, used in it, dropped with it. An item that the account must not see answers 404 as
// if there were none; one that it sees but must not change, 403.
class Tree {
 public:
  // `now`: milliseconds since 1970.
  Tree(MetadataStore& store, Account account, std::int64_t now);

  [[nodiscard]] const Account& account() const { return account_; }

  Answer<View> byId(std::string_view id);
  Answer<View> byPath(std::string_view path);
  // A file by the key of its current contents; not in the trash.
  Answer<View> byKey(std::string_view key);
  // A folder that new items may be put in; 404 when there is none, 409 when it is a file.
  Answer<View> folderForNew(std::string_view path);
  // 409 when the folder has such a child, or the name is kept free.
  Answer<void> checkFree(const View& folder, std::string_view name);

  Answer<Listing> list(View folder);
  Answer<std::vector<View>> trash();
  Answer<ChangePage> changes(std::int64_t since, std::int64_t limit);

  Answer<View> createFolder(std::string_view path, std::string_view name);
  // A file of contents that lie under `key` already; counts them as used.
  View addFile(const View& folder, std::string_view name, const std::string& key, std::int64_t size,
               const std::string& hash, bool hasThumb, std::optional<std::int64_t> modified = {});
  Answer<View> move(View view, std::string_view toPath);
  Answer<void> moveToTrash(View view);
  Answer<View> restore(const View& view);
  Answer<void> purge(const View& view);

  Answer<View> share(const View& view, std::string_view withAccount, std::string_view role);
  Answer<View> unshare(const View& view, std::string_view withAccount);

  // Tells everybody who sees the item that it changed.
  void noteChanged(const Item& item);
  // 507 when the owner has no room for so many more bytes.
  Answer<void> checkRoom(AccountId owner, std::int64_t bytes);
  // The view again, as it is now.
  Answer<View> refreshed(const View& view);

 private:
  std::optional<View> viewOf(const Item& item);
  std::optional<View> ownView(View view);
  std::optional<View> sharedView(View view);
  // To the folder above; false at the top.
  bool goUp(Item& at);
  bool isOutsideTrash(Item at);
  View rootView();
  std::optional<View> sharedContainer();
  View childOf(const View& folder, Item item, bool mayBeShared = true);
  const std::string& accountName(AccountId id);
  // Everybody who can see the item outside the trash.
  std::set<AccountId> viewers(const Item& item);
  bool isBelow(const Item& item, ItemId top);
  // What was shared on its own and now lies in a folder that is shared with the same account, is shared by that alone.
  void absorbShares(const Item& top);
  void dropShare(const Share& share);
  // For what comes and goes with a folder above it.
  void noteSharedBelow(const Item& top);
  Answer<View> ensureFolder(std::string_view path);
  std::string freeSharedName(AccountId account, const std::string& name, const std::string& owner);

  MetadataStore& store_;
  Account account_;
  std::int64_t now_;
  std::unordered_map<AccountId, std::string> names_;
};

}  // namespace vondle::storage
