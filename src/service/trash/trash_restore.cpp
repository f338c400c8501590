#include "service/trash/trash_restore.h"

#include <cerrno>
#include <utility>

#include "fileprovider/error_codes.h"
#include "service/edits/send_failure.h"
#include "service/replica/local_name.h"

namespace vondle {
namespace {

constexpr Request VIEWER{.isFileViewerRequest = true};

// How often is looked whether an item that is on its way has arrived.
constexpr Duration POLL_INTERVAL = seconds(0.05);

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
  if (trash_->parts_.clock.monotonic() - startedAt_ > Trash::SENDING_PATIENCE) return finish(refused(EBUSY));
  trash_->queue_->after(POLL_INTERVAL, [self = shared_from_this()] {
    self->trash_->hasArrived(self->number_) ? self->confirm() : self->takeBack(std::nullopt);
  });
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
  const auto* entry = trash_->find(number_);
  Item item;
  item.itemIdentifier = item_;
  item.filename = entry->serverName;
  item.itemVersion = entry->version;
  // Anywhere but the trash: the server knows where it was.
  item.parentItemIdentifier = ROOT_CONTAINER;
  trash_->parts_.extension.modifyItem(
      std::move(item), entry->version, FIELD_PARENT_ITEM_IDENTIFIER, std::nullopt, 0, VIEWER,
      onQueue([](TrashRestore& self, const Result<SavedItem>& saved) { self.restored(saved); }));
}

void TrashRestore::restored(const Result<SavedItem>& saved) {
  if (!saved) {
    const auto why = sendFailureOf(saved.error());
    if (why == SendFailure::clash) return finish(refused(EEXIST));
    if (why == SendFailure::noSuchItem) return checkServer(saved.error());
    return finish(failure(saved.error()));
  }
  saved_ = saved->item;
  trash_->parts_.tree.applyUpdates({*saved_}, onQueue([](TrashRestore& self) { self.place(); }));
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
