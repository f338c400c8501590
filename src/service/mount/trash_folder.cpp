#include "service/mount/trash_folder.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "service/error_number.h"
#include "service/trash/trash_text.h"

namespace vondle {
namespace {

// Inodes and handles of the trash's own have this bit. Below it an item's number, with its kind in the last two.
constexpr std::uint64_t OWN = std::uint64_t{1} << 62;
constexpr Inode TOP = OWN, FILES = OWN | 1, INFO = OWN | 2, EXPUNGED = OWN | 3;
enum Kind : std::uint64_t { KIND_ITEM = 0, KIND_INFO = 1, KIND_NEW_INFO = 2 };

// How long the .trashinfo of what has gone can be removed.
constexpr Duration INFO_AFTERLIFE = seconds(10);
constexpr std::size_t MAX_INFO = 64 * 1024;

constexpr std::int64_t FIRST_CHILD = 2;  // after the two names that every folder has

bool isOwn(std::uint64_t number) {
  return (number & OWN) != 0;
}

Inode inodeOf(std::uint64_t number, Kind kind) {
  return OWN | number << 2 | kind;
}

std::uint64_t numberOf(Inode inode) {
  return (inode & ~OWN) >> 2;
}

bool isOfKind(Inode inode, Kind kind) {
  return isOwn(inode) && numberOf(inode) != 0 && (inode & 3) == kind;
}

bool holdsItems(Inode folder) {
  return folder == FILES || folder == EXPUNGED;
}

std::string withoutSuffix(const std::string& name) {
  return name.ends_with(TRASH_INFO_SUFFIX) ? name.substr(0, name.size() - TRASH_INFO_SUFFIX.size()) : std::string();
}

std::string withSuffix(const std::string& name) {
  return name + std::string(TRASH_INFO_SUFFIX);
}

NodeAttributes folderNode(Inode inode, Timestamp modified) {
  return {.inode = inode, .isFolder = true, .modified = modified, .permissions = 0700, .isVolatile = true};
}

// A request that waits, until the program wants no answer any more.
class Waiting {
 public:
  explicit Waiting(FuseRequest request) : request_(std::move(request)) {}
  std::optional<FuseRequest> take() {
    if (!request_) return std::nullopt;
    auto request = std::move(request_);
    request_.reset();
    return request;
  }
  FuseRequest& request() { return *request_; }

 private:
  std::optional<FuseRequest> request_;
};

}  // namespace

bool TrashFolder::isTrashName(Inode folder, const std::string& name) const {
  return folder == ROOT_INODE && name == parts_.name;
}

void TrashFolder::run(FuseRequest request, Next next) {
  parts_.trash->perform([self = shared_from_this(), request = std::move(request), next = std::move(next)]() mutable {
    next(*self, std::move(request));
  });
}

void TrashFolder::whenListed(FuseRequest request, Next next) {
  run(std::move(request), [next = std::move(next)](TrashFolder& self, FuseRequest waits) mutable {
    const auto waiting = std::make_shared<Waiting>(std::move(waits));
    waiting->request().onInterrupt([weak = self.weak_from_this(), waiting] {
      if (const auto folder = weak.lock())
        folder->parts_.trash->perform([waiting] {
          if (auto interrupted = waiting->take()) std::move(*interrupted).fail(EINTR);
        });
    });
    self.parts_.trash->whenListed(
        [folder = self.shared_from_this(), waiting, next = std::move(next)](const Result<void>& listed) mutable {
          auto ready = waiting->take();
          if (!ready) return;
          if (!listed) return std::move(*ready).fail(errorNumber(listed.error()));
          next(*folder, std::move(*ready));
        });
  });
}

void TrashFolder::whenKnown(FuseRequest request, Next next) {
  run(std::move(request), [next = std::move(next)](TrashFolder& self, FuseRequest waits) mutable {
    self.parts_.trash->whenKnown([folder = self.shared_from_this(), waits = std::move(waits),
                                  next = std::move(next)]() mutable { next(*folder, std::move(waits)); });
  });
}

bool TrashFolder::isFormer(Inode inode) {
  if (formerCount_ == 0) return false;
  MutexLock hold(lock_);
  return former_.contains(inode);
}

// What is there

const TrashItem* TrashFolder::itemOf(Inode inode) const {
  return isOfKind(inode, KIND_ITEM) || isOfKind(inode, KIND_INFO) ? parts_.trash->find(numberOf(inode)) : nullptr;
}

TrashFolder::Info* TrashFolder::infoOf(Inode inode) {
  if (!isOfKind(inode, KIND_NEW_INFO)) return nullptr;
  const auto name = infoNames_.find(numberOf(inode));
  return name == infoNames_.end() ? nullptr : &infos_.at(name->second);
}

std::string TrashFolder::infoText(const TrashItem& item) const {
  return trashInfoText(item.path, item.deleted);
}

std::optional<NodeAttributes> TrashFolder::nodeOf(Inode inode) {
  if (inode == TOP || inode == FILES || inode == INFO || inode == EXPUNGED)
    return folderNode(inode, parts_.trash->modified());
  if (const auto* info = infoOf(inode))
    return NodeAttributes{.inode = inode,
                          .size = static_cast<std::int64_t>(info->text.size()),
                          .modified = info->modified,
                          .permissions = 0600,
                          .isVolatile = true};
  const auto* item = itemOf(inode);
  if (!item) return std::nullopt;
  if (isOfKind(inode, KIND_INFO))
    return NodeAttributes{.inode = inode,
                          .size = static_cast<std::int64_t>(infoText(*item).size()),
                          .modified = item->deleted,
                          .permissions = 0600,
                          .isVolatile = true};
  if (item->isFolder) return folderNode(inode, item->modified);
  return NodeAttributes{
      .inode = inode, .size = item->size, .modified = item->modified, .permissions = 0400, .isVolatile = true};
}

std::string TrashFolder::nameOf(Inode inode) const {
  if (inode == FILES) return "files";
  if (inode == INFO) return "info";
  if (inode == EXPUNGED) return "expunged";
  if (isOfKind(inode, KIND_NEW_INFO)) {
    const auto name = infoNames_.find(numberOf(inode));
    return name == infoNames_.end() ? std::string() : name->second;
  }
  const auto* item = itemOf(inode);
  if (!item) return {};
  return isOfKind(inode, KIND_INFO) ? withSuffix(item->name) : item->name;
}

std::optional<Inode> TrashFolder::find(Inode folder, const std::string& name) {
  if (folder == TOP) {
    for (const Inode child : {FILES, INFO, EXPUNGED})
      if (nameOf(child) == name) return child;
    return std::nullopt;
  }
  if (holdsItems(folder)) {
    const auto* item = parts_.trash->find(folder == EXPUNGED, name);
    return item ? std::optional(inodeOf(item->number, KIND_ITEM)) : std::nullopt;
  }
  if (folder != INFO) return std::nullopt;
  if (const auto* item = parts_.trash->find(false, withoutSuffix(name))) return inodeOf(item->number, KIND_INFO);
  const auto info = infos_.find(name);
  if (info == infos_.end()) return std::nullopt;
  if (!info->second.until || *info->second.until > parts_.clock.monotonic())
    return inodeOf(info->second.number, KIND_NEW_INFO);
  infoNames_.erase(info->second.number);
  infos_.erase(info);
  return std::nullopt;
}

std::vector<Inode> TrashFolder::list(Inode folder) {
  std::vector<Inode> children;
  if (folder == TOP) children = {FILES, INFO};
  if (folder == TOP && !parts_.trash->list(true).empty()) children.push_back(EXPUNGED);
  if (holdsItems(folder) || folder == INFO)
    for (const auto number : parts_.trash->list(folder == EXPUNGED))
      children.push_back(inodeOf(number, folder == INFO ? KIND_INFO : KIND_ITEM));
  if (folder == INFO)
    for (const auto& [name, info] : infos_)
      if (!info.until && !parts_.trash->find(false, withoutSuffix(name)))
        children.push_back(inodeOf(info.number, KIND_NEW_INFO));
  return children;
}

void TrashFolder::answer(FuseRequest request, Inode inode) {
  if (const auto node = nodeOf(inode))
    std::move(request).answerEntry(*node);
  else
    std::move(request).fail(ENOENT);
}

void TrashFolder::lookup(FuseRequest request, Inode folder, std::string name) {
  if (isTrashName(folder, name))
    return run(std::move(request), [](TrashFolder& self, FuseRequest ready) {
      // Somebody is about to look in it.
      self.parts_.trash->whenKnown([] {});
      self.answer(std::move(ready), TOP);
    });
  if (!isOwn(folder)) {
    if (isFormer(folder)) return std::move(request).fail(ESTALE);
    return parts_.below->lookup(std::move(request), folder, std::move(name));
  }
  run(std::move(request), [folder, name = std::move(name)](TrashFolder& self, FuseRequest ready) mutable {
    if (const auto inode = self.find(folder, name)) return self.answer(std::move(ready), *inode);
    if (folder != FILES && folder != INFO) return std::move(ready).fail(ENOENT);
    self.whenKnown(std::move(ready), [folder, name = std::move(name)](TrashFolder& known, FuseRequest again) {
      // Not for the kernel to remember.
      if (const auto inode = known.find(folder, name)) return known.answer(std::move(again), *inode);
      std::move(again).fail(ENOENT);
    });
  });
}

void TrashFolder::attributes(FuseRequest request, Inode inode) {
  if (!isOwn(inode)) {
    if (isFormer(inode) && !parts_.below->isOpen(inode)) return std::move(request).fail(ESTALE);
    return parts_.below->attributes(std::move(request), inode);
  }
  run(std::move(request), [inode](TrashFolder& self, FuseRequest ready) {
    if (const auto node = self.nodeOf(inode)) return std::move(ready).answerAttributes(*node);
    std::move(ready).fail(ESTALE);
  });
}

void TrashFolder::openFolder(FuseRequest request, Inode folder) {
  if (!isOwn(folder)) {
    if (isFormer(folder)) return std::move(request).fail(ESTALE);
    return parts_.below->openFolder(std::move(request), folder);
  }
  const auto opened = [folder](TrashFolder& self, FuseRequest ready) {
    if (!self.nodeOf(folder)) return std::move(ready).fail(ESTALE);
    const auto handle = OWN | ++self.lastFolder_;
    self.folders_[handle] = self.list(folder);
    std::move(ready).answerOpenedFolder(handle);
  };
  if (folder == FILES || folder == INFO) return whenListed(std::move(request), opened);
  run(std::move(request), opened);
}

void TrashFolder::readFolder(FuseRequest request, Inode folder, std::uint64_t handle, std::int64_t offset,
                             std::size_t room) {
  if (!isOwn(folder)) return parts_.below->readFolder(std::move(request), folder, handle, offset, room);
  run(std::move(request), [folder, handle, offset, room](TrashFolder& self, FuseRequest ready) {
    auto& children = self.folders_[handle];
    if (offset == 0) children = self.list(folder);
    FolderPage page(room);
    bool fits = true;
    if (offset < 1) fits = page.add(".", folderNode(folder, self.parts_.trash->modified()), 1);
    if (fits && offset < FIRST_CHILD)
      fits = page.add("..", folderNode(TOP, self.parts_.trash->modified()), FIRST_CHILD);
    for (auto i = std::max(offset, FIRST_CHILD) - FIRST_CHILD; fits && i < std::ssize(children); ++i) {
      const auto inode = children[static_cast<std::size_t>(i)];
      if (const auto node = self.nodeOf(inode)) fits = page.add(self.nameOf(inode), *node, i + 1 + FIRST_CHILD);
    }
    std::move(ready).answerFolder(page);
  });
}

void TrashFolder::releaseFolder(FuseRequest request, std::uint64_t handle) {
  if (!isOwn(handle)) return parts_.below->releaseFolder(std::move(request), handle);
  run(std::move(request), [handle](TrashFolder& self, FuseRequest ready) {
    self.folders_.erase(handle);
    std::move(ready).succeed();
  });
}

void TrashFolder::statistics(FuseRequest request) {
  parts_.below->statistics(std::move(request));
}

void TrashFolder::forget(Inode inode) {
  if (isOwn(inode)) return;
  if (formerCount_ > 0) {
    MutexLock hold(lock_);
    former_.erase(inode);
    formerCount_ = former_.size();
  }
  parts_.below->forget(inode);
}

// Reading

void TrashFolder::open(FuseRequest request, Inode inode, OpenMode mode) {
  if (!isOwn(inode)) {
    if (isFormer(inode)) return std::move(request).fail(ESTALE);
    return parts_.below->open(std::move(request), inode, mode);
  }
  run(std::move(request), [inode, mode](TrashFolder& self, FuseRequest ready) {
    if (!self.nodeOf(inode)) return std::move(ready).fail(ESTALE);
    auto* info = self.infoOf(inode);
    if ((mode.writes || mode.truncates) && !info) return std::move(ready).fail(EACCES);
    if (mode.truncates) info->text.clear();
    ++self.files_[inode].count;
    std::move(ready).answerOpenedFile(false, false);
  });
}

void TrashFolder::read(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) {
  if (!isOwn(inode)) return parts_.below->read(std::move(request), inode, offset, size);
  run(std::move(request), [inode, offset, size](TrashFolder& self, FuseRequest ready) {
    self.readItem(std::move(ready), inode, offset, size);
  });
}

void TrashFolder::readItem(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) {
  const auto* info = infoOf(inode);
  const auto* item = itemOf(inode);
  if (info || isOfKind(inode, KIND_INFO)) {
    if (!info && !item) return std::move(request).fail(ESTALE);
    const auto text = info ? info->text : infoText(*item);
    const auto start = std::min(static_cast<std::size_t>(offset), text.size());
    return std::move(request).answerBytes(std::string_view(text).substr(start, size));
  }
  if (const auto open = files_.find(inode);
      open != files_.end() && (open->second.contents.fetched || open->second.contents.edited))
    return answerContents(std::move(request), open->second.contents, offset, size);
  const auto wait = Progress::make(1);
  request.onInterrupt([wait] { wait->cancel(); });
  wait->addChild(parts_.trash->read(numberOf(inode),
                                    [self = shared_from_this(), request = std::move(request), inode, offset,
                                     size](const Result<Trash::Contents>& contents) mutable {
                                      if (!contents) return std::move(request).fail(errorNumber(contents.error()));
                                      if (const auto open = self->files_.find(inode); open != self->files_.end())
                                        open->second.contents = *contents;
                                      answerContents(std::move(request), *contents, offset, size);
                                    }),
                 1);
}

void TrashFolder::answerContents(FuseRequest request, const Trash::Contents& contents, std::int64_t offset,
                                 std::size_t size) {
  if (contents.edited) return std::move(request).answerContents(*contents.edited, offset, size);
  std::move(request).answerContents(*contents.fetched, offset, size);
}

void TrashFolder::flush(FuseRequest request, Inode inode) {
  if (!isOwn(inode)) return parts_.below->flush(std::move(request), inode);
  std::move(request).succeed();
}

void TrashFolder::release(FuseRequest request, Inode inode, OpenMode mode) {
  if (!isOwn(inode)) return parts_.below->release(std::move(request), inode, mode);
  run(std::move(request), [inode](TrashFolder& self, FuseRequest ready) {
    if (const auto open = self.files_.find(inode); open != self.files_.end() && --open->second.count == 0)
      self.files_.erase(open);
    std::move(ready).succeed();
  });
}

// .trashinfo files

Result<Inode> TrashFolder::makeInfo(const std::string& name, bool mayExist) {
  if (const auto known = find(INFO, name); known && !(isOfKind(*known, KIND_NEW_INFO) && infos_.at(name).until)) {
    const bool isOfItem = isOfKind(*known, KIND_INFO);
    if (!mayExist || isOfItem) return failure(Error::posix(mayExist ? EACCES : EEXIST, name));
    return *known;
  }
  auto& info = infos_[name];
  infoNames_.erase(info.number);
  info = {.number = ++lastInfo_, .text = {}, .modified = parts_.clock.now(), .until = {}};
  infoNames_[info.number] = name;
  return inodeOf(info.number, KIND_NEW_INFO);
}

void TrashFolder::create(FuseRequest request, Inode folder, std::string name, unsigned permissions, OpenMode mode,
                         bool mayExist) {
  if (isTrashName(folder, name)) return std::move(request).fail(mayExist ? EISDIR : EEXIST);
  if (!isOwn(folder)) {
    if (isFormer(folder)) return std::move(request).fail(ESTALE);
    return parts_.below->create(std::move(request), folder, std::move(name), permissions, mode, mayExist);
  }
  if (folder != INFO) return std::move(request).fail(EPERM);
  run(std::move(request), [name = std::move(name), mode, mayExist](TrashFolder& self, FuseRequest ready) {
    const auto made = self.makeInfo(name, mayExist);
    if (!made) return std::move(ready).fail(errorNumber(made.error()));
    if (mode.truncates) self.infoOf(*made)->text.clear();
    ++self.files_[*made].count;
    std::move(ready).answerCreatedFile(*self.nodeOf(*made), false);
  });
}

void TrashFolder::makeFile(FuseRequest request, Inode folder, std::string name, unsigned permissions) {
  if (isTrashName(folder, name)) return std::move(request).fail(EEXIST);
  if (!isOwn(folder)) return parts_.below->makeFile(std::move(request), folder, std::move(name), permissions);
  if (folder != INFO) return std::move(request).fail(EPERM);
  run(std::move(request), [name = std::move(name)](TrashFolder& self, FuseRequest ready) {
    const auto made = self.makeInfo(name, false);
    if (!made) return std::move(ready).fail(errorNumber(made.error()));
    self.answer(std::move(ready), *made);
  });
}

void TrashFolder::makeFolder(FuseRequest request, Inode folder, std::string name, unsigned permissions) {
  if (isTrashName(folder, name)) return std::move(request).fail(EEXIST);
  if (!isOwn(folder)) return parts_.below->makeFolder(std::move(request), folder, std::move(name), permissions);
  std::move(request).fail(folder == TOP && (name == "files" || name == "info" || name == "expunged") ? EEXIST : EPERM);
}

void TrashFolder::write(FuseRequest request, Inode inode, std::string_view data, std::int64_t offset, bool isAppend) {
  if (!isOwn(inode)) return parts_.below->write(std::move(request), inode, data, offset, isAppend);
  run(std::move(request), [inode, kept = std::string(data), offset, isAppend](TrashFolder& self, FuseRequest ready) {
    auto* info = self.infoOf(inode);
    // A program may still be writing when the item has come: what is known of that is shown.
    if (!info) return std::move(ready).answerWritten(kept.size());
    const auto place = isAppend ? info->text.size() : static_cast<std::size_t>(offset);
    if (place > MAX_INFO || kept.size() > MAX_INFO - place) return std::move(ready).fail(EFBIG);
    info->text.resize(std::max(info->text.size(), place + kept.size()));
    info->text.replace(place, kept.size(), kept);
    info->modified = self.parts_.clock.now();
    std::move(ready).answerWritten(kept.size());
  });
}

void TrashFolder::change(FuseRequest request, Inode inode, const AttributeChange& change) {
  if (!isOwn(inode)) {
    if (isFormer(inode) && !parts_.below->isOpen(inode)) return std::move(request).fail(ESTALE);
    return parts_.below->change(std::move(request), inode, change);
  }
  run(std::move(request), [inode, change](TrashFolder& self, FuseRequest ready) {
    const auto node = self.nodeOf(inode);
    if (!node) return std::move(ready).fail(ESTALE);
    auto* info = self.infoOf(inode);
    if (!info && !(node->isFolder && !self.itemOf(inode))) return std::move(ready).fail(EPERM);
    if (info && change.size) {
      if (*change.size > static_cast<std::int64_t>(MAX_INFO)) return std::move(ready).fail(EFBIG);
      info->text.resize(static_cast<std::size_t>(*change.size));
    }
    std::move(ready).answerAttributes(*self.nodeOf(inode));
  });
}

void TrashFolder::allocate(FuseRequest request, Inode inode, int mode, std::int64_t offset, std::int64_t length) {
  if (!isOwn(inode)) return parts_.below->allocate(std::move(request), inode, mode, offset, length);
  std::move(request).fail(EOPNOTSUPP);
}

void TrashFolder::readAttribute(FuseRequest request, Inode inode, std::string name, std::size_t room) {
  if (!isOwn(inode)) return parts_.below->readAttribute(std::move(request), inode, std::move(name), room);
  std::move(request).fail(ENODATA);
}

void TrashFolder::setAttribute(FuseRequest request, Inode inode, std::string name, std::optional<std::string> value,
                               int flags) {
  if (!isOwn(inode))
    return parts_.below->setAttribute(std::move(request), inode, std::move(name), std::move(value), flags);
  std::move(request).fail(EPERM);
}

void TrashFolder::sync(FuseRequest request, Inode inode) {
  if (!isOwn(inode)) return parts_.below->sync(std::move(request), inode);
  std::move(request).succeed();
}

void TrashFolder::removeInfo(FuseRequest request, const std::string& name) {
  const auto inode = find(INFO, name);
  if (!inode) return std::move(request).fail(ENOENT);
  if (const auto info = infos_.find(name); info != infos_.end()) {
    infoNames_.erase(info->second.number);
    infos_.erase(info);
  }
  std::move(request).succeed();
}

void TrashFolder::renameInfo(FuseRequest request, const std::string& name, const std::string& toName, bool mayReplace) {
  const auto from = find(INFO, name);
  if (!from) return std::move(request).fail(ENOENT);
  if (!isOfKind(*from, KIND_NEW_INFO)) return std::move(request).fail(EPERM);
  if (const auto to = find(INFO, toName); to && !mayReplace) return std::move(request).fail(EEXIST);
  auto info = std::move(infos_.extract(name).mapped());
  if (const auto replaced = infos_.find(toName); replaced != infos_.end()) infoNames_.erase(replaced->second.number);
  infoNames_[info.number] = toName;
  infos_.insert_or_assign(toName, std::move(info));
  std::move(request).succeed();
}

// The item of the name has gone from `files`: programs remove its .trashinfo next.
void TrashFolder::leaveInfo(const std::string& itemName) {
  const auto now = parts_.clock.monotonic();
  if (now >= tidyInfosAt_) tidyInfos(now);
  auto& info = infos_[withSuffix(itemName)];
  if (info.number == 0) info.number = ++lastInfo_;
  infoNames_[info.number] = withSuffix(itemName);
  info.until = now + INFO_AFTERLIFE;
}

void TrashFolder::tidyInfos(MonotonicTime now) {
  tidyInfosAt_ = now + INFO_AFTERLIFE;
  std::erase_if(infos_, [&](const auto& each) {
    const bool isOver = each.second.until && *each.second.until <= now;
    if (isOver) infoNames_.erase(each.second.number);
    return isOver;
  });
}

// Removing

void TrashFolder::removeFile(FuseRequest request, Inode folder, std::string name) {
  if (isTrashName(folder, name)) return std::move(request).fail(EISDIR);
  if (!isOwn(folder)) return parts_.below->removeFile(std::move(request), folder, std::move(name));
  run(std::move(request), [folder, name = std::move(name)](TrashFolder& self, FuseRequest ready) {
    if (folder == INFO) return self.removeInfo(std::move(ready), name);
    self.remove(std::move(ready), folder, name, false);
  });
}

void TrashFolder::removeFolder(FuseRequest request, Inode folder, std::string name) {
  if (isTrashName(folder, name)) return std::move(request).fail(EBUSY);
  if (!isOwn(folder)) return parts_.below->removeFolder(std::move(request), folder, std::move(name));
  run(std::move(request), [folder, name = std::move(name)](TrashFolder& self, FuseRequest ready) {
    self.remove(std::move(ready), folder, name, true);
  });
}

void TrashFolder::remove(FuseRequest request, Inode folder, const std::string& name, bool isFolder) {
  if (folder == TOP && find(TOP, name)) return std::move(request).fail(EBUSY);
  const auto inode = find(folder, name);
  if (!inode) return std::move(request).fail(ENOENT);
  const auto* item = itemOf(*inode);
  if (!item || item->isFolder != isFolder) return std::move(request).fail(isFolder ? ENOTDIR : EISDIR);
  const auto number = item->number;
  parts_.trash->purge(number, [self = shared_from_this(), request = std::move(request), folder,
                               name](const Result<void>& purged) mutable {
    if (!purged) return std::move(request).fail(errorNumber(purged.error()));
    if (folder == FILES) self->leaveInfo(name);
    std::move(request).succeed();
  });
}

// Moving

void TrashFolder::rename(FuseRequest request, Inode folder, std::string name, Inode toFolder, std::string toName,
                         bool mayReplace) {
  if (isTrashName(folder, name) || isTrashName(toFolder, toName)) return std::move(request).fail(EBUSY);
  const bool isFromHere = isOwn(folder), isToHere = isOwn(toFolder);
  if (!isFromHere && !isToHere)
    return parts_.below->rename(std::move(request), folder, std::move(name), toFolder, std::move(toName), mayReplace);
  if (!isFromHere) return moveIn(std::move(request), folder, std::move(name), toFolder, std::move(toName));
  run(std::move(request), [folder, name = std::move(name), toFolder, toName = std::move(toName), mayReplace, isToHere](
                              TrashFolder& self, FuseRequest ready) {
    isToHere ? self.renameWithin(std::move(ready), folder, name, toFolder, toName, mayReplace)
             : self.moveOut(std::move(ready), folder, name, toFolder, toName, mayReplace);
  });
}

void TrashFolder::renameWithin(FuseRequest request, Inode folder, const std::string& name, Inode toFolder,
                               const std::string& toName, bool mayReplace) {
  if (folder == INFO && toFolder == INFO) return renameInfo(std::move(request), name, toName, mayReplace);
  if (!holdsItems(folder) || !holdsItems(toFolder)) return std::move(request).fail(EPERM);
  const auto inode = find(folder, name);
  if (!inode) return std::move(request).fail(ENOENT);
  const auto renamed = parts_.trash->rename(numberOf(*inode), toFolder == EXPUNGED, toName);
  if (!renamed) return std::move(request).fail(errorNumber(renamed.error()));
  if (folder == FILES) leaveInfo(name);
  std::move(request).succeed();
}

// What was written of it has been read by nobody and is dropped for what is known of the item.
void TrashFolder::moveIn(FuseRequest request, Inode folder, std::string name, Inode toFolder, std::string toName) {
  if (!holdsItems(toFolder)) return std::move(request).fail(EPERM);
  if (!parts_.writable) return std::move(request).fail(EROFS);
  auto wanted = name;
  parts_.writable->whenRemovable(
      std::move(request), folder, std::move(wanted),
      [self = shared_from_this(), folder, name = std::move(name), toFolder, toName = std::move(toName)](
          FuseRequest removable, const ItemAttributes& item) mutable {
        self->run(std::move(removable), [folder, name = std::move(name), toFolder, toName = std::move(toName),
                                         inode = item.inode](TrashFolder& here, FuseRequest ready) mutable {
          here.parts_.trash->put(folder, std::move(name), toName, toFolder == EXPUNGED,
                                 [self = here.shared_from_this(), ready = std::move(ready), toFolder, toName,
                                  inode](const Result<void>& put) mutable {
                                   if (!put) return std::move(ready).fail(errorNumber(put.error()));
                                   if (const auto info = self->infos_.find(withSuffix(toName));
                                       info != self->infos_.end()) {
                                     self->infoNames_.erase(info->second.number);
                                     self->infos_.erase(info);
                                   }
                                   {
                                     MutexLock hold(self->lock_);
                                     self->former_.insert(inode);
                                     self->formerCount_ = self->former_.size();
                                   }
                                   std::move(ready).succeed();
                                   // There the kernel has the inode of the tree now.
                                   if (self->moved_)
                                     self->moved_({{ReplicaChange::Kind::entryRemoved, toFolder, toName, inode}});
                                 });
        });
      });
}

void TrashFolder::moveOut(FuseRequest request, Inode folder, const std::string& name, Inode toFolder,
                          const std::string& toName, bool mayReplace) {
  if (!holdsItems(folder)) return std::move(request).fail(EPERM);
  const auto inode = find(folder, name);
  if (!inode) return std::move(request).fail(ENOENT);
  parts_.trash->restore(numberOf(*inode), toFolder, toName, mayReplace,
                        [self = shared_from_this(), request = std::move(request), folder, name, toFolder, toName,
                         inode = *inode](const Result<void>& restored) mutable {
                          // Also when it went no further than to where it was.
                          if (folder == FILES && !self->itemOf(inode)) self->leaveInfo(name);
                          if (!restored) return std::move(request).fail(errorNumber(restored.error()));
                          std::move(request).succeed();
                          // There the kernel has the inode of the trash now.
                          if (self->moved_)
                            self->moved_({{ReplicaChange::Kind::entryRemoved, toFolder, toName, inode}});
                        });
}

}  // namespace vondle
