#include "storage/tree.h"

#include "storage/count.h"
#include "storage/names.h"

namespace vondle::storage {
namespace {

const Refusal NOT_FOUND{404, "there is no such item"};

std::optional<ItemId> numberOf(std::string_view text) {
  return text.starts_with('0') ? std::nullopt : countIn(text);
}

}  // namespace

Tree::Tree(MetadataStore& store, Account account, std::int64_t now)
    : store_(store), account_(std::move(account)), now_(now) {}

const std::string& Tree::accountName(AccountId id) {
  auto found = names_.find(id);
  if (found == names_.end()) {
    const auto account = store_.account(id);
    found = names_.emplace(id, account ? account->name : std::string()).first;
  }
  return found->second;
}

View Tree::rootView() {
  View view;
  if (auto root = store_.item(account_.root)) view.item = std::move(*root);
  view.id = ROOT_ID;
  view.parentId = ROOT_ID;
  view.role = "owner";
  return view;
}

std::optional<View> Tree::sharedContainer() {
  if (store_.sharesWith(account_.id).empty()) return std::nullopt;
  View view;
  view.item.isFolder = true;
  view.id = SHARED_ID;
  view.parentId = ROOT_ID;
  view.name = SHARED_NAME;
  view.path = SHARED_NAME;
  view.role = "container";
  return view;
}

View Tree::childOf(const View& folder, Item item, bool mayBeShared) {
  View view;
  view.id = std::to_string(item.id);
  view.parentId = folder.id;
  view.name = item.name;
  view.path = joinPath(folder.path, item.name);
  view.role = folder.role;
  view.ownerName = folder.ownerName;
  view.trashed = folder.trashed;
  view.shared = mayBeShared && item.account == account_.id && !store_.sharesOf(item.id).empty();
  view.item = std::move(item);
  return view;
}

std::optional<View> Tree::viewOf(const Item& item) {
  if (item.id == account_.root) return rootView();
  View view;
  view.item = item;
  view.id = std::to_string(item.id);
  view.name = item.name;
  return item.account == account_.id ? ownView(std::move(view)) : sharedView(std::move(view));
}

// Up to the top folder, or to what was trashed.
std::optional<View> Tree::ownView(View view) {
  Item at = view.item;
  std::string path;
  while (at.id != account_.root && !at.trashed) {
    path = path.empty() ? at.name : joinPath(at.name, path);
    if (!goUp(at)) return std::nullopt;
  }
  if (at.trashed) {
    const auto folder = at.parent ? store_.item(*at.parent) : std::nullopt;
    const auto folderView = folder ? viewOf(*folder) : std::nullopt;
    const bool folderLives = folderView && !folderView->trashed;
    const std::string top = folderLives ? joinPath(folderView->path, at.name) : at.trashedPath;
    path = path.empty() ? top : joinPath(top, path);
    view.trashed = true;
  }
  view.path = path;
  view.role = "owner";
  view.parentId = view.item.parent && *view.item.parent != account_.root ? std::to_string(*view.item.parent) : ROOT_ID;
  view.shared = !store_.sharesOf(view.item.id).empty();
  return view;
}

// Up to what is shared with the account; nothing of another's trash is seen.
std::optional<View> Tree::sharedView(View view) {
  Item at = view.item;
  std::string path;
  auto share = store_.share(at.id, account_.id);
  while (!share && !at.trashed) {
    path = path.empty() ? at.name : joinPath(at.name, path);
    if (!goUp(at)) return std::nullopt;
    share = store_.share(at.id, account_.id);
  }
  if (at.trashed || !isOutsideTrash(at)) return std::nullopt;
  const bool isTop = at.id == view.item.id;
  const std::string top = joinPath(SHARED_NAME, share->name);
  view.path = path.empty() ? top : joinPath(top, path);
  view.name = isTop ? share->name : view.name;
  view.parentId = isTop ? SHARED_ID : std::to_string(*view.item.parent);
  view.role = share->role;
  view.ownerName = accountName(view.item.account);
  return view;
}

bool Tree::goUp(Item& at) {
  auto above = at.parent ? store_.item(*at.parent) : std::nullopt;
  if (!above) return false;
  at = std::move(*above);
  return true;
}

bool Tree::isOutsideTrash(Item at) {
  do {
    if (at.trashed) return false;
  } while (goUp(at));
  return true;
}

Answer<View> Tree::byId(std::string_view id) {
  if (id == ROOT_ID) return rootView();
  std::optional<View> view;
  if (id == SHARED_ID)
    view = sharedContainer();
  else if (const auto number = numberOf(id); number && *number != account_.root)
    if (const auto item = store_.item(*number)) view = viewOf(*item);
  if (!view) return refuse(NOT_FOUND);
  return std::move(*view);
}

Answer<View> Tree::byPath(std::string_view path) {
  const auto names = splitPath(path);
  if (!names) return refuse(names.error());
  View at = rootView();
  for (const auto& name : *names) {
    if (at.isRoot() && name == SHARED_NAME) {
      auto container = sharedContainer();
      if (!container) return refuse(NOT_FOUND);
      at = std::move(*container);
      continue;
    }
    if (at.isSharedContainer()) {
      const auto share = store_.shareNamed(account_.id, name);
      const auto item = share ? store_.item(share->item) : std::nullopt;
      auto view = item ? viewOf(*item) : std::nullopt;
      if (!view) return refuse(NOT_FOUND);
      at = std::move(*view);
      continue;
    }
    auto child = store_.child(at.item.id, name);
    if (!child) return refuse(NOT_FOUND);
    at = childOf(at, std::move(*child));
  }
  return at;
}

Answer<View> Tree::byKey(std::string_view key) {
  const auto item = key.empty() ? std::nullopt : store_.itemWithKey(key);
  auto view = item ? viewOf(*item) : std::nullopt;
  if (!view || view->trashed) return refuse(404, "there is no file of this key");
  return std::move(*view);
}

Answer<View> Tree::refreshed(const View& view) {
  return byId(view.id);
}

Answer<View> Tree::folderForNew(std::string_view path) {
  auto folder = byPath(path);
  if (!folder) return folder.error().status == 404 ? refuse(404, "there is no such folder") : folder;
  if (!folder->item.isFolder) return refuse(409, "the folder of the path is a file");
  if (!folder->isWritable()) return refuse(403, "nothing can be put in this folder by this account");
  return folder;
}

Answer<void> Tree::checkFree(const View& folder, std::string_view name) {
  if (auto valid = checkName(name); !valid) return valid;
  if (folder.isRoot() && name == SHARED_NAME)
    return refuse(409, "this name is kept for the folder of shared items; choose another one");
  if (store_.child(folder.item.id, name)) return refuse(409, "there is an item of this name in the folder already");
  return {};
}

Answer<Listing> Tree::list(View folder) {
  if (!folder.item.isFolder) return refuse(400, "this is a file, not a folder");
  if (folder.trashed) return refuse(404, "the folder is in the trash");
  Listing listing;
  if (folder.isSharedContainer()) {
    for (const auto& share : store_.sharesWith(account_.id)) {
      const auto item = store_.item(share.item);
      auto view = item ? viewOf(*item) : std::nullopt;
      if (view) (view->item.isFolder ? listing.folders : listing.files).push_back(std::move(*view));
    }
  } else {
    std::vector<Item> items;
    store_.children(folder.item.id, [&](Item&& item) { items.push_back(std::move(item)); });
    const bool anyShares = store_.anyShares();
    for (auto& item : items) {
      auto& part = item.isFolder ? listing.folders : listing.files;
      part.push_back(childOf(folder, std::move(item), anyShares));
    }
    if (folder.isRoot())
      if (auto container = sharedContainer()) listing.folders.push_back(std::move(*container));
  }
  listing.folder = std::move(folder);
  return listing;
}

Answer<std::vector<View>> Tree::trash() {
  std::vector<View> views;
  for (const auto& item : store_.trash(account_.id))
    if (auto view = viewOf(item)) views.push_back(std::move(*view));
  return views;
}

Answer<ChangePage> Tree::changes(std::int64_t since, std::int64_t limit) {
  ChangePage page;
  page.head = account_.head;
  if (limit == 0 || since >= account_.head) {
    page.seq = limit == 0 ? since : account_.head;
    return page;
  }
  auto changes = store_.changes(account_.id, since, limit + 1);
  page.more = static_cast<std::int64_t>(changes.size()) > limit;
  if (page.more) changes.pop_back();
  for (const auto& change : changes) {
    ChangePage::Entry entry;
    entry.id = change.item == 0 ? std::string(SHARED_ID) : std::to_string(change.item);
    if (auto view = byId(entry.id)) entry.view = std::move(*view);
    page.changes.push_back(std::move(entry));
  }
  page.seq = page.more ? changes.back().seq : page.head;
  return page;
}

std::set<AccountId> Tree::viewers(const Item& item) {
  std::set<AccountId> accounts{item.account};
  if (!store_.anyShares()) return accounts;
  Item at = item;
  do {
    if (at.trashed) return {item.account};
    for (const auto& share : store_.sharesOf(at.id)) accounts.insert(share.account);
  } while (goUp(at));
  return accounts;
}

void Tree::noteChanged(const Item& item) {
  for (const AccountId viewer : viewers(item)) store_.note(viewer, item.id);
}

bool Tree::isBelow(const Item& item, ItemId top) {
  Item at = item;
  while (at.id != top)
    if (!goUp(at)) return false;
  return true;
}

Answer<View> Tree::createFolder(std::string_view path, std::string_view name) {
  if (auto valid = checkName(name); !valid) return refuse(std::move(valid.error()));
  const auto folder = folderForNew(path);
  if (!folder) return refuse(folder.error());
  if (auto free = checkFree(*folder, name); !free) return refuse(std::move(free.error()));
  Item item{.account = folder->item.account,
            .parent = folder->item.id,
            .name = std::string(name),
            .isFolder = true,
            .modified = now_};
  item.id = store_.insert(item);
  noteChanged(item);
  return childOf(*folder, std::move(item));
}

View Tree::addFile(const View& folder, std::string_view name, const std::string& key, std::int64_t size,
                   const std::string& hash, bool hasThumb, std::optional<std::int64_t> modified) {
  Item item{.account = folder.item.account,
            .parent = folder.item.id,
            .name = std::string(name),
            .size = size,
            .modified = modified.value_or(now_),
            .key = key,
            .hash = hash,
            .thumb = hasThumb ? Thumb::stored : Thumb::none};
  item.id = store_.insert(item);
  store_.addUse(item.account, size);
  noteChanged(item);
  return childOf(folder, std::move(item));
}

Answer<View> Tree::move(View view, std::string_view toPath) {
  const auto target = splitLast(toPath);
  if (!target) return refuse(target.error());
  if (view.isSharedContainer() || view.parentId == SHARED_ID || !view.isWritable())
    return refuse(403, "this item can't be moved by this account");
  if (view.path == toPath) return view;
  const auto folder = folderForNew(target->first);
  if (!folder) return refuse(folder.error());
  if (folder->item.account != view.item.account)
    return refuse(403, "an item can't be moved between a shared folder and the rest");
  if (view.item.isFolder && isBelow(folder->item, view.item.id))
    return refuse(409, "a folder can't be moved into itself");
  if (auto free = checkFree(*folder, target->second); !free) return refuse(std::move(free.error()));

  auto told = viewers(view.item);
  view.item.parent = folder->item.id;
  view.item.name = target->second;
  store_.update(view.item);
  absorbShares(view.item);
  told.merge(viewers(view.item));
  for (const AccountId viewer : told) store_.note(viewer, view.item.id);
  return refreshed(view);
}

Answer<void> Tree::moveToTrash(View view) {
  if (view.isRoot() || view.isSharedContainer() || view.parentId == SHARED_ID || !view.isWritable())
    return refuse(403, "this item can't be deleted by this account");
  // The path where the owner sees it; a recipient's differs.
  auto owner = store_.account(view.item.account);
  if (!owner) return refuse(NOT_FOUND);
  const auto ownView = Tree(store_, std::move(*owner), now_).viewOf(view.item);
  if (!ownView) return refuse(NOT_FOUND);

  const auto told = viewers(view.item);
  view.item.trashedPath = ownView->path;
  view.item.trashed = now_;
  store_.update(view.item);
  for (const AccountId viewer : told) store_.note(viewer, view.item.id);
  noteSharedBelow(view.item);
  return {};
}

void Tree::noteSharedBelow(const Item& top) {
  if (!top.isFolder) return;
  for (const auto& share : store_.shares()) {
    const auto item = store_.item(share.item);
    if (item && item->id != top.id && isBelow(*item, top.id)) store_.note(share.account, share.item);
  }
}

Answer<View> Tree::ensureFolder(std::string_view path) {
  const auto names = splitPath(path);
  if (!names) return refuse(names.error());
  View at = rootView();
  for (const auto& name : *names) {
    auto child = store_.child(at.item.id, name);
    if (child && !child->isFolder) return refuse(409, "a file now stands where the item's folder was");
    if (child) {
      at = childOf(at, std::move(*child));
      continue;
    }
    auto made = createFolder(at.path, name);
    if (!made) return made;
    at = std::move(*made);
  }
  return at;
}

Answer<View> Tree::restore(const View& view) {
  if (!view.trashed) return refuse(409, "this item is not in the trash");
  // The view's path is where it goes: below its folder when that still stands, else where that was.
  const auto target = splitLast(view.path);
  if (!target) return refuse(target.error());
  const auto folder = ensureFolder(target->first);
  if (!folder) return folder;
  if (auto free = checkFree(*folder, target->second); !free) return refuse(std::move(free.error()));
  Item item = view.item;
  item.parent = folder->item.id;
  item.trashed.reset();
  item.trashedPath.clear();
  store_.update(item);
  absorbShares(item);
  noteChanged(item);
  noteSharedBelow(item);
  return refreshed(view);
}

Answer<void> Tree::purge(const View& view) {
  if (!view.trashed) return refuse(409, "only what is in the trash can be purged");
  for (const auto& item : store_.subtree(view.item.id)) {
    for (const auto& share : store_.sharesOf(item.id)) dropShare(share);
    if (!item.isFolder) {
      store_.addUse(item.account, -item.size);
      store_.addGarbage(item.key);
    }
    store_.remove(item.id);
  }
  store_.note(account_.id, view.item.id);
  return {};
}

void Tree::dropShare(const Share& share) {
  store_.removeShare(share.item, share.account);
  store_.note(share.account, share.item);
  if (store_.sharesWith(share.account).empty()) store_.note(share.account, 0);
}

void Tree::absorbShares(const Item& top) {
  if (!store_.anyShares()) return;
  std::set<AccountId> above;
  auto folder = top.parent ? store_.item(*top.parent) : std::nullopt;
  while (folder) {
    for (const auto& share : store_.sharesOf(folder->id)) above.insert(share.account);
    folder = folder->parent ? store_.item(*folder->parent) : std::nullopt;
  }
  for (const AccountId account : above)
    for (const auto& share : store_.sharesWith(account)) {
      const auto item = store_.item(share.item);
      if (item && isBelow(*item, top.id)) dropShare(share);
    }
}

std::string Tree::freeSharedName(AccountId account, const std::string& name, const std::string& owner) {
  std::string candidate = name;
  for (int i = 1; store_.shareNamed(account, candidate); ++i) {
    const std::string suffix = " (" + owner + (i == 1 ? std::string() : " " + std::to_string(i)) + ")";
    std::string stem = name.substr(0, MAX_NAME_BYTES - suffix.size());
    while (!isUTF8(stem)) stem.pop_back();
    candidate = stem + suffix;
  }
  return candidate;
}

Answer<View> Tree::share(const View& view, std::string_view withAccount, std::string_view role) {
  if (role != "read" && role != "write") return refuse(400, "the role is \"read\" or \"write\"");
  if (view.isRoot() || view.isSharedContainer() || view.trashed || view.role != "owner")
    return refuse(403, "only the owner can share an item, and neither the top folder nor trash");
  const auto other = store_.accountNamed(withAccount);
  if (!other) return refuse(404, "there is no such account");
  if (other->id == account_.id) return refuse(409, "an item can't be shared with its owner");
  auto above = view.item.parent ? store_.item(*view.item.parent) : std::nullopt;
  while (above) {
    if (store_.share(above->id, other->id))
      return refuse(409, "a folder above this item is shared with that account already");
    above = above->parent ? store_.item(*above->parent) : std::nullopt;
  }

  const bool first = store_.sharesWith(other->id).empty();
  for (const auto& share : store_.sharesWith(other->id)) {
    const auto item = store_.item(share.item);
    if (item && item->id != view.item.id && isBelow(*item, view.item.id)) dropShare(share);
  }
  const auto before = store_.share(view.item.id, other->id);
  store_.setShare({.item = view.item.id,
                   .account = other->id,
                   .role = std::string(role),
                   .name = before ? before->name : freeSharedName(other->id, view.item.name, account_.name)});
  if (first) store_.note(other->id, 0);
  noteChanged(view.item);
  return refreshed(view);
}

Answer<View> Tree::unshare(const View& view, std::string_view withAccount) {
  if (view.role != "owner") return refuse(403, "only the owner can end the sharing of an item");
  const auto other = store_.accountNamed(withAccount);
  const auto share = other ? store_.share(view.item.id, other->id) : std::nullopt;
  if (!share) return refuse(404, "the item is not shared with such an account");
  dropShare(*share);
  noteChanged(view.item);
  return refreshed(view);
}

Answer<void> Tree::checkRoom(AccountId owner, std::int64_t bytes) {
  const auto account = store_.account(owner);
  if (!account || !account->quota) return {};
  if (bytes > *account->quota - account->used - store_.waitingBytes(owner)) return refuse(507, "the account is full");
  return {};
}

}  // namespace vondle::storage
