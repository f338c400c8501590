#include "service/edits/local_edits.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/log.h"
#include "service/edits/conflicted_name.h"
#include "service/replica/local_name.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "edits");

// How long what was recorded may be lost to a power failure when nobody asks for more.
constexpr Duration SYNC_DELAY = seconds(5);

constexpr std::string_view CHANGING = "changing the folder";

std::unexpected<Error> refused(int number) {
  return failure(Error::posix(number, CHANGING));
}

// As the writing program is to hear it.
Error forPrograms(const Error& error) {
  const bool isFull = error.isIn(sqlite::ERROR_DOMAIN) && (error.code & 0xff) == SQLITE_FULL;
  return Error::posix(isFull ? ENOSPC : EIO, "recording what was changed").withUnderlying(error);
}

bool isCreated(const Edit& edit) {
  return (edit.fields & EDIT_CREATED) != 0;
}

bool isDeleted(const Edit& edit) {
  return (edit.fields & EDIT_DELETED) != 0;
}

bool allows(const ItemAttributes& item, ItemCapabilities capability) {
  return (item.capabilities & capability) != 0;
}

// The server name that a program means by a new local name.
Result<std::string> chosenServerName(const std::string& name) {
  if (name.size() > MAX_LOCAL_NAME) return refused(ENAMETOOLONG);
  auto chosen = serverName(name);
  if (!chosen) return refused(EINVAL);
  return std::move(*chosen);
}

void forgetFailures(Edit& edit) {
  edit.attempts = 0;
  edit.nextTry.reset();
  edit.lastError.clear();
}

}  // namespace

LocalEdits::LocalEdits(EditStore store, Tree& tree, const Clock& clock, RandomSource& random)
    : tree_(tree), replica_(tree.replica()), clock_(clock), random_(random), store_(std::move(store)) {}

Result<std::shared_ptr<LocalEdits>> LocalEdits::open(const std::string& databasePath, Tree& tree, const Clock& clock,
                                                     RandomSource& random) {
  auto store = EditStore::open(databasePath);
  if (!store) return failure(store.error());
  std::shared_ptr<LocalEdits> edits(new LocalEdits(std::move(*store), tree, clock, random));
  if (const auto restored = edits->restore(); !restored) return failure(restored.error());
  return edits;
}

Result<void> LocalEdits::restore() {
  auto edits = store_.edits();
  if (!edits) return failure(edits.error());
  auto attributes = store_.attributes();
  if (!attributes) return failure(attributes.error());
  // What was about to be sent when it was deleted, but was not.
  EditBatch lost;
  std::erase_if(*edits, [&](const Edit& edit) {
    const bool isLost = isDeleted(edit) && isLocal(edit.item) && !edit.attempt;
    if (isLost) lost.removals.push_back(edit.id);
    return isLost;
  });
  if (auto written = store_.write(lost); !written) return written;
  const auto weak = weak_from_this();
  replica_.keepEdits(
      [weak](const EditBatch& batch) {
        if (const auto self = weak.lock()) self->keep(batch);
      },
      [weak] {
        const auto self = weak.lock();
        return self ? self->newEdit() : Edit();
      });
  replica_.restoreEdits({std::move(*edits), {}, std::move(*attributes), {}});
  return {};
}

template <class Answer, class Work>
void LocalEdits::perform(Completion<Answer> completion, Work work) {
  tree_.perform([self = shared_from_this(), work = std::move(work), completion = std::move(completion)]() mutable {
    std::move(completion)(work(*self));
  });
}

Result<void> LocalEdits::write(const EditBatch& batch) {
  // In their order, or an older state would win.
  while (!unwritten_.empty()) {
    if (auto written = store_.write(unwritten_.front()); !written) return failure(forPrograms(written.error()));
    unwritten_.erase(unwritten_.begin());
  }
  if (auto written = store_.write(batch); !written) return failure(forPrograms(written.error()));
  if (!batch.isEmpty()) syncSoon();
  return {};
}

// What follows from news counts whether or not it can be written now.
void LocalEdits::keep(const EditBatch& batch) {
  if (const auto written = write(batch); !written) {
    slog.error("what the server's news make of local changes is not recorded yet: %{public}@",
               written.error().localizedDescription());
    unwritten_.push_back(batch);
    syncSoon();
  }
  if (isOwnChange_) return;
  // The server tells news once, and the tree is about to be kept for good: it must not be ahead of the edits.
  if (isSyncDue_)
    if (const auto synced = store_.makeDurable(); !synced)
      slog.error("local changes may not survive power loss: %{public}@", synced.error().localizedDescription());
  if (!batch.isEmpty()) tellChanged();
}

Result<void> LocalEdits::commit(const Plan& plan, bool isByProgram) {
  if (auto written = write(plan.edits); !written) return written;
  apply([&](TreeEdit& tree) {
    tree.setByProgram(isByProgram);
    for (const Inode inode : plan.gone) tree.hide(inode);
    tree.takeWritten(plan.edits);
    for (const auto& [inode, item] : plan.heirs) tree.identify(inode, item);
    for (const EditID id : plan.shown) tree.show(id, true);
    for (const auto& [inode, place, localName] : plan.moves) tree.move(inode, place, localName);
    for (const Inode inode : plan.refreshed) tree.refresh(inode);
  });
  return {};
}

void LocalEdits::apply(const std::function<void(TreeEdit&)>& make, Replica::FirstWritten first) {
  isOwnChange_ = true;
  const auto changes = replica_.change(make, first);
  isOwnChange_ = false;
  tree_.tell(changes);
  tellChanged();
}

void LocalEdits::tellChanged() const {
  if (changed_) changed_();
}

void LocalEdits::syncSoon() {
  if (std::exchange(isSyncDue_, true)) return;
  tree_.performAfter(SYNC_DELAY, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || !std::exchange(self->isSyncDue_, false)) return;
    if (const auto synced = self->sync(); !synced) self->syncSoon();
  });
}

Result<void> LocalEdits::sync() {
  if (auto written = write({}); !written) return written;
  if (auto synced = store_.makeDurable(); !synced) return failure(forPrograms(synced.error()));
  return {};
}

// --- What programs do ---

void LocalEdits::createFile(Inode folder, std::string name, std::int64_t contents, unsigned permissions,
                            Made completion) {
  perform(std::move(completion), [folder, name = std::move(name), contents, permissions](LocalEdits& self) {
    Edit edit = self.newEdit();
    edit.contents = contents;
    return self.make(folder, name, std::move(edit), permissions);
  });
}

void LocalEdits::createFolder(Inode folder, std::string name, unsigned permissions, Made completion) {
  perform(std::move(completion), [folder, name = std::move(name), permissions](LocalEdits& self) {
    Edit edit = self.newEdit();
    edit.isFolder = true;
    return self.make(folder, name, std::move(edit), permissions);
  });
}

Result<ItemAttributes> LocalEdits::make(Inode folder, const std::string& name, Edit edit, unsigned permissions) {
  const auto parent = replica_.attributes(folder);
  if (!parent) return refused(ENOENT);
  if (!parent->isFolder) return refused(ENOTDIR);
  const auto chosen = chosenServerName(name);
  if (!chosen) return failure(chosen.error());
  if (replica_.lookup(folder, name)) return refused(EEXIST);
  if (!allows(*parent, ALLOWS_WRITING)) return refused(EACCES);
  edit.place = {*replica_.identifierOf(folder), *chosen};
  Plan plan;
  if (auto former = edit.isFolder ? std::nullopt : heritageAt(edit.place)) {
    // Deleted and made again: for the server it is the same file with new contents.
    former->fields = EDIT_CONTENTS;
    former->contents = edit.contents;
    former->size = 0;
    former->modified = edit.modified;
    setPlace(*former, edit.place);
    edit = std::move(*former);
    noteContentsChange(edit);
  }
  if (permissions != defaultPermissions(edit.isFolder))
    plan.edits.attributes.push_back({edit.item, permissions, std::nullopt, std::uint64_t{0}});
  plan.shown.push_back(edit.id);
  plan.edits.edits.push_back(edit);
  if (auto done = commit(plan); !done) return failure(done.error());
  const auto made = replica_.inodeOf(edit.item);
  return *replica_.attributes(made.value_or(0));
}

void LocalEdits::rename(Inode fromFolder, std::string fromName, Inode toFolder, std::string toName, bool mayReplace,
                        Done completion) {
  perform(std::move(completion),
          [fromFolder, fromName = std::move(fromName), toFolder, toName = std::move(toName),
           mayReplace](LocalEdits& self) -> Result<void> {
            const auto from = self.replica_.attributes(fromFolder), to = self.replica_.attributes(toFolder);
            if (!from || !to) return refused(ENOENT);
            if (!from->isFolder || !to->isFolder) return refused(ENOTDIR);
            const auto item = self.replica_.lookup(fromFolder, fromName);
            if (!item) return refused(ENOENT);
            return self.moveTo(*item, fromName, *to, toName, mayReplace);
          });
}

Result<void> LocalEdits::moveTo(const ItemAttributes& item, const std::string& fromName, const ItemAttributes& toFolder,
                                const std::string& toName, bool mayReplace) {
  const auto replaced = replica_.lookup(toFolder.inode, toName);
  if (replaced && !mayReplace) return refused(EEXIST);
  if (replaced && replaced->inode == item.inode) return {};
  if (replica_.isAtOrAbove(item.inode, toFolder.inode)) return refused(EINVAL);
  if (replaced && replaced->isFolder != item.isFolder) return refused(item.isFolder ? ENOTDIR : EISDIR);
  if (replaced && replaced->isFolder && !replica_.isEmptyFolder(replaced->inode)) return refused(ENOTEMPTY);
  const bool isRenamed = fromName != toName, isMoved = item.parent != toFolder.inode;
  if (isRenamed && !allows(item, ALLOWS_RENAMING)) return refused(EACCES);
  if (isMoved && !(allows(item, ALLOWS_REPARENTING) && allows(toFolder, ALLOWS_WRITING))) return refused(EACCES);

  Place place{*replica_.identifierOf(toFolder.inode), {}};
  if (replaced) {
    place.name = replica_.placeOf(replaced->inode)->name;
  } else if (!isRenamed) {
    place.name = replica_.placeOf(item.inode)->name;
  } else {
    auto chosen = chosenServerName(toName);
    if (!chosen) return failure(chosen.error());
    place.name = std::move(*chosen);
  }

  Plan plan;
  bool isUndone = false;
  Edit edit = editFor(item);
  auto former = replaced ? std::optional(editFor(*replaced)) : mayTakeOver(edit) ? heritageAt(place) : std::nullopt;
  if (former && !isCreated(*former) && mayTakeOver(edit)) {
    if (replaced && !allows(*replaced, ALLOWS_WRITING)) return refused(EACCES);
    if (replaced) plan.gone.push_back(replaced->inode);
    planHeritage(plan, std::move(*former), item.inode, place);
  } else {
    if (replaced && !allows(*replaced, ALLOWS_DELETING)) return refused(EACCES);
    if (replaced) planDeletion(plan, *replaced);
    setPlace(edit, place);
    noteChange(edit);
    isUndone = edit.fields == 0;
    // As long as the tree does not say so, the edit does.
    if (isUndone) edit.fields = EDIT_PLACED;
    plan.edits.edits.push_back(edit);
  }
  plan.moves.push_back({item.inode, place, toName});
  if (auto done = commit(plan); !done || !isUndone) return done;
  apply([&](TreeEdit& tree) { tree.dropEdit(edit.id); }, Replica::FirstWritten::tree);
  return {};
}

void LocalEdits::removeFile(Inode folder, std::string name, Done completion) {
  perform(std::move(completion),
          [folder, name = std::move(name)](LocalEdits& self) { return self.remove(folder, name, false); });
}

void LocalEdits::removeFolder(Inode folder, std::string name, Done completion) {
  perform(std::move(completion),
          [folder, name = std::move(name)](LocalEdits& self) { return self.remove(folder, name, true); });
}

Result<void> LocalEdits::remove(Inode folder, const std::string& name, bool isFolder) {
  const auto item = replica_.lookup(folder, name);
  if (!item) return refused(ENOENT);
  if (item->isFolder != isFolder) return refused(isFolder ? ENOTDIR : EISDIR);
  if (isFolder && !replica_.isEmptyFolder(item->inode)) return refused(ENOTEMPTY);
  if (!allows(*item, ALLOWS_DELETING)) return refused(EACCES);
  Plan plan;
  planDeletion(plan, *item);
  return commit(plan);
}

void LocalEdits::trash(Inode folder, std::string name, Completion<Result<Edit>> completion) {
  perform(std::move(completion),
          [folder, name = std::move(name)](LocalEdits& self) { return self.moveToTrash(folder, name); });
}

Result<Edit> LocalEdits::moveToTrash(Inode folder, const std::string& name) {
  const auto item = replica_.lookup(folder, name);
  if (!item) return refused(ENOENT);
  if (!allows(*item, ALLOWS_TRASHING)) return refused(EACCES);
  Edit edit = editFor(*item);
  edit.fields |= EDIT_TRASHED;
  noteChange(edit);
  auto kept = isCreated(edit) ? Result<Item>(Item()) : replica_.storedItem(item->inode);
  Plan plan;
  plan.gone.push_back(item->inode);
  plan.edits.edits.push_back(edit);
  if (auto done = commit(plan); !done) return failure(done.error());
  if (kept && !isCreated(edit)) trashed_.insert_or_assign(edit.id, std::move(*kept));
  return edit;
}

void LocalEdits::untrash(EditID id, std::optional<Item> item, Completion<Result<Inode>> completion) {
  perform(std::move(completion),
          [id, item = std::move(item)](LocalEdits& self) mutable { return self.takeFromTrash(id, std::move(item)); });
}

Result<Inode> LocalEdits::takeFromTrash(EditID id, std::optional<Item> item) {
  auto edit = find(id);
  if (!edit || !(edit->fields & EDIT_TRASHED)) return refused(ENOENT);
  if (replica_.isSending(id)) return refused(EBUSY);
  if (const auto known = trashed_.find(id); known != trashed_.end()) item = known->second;
  if (!isCreated(*edit) && !item) return refused(ENODATA);
  edit->fields &= ~EDIT_TRASHED;
  noteChange(*edit);
  if (item && edit->serverPlace) {
    item->parentItemIdentifier = edit->serverPlace->folder;
    item->filename = edit->serverPlace->name;
  }
  apply(
      [&](TreeEdit& tree) {
        edit->fields == 0 ? tree.dropEdit(id) : tree.putEdit(*edit);
        isCreated(*edit) ? static_cast<void>(tree.show(id, true)) : tree.takeUpdate(*item);
      },
      Replica::FirstWritten::tree);
  trashed_.erase(id);
  return replica_.inodeOf(edit->item).value_or(0);
}

void LocalEdits::purgeTrashed(EditID id, Done completion) {
  perform(std::move(completion), [id](LocalEdits& self) { return self.dropFromTrash(id); });
}

// With everything new in it. What the server has elsewhere and was moved there goes to the trash of itself.
Result<void> LocalEdits::dropFromTrash(EditID id) {
  const auto top = find(id);
  if (!top || !(top->fields & EDIT_TRASHED)) return refused(ENOENT);
  EditBatch batch;
  for (std::vector<Edit> left{*top}; !left.empty();) {
    Edit edit = std::move(left.back());
    left.pop_back();
    if (edit.id != id && !isCreated(edit)) {
      edit.fields = (edit.fields & EDIT_CONTENTS) | EDIT_TRASHED;
      edit.place = edit.serverPlace.value_or(edit.place);
      noteChange(edit);
      batch.edits.push_back(std::move(edit));
      continue;
    }
    if (!isCreated(edit) || mayBeOnServer(edit)) return refused(EBUSY);
    batch.removals.push_back(edit.id);
    if (edit.isFolder) std::ranges::move(replica_.editsPlacedIn(edit.item), std::back_inserter(left));
  }
  if (auto written = write(batch); !written) return written;
  apply([&](TreeEdit& tree) { tree.takeWritten(batch); });
  return {};
}

// The item goes. A new file that stands where the server has the item takes its identity over: for the server it is the
// same item with new contents.
void LocalEdits::planDeletion(Plan& plan, const ItemAttributes& item) {
  Edit edit = editFor(item);
  plan.gone.push_back(item.inode);
  if (isCreated(edit) && !mayBeOnServer(edit)) {
    plan.edits.removals.push_back(edit.id);
    if (edit.isFolder) planMovesUp(plan, edit);
    return;
  }
  if (!isCreated(edit) && !item.isFolder && edit.serverPlace)
    if (const auto heir = heirAt(*edit.serverPlace, item.inode))
      return planHeritage(plan, std::move(edit), *heir, *replica_.placeOf(*heir));
  edit.place = *replica_.placeOf(item.inode);
  edit.fields = EDIT_DELETED;
  edit.contents = 0;
  noteChange(edit);
  plan.edits.edits.push_back(std::move(edit));
}

// What was trashed from a new folder before that goes itself would have been made in it.
void LocalEdits::planMovesUp(Plan& plan, const Edit& folder) const {
  for (Edit& edit : replica_.editsPlacedIn(folder.item)) {
    edit.place.folder = folder.place.folder;
    plan.edits.edits.push_back(std::move(edit));
  }
}

// `former` is of the item that goes or has gone; the heir is a new file, whose contents it gets, at the place.
void LocalEdits::planHeritage(Plan& plan, Edit former, Inode heir, const Place& place) {
  const auto own = replica_.editOf(*replica_.identifierOf(heir));
  plan.edits.removals.push_back(own->id);
  former.fields = EDIT_CONTENTS;
  former.contents = own->contents;
  former.size = own->size;
  former.modified = own->modified;
  former.generation = std::max(former.generation, own->generation);
  setPlace(former, place);
  noteContentsChange(former);
  plan.heirs.push_back({heir, former.item});
  plan.refreshed.push_back(heir);
  plan.edits.edits.push_back(std::move(former));
}

// What is new here, or some of it.
bool LocalEdits::mayBeOnServer(const Edit& edit) const {
  return edit.attempt || replica_.isSending(edit.id);
}

// A new file that no answer is awaited for.
bool LocalEdits::mayTakeOver(const Edit& edit) const {
  return isCreated(edit) && !edit.isFolder && !mayBeOnServer(edit);
}

// What the server still has at the place, but is about to be deleted there.
std::optional<Edit> LocalEdits::heritageAt(const Place& place) const {
  for (auto& edit : replica_.editsOnServerAt(place))
    if (isDeleted(edit) && !edit.isFolder && !replica_.isSending(edit.id)) return std::move(edit);
  return std::nullopt;
}

std::optional<Inode> LocalEdits::heirAt(const Place& place, Inode except) const {
  const auto folder = replica_.inodeOf(place.folder);
  const auto item = folder ? replica_.lookup(*folder, localName(place.name, {})) : std::nullopt;
  if (!item || item->inode == except || replica_.placeOf(item->inode) != place) return std::nullopt;
  const auto edit = replica_.editOf(*replica_.identifierOf(item->inode));
  return edit && mayTakeOver(*edit) ? std::optional(item->inode) : std::nullopt;
}

void LocalEdits::editContents(Inode inode, std::int64_t contents, std::optional<std::uint64_t> madeFrom,
                              Done completion, std::function<bool()> isWanted) {
  perform(std::move(completion),
          [inode, contents, madeFrom, isWanted = std::move(isWanted)](LocalEdits& self) -> Result<void> {
            if (isWanted && !isWanted()) return refused(ECANCELED);
            return self.changeContents(inode, contents, madeFrom);
          });
}

Result<void> LocalEdits::changeContents(Inode inode, std::int64_t contents, std::optional<std::uint64_t> madeFrom) {
  const auto item = replica_.attributes(inode);
  if (!item) return refused(ENOENT);
  if (item->isFolder) return refused(EISDIR);
  if (!allows(*item, ALLOWS_WRITING)) return refused(EACCES);
  if (madeFrom && *madeFrom != item->contentTag) return refused(ESTALE);
  Edit edit = editFor(*item);
  if (!isCreated(edit)) edit.fields |= EDIT_CONTENTS;
  edit.contents = contents;
  edit.size = madeFrom ? item->size : 0;
  edit.modified = madeFrom ? item->modified : clock_.now();
  noteContentsChange(edit);
  Plan plan;
  plan.edits.edits.push_back(std::move(edit));
  plan.refreshed.push_back(inode);
  return commit(plan);
}

void LocalEdits::touchContents(Inode inode, std::int64_t size, Timestamp modified) {
  tree_.perform([self = shared_from_this(), inode, size, modified] {
    auto edit = self->ofItem(inode);
    if (!edit || edit->contents == 0) return;
    edit->size = size;
    edit->modified = modified;
    self->noteContentsChange(*edit);
    self->noteContents(*edit);
  });
}

void LocalEdits::describeContents(EditID id, std::int64_t size, Timestamp modified) {
  tree_.perform([self = shared_from_this(), id, size, modified] {
    auto edit = self->find(id);
    if (!edit || edit->contents == 0) return;
    edit->size = size;
    edit->modified = modified;
    self->noteContents(*edit);
  });
}

// In memory: the private file itself tells after a start.
void LocalEdits::noteContents(const Edit& edit) {
  apply([&](TreeEdit& tree) {
    tree.setByProgram(true);
    tree.takeWritten({.edits = {edit}, .removals = {}, .attributes = {}, .attributeRemovals = {}});
    tree.refresh(tree.inodeOf(edit.item));
  });
}

void LocalEdits::setModified(Inode inode, Timestamp modified, Made completion) {
  perform(std::move(completion), [inode, modified](LocalEdits& self) {
    return self.setAttributes(inode, [&](LocalAttributes& attributes) {
      attributes.modified = modified;
      attributes.contentTag = self.replica_.attributes(inode)->contentTag;
    });
  });
}

void LocalEdits::setPermissions(Inode inode, unsigned permissions, Made completion) {
  perform(std::move(completion), [inode, permissions](LocalEdits& self) {
    return self.setAttributes(inode, [&](LocalAttributes& attributes) { attributes.permissions = permissions; });
  });
}

Result<ItemAttributes> LocalEdits::setAttributes(Inode inode, const std::function<void(LocalAttributes&)>& set) {
  const auto identifier = replica_.identifierOf(inode);
  if (!identifier) return refused(ENOENT);
  auto attributes = replica_.localAttributesOf(*identifier).value_or(LocalAttributes{.item = *identifier});
  set(attributes);
  Plan plan;
  plan.edits.attributes.push_back(std::move(attributes));
  plan.refreshed.push_back(inode);
  if (auto done = commit(plan); !done) return failure(done.error());
  return *replica_.attributes(inode);
}

void LocalEdits::makeDurable(Done completion) {
  tree_.perform([self = shared_from_this(), completion = std::move(completion)]() mutable {
    // Those who ask while others wait share one sync.
    self->waitingForSync_.push_back(std::move(completion));
    if (self->waitingForSync_.size() > 1) return;
    self->tree_.perform([self] {
      const auto synced = self->sync();
      if (synced) self->isSyncDue_ = false;
      for (auto& waiting : std::exchange(self->waitingForSync_, {})) std::move(waiting)(synced);
    });
  });
}

// --- What waits ---

std::vector<Edit> LocalEdits::pending() const {
  return replica_.edits();
}

std::size_t LocalEdits::pendingCount() const {
  return replica_.editCount();
}

std::optional<Edit> LocalEdits::find(EditID id) const {
  return replica_.edit(id);
}

std::optional<Edit> LocalEdits::ofItem(Inode inode) const {
  if (replica_.editCount() == 0) return std::nullopt;
  const auto identifier = replica_.identifierOf(inode);
  return identifier ? replica_.editOf(*identifier) : std::nullopt;
}

Inode LocalEdits::inodeOf(EditID id) const {
  const auto edit = replica_.edit(id);
  return edit ? replica_.inodeOf(edit->item).value_or(0) : 0;
}

void LocalEdits::onChange(std::function<void()> changed) {
  tree_.perform(
      [self = shared_from_this(), changed = std::move(changed)]() mutable { self->changed_ = std::move(changed); });
}

// --- Sending ---

void LocalEdits::beginSending(EditID id, Completion<std::optional<Edit>> completion) {
  perform(std::move(completion), [id](LocalEdits& self) {
    auto edit = self.find(id);
    if (edit) self.replica_.setSending(id, true);
    return edit;
  });
}

void LocalEdits::abandonSending(EditID id) {
  tree_.perform([self = shared_from_this(), id] {
    self->replica_.setSending(id, false);
    self->dropIfLost(id);
  });
}

void LocalEdits::noteAttempt(EditID id, Attempt attempt, Done completion) {
  perform(std::move(completion), [id, attempt = std::move(attempt)](LocalEdits& self) -> Result<void> {
    auto edit = self.find(id);
    if (!edit || isDeleted(*edit)) return refused(ECANCELED);
    if (edit->attempt && edit->attempt->place != attempt.place) self.dropAttempt(id);
    edit->attempt = attempt;
    Plan plan;
    plan.edits.edits.push_back(std::move(*edit));
    return self.commit(plan, false);
  });
}

void LocalEdits::forgetAttempt(EditID id, Done completion) {
  perform(std::move(completion), [id](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(id, false);
    self.dropAttempt(id);
    self.dropIfLost(id);
    return {};
  });
}

// What stands in its place on the server is another's, and shown from now on.
void LocalEdits::dropAttempt(EditID id) {
  auto edit = find(id);
  if (!edit || !edit->attempt) return;
  const auto folder = std::exchange(edit->attempt, std::nullopt)->place.folder;
  apply(
      [&](TreeEdit& tree) {
        tree.putEdit(*edit);
        if (isLocal(edit->item)) tree.relist(folder);
      },
      Replica::FirstWritten::tree);
}

void LocalEdits::listAgain(ItemIdentifier folder) {
  tree_.perform([self = shared_from_this(), folder = std::move(folder)] {
    self->apply([&](TreeEdit& tree) { tree.relist(folder); });
  });
}

void LocalEdits::succeeded(const Edit& sent, std::uint32_t fields, SavedItem saved, Completion<Outcome> completion) {
  perform(std::move(completion), [sent, fields, saved = std::move(saved)](LocalEdits& self) {
    self.replica_.setSending(sent.id, false);
    self.replica_.noteNews({saved.item}, {});
    return self.settle(sent, fields, saved);
  });
}

LocalEdits::Outcome LocalEdits::settle(const Edit& sent, std::uint32_t fields, const SavedItem& saved) {
  const Item& item = saved.item;
  const auto found = replica_.edit(sent.id);
  if (found && isDeleted(*found)) return settleDeleted(*found, saved);
  std::int64_t contents = 0;
  apply(
      [&](TreeEdit& tree) {
        if (found) contents = settleEdit(tree, *found, sent, fields, saved);
        tree.takeUpdate(item);
      },
      Replica::FirstWritten::tree);
  const auto inode = replica_.inodeOf(item.itemIdentifier).value_or(0);
  const auto attributes = replica_.attributes(inode);
  return {.inode = inode,
          .isContentsDone = contents != sent.contents,
          .contentTag = attributes ? attributes->contentTag : 0};
}

// The edit without what the server has now. Answers the number of the contents that are still to be sent.
std::int64_t LocalEdits::settleEdit(TreeEdit& tree, Edit edit, const Edit& sent, std::uint32_t fields,
                                    const SavedItem& saved) {
  const Item& item = saved.item;
  const Place serverPlace{item.parentItemIdentifier, item.filename};
  const bool wasNew = isCreated(edit);
  if (edit.item != item.itemIdentifier) takeIdentifier(tree, edit, item.itemIdentifier);

  const bool isPlaceSent = (fields & (EDIT_CREATED | EDIT_PLACED)) != 0;
  const bool isPlaceDone = isPlaceSent && edit.place == sent.place &&
                           !(saved.stillPendingFields & (FIELD_FILENAME | FIELD_PARENT_ITEM_IDENTIFIER));
  const bool isPlaced = !isPlaceDone && (isPlaceSent || (edit.fields & EDIT_PLACED) != 0) && edit.place != serverPlace;
  const bool hasContents = !edit.isFolder && (edit.fields & (EDIT_CREATED | EDIT_CONTENTS)) != 0;
  const bool areContentsSent =
      (fields & (EDIT_CREATED | EDIT_CONTENTS)) != 0 && !(saved.stillPendingFields & FIELD_CONTENTS);
  const bool areContentsDone =
      areContentsSent && edit.contents == sent.contents && edit.contentsGeneration <= sent.generation;
  const bool areContentsLeft = hasContents && !areContentsDone;

  if (const Inode inode = tree.inodeOf(item.itemIdentifier); inode != 0 && !areContentsLeft) {
    if (hasContents && saved.hasGivenContents) {
      tree.knowContents(inode);
      keepModified(tree, inode, saved);
    }
    const auto* kept = tree.state().edits.attributesOf(item.itemIdentifier.text);
    if (wasNew && edit.isFolder && kept && kept->modified) keepModified(tree, inode, saved);
  }
  edit.attempt.reset();
  if (edit.isFolder && tree.state().edits.hasHidden(edit.id)) tree.relist(item.itemIdentifier);
  edit.serverPlace = serverPlace;
  // What has been put in the trash meanwhile stays in sight, when it is to be made anew.
  if (!isPlaced && serverPlace.folder != TRASH_CONTAINER) edit.place = serverPlace;
  edit.fields = (isPlaced ? EDIT_PLACED : 0U) | (areContentsLeft ? EDIT_CONTENTS : 0U) | (edit.fields & EDIT_TRASHED);
  if (!areContentsLeft) edit.contents = 0;
  // When others stand there by now, newer ones of ours are still a change of what the user saw then: of nothing that
  // the server has, for a new file.
  const bool isBaseThere = areContentsSent ? saved.hasGivenContents : wasNew;
  if (!areContentsLeft || isBaseThere) edit.baseVersion = item.itemVersion;
  forgetFailures(edit);
  if (edit.fields == 0)
    tree.dropEdit(edit.id);
  else
    tree.putEdit(edit);
  return edit.contents;
}

// What was done to the item before it was known to be one of this machine's. New contents become an item of their own.
void LocalEdits::giveUpOther(TreeEdit& tree, const ItemIdentifier& identifier) {
  if (const Edit* other = tree.state().edits.ofItem(identifier.text))
    (other->fields & EDIT_CONTENTS) ? tree.makeLocal(identifier) : tree.dropEdit(other->id);
}

// The item of the edit, which only this machine had, is this one for the server.
void LocalEdits::takeIdentifier(TreeEdit& tree, Edit& edit, const ItemIdentifier& identifier) {
  const Inode inode = tree.inodeOf(edit.item);
  if (const Inode other = tree.inodeOf(identifier); other != 0) {
    // The news was faster.
    if (inode != 0) tree.merge(other, inode);
  }
  giveUpOther(tree, identifier);
  if (inode != 0)
    tree.identify(inode, identifier);
  else
    tree.renameInEdits(edit.item, identifier);
  edit.item = identifier;
}

// What a program set, or the time of its last write, instead of when it reached the server.
void LocalEdits::keepModified(TreeEdit& tree, Inode inode, const SavedItem& saved) {
  const auto& index = tree.state().index;
  const Timestamp shown{index.facts(index.find(inode)).modified};
  if (TreeState::factsOf(saved.item).modified == shown.secondsSince1970) return;
  const auto* known = tree.state().edits.attributesOf(saved.item.itemIdentifier.text);
  LocalAttributes attributes = known ? *known : LocalAttributes{.item = saved.item.itemIdentifier};
  attributes.modified = shown;
  attributes.contentTag = TreeState::contentTag(saved.item.itemIdentifier.text, saved.item.itemVersion.contentVersion);
  tree.putAttributes(std::move(attributes));
}

// It was deleted while it was being sent.
LocalEdits::Outcome LocalEdits::settleDeleted(Edit edit, const SavedItem& saved) {
  const Item& item = saved.item;
  apply([&](TreeEdit& tree) {
    if (edit.item != item.itemIdentifier) {
      giveUpOther(tree, item.itemIdentifier);
      edit.item = item.itemIdentifier;
    }
    // What another has put there meanwhile was not seen here.
    if (saved.hasGivenContents) edit.baseVersion = item.itemVersion;
    edit.attempt.reset();
    edit.serverPlace = Place{item.parentItemIdentifier, item.filename};
    tree.putEdit(edit);
    tree.show(edit.id);
  });
  if (const auto heir = edit.isFolder ? std::nullopt : heirAt(*edit.serverPlace, 0)) {
    Plan plan;
    const auto place = *edit.serverPlace;
    planHeritage(plan, std::move(edit), *heir, place);
    if (const auto done = commit(plan); !done)
      slog.error("a deleted item was not given to its successor: %{public}@", done.error().localizedDescription());
  }
  return {.inode = 0, .isContentsDone = true, .contentTag = 0};
}

void LocalEdits::deleted(const Edit& sent, Done completion) {
  perform(std::move(completion), [sent](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(sent.id, false);
    self.trashed_.erase(sent.id);
    if (isLocal(sent.item)) return {};
    const auto edit = self.find(sent.id);
    // News of it was faster, and may have told of its return since.
    if (!edit) return {};
    // It may have been told of after that, too: then the server is asked.
    const bool mayBeBack = edit->generation != sent.generation && edit->serverPlace;
    self.replica_.noteNews({}, {sent.item});
    self.apply([&](TreeEdit& tree) {
      tree.takeDeletion(sent.item);
      if (mayBeBack) tree.relist(edit->serverPlace->folder);
    });
    return {};
  });
}

void LocalEdits::failed(const Edit& sent, std::string error, std::optional<Timestamp> nextTry, Done completion) {
  perform(std::move(completion), [sent, error = std::move(error), nextTry](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(sent.id, false);
    if (self.dropIfLost(sent.id)) return {};
    auto edit = self.find(sent.id);
    if (!edit) return {};
    edit->lastError = error;
    if (edit->generation == sent.generation) {
      ++edit->attempts;
      edit->nextTry = nextTry;
    }
    Plan plan;
    plan.edits.edits.push_back(std::move(*edit));
    return self.commit(plan, false);
  });
}

// An item that was deleted while it was being sent, and has not been seen on the server.
bool LocalEdits::dropIfLost(EditID id) {
  const auto edit = find(id);
  if (!edit || !isDeleted(*edit) || !isLocal(edit->item) || edit->attempt) return false;
  apply([&](TreeEdit& tree) { tree.dropEdit(id); });
  return true;
}

void LocalEdits::itemVanished(const Edit& sent, Done completion) {
  perform(std::move(completion), [sent](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(sent.id, false);
    if (const auto edit = self.find(sent.id)) self.settleVanished(*edit);
    return {};
  });
}

void LocalEdits::settleVanished(const Edit& edit) {
  if (!isCreated(edit)) {
    if (!isLocal(edit.item)) replica_.noteNews({}, {edit.item});
    return apply([&](TreeEdit& tree) { tree.takeDeletion(edit.item); });
  }
  // Of a new item it is the folder that has gone.
  dropAttempt(edit.id);
  const auto& folder = edit.place.folder;
  if (isLocal(folder) || folder == ROOT_CONTAINER) return;
  if (replica_.inodeOf(folder)) {
    replica_.noteNews({}, {folder});
    return apply([&](TreeEdit& tree) { tree.takeDeletion(folder); });
  }
  Edit moved = edit;
  moved.attempt.reset();
  moved.place.folder = ROOT_CONTAINER;
  noteChange(moved);
  apply([&](TreeEdit& tree) {
    tree.putEdit(moved);
    tree.show(moved.id);
  });
}

void LocalEdits::folderVanished(const Edit& sent, Done completion) {
  perform(std::move(completion), [sent](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(sent.id, false);
    const auto edit = self.find(sent.id);
    const auto& folder = sent.place.folder;
    if (!edit || edit->place.folder != folder || isLocal(folder) || folder == ROOT_CONTAINER) return {};
    self.replica_.noteNews({}, {folder});
    self.apply([&](TreeEdit& tree) { tree.takeDeletion(folder); });
    return {};
  });
}

void LocalEdits::renameAside(const Edit& sent, Done completion) {
  perform(std::move(completion), [sent](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(sent.id, false);
    self.dropAttempt(sent.id);
    auto edit = self.find(sent.id);
    if (!edit || isDeleted(*edit)) {
      self.dropIfLost(sent.id);
      return {};
    }
    self.setPlace(*edit, {edit->place.folder, self.nameAside(*edit)});
    self.noteChange(*edit);
    Plan plan;
    plan.shown.push_back(edit->id);
    plan.edits.edits.push_back(std::move(*edit));
    return self.commit(plan, false);
  });
}

std::string LocalEdits::nameAside(const Edit& edit) const {
  const auto folder = replica_.inodeOf(edit.place.folder);
  for (unsigned number = 1;; ++number) {
    auto name = conflictedName(edit.place.name, edit.isFolder, number);
    const bool isSeen = folder && replica_.lookup(*folder, localName(name, {}));
    if (!isSeen && replica_.editsOnServerAt({edit.place.folder, name}).empty()) return name;
  }
}

void LocalEdits::undoMove(const Edit& sent, Done completion) {
  perform(std::move(completion), [sent](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(sent.id, false);
    // Where programs have moved it meanwhile, it may go.
    if (const auto edit = self.find(sent.id); edit && edit->place == sent.place)
      self.apply([&](TreeEdit& tree) { tree.undoMove(edit->id); }, Replica::FirstWritten::tree);
    return {};
  });
}

void LocalEdits::undelete(const Edit& sent, Done completion) {
  perform(std::move(completion), [sent](LocalEdits& self) -> Result<void> {
    self.replica_.setSending(sent.id, false);
    const auto edit = self.find(sent.id);
    if (!edit || !isDeleted(*edit) || self.dropIfLost(sent.id)) return {};
    self.apply(
        [&](TreeEdit& tree) {
          tree.dropEdit(edit->id);
          if (edit->serverPlace) tree.relist(edit->serverPlace->folder);
        },
        Replica::FirstWritten::tree);
    return {};
  });
}

// --- Edits ---

Edit LocalEdits::newEdit() {
  Edit edit;
  edit.id = store_.newID();
  edit.item.text = std::string(LOCAL_IDENTIFIER_PREFIX) + random_.uuid();
  edit.fields = EDIT_CREATED;
  edit.modified = edit.changedAt = clock_.now();
  edit.generation = edit.contentsGeneration = 1;
  return edit;
}

// The item's edit; one that says nothing yet when it has none.
Edit LocalEdits::editFor(const ItemAttributes& item) {
  const auto identifier = *replica_.identifierOf(item.inode);
  if (auto known = replica_.editOf(identifier)) return std::move(*known);
  Edit edit;
  edit.id = store_.newID();
  edit.item = identifier;
  edit.isFolder = item.isFolder;
  edit.place = replica_.placeOf(item.inode).value_or(Place());
  edit.serverPlace = edit.place;
  if (const auto kept = replica_.storedItem(item.inode)) edit.baseVersion = kept->itemVersion;
  return edit;
}

void LocalEdits::setPlace(Edit& edit, const Place& place) const {
  edit.place = place;
  if (isCreated(edit)) return;
  // When that was sent, the server may have moved it away from there.
  const bool isThere = edit.serverPlace == place && !mayBeOnServer(edit);
  edit.fields = (edit.fields & ~std::uint32_t{EDIT_PLACED}) | (isThere ? 0U : EDIT_PLACED);
}

void LocalEdits::noteChange(Edit& edit) const {
  ++edit.generation;
  edit.changedAt = clock_.now();
  forgetFailures(edit);
}

void LocalEdits::noteContentsChange(Edit& edit) const {
  noteChange(edit);
  edit.contentsGeneration = edit.generation;
}

}  // namespace vondle
