#include "service/trash/trash_restore.h"

#include <cerrno>
#include <utility>

#include "fileprovider/error_codes.h"
#include "service/edits/send_failure.h"
#include "service/replica/local_name.h"
#include "service/trash/restore_aside.h"

namespace vondle {
namespace {

constexpr Request VIEWER{.isFileViewerRequest = true};

// How often is looked whether an item that is on its way has arrived.
constexpr Duration POLL_INTERVAL = seconds(0.05);
// And whether what is in the way on the server has gone.
constexpr Duration CLASH_INTERVAL = seconds(0.5);

std::unexpected<Error> refused(int number) {
  return failure(Error::posix(number, "restoring from the trash"));
}

}  // namespace

TrashRestore::TrashRestore(std::shared_ptr<Trash> trash, std::uint64_t number, Inode folder, std::string name,
                           bool mayReplace, Trash::Done completion)
    : trash_(std::move(trash)),
      number_(number),
      folder_(folder),
      name_(std::move(name)),
      mayReplace_(mayReplace),
      startedAt_(trash_->parts_.clock.monotonic()),
      completion_(std::move(completion)) {}

template <class Function>
auto TrashRestore::onQueue(Function function) {
  return [self = shared_from_this(), function = std::move(function)](auto... answer) mutable {
    self->trash_->perform([self, function = std::move(function), ... answer = std::move(answer)]() mutable {
      function(*self, std::move(answer)...);
    });
  };
}

void TrashRestore::start() {
  trash_->setBusy(number_, true);
  if (trash_->hasArrived(number_)) return confirm();
  takeBack(std::nullopt);
}

void TrashRestore::takeBack(std::optional<Item> item) {
  const auto* entry = trash_->find(number_);
  item_ = entry->item;
  trash_->parts_.edits->untrash(entry->edit, std::move(item),
                                onQueue([](TrashRestore& self, const Result<Inode>& inode) { self.takenBack(inode); }));
}

void TrashRestore::takenBack(const Result<Inode>& inode) {
  if (inode) return place();
  if (inode.error().is(POSIX_ERROR_DOMAIN, ENODATA)) return lookUp();
  if (inode.error().is(POSIX_ERROR_DOMAIN, EBUSY)) return waitUntilSent();
  if (inode.error().is(POSIX_ERROR_DOMAIN, ENOENT) && trash_->hasArrived(number_)) return confirm();
  finish(failure(inode.error()));
}

// What the tree knew of it before the start is not here any more.
void TrashRestore::lookUp() {
  trash_->parts_.extension.itemForIdentifier(item_, VIEWER, onQueue([](TrashRestore& self, Result<Item> item) {
                                               item ? self.takeBack(std::move(*item)) : self.checkServer(item.error());
                                             }));
}

void TrashRestore::waitUntilSent() {
  if (!hasPatience()) return finish(refused(EBUSY));
  trash_->queue_->after(POLL_INTERVAL, [self = shared_from_this()] {
    self->trash_->hasArrived(self->number_) ? self->confirm() : self->takeBack(std::nullopt);
  });
}

bool TrashRestore::hasPatience() const {
  return trash_->parts_.clock.monotonic() - startedAt_ <= Trash::SENDING_PATIENCE;
}

void TrashRestore::confirm() {
  trash_->whenListedWithin(Trash::MAX_AGE_FOR_CHANGES, [self = shared_from_this()](const Result<void>& listed) {
    if (!listed) return self->finish(listed);
    const auto* entry = self->trash_->find(self->number_);
    // The listing has it no more, or has it anew.
    if (!entry || entry->edit != 0) return self->finish(refused(ENOENT));
    self->item_ = entry->item;
    self->ask();
  });
}

void TrashRestore::ask() {
  auto item = inTrash();
  const auto version = item.itemVersion;
  // Anywhere but the trash: the server knows where it was.
  item.parentItemIdentifier = ROOT_CONTAINER;
  trash_->parts_.extension.modifyItem(
      std::move(item), version, FIELD_PARENT_ITEM_IDENTIFIER, std::nullopt, 0, VIEWER,
      onQueue([](TrashRestore& self, const Result<SavedItem>& saved) { self.restored(saved); }));
}

Item TrashRestore::inTrash() const {
  const auto* entry = trash_->find(number_);
  Item item;
  item.itemIdentifier = item_;
  item.parentItemIdentifier = TRASH_CONTAINER;
  item.filename = entry->serverName;
  item.itemVersion = entry->version;
  return item;
}

void TrashRestore::restored(const Result<SavedItem>& saved) {
  if (!saved) {
    const auto why = sendFailureOf(saved.error());
    if (why == SendFailure::clash) return makeWay();
    if (why == SendFailure::noSuchItem) return checkServer(saved.error());
    return finish(failure(saved.error()));
  }
  saved_ = saved->item;
  trash_->parts_.tree.applyUpdates({*saved_}, onQueue([](TrashRestore& self) { self.place(); }));
}

// On the server something has the place where it was.
void TrashRestore::makeWay() {
  if (trash_->find(number_)->path != trash_->pathOf(folder_, name_)) return restoreAside();
  isWayToBeFree() ? askAgain(EEXIST) : finish(refused(EEXIST));
}

// When the server has heard of what programs did, unless that takes too long.
void TrashRestore::askAgain(int otherwise) {
  if (!hasPatience()) return finish(refused(otherwise));
  if (trash_->parts_.sendNow) trash_->parts_.sendNow();
  trash_->queue_->after(CLASH_INTERVAL, [self = shared_from_this()] { self->confirm(); });
}

// Programs have taken away what stands there.
bool TrashRestore::isWayToBeFree() const {
  const auto& replica = trash_->parts_.tree.replica();
  const auto folder = replica.identifierOf(folder_);
  return folder && !replica.lookup(folder_, name_) &&
         !replica.editsOnServerAt({*folder, trash_->find(number_)->serverName}).empty();
}

void TrashRestore::restoreAside() {
  const auto& replica = trash_->parts_.tree.replica();
  const auto folder = replica.identifierOf(folder_);
  auto name = serverName(name_);
  if (!folder || !name || replica.lookup(folder_, name_)) return finish(refused(EEXIST));
  if (isLocal(*folder)) return askAgain(EBUSY);
  const auto& path = trash_->find(number_)->path;
  const auto slash = path.rfind('/');
  std::make_shared<RestoreAside>(
      trash_->parts_.extension, trash_->queue_,
      RestoreAside::Wish{.item = inTrash(),
                         .formerFolder = slash == std::string::npos ? "" : path.substr(0, slash),
                         .folder = *folder,
                         .name = std::move(*name)},
      [self = shared_from_this()](Result<std::vector<Item>> changed) {
        if (!changed) {
          self->trash_->isStale_ = true;
          const bool isTaken = sendFailureOf(changed.error()) == SendFailure::clash;
          return self->finish(isTaken ? refused(EEXIST) : failure(changed.error()));
        }
        self->trash_->remove(self->number_);
        self->trash_->parts_.tree.applyUpdates(std::move(*changed),
                                               self->onQueue([](TrashRestore& shown) { shown.finish({}); }));
      })
      ->start();
}

// It is out of the trash. In the folder it may not be shown, because nobody has looked where it is.
void TrashRestore::place() {
  trash_->remove(number_);
  const auto& replica = trash_->parts_.tree.replica();
  const auto inode = replica.inodeOf(item_);
  const auto attributes = inode ? replica.attributes(*inode) : std::nullopt;
  if (!attributes) return moveOnServer();
  const auto path = replica.pathOf(*inode).value_or("");
  const auto name = path.substr(path.rfind('/') + 1);
  if (attributes->parent == folder_ && name == name_) return finish({});
  moveHere(attributes->parent, name);
}

void TrashRestore::moveHere(Inode from, const std::string& name) {
  trash_->parts_.edits->rename(from, name, folder_, name_, mayReplace_,
                               onQueue([](TrashRestore& self, const Result<void>& result) { self.finish(result); }));
}

void TrashRestore::moveOnServer() {
  const auto folder = trash_->parts_.tree.replica().identifierOf(folder_);
  auto name = serverName(name_);
  if (!folder || !name || isLocal(*folder) || !saved_) return finish(refused(EBUSY));
  if (saved_->parentItemIdentifier == *folder && saved_->filename == *name) return finish({});
  Item item = *saved_;
  item.parentItemIdentifier = *folder;
  item.filename = std::move(*name);
  trash_->parts_.extension.modifyItem(std::move(item), saved_->itemVersion,
                                      FIELD_PARENT_ITEM_IDENTIFIER | FIELD_FILENAME, std::nullopt, 0, VIEWER,
                                      onQueue([](TrashRestore& self, const Result<SavedItem>& moved) {
                                        if (!moved && sendFailureOf(moved.error()) == SendFailure::clash)
                                          return self.finish(refused(EEXIST));
                                        if (!moved) return self.finish(failure(moved.error()));
                                        self.trash_->parts_.tree.applyUpdates(
                                            {moved->item}, self.onQueue([](TrashRestore& shown) { shown.finish({}); }));
                                      }));
}

// The extension says of whatever it could not look up that there is no such item, also when the server is out of reach.
void TrashRestore::checkServer(const Error& error) {
  trash_->isStale_ = true;
  trash_->relist([self = shared_from_this(), error](const Result<void>& listed) {
    self->finish(listed ? failure(error) : listed);
  });
}

void TrashRestore::finish(Result<void> result) {
  trash_->setBusy(number_, false);
  std::move(completion_)(std::move(result));
}

}  // namespace vondle
