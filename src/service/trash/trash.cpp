#include "service/trash/trash.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <unordered_set>
#include <utility>

#include "platform/log.h"
#include "service/listing/whole_listing.h"
#include "service/trash/trash_purge.h"
#include "service/trash/trash_restore.h"
#include "service/trash/trash_text.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "trash");

constexpr Request VIEWER{.isFileViewerRequest = true};

// Many edits are looked at less often.
constexpr Duration FOLLOW_REST = seconds(0.0001);

std::unexpected<Error> refused(int number) {
  return failure(Error::posix(number, "changing the trash"));
}

}  // namespace

Trash::Trash(Parts parts)
    : parts_(std::move(parts)), queue_(parts_.scheduler.makeSerialQueue("trash")), modified_(parts_.clock.now()) {}

std::shared_ptr<Trash> Trash::make(Parts parts) {
  const std::shared_ptr<Trash> trash(new Trash(std::move(parts)));
  trash->start();
  return trash;
}

void Trash::start() {
  if (parts_.edits)
    for (const auto& edit : parts_.edits->pending())
      if (edit.fields & EDIT_TRASHED) takeEdit(edit, std::nullopt);
  parts_.tree.subscribe([weak = weak_from_this()](const std::vector<ReplicaChange>& changes) {
    if (const auto self = weak.lock()) self->hearOf(changes);
  });
}

// What goes from the tree may have gone to the trash; what is known there may have come from it, if we did not ask for
// that.
void Trash::hearOf(const std::vector<ReplicaChange>& changes) {
  bool isNews = false, isToCome = false;
  std::vector<ItemIdentifier> come;
  for (const auto& change : changes) {
    const bool isRemoved = change.kind == ReplicaChange::Kind::itemRemoved;
    isNews = isNews || (isRemoved && !change.byProgram);
    isToCome = isToCome || (isRemoved && change.byProgram);
    if (change.byProgram || change.kind != ReplicaChange::Kind::entryAdded) continue;
    if (auto item = parts_.tree.replica().identifierOf(change.inode)) come.push_back(std::move(*item));
  }
  if (!isNews && !isToCome && come.empty()) return;
  queue_->post([self = shared_from_this(), isNews, isToCome, come = std::move(come)] {
    const auto isKnown = [&](const ItemIdentifier& item) {
      const auto known = self->byItem_.find(item.text);
      return known != self->byItem_.end() && !self->entry(known->second)->isBusy;
    };
    if (isToCome) self->isToCome_ = true;
    if (isNews || std::ranges::any_of(come, isKnown)) self->isStale_ = true;
  });
}

void Trash::close() {
  queue_->post([self = shared_from_this()] {
    self->isClosed_ = true;
    for (auto& done : std::exchange(self->waiting_, {})) std::move(done)(refused(ENOTCONN));
  });
}

// Listing

void Trash::whenListed(Done completion) {
  followEdits();
  if (isFreshToLook()) return std::move(completion)({});
  relist([self = shared_from_this(), completion = std::move(completion)](const Result<void>& result) mutable {
    const bool isKnown = self->listedAt_ || !self->items_.empty();
    std::move(completion)(isKnown ? Result<void>() : result);
  });
}

void Trash::whenKnown(Completion<> completion) {
  const auto answer = std::make_shared<std::optional<Completion<>>>(std::move(completion));
  const auto give = [answer] {
    if (auto waiting = std::exchange(*answer, std::nullopt)) std::move (*waiting)();
  };
  followEdits();
  const auto now = parts_.clock.monotonic();
  if (isFreshToLook() || (triedAt_ && now - *triedAt_ <= MAX_AGE)) return give();
  queue_->after(LOOKUP_PATIENCE, [weak = weak_from_this(), answer, give] {
    if (const auto self = weak.lock(); self && *answer) self->triedAt_ = self->parts_.clock.monotonic();
    give();
  });
  relist([give](const Result<void>&) { give(); });
}

void Trash::whenListedWithin(Duration age, Done completion) {
  if (isFresh(age)) return std::move(completion)({});
  relist(std::move(completion));
}

Duration Trash::sinceListed() const {
  return parts_.clock.monotonic() - *listedAt_;
}

bool Trash::isFresh(Duration age) const {
  return listedAt_ && !isStale_ && !isListing_ && sinceListed() <= std::max(age, listingTook_ * LISTING_SHARE);
}

// Where listing takes long, also without the latest news.
bool Trash::isFreshToLook() const {
  return (isFresh(MAX_AGE) && !isToCome_) || (listedAt_ && !isListing_ && sinceListed() < listingTook_ * LISTING_SHARE);
}

// Those who come while it is being listed for news that is older wait for the next one.
void Trash::relist(Done completion) {
  if (isClosed_) return std::move(completion)(refused(ENOTCONN));
  if (isListing_ && isStale_) {
    waiting_.push_back(
        [self = shared_from_this(), completion = std::move(completion)](const Result<void>& result) mutable {
          result && self->isStale_ ? self->relist(std::move(completion)) : std::move(completion)(result);
        });
    return;
  }
  waiting_.push_back(std::move(completion));
  if (std::exchange(isListing_, true)) return;
  isStale_ = false;
  isToCome_ = isToCome_ && parts_.edits->pendingCount() > 0;
  ++listings_;
  goneWhileListing_.clear();
  listingSince_ = parts_.clock.monotonic();
  listWhole(
      parts_.extension, TRASH_CONTAINER, VIEWER, [](const Item&) { return true; },
      [self = shared_from_this()](Result<std::vector<Item>> items) {
        self->queue_->post([self, items = std::move(items)]() mutable { self->listed(std::move(items)); });
      });
}

void Trash::listed(Result<std::vector<Item>> items) {
  isListing_ = false;
  if (items) {
    listedAt_ = listingSince_;
    listingTook_ = parts_.clock.monotonic() - listingSince_;
    triedAt_.reset();
    take(*items);
  } else {
    if (!triedAt_) slog.error("the trash cannot be listed: %{public}@", items.error().localizedDescription());
    triedAt_ = parts_.clock.monotonic();
    isStale_ = true;
  }
  const auto result = items ? Result<void>() : Result<void>(failure(items.error()));
  for (auto& done : std::exchange(waiting_, {})) std::move(done)(result);
}

void Trash::take(const std::vector<Item>& items) {
  std::unordered_set<std::uint64_t> seen;
  std::vector<std::uint64_t> arrived;
  for (const auto& [edit, number] : byEdit_)
    if (entry(number)->arrival != 0 && isTold(*entry(number))) arrived.push_back(number);
  for (const auto& item : items) {
    if (goneWhileListing_.contains(item.itemIdentifier.text)) continue;
    const auto known = byItem_.find(item.itemIdentifier.text);
    TrashItem* there = known == byItem_.end() ? adopt(item, arrived) : entry(known->second);
    if (!there) there = &add(item.itemIdentifier);
    seen.insert(there->number);
    if (isTold(*there)) takeItem(*there, item);
  }
  std::vector<std::uint64_t> gone;
  for (const auto& [number, item] : items_)
    if (!seen.contains(number) && isTold(item)) gone.push_back(number);
  for (const auto number : gone) remove(number);
}

// What this machine made and trashed: the server's name of it was not heard of.
TrashItem* Trash::adopt(const Item& item, const std::vector<std::uint64_t>& arrived) {
  for (const auto number : arrived) {
    auto* known = entry(number);
    if (!isLocal(known->item) || known->serverName != item.filename || known->isFolder != item.isFolder()) continue;
    byItem_.erase(known->item.text);
    names_.rename(known->item, item.itemIdentifier);
    known->item = item.itemIdentifier;
    byItem_[known->item.text] = number;
    return known;
  }
  return nullptr;
}

void Trash::takeItem(TrashItem& known, const Item& item) {
  if (known.edit != 0) byEdit_.erase(std::exchange(known.edit, 0));
  known.arrival = 0;
  known.serverName = item.filename;
  known.isFolder = item.isFolder();
  known.size = item.documentSize.value_or(0);
  known.modified = item.contentModificationDate.value_or(known.deleted);
  known.version = item.itemVersion;
  if (item.restorePath) known.path = localPath(*item.restorePath);
  if (known.path.empty()) known.path = localName(item.filename, item.itemIdentifier.text);
  if (!known.name.empty()) return;
  known.name = names_.nameOf(known.item, item.filename, item.isFolder());
  byName_[known.name] = known.number;
}

void Trash::takeEdit(const Edit& edit, const std::optional<std::string>& path) {
  const auto found = byItem_.find(edit.item.text);
  TrashItem& known = found == byItem_.end() ? add(edit.item) : *entry(found->second);
  known.edit = edit.id;
  byEdit_[edit.id] = known.number;
  known.serverName = edit.place.name;
  known.isFolder = edit.isFolder;
  known.deleted = edit.changedAt;
  known.path = path.value_or("");
  if (edit.contents != 0) {
    known.size = edit.size;
    known.modified = edit.modified;
  }
  if (!path) {
    const auto folder = parts_.tree.replica().inodeOf(edit.place.folder);
    known.path = pathOf(folder.value_or(ROOT_INODE), localName(edit.place.name, edit.item.text));
    known.name = names_.nameOf(known.item, edit.place.name, edit.isFolder);
    byName_[known.name] = known.number;
  }
}

TrashItem& Trash::add(const ItemIdentifier& item) {
  const auto number = ++lastNumber_;
  auto& added = items_[number];
  added.number = number;
  added.item = item;
  added.deleted = modified_ = parts_.clock.now();
  byItem_[item.text] = number;
  return added;
}

void Trash::remove(std::uint64_t number) {
  const auto found = items_.find(number);
  if (found == items_.end()) return;
  const auto& item = found->second;
  if (isListing_) goneWhileListing_.insert(item.item.text);
  (item.isExpunged ? byExpunged_ : byName_).erase(item.name);
  if (!item.isExpunged) names_.forget(item.item);
  byItem_.erase(item.item.text);
  if (item.edit != 0) byEdit_.erase(item.edit);
  items_.erase(found);
  modified_ = parts_.clock.now();
}

// Those of which the server has heard are in its trash, or somewhere else by now: its listing tells.
void Trash::followEdits() {
  const auto now = parts_.clock.monotonic();
  if (now < followEditsAt_) return;
  followEditsAt_ = now + FOLLOW_REST * byEdit_.size();
  for (const auto& [edit, number] : std::map(byEdit_)) static_cast<void>(hasArrived(number));
}

bool Trash::hasArrived(std::uint64_t number) {
  auto* item = entry(number);
  if (!item || item->edit == 0 || item->arrival != 0) return true;
  const auto edit = parts_.edits->find(item->edit);
  if (edit && edit->item != item->item) {
    byItem_.erase(item->item.text);
    names_.rename(item->item, edit->item);
    item->item = edit->item;
    byItem_[item->item.text] = number;
  }
  if (edit && edit->fields & EDIT_TRASHED) return false;
  item->arrival = listings_ + 1;
  isStale_ = true;
  return true;
}

const TrashItem* Trash::find(std::uint64_t number) const {
  const auto found = items_.find(number);
  return found == items_.end() ? nullptr : &found->second;
}

const TrashItem* Trash::find(bool isExpunged, const std::string& name) const {
  const auto& names = isExpunged ? byExpunged_ : byName_;
  const auto found = names.find(name);
  return found == names.end() ? nullptr : find(found->second);
}

bool Trash::isTold(const TrashItem& item) const {
  return item.edit == 0 || (item.arrival != 0 && item.arrival <= listings_);
}

TrashItem* Trash::entry(std::uint64_t number) {
  const auto found = items_.find(number);
  return found == items_.end() ? nullptr : &found->second;
}

std::vector<std::uint64_t> Trash::list(bool isExpunged) const {
  std::vector<std::uint64_t> numbers;
  for (const auto& [number, item] : items_)
    if (item.isExpunged == isExpunged) numbers.push_back(number);
  return numbers;
}

void Trash::setBusy(std::uint64_t number, bool isBusy) {
  if (auto* item = entry(number)) item->isBusy = isBusy;
}

std::string Trash::pathOf(Inode folder, const std::string& name) const {
  const auto path = parts_.tree.replica().pathOf(folder).value_or("/");
  return path.size() > 1 ? path.substr(1) + "/" + name : name;
}

// Changing

void Trash::put(Inode folder, std::string name, std::string trashName, bool isExpunged, Done completion) {
  if (!parts_.edits) return std::move(completion)(refused(EROFS));
  if (find(isExpunged, trashName)) return std::move(completion)(refused(EEXIST));
  const auto attributes = parts_.tree.replica().lookup(folder, name);
  auto path = pathOf(folder, name);
  parts_.edits->trash(
      folder, std::move(name),
      [self = shared_from_this(), attributes, path = std::move(path), trashName = std::move(trashName), isExpunged,
       completion = std::move(completion)](Result<Edit> edit) mutable {
        self->queue_->post([self, attributes, path = std::move(path), trashName = std::move(trashName), isExpunged,
                            completion = std::move(completion), edit = std::move(edit)]() mutable {
          if (!edit) return std::move(completion)(failure(edit.error()));
          self->takeEdit(*edit, path);
          auto& item = *self->entry(self->byItem_.at(edit->item.text));
          if (attributes && edit->contents == 0) {
            item.size = attributes->size;
            item.modified = attributes->modified;
          }
          item.isExpunged = isExpunged;
          item.name = trashName;
          // Another may have come to have it meanwhile.
          if (!isExpunged && !self->names_.give(item.item, trashName))
            item.name = self->names_.nameOf(item.item, item.serverName, item.isFolder);
          (isExpunged ? self->byExpunged_ : self->byName_)[item.name] = item.number;
          std::move(completion)({});
        });
      });
}

Result<void> Trash::rename(std::uint64_t number, bool isExpunged, const std::string& name) {
  auto* item = entry(number);
  if (!item) return refused(ENOENT);
  if (const auto* other = find(isExpunged, name)) return other == item ? Result<void>() : refused(EEXIST);
  if (name.size() > TrashNames::MAX_NAME) return refused(ENAMETOOLONG);
  (item->isExpunged ? byExpunged_ : byName_).erase(item->name);
  if (isExpunged)
    names_.forget(item->item);
  else
    names_.give(item->item, name);
  item->isExpunged = isExpunged;
  item->name = name;
  (isExpunged ? byExpunged_ : byName_)[name] = number;
  modified_ = parts_.clock.now();
  return {};
}

void Trash::restore(std::uint64_t number, Inode folder, std::string name, bool mayReplace, Done completion) {
  if (!parts_.edits) return std::move(completion)(refused(EROFS));
  const auto* item = find(number);
  if (!item || item->isBusy) return std::move(completion)(refused(item ? EBUSY : ENOENT));
  std::make_shared<TrashRestore>(shared_from_this(), number, folder, std::move(name), mayReplace, std::move(completion))
      ->start();
}

void Trash::purge(std::uint64_t number, Done completion) {
  if (!parts_.edits) return std::move(completion)(refused(EROFS));
  const auto* item = find(number);
  if (!item || item->isBusy) return std::move(completion)(refused(item ? EBUSY : ENOENT));
  std::make_shared<TrashPurge>(shared_from_this(), number, std::move(completion))->start();
}

std::shared_ptr<Progress> Trash::read(std::uint64_t number, Completion<Result<Contents>> completion) {
  const auto* item = find(number);
  if (!item || item->isFolder) {
    std::move(completion)(refused(item ? EISDIR : ENOENT));
    return Progress::make();
  }
  const auto edit = item->edit == 0 ? std::nullopt : parts_.edits->find(item->edit);
  if (edit && edit->contents != 0) {
    auto file = parts_.contents->findNumber(edit->contents);
    std::move(completion)(file ? Result<Contents>(Contents{nullptr, std::move(file)}) : refused(ENOENT));
    return Progress::make();
  }
  return parts_.extension.fetchContents(
      item->item, std::nullopt, VIEWER,
      [self = shared_from_this(), completion = std::move(completion)](Result<FetchedContents> fetched) mutable {
        self->queue_->post([completion = std::move(completion), fetched = std::move(fetched)]() mutable {
          if (!fetched) return std::move(completion)(failure(fetched.error()));
          auto file = ContentFile::open(fetched->path, 0);
          ::unlink(fetched->path.c_str());
          if (!file) return std::move(completion)(failure(file.error()));
          std::move(completion)(Contents{std::move(*file), nullptr});
        });
      });
}

}  // namespace vondle
