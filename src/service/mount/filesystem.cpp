#include "service/mount/filesystem.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include "service/error_number.h"
#include "service/mount/thumbnail_programs.h"

namespace vondle {
namespace {

// Positions in a folder: 0 and 1 are the two names every folder has, then come the children.
constexpr std::int64_t FIRST_CHILD = 2;
constexpr std::size_t ENTRIES_AT_ONCE = 64;

// Stands for the tag of contents that are edited.
constexpr std::uint64_t EDITED = 0;

bool isHere(ContentState state) {
  return state != ContentState::absent && state != ContentState::fetching;
}

}  // namespace

Filesystem::Filesystem(Tree& tree, FolderListing& listing, ContentStore& contents,
                       std::shared_ptr<EditedContents> edited, const Clock& clock, std::function<void()> used)
    : tree_(tree),
      contents_(contents),
      edited_(std::move(edited)),
      listing_(listing),
      clock_(clock),
      used_(std::move(used)),
      lastUse_(clock.monotonic().sinceStart.count()),
      rootModified_(clock.now().secondsSince1970) {}

bool Filesystem::begin(FuseRequest& request) {
  lastUse_ = clock_.monotonic().sinceStart.count();
  if (used_) used_();
  if (!isClosed_) return true;
  std::move(request).fail(ENOTCONN);
  return false;
}

void Filesystem::lookup(FuseRequest request, Inode folder, std::string name) {
  if (!begin(request)) return;
  if (name.size() > MAX_LOCAL_NAME) return std::move(request).fail(ENAMETOOLONG);
  whenListed(std::move(request), folder, [folder, name = std::move(name)](Filesystem& self, FuseRequest listed) {
    self.answerLookup(std::move(listed), folder, name);
  });
}

void Filesystem::answerLookup(FuseRequest request, Inode folder, const std::string& name) {
  const auto found = tree_.replica().lookup(folder, name);
  if (found)
    std::move(request).answerEntry(nodeOf(*found, name));
  else
    std::move(request).answerNoEntry();
}

void Filesystem::attributes(FuseRequest request, Inode inode) {
  if (!begin(request)) return;
  whenPictured(std::move(request), inode, [inode](Filesystem& self, FuseRequest ready) {
    if (const auto node = self.nodeFor(inode))
      std::move(ready).answerAttributes(*node);
    else
      std::move(ready).fail(ENOENT);
  });
}

void Filesystem::whenPictured(FuseRequest request, Inode inode, Next next) {
  const auto item = thumbnails_ ? tree_.replica().attributes(inode) : std::nullopt;
  if (!item || !awaitsPicture(*item, tree_.replica().nameOf(inode)) || !isOfThumbnailProgram(request.pid()))
    return next(*this, std::move(request));
  auto wait = Progress::make();
  const auto number = park(request, wait);
  thumbnails_->whenSettled(*item, wait,
                           [self = shared_from_this(), request = std::move(request), next = std::move(next),
                            number](const Result<std::monostate>& result) mutable {
                             const int errorNumber = self->unpark(number, result ? nullptr : &result.error());
                             if (errorNumber != 0) return std::move(request).fail(errorNumber);
                             next(*self, std::move(request));
                           });
}

bool Filesystem::awaitsPicture(const ItemAttributes& item, std::string_view name) const {
  return thumbnails_ && !item.isFolder && !isHere(contents_.state(item.inode)) && thumbnails_->mayCome(item, name);
}

// The kernel does not remember what a program that makes thumbnails is to be told later.
NodeAttributes Filesystem::nodeOf(const ItemAttributes& item, std::string_view name) const {
  auto node = nodeOf(item);
  node.areAttributesVolatile = awaitsPicture(item, name);
  return node;
}

void Filesystem::open(FuseRequest request, Inode inode, OpenMode mode) {
  if (!begin(request)) return;
  if (mode.writes || mode.truncates) return std::move(request).fail(EROFS);
  const auto item = tree_.replica().attributes(inode);
  if (!item) return std::move(request).fail(ENOENT);
  if (item->isFolder) return std::move(request).fail(EISDIR);
  auto file = contents_.current(inode);
  const bool isHere = file || editedFor(inode);
  if (!isHere && thumbnails_ && isOfThumbnailProgram(request.pid())) return refuseThumbnail(std::move(request), inode);
  const bool keepCache = noteOpened(*item, std::move(file));
  std::move(request).answerOpenedFile(keepCache, !isHere);
}

// File managers would have every file that they show fetched. When the refusal is heard, the server's thumbnail is
// there, or will not come.
void Filesystem::refuseThumbnail(FuseRequest request, Inode inode) {
  whenPictured(std::move(request), inode, [](Filesystem&, FuseRequest settled) { std::move(settled).fail(EAGAIN); });
}

bool Filesystem::noteOpened(const ItemAttributes& item, std::shared_ptr<const ContentFile> file) {
  const auto tag = edited_ && edited_->find(item.inode) ? EDITED : item.contentTag;
  MutexLock hold(lock_);
  auto& open = openFiles_[item.inode];
  ++open.count;
  open.attributes = item;
  if (file) open.kept.file = std::move(file);
  const auto [cached, isNew] = cachedTags_.try_emplace(item.inode, tag);
  // Dropping what it has, the kernel would wait for a parked read or write, and the program with it, beyond killing;
  // the news that is held back for that brings the same later. A file that is opened for the first time has nothing
  // there.
  const bool keepCache = isNew || cached->second == tag || pageHolders_.contains(item.inode);
  cached->second = tag;
  return keepCache;
}

void Filesystem::noteEdited(Inode inode) {
  MutexLock hold(lock_);
  if (const auto open = openFiles_.find(inode); open != openFiles_.end()) open->second.kept.file = nullptr;
  if (const auto cached = cachedTags_.find(inode); cached != cachedTags_.end()) cached->second = EDITED;
}

NodeAttributes Filesystem::nodeOf(const ItemAttributes& item) const {
  NodeAttributes node{.inode = item.inode,
                      .isFolder = item.isFolder,
                      .size = item.size,
                      .modified = item.modified,
                      .permissions = item.permissions};
  // No server tells of the top folder.
  if (item.inode == ROOT_INODE && item.modified == Timestamp()) node.modified = {rootModified_};
  if (const auto file = edited_ && !item.isFolder ? edited_->find(item.inode) : nullptr) {
    node.size = file->size();
    node.modified = file->modified();
  }
  return node;
}

std::optional<NodeAttributes> Filesystem::nodeFor(Inode inode) {
  if (const auto item = tree_.replica().attributes(inode)) {
    return thumbnails_ && !item->isFolder ? nodeOf(*item, tree_.replica().nameOf(inode)) : nodeOf(*item);
  }
  std::optional<ItemAttributes> item;
  std::shared_ptr<EditedFile> edited;
  {
    MutexLock hold(lock_);
    const auto open = openFiles_.find(inode);
    if (open == openFiles_.end()) return std::nullopt;
    item = open->second.attributes;
    edited = open->second.kept.edited;
  }
  auto node = nodeOf(*item);
  node.isGone = true;
  if (edited) {
    node.size = edited->size();
    node.modified = edited->modified();
  }
  return node;
}

std::shared_ptr<EditedFile> Filesystem::editedFor(Inode inode) {
  if (!edited_) return nullptr;
  if (auto file = edited_->find(inode)) return file;
  if (tree_.replica().attributes(inode)) return nullptr;
  return keptOpen(inode).edited;
}

void Filesystem::read(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) {
  if (!begin(request)) return;
  if (const auto file = editedFor(inode)) return std::move(request).answerContents(*file, offset, size);
  if (const auto file = fileFor(inode)) return std::move(request).answerContents(*file, offset, size);
  auto wait = Progress::make();
  const int pid = request.pid();
  const auto number = park(request, wait);
  holdsPages(inode, number, pid);
  contents_.require(inode, VIEWER, wait,
                    [self = shared_from_this(), request = std::move(request), inode, offset, size,
                     number](const Result<std::shared_ptr<const ContentFile>>& result) mutable {
                      const int errorNumber = self->unpark(number, result ? nullptr : &result.error());
                      if (const auto edited = self->editedFor(inode)) {
                        std::move(request).answerContents(*edited, offset, size);
                      } else if (result) {
                        self->keepOpen(inode, *result);
                        std::move(request).answerContents(**result, offset, size);
                      } else {
                        std::move(request).fail(errorNumber);
                      }
                      self->letsGoOfPages(inode, number);
                    });
}

std::shared_ptr<const ContentFile> Filesystem::fileFor(Inode inode) {
  const auto item = tree_.replica().attributes(inode);
  {
    MutexLock hold(lock_);
    const auto open = openFiles_.find(inode);
    if (open != openFiles_.end() && open->second.kept.file) {
      // A file that was deleted stays readable for those who have it open; one that changed is read anew.
      if (!item || item->contentTag == open->second.kept.file->tag()) return open->second.kept.file;
    }
  }
  auto file = item ? contents_.current(inode) : nullptr;
  if (file) keepOpen(inode, file);
  return file;
}

void Filesystem::keepOpen(Inode inode, std::shared_ptr<const ContentFile> file) {
  MutexLock hold(lock_);
  if (const auto open = openFiles_.find(inode); open != openFiles_.end()) open->second.kept.file = std::move(file);
}

void Filesystem::keepOpen(Inode inode, std::shared_ptr<EditedFile> file) {
  MutexLock hold(lock_);
  if (const auto open = openFiles_.find(inode); open != openFiles_.end()) open->second.kept.edited = std::move(file);
}

Filesystem::Kept Filesystem::keptOpen(Inode inode) {
  MutexLock hold(lock_);
  const auto open = openFiles_.find(inode);
  return open == openFiles_.end() ? Kept() : open->second.kept;
}

bool Filesystem::isOpen(Inode inode) {
  MutexLock hold(lock_);
  return openFiles_.contains(inode);
}

std::vector<Inode> Filesystem::openInodes() {
  MutexLock hold(lock_);
  std::vector<Inode> inodes;
  for (const auto& [inode, open] : openFiles_) inodes.push_back(inode);
  return inodes;
}

// A program that is killed while the kernel reads ahead for it does not interrupt that read: all that is heard of it is
// that it closes the file. So a thread that closes while a read of its own is parked no longer waits for it.
void Filesystem::flush(FuseRequest request, Inode inode) {
  const int pid = request.pid();
  std::vector<std::shared_ptr<Progress>> waits;
  {
    MutexLock hold(lock_);
    if (const auto holders = pageHolders_.find(inode); holders != pageHolders_.end())
      for (const auto& holder : holders->second)
        if (const auto wait = parked_.find(holder.number); pid != 0 && holder.pid == pid && wait != parked_.end())
          waits.push_back(wait->second);
  }
  std::move(request).succeed();
  for (const auto& wait : waits) wait->cancel();
}

void Filesystem::release(FuseRequest request, Inode inode, OpenMode) {
  {
    MutexLock hold(lock_);
    const auto open = openFiles_.find(inode);
    if (open != openFiles_.end() && --open->second.count == 0) openFiles_.erase(open);
  }
  std::move(request).succeed();
}

void Filesystem::openFolder(FuseRequest request, Inode folder) {
  if (!begin(request)) return;
  whenListed(std::move(request), folder, [](Filesystem& self, FuseRequest listed) {
    std::uint64_t handle = 0;
    {
      MutexLock hold(self.lock_);
      handle = ++self.lastFolder_;
      self.openFolders_[handle] = nullptr;
    }
    std::move(listed).answerOpenedFolder(handle);
  });
}

void Filesystem::readFolder(FuseRequest request, Inode folder, std::uint64_t handle, std::int64_t offset,
                            std::size_t room) {
  if (!begin(request)) return;
  Snapshot snapshot;
  if (offset > 0) {
    MutexLock hold(lock_);
    if (const auto open = openFolders_.find(handle); open != openFolders_.end()) snapshot = open->second;
  }
  if (snapshot) return answerPage(std::move(request), folder, snapshot, offset, room);
  whenListed(std::move(request), folder, [folder, handle, offset, room](Filesystem& self, FuseRequest listed) {
    const auto children = std::make_shared<const std::vector<Inode>>(self.tree_.replica().children(folder));
    {
      MutexLock hold(self.lock_);
      if (const auto open = self.openFolders_.find(handle); open != self.openFolders_.end()) open->second = children;
    }
    self.answerPage(std::move(listed), folder, children, offset, room);
    if (self.thumbnails_) self.thumbnails_->folderListed(folder);
  });
}

void Filesystem::answerPage(FuseRequest request, Inode folder, const Snapshot& snapshot, std::int64_t offset,
                            std::size_t room) {
  const auto& replica = tree_.replica();
  FolderPage page(room);
  const auto self = replica.attributes(folder);
  if (!self) return std::move(request).fail(ENOENT);
  bool fits = true;
  if (offset < 1) fits = page.add(".", nodeOf(*self), 1);
  if (fits && offset < FIRST_CHILD)
    fits = page.add("..", nodeOf(replica.attributes(self->parent).value_or(*self)), FIRST_CHILD);
  const std::span<const Inode> children(*snapshot);
  auto position = static_cast<std::size_t>(std::max(offset, FIRST_CHILD) - FIRST_CHILD);
  while (fits && position < children.size()) {
    const auto chunk = children.subspan(position, std::min(ENTRIES_AT_ONCE, children.size() - position));
    for (const auto& entry : replica.entries(folder, chunk)) {
      // Those that have gone since the snapshot are not among the entries.
      while (children[position] != entry.attributes.inode) ++position;
      fits = page.add(entry.name, nodeOf(entry.attributes, entry.name),
                      static_cast<std::int64_t>(position) + 1 + FIRST_CHILD);
      if (!fits) break;
      ++position;
    }
    if (fits) position = static_cast<std::size_t>(chunk.data() - children.data()) + chunk.size();
  }
  std::move(request).answerFolder(page);
}

void Filesystem::releaseFolder(FuseRequest request, std::uint64_t handle) {
  {
    MutexLock hold(lock_);
    openFolders_.erase(handle);
  }
  std::move(request).succeed();
}

void Filesystem::statistics(FuseRequest request) {
  if (!begin(request)) return;
  // The room that downloaded contents have.
  struct statvfs status{};
  SpaceStatistics space{.items = tree_.replica().itemCount()};
  if (::statvfs(contents_.folder().c_str(), &status) == 0)
    space = {
        .blockSize = status.f_frsize, .blocks = status.f_blocks, .freeBlocks = status.f_bavail, .items = space.items};
  std::move(request).answerStatistics(space);
}

void Filesystem::forget(Inode inode) {
  MutexLock hold(lock_);
  cachedTags_.erase(inode);
}

void Filesystem::create(FuseRequest request, Inode, std::string, unsigned, OpenMode, bool) {
  std::move(request).fail(EROFS);
}

void Filesystem::makeFile(FuseRequest request, Inode, std::string, unsigned) {
  std::move(request).fail(EROFS);
}

void Filesystem::makeFolder(FuseRequest request, Inode, std::string, unsigned) {
  std::move(request).fail(EROFS);
}

void Filesystem::removeFile(FuseRequest request, Inode, std::string) {
  std::move(request).fail(EROFS);
}

void Filesystem::removeFolder(FuseRequest request, Inode, std::string) {
  std::move(request).fail(EROFS);
}

void Filesystem::rename(FuseRequest request, Inode, std::string, Inode, std::string, bool) {
  std::move(request).fail(EROFS);
}

void Filesystem::change(FuseRequest request, Inode, const AttributeChange&) {
  std::move(request).fail(EROFS);
}

void Filesystem::write(FuseRequest request, Inode, std::string_view, std::int64_t, bool) {
  std::move(request).fail(EROFS);
}

void Filesystem::allocate(FuseRequest request, Inode, int, std::int64_t, std::int64_t) {
  std::move(request).fail(EROFS);
}

void Filesystem::readAttribute(FuseRequest request, Inode inode, std::string name, std::size_t room) {
  if (!begin(request)) return;
  if (!extended_) return std::move(request).fail(EOPNOTSUPP);
  extended_->read(inode, std::move(name),
                  [request = std::move(request), room](const Result<std::string>& value) mutable {
                    if (!value) return std::move(request).fail(errorNumber(value.error()));
                    std::move(request).answerAttribute(*value, room);
                  });
}

void Filesystem::setAttribute(FuseRequest request, Inode inode, std::string name, std::optional<std::string> value,
                              int flags) {
  if (!begin(request)) return;
  if (!extended_) return std::move(request).fail(EOPNOTSUPP);
  auto wait = Progress::make();
  const auto number = park(request, wait);
  extended_->write(
      inode, name, value, flags, wait,
      [self = shared_from_this(), request = std::move(request), number](const std::optional<Error>& error) mutable {
        const int errorNumber = self->unpark(number, error ? &*error : nullptr);
        if (errorNumber != 0) return std::move(request).fail(errorNumber);
        std::move(request).succeed();
      });
}

void Filesystem::sync(FuseRequest request, Inode) {
  std::move(request).succeed();
}

void Filesystem::whenListed(FuseRequest request, Inode folder, Next next) {
  const auto item = tree_.replica().attributes(folder);
  if (!item) return std::move(request).fail(ENOENT);
  if (!item->isFolder) return std::move(request).fail(ENOTDIR);
  if (item->isListed) return next(*this, std::move(request));
  auto wait = Progress::make();
  const auto number = park(request, wait);
  listing_.require(folder, VIEWER, wait,
                   [self = shared_from_this(), request = std::move(request), next = std::move(next),
                    number](std::optional<Error> error) mutable {
                     const int errorNumber = self->unpark(number, error ? &*error : nullptr);
                     if (error) return std::move(request).fail(errorNumber);
                     next(*self, std::move(request));
                   });
}

std::uint64_t Filesystem::park(FuseRequest& request, const std::shared_ptr<Progress>& wait) {
  request.onInterrupt([wait] { wait->cancel(); });
  std::uint64_t number = 0;
  {
    MutexLock hold(lock_);
    number = ++lastParked_;
    parked_[number] = wait;
  }
  if (isClosed_) wait->cancel();
  return number;
}

int Filesystem::unpark(std::uint64_t number, const Error* error) {
  {
    MutexLock hold(lock_);
    parked_.erase(number);
  }
  if (isClosed_) return ENOTCONN;
  return error ? errorNumber(*error) : 0;
}

void Filesystem::holdsPages(Inode inode, std::uint64_t number, int pid) {
  MutexLock hold(lock_);
  pageHolders_[inode].push_back({number, pid});
}

void Filesystem::letsGoOfPages(Inode inode, std::uint64_t number) {
  bool tell = false;
  {
    MutexLock hold(lock_);
    const auto holders = pageHolders_.find(inode);
    std::erase_if(holders->second, [number](const PageHolder& holder) { return holder.number == number; });
    if (!holders->second.empty()) return;
    pageHolders_.erase(holders);
    tell = heldBack_.erase(inode) > 0;
  }
  if (tell) tellContents(inode);
}

void Filesystem::tellContents(Inode inode) {
  ReplicaChange change{ReplicaChange::Kind::contentsChanged, 0, {}, inode};
  if (auto now = apply({std::move(change)}); !now.empty() && later_) later_(std::move(now));
}

void Filesystem::contentsSettled(Inode inode, std::optional<std::uint64_t> tag) {
  if (!tag) return tellContents(inode);
  // Those who have it open go on with the downloaded copy, which is in use from here on.
  if (isOpen(inode)) static_cast<void>(fileFor(inode));
  MutexLock hold(lock_);
  const auto cached = cachedTags_.find(inode);
  if (cached != cachedTags_.end() && cached->second == EDITED) cached->second = *tag;
}

std::vector<ReplicaChange> Filesystem::apply(const std::vector<ReplicaChange>& changes) {
  std::vector<ReplicaChange> now;
  std::vector<Inode> changedOpen;
  if (std::ranges::any_of(changes, [](const ReplicaChange& change) { return change.parent == ROOT_INODE; }))
    rootModified_ = clock_.now().secondsSince1970;
  {
    MutexLock hold(lock_);
    for (const auto& change : changes) {
      const bool isContents = change.kind == ReplicaChange::Kind::contentsChanged;
      if ((isContents || change.kind == ReplicaChange::Kind::attributesChanged) && openFiles_.contains(change.inode))
        changedOpen.push_back(change.inode);
      if (change.byProgram) continue;
      if (isContents && pageHolders_.contains(change.inode))
        heldBack_.insert(change.inode);
      else
        now.push_back(change);
    }
  }
  for (const Inode inode : changedOpen) {
    const auto item = tree_.replica().attributes(inode);
    MutexLock hold(lock_);
    if (const auto open = openFiles_.find(inode); item && open != openFiles_.end()) open->second.attributes = *item;
  }
  return now;
}

void Filesystem::close() {
  isClosed_ = true;
  std::vector<std::shared_ptr<Progress>> waits;
  {
    MutexLock hold(lock_);
    for (const auto& [number, wait] : parked_) waits.push_back(wait);
  }
  for (const auto& wait : waits) wait->cancel();
}

}  // namespace vondle
